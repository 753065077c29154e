#!/usr/bin/env bash
# Installs the packages in clean Debian systems with apt, and uses them there: the 64-bit ones in one, the 32-bit daemon
# and biosctl with the 64-bit chassis in another. Links the daemon with a foreign platform from each -dev package. The
# base system and what apt has fetched stay in the work folder. To be run as root.
#   $1 folder with the packages   $2 work folder
#   base $2                       makes the base system only, if there is none yet
set -euo pipefail
skip() { echo "skipped: $*"; exit 77; }
[ "$(id -u)" -eq 0 ] || skip "only root can install"
command -v debootstrap >/dev/null || skip "there is no debootstrap; script/setup installs it"
[ "$1" = base ] || [ -n "$(ls "$1"/*.deb 2>/dev/null)" ] || skip "there are no packages; script/package makes them"
here=$(cd "$(dirname "$0")" && pwd)
source=$(cd "$here/../.." && pwd)
[ "$1" = base ] || packages=$(cd "$1" && pwd)
mkdir -p "$2"
work=$(cd "$2" && pwd)

# From where this machine gets its own packages; the main archive only.
read -r mirror release < <(apt-get indextargets --format '$(REPO_URI) $(RELEASE)' \
    'Created-By: Packages' 'Component: main' 'Origin: Debian')

# Whether the base system can be fetched at all.
reach_mirror() {
    local file
    file=$(mktemp)
    /usr/lib/apt/apt-helper -o Acquire::Retries=2 download-file "${mirror%/}/dists/$release/Release" "$file" >/dev/null 2>&1
    local status=$?
    rm -f "$file"
    return $status
}

# Debian's minimal system; it knows the 32-bit packages, and has python3 for the sessions of the documents.
make_base() {
    rm -rf "$work/base" "$work/base.tar.new"
    debootstrap --variant=minbase --include=python3-minimal,libpython3-stdlib "$release" "$work/base" "$mirror"
    echo "deb $mirror $release main" >"$work/base/etc/apt/sources.list"
    chroot "$work/base" dpkg --add-architecture i386
    chroot "$work/base" apt-get -q update
    rm -rf "$work"/base/var/cache/apt/archives/*.deb
    tar -C "$work/base" -cf "$work/base.tar.new" .
    rm -rf "$work/base"
    mv "$work/base.tar.new" "$work/base.tar"
}

fresh_system() { # name: the base system in a folder of this name, with the packages and the tests
    local root=$work/$1
    rm -rf "$root"
    mkdir -p "$root/test" "$work/archives-$1/partial"
    tar -C "$root" -xf "$work/base.tar"
    cp "$packages"/*.deb "$here"/in_*.sh "$source/test/docs/run_sessions.py" "$source/README.md" "$source/doc/operating.md" \
        "$root/test"
}

# Runs a command in such a system. Nothing of it outlives the command: mounts and processes end with their namespaces.
in_system() { # name, command
    # shellcheck disable=SC2016
    unshare --mount --pid --fork --kill-child bash -euc '
        root=$1 archives=$2
        shift 2
        mount --bind "$root" "$root"
        mount --bind "$archives" "$root/var/cache/apt/archives"
        mount -t proc proc "$root/proc"
        exec chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
            DEBIAN_FRONTEND=noninteractive \
            ${http_proxy:+http_proxy="$http_proxy"} "$@"
    ' bash "$work/$1" "$work/archives-$1" "${@:2}"
}

use_packages() { # architecture of the daemon
    fresh_system "$1"
    in_system "$1" bash /test/in_clean_system.sh "$1"
    rm -rf "${work:?}/$1"
}

# The service under a systemd of its own, which gets a control group below that of this test.
use_service() {
    local groups
    groups=$(findmnt --noheadings --first-only --output TARGET --types cgroup2) ||
        { echo "clean system: the service was not tried: there are no control groups"; return; }
    fresh_system service
    in_system service bash /test/in_service.sh prepare
    local group=$groups/bios-daemon-test.$$
    mkdir "$group"
    # shellcheck disable=SC2016
    timeout 120 bash -euc 'echo $$ >"$1/cgroup.procs"; shift; exec "$@"' bash "$group" \
        unshare --mount --pid --cgroup --ipc --uts --fork --kill-child bash -euc '
        mount --bind "$1" "$1"
        mount -t proc proc "$1/proc"
        mount -t sysfs -o ro sysfs "$1/sys"
        mount -t tmpfs tmpfs "$1/run"
        mount -t cgroup2 cgroup2 "$1/sys/fs/cgroup"
        exec chroot "$1" /usr/bin/env -i container=other /lib/systemd/systemd --log-target=console \
            --unit=in_service.service
    ' bash "$work/service" || true
    find "$group" -depth -type d -exec rmdir {} +
    cat "$work/service/test/service.log"
    grep -q '^clean system: the service ' "$work/service/test/service.log"
    rm -rf "$work/service"
}

# The project of doc/packages.md with the package's examples, a platform in which every call fails and surroundings
# that have nothing: the daemon ends with 0x40710010, and the kit passes a promise of failure and finds a broken one.
link_platform() { # architecture, folder of the libraries, flags
    local place=$work/dev-$1
    rm -rf "$place"
    mkdir -p "$place"
    dpkg-deb -x "$packages"/bios-daemon-dev_*_"$1".deb "$place/root"
    cp "$place"/root/usr/share/doc/bios-daemon-dev/examples/{platform,surroundings}.c "$place"
    sed -n '/^    cmake_minimum_required/,/^    add_platform_contract/s/^    //p' "$source/doc/packages.md" \
        >"$place/CMakeLists.txt"
    CFLAGS=$3 CXXFLAGS=$3 cmake -S "$place" -B "$place/build" \
        -Dbios_daemon_DIR="$place/root/usr/lib/$2/cmake/bios_daemon"
    cmake --build "$place/build"
    local status=0
    "$place/build/switch_daemon" || status=$?
    [ "$status" -eq 16 ] || { echo "the linked daemon ended with $status"; return 1; }
    "$place/build/switch_contract" --gtest_filter='SrgFileClone.GivesAnError*' | tail -1 | grep -F 'PASSED  ] 1 test.'
    status=0
    "$place/build/switch_contract" --gtest_filter='GetPlatformInfo.*' || status=$?
    [ "$status" -eq 1 ] || { echo "the kit ended with $status"; return 1; }
    rm -rf "$place"
}

# In a subshell, where a failure ends it: elsewhere bash goes on after one. Shows the output when there is one.
tell_failure() { [ "$1" -eq 0 ] || { echo "$name failed:"; tail -60 "$log"; }; }
in_subshell() { # name, command
    name=$1 log=$work/$1.log
    trap 'tell_failure $?' EXIT
    "${@:2}" >"$log" 2>&1
    grep '^clean system: ' "$log" || echo "$name: done"
}

begin=$SECONDS
# One at a time: script/test has the base made while it builds.
exec 9>"$work/lock"
flock 9
if [ ! -e "$work/base.tar" ]; then
    reach_mirror || skip "no Debian mirror can be reached"
    (in_subshell base make_base 9>&-)
fi
exec 9>&-
[ "$1" != base ] || exit 0
failed=0
processes=()
in_subshell system-amd64 use_packages amd64 & processes+=($!)
in_subshell system-i386 use_packages i386 & processes+=($!)
in_subshell service use_service & processes+=($!)
in_subshell link-amd64 link_platform amd64 x86_64-linux-gnu "" & processes+=($!)
in_subshell link-i386 link_platform i386 i386-linux-gnu -m32 & processes+=($!)
for process in "${processes[@]}"; do wait "$process" || failed=1; done
echo "$((SECONDS - begin)) s"
exit "$failed"
