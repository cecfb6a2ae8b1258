#!/usr/bin/env bash
# The Debian package from end to end, as root, in a clean Debian 12 chroot made with
# debootstrap: build the package (its declared build dependencies only), check it with lintian,
# install it with apt, start vantor-preferences as a new user, have vantorctl compress a folder
# on a loop-mounted btrfs, then remove the package and list what is left.
# Slow (a quarter of an hour); not part of CI. Everything it makes goes under one work folder,
# removed at the end unless VANTOR_E2E_KEEP=1.
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
[ "$(id -u)" -eq 0 ] || { echo "package-e2e.sh: run as root (debootstrap, chroot, loop devices)" >&2; exit 2; }

# The tools for this script alone, on this machine.
tools=(debootstrap btrfs-progs btrfs-compsize)
missing=()
for p in "${tools[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
# What the chroot installs to build and check the package; its build dependencies come from
# debian/control alone.
chroot_tools=(dpkg-dev debhelper lintian appstream desktop-file-utils man-db)

# This machine's Debian mirror, so the chroot reaches what apt reaches here.
sources=/etc/apt/sources.list.d/debian.sources
mirror=$(awk '/^URIs:/ { print $2; exit }' "$sources" 2>/dev/null || true)
[ -n "$mirror" ] || { echo "package-e2e.sh: no Debian mirror in $sources" >&2; exit 1; }

work=$(mktemp -d /var/tmp/vantor-e2e.XXXXXX)
root="$work/root"
cache="${VANTOR_E2E_CACHE:-$repo/build/e2e-cache}"
user=vantoruser
loop=""
mounts=()

# The processes left running inside the chroot (a helper outlives its session's bus), by id.
chroot_processes() {
    local p
    for p in /proc/[0-9]*; do
        [ "$(readlink "$p/root" 2>/dev/null)" = "$root" ] && echo "${p#/proc/}"
    done
    return 0
}
stop_chroot_processes() {
    local pids
    pids=$(chroot_processes)
    [ -n "$pids" ] || return 0
    ps -o pid=,user=,args= -p "$(echo $pids | tr ' ' ,)" | sed 's/^/still running: /'
    kill $pids 2>/dev/null
    sleep 2
    pids=$(chroot_processes)
    [ -z "$pids" ] || kill -9 $pids 2>/dev/null
}

cleanup() {
    set +e
    stop_chroot_processes
    for ((i = ${#mounts[@]} - 1; i >= 0; i--)); do
        umount -l "${mounts[$i]}" 2>/dev/null
    done
    [ -n "$loop" ] && losetup -d "$loop"
    if [ "${VANTOR_E2E_KEEP:-0}" = 1 ]; then
        echo "kept $work"
    else
        rm -rf --one-file-system "$work"
    fi
}
trap cleanup EXIT

step() { printf '\n=== %s\n' "$*"; }
in_root() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
                DEBIAN_FRONTEND=noninteractive "$@"; }
# A login of the new user running the script on standard input: its own home, a private
# session bus, no display.
as_user() {
    cat >"$root/tmp/as-user.sh"
    chmod 0644 "$root/tmp/as-user.sh"
    chroot "$root" runuser -l "$user" -c 'QT_QPA_PLATFORM=offscreen dbus-run-session -- sh /tmp/as-user.sh'
}
bind() { mkdir -p "$2"; mount --bind "$1" "$2"; mounts+=("$2"); }

step "debootstrap Debian 12 into $root"
mkdir -p "$cache"
debootstrap --variant=minbase --cache-dir="$cache" bookworm "$root" "$mirror" >"$work/debootstrap.log" 2>&1 \
    || { tail -20 "$work/debootstrap.log"; exit 1; }
cp "$sources" "$root/etc/apt/sources.list.d/debian.sources"
: >"$root/etc/apt/sources.list"
mount -t proc proc "$root/proc"; mounts+=("$root/proc")
bind /dev "$root/dev"
bind /dev/pts "$root/dev/pts"
mount -t sysfs sysfs "$root/sys"; mounts+=("$root/sys")
bind "$cache" "$root/var/cache/apt/archives"
in_root apt-get update -qq

step "build the package"
mkdir -p "$root/build/vantor"
git -C "$repo" ls-files -z | (cd "$repo" && tar --null -T - -cf -) | tar -xf - -C "$root/build/vantor"
in_root apt-get install -y -qq --no-install-recommends "${chroot_tools[@]}" >/dev/null
in_root apt-get build-dep -y -qq ./build/vantor >/dev/null
if ! in_root sh -c 'cd /build/vantor && dpkg-buildpackage -b -us -uc' >"$work/build.log" 2>&1; then
    tail -40 "$work/build.log"
    exit 1
fi
grep -E '^dpkg-deb: building' "$work/build.log"
deb=$(cd "$root/build" && ls vantor_*_amd64.deb)

step "lintian $deb"
status=0
in_root lintian --info --display-info "/build/$deb" || status=$?
echo "(lintian exit status $status; E: lines are errors)"

step "apt install ./$deb"
# dbus-daemon for the user's session bus; recommends stay out so only what the package
# needs comes in.
in_root apt-get install -y -qq --no-install-recommends "/build/$deb" dbus-daemon btrfs-compsize >/dev/null
in_root dpkg -L vantor | sort >"$work/files"
in_root sh -c 'dpkg -L vantor | while read -r f; do [ -f "$f" ] && [ ! -L "$f" ] && echo "$f"; done | xargs stat -c "%a %U %n"' \
    | grep -Ev '/usr/share/doc/' | sort -k3
helper=/usr/lib/vantor/Vantor.prefPane/Contents/Resources/VantorHelper.app/Contents/MacOS/VantorHelper
[ "$(stat -c %a "$root$helper")" = 755 ] || { echo "FAIL: the helper is not mode 0755"; exit 1; }
in_root desktop-file-validate /usr/share/applications/vantor-preferences.desktop
in_root appstreamcli validate --no-net /usr/share/metainfo/com.quillfen.vantor.metainfo.xml

step "the menu entry's command with --screenshot, as a new user"
in_root useradd -m -s /bin/sh "$user"
as_user <<'EOF'
command=$(sed -n 's/^Exec=//p' /usr/share/applications/vantor-preferences.desktop)
echo "+ $command --screenshot $HOME/vantor.png"
$command --screenshot "$HOME/vantor.png"
echo "exit status $?"
EOF
file "$root/home/$user/vantor.png" 2>/dev/null || ls -l "$root/home/$user/vantor.png"
# The session ends as a logout ends it: what it started goes with it.
stop_chroot_processes
echo "the user's files after the first start:"
(cd "$root/home/$user" && find . -mindepth 1 | sort)
if ! grep -q '"/usr/bin/vantor-login-items"' "$root/home/$user/.config/autostart/vantor-login-items.desktop"; then
    echo "FAIL: no autostart entry for /usr/bin/vantor-login-items"; exit 1
fi
in_root desktop-file-validate "/home/$user/.config/autostart/vantor-login-items.desktop"

step "a folder on btrfs"
truncate -s 1G "$work/btrfs.img"
mkfs.btrfs -q "$work/btrfs.img"
loop=$(losetup -f --show "$work/btrfs.img")
mkdir -p "$root/mnt/btrfs"
mount "$loop" "$root/mnt/btrfs"; mounts+=("$root/mnt/btrfs")
folder=/mnt/btrfs/Documents
mkdir -p "$root$folder"
# Text compresses well and gives a figure compsize can confirm.
for i in $(seq 1 40); do
    cp "$root/usr/share/man/man1/vantor-preferences.1.gz" "$root$folder/page-$i.1.gz"
    in_root sh -c 'zcat /usr/share/man/man1/vantor*.gz; cat /usr/share/common-licenses/*' >"$root$folder/notes-$i.txt"
done
in_root chown -R "$user:" "$folder"
du -sh --apparent-size "$root$folder"

failed=0
if in_root sh -c 'command -v vantorctl' >/dev/null; then
    step "vantorctl as $user"
    as_user <<EOF || failed=1
set -x
vantorctl on || exit 1
# "on" starts the helper without waiting for it to reach the bus.
for i in \$(seq 1 30); do
    vantorctl status --json | tr -d '[:space:]' | grep -q '"helperRunning":true' && break
    sleep 1
done
vantorctl add $folder || exit 1
for i in \$(seq 1 120); do
    vantorctl list --json | tr -d '[:space:]' | grep -q '"status":100' && break
    sleep 1
done
vantorctl list --json | tee "\$HOME/list.json"
vantorctl list
vantorctl status --json
vantorctl status
EOF
    # Written data reaches its extents, which compsize reads, only once flushed.
    btrfs filesystem sync "$root/mnt/btrfs"
    compsize "$root$folder" || true
    # The figure vantorctl shows against what is on disk, by a tool we did not write.
    measured=$(compsize -b "$root$folder" | awk '$1 == "TOTAL" { print $4 - $3 }' || true)
    python3 - "$root/home/$user/list.json" "$folder" "$measured" <<'EOF' || failed=1
import json, sys
listing, folder, measured = json.load(open(sys.argv[1])), sys.argv[2], int(sys.argv[3])
row = next(r for r in listing["folders"] if r["path"] == folder)
print(f"{folder}: status {row['status']}, savings {row['savings']} bytes; compsize: {measured} bytes saved")
sys.exit(0 if row["status"] == 100 and row["savings"] > 0 else 1)
EOF
else
    step "vantorctl is not in this package yet: skipping add and list"
fi

step "apt remove vantor"
stop_chroot_processes
in_root apt-get remove -y -qq vantor >/dev/null
if record=$(in_root dpkg-query -W -f='${db:Status-Abbrev} ${Package}' vantor 2>/dev/null); then
    echo "dpkg still records: $record"
else
    echo "dpkg no longer knows vantor: no conffile keeps it"
fi
left=0
while read -r f; do
    [ "$f" = /. ] && continue
    if [ -e "$root$f" ] && ! in_root dpkg -S "$f" >/dev/null 2>&1; then
        echo "left behind: $f"
        left=1
    fi
done <"$work/files"
# Anything else named after the product outside the homes, the build and the test mount.
while read -r f; do
    echo "left behind (not in the package's list): ${f#"$root"}"
    left=1
done < <(find "$root" -xdev \( -path "$root/home" -o -path "$root/build" -o -path "$root/mnt" -o -path "$root/tmp" \) -prune \
              -o -iname '*vantor*' -print)
[ "$left" = 0 ] && echo "no file of the package is left"
echo "$user's files, which stay:"
(cd "$root/home/$user" && find . -mindepth 1 -type f | sort)
[ "$left" = 0 ] && [ "$failed" = 0 ]
