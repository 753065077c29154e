#!/usr/bin/env bash
# Runs in the clean system: installs the packages in /test and uses them.
#   $1 architecture of the daemon and of biosctl; the chassis is always this machine's
set -euo pipefail
architecture=$1
cd /test

fail() { echo "failed: $*"; exit 1; }
equal() { [ "$1" = "$2" ] || fail "$3: is '$1' and not '$2'"; }
count=0
passed() { count=$((count + 1)); }

install() {
    apt-get -qy --no-install-recommends install ./bios-daemon_*_"$architecture".deb ./biosctl_*_"$architecture".deb \
        ./bios-daemon-dev_*_"$architecture".deb ./bios-daemon-chassis_*.deb
}
# The lists may be older than what the archive has.
install || { apt-get -q update && install; }
dpkg --audit
apt-get check
passed

# The programs are of the architecture that was asked for, and start.
class=2
[ "$architecture" = amd64 ] || class=1
for program in /usr/sbin/bios_daemon /usr/sbin/bios_agent /usr/bin/biosctl; do
    equal "$(od -An -tu1 -j4 -N1 "$program" | tr -d ' ')" "$class" "word size of $program"
done
biosctl --version | grep -qx 'biosctl [0-9]*\.[0-9]*\.[0-9]*' || fail "biosctl --version"
biosctl --help | grep -q '^  program ' || fail "biosctl --help"
chassis families | grep -q x86n || fail "chassis families"
bios_image --help | grep -q '^  build ' || fail "bios_image --help"
bios_image keygen --secret maker.key --public maker.pub >/dev/null || fail "bios_image keygen"
passed

for page in man8/bios_daemon.8 man8/bios_agent.8 man1/biosctl.1 man1/chassis.1 man1/bios_image.1 man5/chassis-description.5; do
    gzip -dc "/usr/share/man/$page.gz" | grep -q '^\.SH NAME' || fail "$page is no manual page"
done
for package in bios-daemon biosctl bios-daemon-chassis bios-daemon-dev; do
    grep -q 'Permission is hereby granted' "/usr/share/doc/$package/copyright" || fail "licence of $package"
done
for package in bios-daemon bios-daemon-chassis; do # which have it linked in
    grep -q '^libsodium' "/usr/share/doc/$package/copyright" || fail "licence of libsodium in $package"
done
passed

# shellcheck disable=SC1091
source /usr/share/bash-completion/completions/biosctl
COMP_WORDS=(biosctl prog) COMP_CWORD=1
_biosctl
equal "${COMPREPLY[*]}" program "completion of prog"
passed

# The service's command without a platform: it says what it misses, and ends.
command=$(sed -n 's/^ExecStart=//p' /lib/systemd/system/bios-daemon.service)
equal "$command" /usr/sbin/bios_daemon "the service's command"
mkdir -p /bootflash /mnt/pss
status=0
"$command" >service.log 2>&1 || status=$?
equal "$status" 1 "end of the service's command without a platform"
grep -q 'getting platform info' service.log || fail "what the daemon misses: $(cat service.log)"
passed

# The same within a chassis directory, as /etc/default/bios-daemon describes it: this machine is the card.
bios_image build --output old.bin --size 1 --version 3.1 --date 02/11/11
bios_image build --output new.bin --size 1 --version 3.5 --date 09/17/12
printf '[[card]]\nslot = 1\ncard_id = 90\nkind = "supervisor"\nrole = "active"\nflash_mib = 1\nflash_image = "old.bin"\n' \
    >card.toml
mkdir -p /vesk/sbin /var/lib/bios-daemon
bios_image tree --root / --bios bios-x86n.bin.gz=new.bin
chassis --dir /var/lib/bios-daemon/chassis init card.toml
export CHASSIS_DIR=/var/lib/bios-daemon/chassis
CHASSIS_SLOT=1 "$command" >service.log 2>&1 &
service=$!
CHASSIS_SLOT=1 /usr/sbin/bios_agent &
agent=$!
for ((tenth = 0; tenth < 200; tenth++)); do
    ! grep -q 'infinite-loop' service.log || break
    sleep 0.1
done
biosctl show --json >show.json || fail "$(cat show.json service.log)"
verdict=$(python3 -c 'import json; print(json.load(open("show.json"))["cards"][0]["flashes"][0]["verdict"])')
equal "$verdict" "update available" "verdict on the card"
kill "$service" "$agent"
unset CHASSIS_DIR
passed

# The card of a chassis runs the installed daemon, and has namespaces of its own.
chassis --dir lab init card.toml
chassis --dir lab up
equal "$(od -An -tu1 -j4 -N1 lab/slots/1/root/vesk/sbin/bios_daemon | tr -d ' ')" "$class" "word size in the card"
equal "$(cat lab/slots/1/isolation)" mount "isolation"
chassis --dir lab down
passed

# A chassis, as the README shows it.
python3 run_sessions.py /usr/bin README.md --section "A chassis of your own"
# From "is it in step?" to "a card failed half-way", as the operator's guide shows it; once is enough.
[ "$architecture" = amd64 ] || python3 run_sessions.py /usr/bin operating.md
passed

# Nothing stays behind.
owned=$(dpkg -L bios-daemon biosctl bios-daemon-chassis bios-daemon-dev | grep -i 'bios\|chassis\|module_standin')
[ "$(wc -l <<<"$owned")" -gt 30 ] || fail "the packages own: $owned"
apt-get -qy purge bios-daemon biosctl bios-daemon-chassis bios-daemon-dev
for file in $owned; do
    [ ! -e "$file" ] && [ ! -L "$file" ] || fail "$file stays after the removal"
done
passed
echo "clean system: $architecture daemon: $count checks passed"
