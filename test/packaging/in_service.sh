#!/usr/bin/env bash
# Runs in a clean system that systemd has brought up: bios-daemon.service, with all that protects it, does its work.
#   prepare  before that, in the system's root: makes the card, of which the service is the daemon
#   use      by systemd, as /test/in_service.service; its output is /test/service.log
set -euo pipefail
cd /test

fail() { echo "failed: $*"; exit 1; }

# The packages of the test, and systemd. The boot-loader partition is a folder here, and no file system of its own.
prepare() {
    install() {
        apt-get -qy --no-install-recommends install systemd ./bios-daemon_*_i386.deb ./biosctl_*_i386.deb \
            ./bios-daemon-chassis_*.deb
    }
    install || { apt-get -q update && install; }
    mkdir -p /bootflash /mnt/pss /mnt/bootloader /var/lib/bootloader /var/lib/bios-daemon /vesk/sbin
    cp /usr/lib/bios-daemon/{veskadd,nbitool,init-system} /vesk/sbin
    bios_image build --output old.bin --size 1 --version 3.1 --date 02/11/11
    bios_image build --output new.bin --size 1 --version 3.5 --date 09/17/12
    bios_image loader --output loader.sro --version 1.8.0
    bios_image tree --root / --bios bios-x86n.bin.gz=new.bin
    bios_image system --output /bootflash/system.bin --bios bios-x86n.bin.gz=new.bin --loader loader.sro
    printf '[[card]]\nslot = 1\ncard_id = 90\nkind = "supervisor"\nrole = "active"\nflash_mib = 1\nflash_image = "old.bin"\n' \
        >card.toml
    chassis --dir /var/lib/bios-daemon/chassis init card.toml
    printf 'CHASSIS_DIR=/var/lib/bios-daemon/chassis\nCHASSIS_SLOT=1\n' >/etc/default/bios-daemon
    echo '/var/lib/bootloader /mnt/bootloader none bind,noauto,nosuid,nodev,noexec 0 0' >/etc/fstab
    mkdir -p /etc/systemd/system/bios-daemon.service.d
    printf '[Service]\nReadWritePaths=/var/lib/bootloader\n' >/etc/systemd/system/bios-daemon.service.d/loader.conf
    printf '[Unit]\nWants=bios-daemon.service\nAfter=bios-daemon.service\n[Service]\nType=oneshot\nExecStart=/bin/bash /test/in_service.sh use\nExecStopPost=/bin/systemctl exit\n' \
        >/etc/systemd/system/in_service.service
}

daemon_process() { systemctl show --property MainPID --value bios-daemon; }

wait_for() { # what, command: 20 seconds at most
    local tenth
    for ((tenth = 0; tenth < 200; tenth++)); do
        ! "${@:2}" >/dev/null 2>&1 || return 0
        sleep 0.1
    done
    fail "$1"
}
serves() { biosctl show | grep 'v3'; }
has_child() { pgrep -P "$(daemon_process)" bios_daemon; }
is_gone() { ! kill -0 "$1"; }
is_another() { [ "$(daemon_process)" != "$1" ] && [ "$(daemon_process)" != 0 ]; }

use() {
    export CHASSIS_DIR=/var/lib/bios-daemon/chassis
    local flash=$CHASSIS_DIR/slots/1/flash/primary
    wait_for "the service serves" serves
    grep -q '^NoNewPrivs:.*1' "/proc/$(daemon_process)/status" || fail "the daemon is not protected"

    # A stop in the middle of a programming lets it come to its end.
    biosctl program 1 >program.log 2>&1 &
    local programming=$!
    wait_for "a child programs" has_child
    systemctl stop bios-daemon
    cmp "$flash/data" new.bin || fail "the stop cut the programming off"
    [ ! -e "$flash/programming" ] || fail "the flash is marked"
    wait "$programming" || fail "programming: $(cat program.log)"

    # Mounts: those of the image on a memory file system, and that of the partition.
    systemctl start bios-daemon
    wait_for "the service serves again" serves
    biosctl loader install bootflash:system.bin || fail "boot loader: $(cat /tmp/install_loader.log)"
    cmp /var/lib/bootloader/srg-sloader.sro loader.sro || fail "another boot loader is installed"

    # A daemon that was killed has a successor, and its child finishes its work.
    local before child
    cp old.bin "$flash/data"
    before=$(daemon_process)
    biosctl program 1 >program.log 2>&1 &
    wait_for "a child programs" has_child
    child=$(has_child)
    kill -9 "$before"
    wait_for "another daemon" is_another "$before"
    wait_for "the other daemon serves" serves
    wait_for "the end of the child" is_gone "$child"
    cmp "$flash/data" new.bin || fail "the child went with its daemon"
    echo "clean system: the service programs, mounts, stops and restarts"
}

case $1 in
prepare) prepare ;;
use) use >service.log 2>&1 ;;
esac
