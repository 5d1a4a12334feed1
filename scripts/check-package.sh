#!/usr/bin/env bash
# Builds the Debian package and checks it as an administrator would, on a bare Debian 12 root:
# install with every dependency, a new user converts a document, an upgrade keeps the user's
# data, remove and purge leave nothing of the package; lintian finds no error. Prints one line
# per check and ends with "N passed, M failed" (exit 1 when a check failed). Run as root; it
# takes minutes. The bare root is cached in /var/cache/vantu-tarn-check.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
  echo "usage: scripts/check-package.sh [--keep]"
  echo "  --keep   leave the Debian root in /var/tmp for a look afterwards"
}
keep=0
case "${1:-}" in
  -h|--help) usage; exit 0 ;;
  --keep) keep=1 ;;
  "") ;;
  *) echo "check-package: unknown argument '$1'" >&2; usage >&2; exit 2 ;;
esac
if [ "$(id -u)" -ne 0 ]; then
  echo "check-package: run as root (it builds a Debian root with chroot)" >&2
  exit 2
fi
# Mounts made here vanish with this private mount namespace, whatever way the script ends.
if [ -z "${TARN_CHECK_NS:-}" ]; then
  exec env TARN_CHECK_NS=1 unshare --mount --propagation private "$0" "$@"
fi

scripts/install-deps.sh package

cache=/var/cache/vantu-tarn-check
work=$(mktemp -d /var/tmp/vantu-tarn-check.XXXXXX)
root=$work/root
ns=vantu-tarn-check-$$
user=alice
passed=0
failed=0

check() {  # check DESCRIPTION COMMAND...
  local what=$1
  shift
  if "$@" >>"$work/checks.log" 2>&1; then
    printf 'ok    %s\n' "$what"
    passed=$((passed + 1))
  else
    printf 'FAIL  %s (see %s)\n' "$what" "$work/checks.log"
    failed=$((failed + 1))
  fi
}
note() { printf '      %s\n' "$*"; }

# Every process whose root is the Debian root was started by this script.
end_chroot_processes() {
  local pid
  for pid in $(ls /proc | grep -E '^[0-9]+$'); do
    if [ "$(readlink "/proc/$pid/root" 2>/dev/null)" = "$root" ]; then kill -9 "$pid" 2>/dev/null || true; fi
  done
}
cleanup() {
  end_chroot_processes
  ip netns del "$ns" 2>/dev/null || true
  if [ "$keep" = 1 ]; then echo "check-package: the Debian root stays in $root"; return; fi
  local m
  for m in var/cache/apt/archives proc dev; do
    umount -R "$root/$m" 2>/dev/null || umount -lR "$root/$m" 2>/dev/null || true
  done
  # The package cache is mounted in the root: never delete through a mount that stayed.
  if grep -qF " $root/" /proc/self/mounts; then
    echo "check-package: $root still has mounts; left in place" >&2
    return
  fi
  rm -rf "$work"
}
trap cleanup EXIT

# --- The package, built twice: the same commit gives the same bytes. ---------------------
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
export SOURCE_DATE_EPOCH
generator=()
if command -v ninja >/dev/null; then generator=(-G Ninja); fi
if command -v ccache >/dev/null; then generator+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
build_package() {  # build_package FOLDER RELEASE
  cmake -S . -B "$1" "${generator[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DTARN_BUILD_TESTS=OFF -DTARN_BUILD_BENCH=OFF -DTARN_DEB_RELEASE="$2" >"$work/build.log" 2>&1
  cmake --build "$1" --parallel "$(nproc)" --target package >>"$work/build.log" 2>&1
}
echo "check-package: building the package (log: $work/build.log)"
build_package build-package 2
cp build-package/vantu-tarn_5.0.0-2_amd64.deb "$work/"
build_package build-package 1
deb=vantu-tarn_5.0.0-1_amd64.deb
cp "build-package/$deb" "$work/"
cmake --build build-package --target clean >>"$work/build.log" 2>&1
build_package build-package 1
check "a build from clean of the same commit gives the same package" \
  cmp "$work/$deb" "build-package/$deb"
note "$deb: $(stat -c %s "$work/$deb") bytes, Installed-Size $(dpkg-deb -f "$work/$deb" Installed-Size) KiB"
note "Depends: $(dpkg-deb -f "$work/$deb" Depends)"

lintian_out=$(lintian --tag-display-limit 0 "$work/$deb" 2>&1 || true)
check "lintian reports no error" sh -c '! printf "%s\n" "$1" | grep -q "^E:"' sh "$lintian_out"
printf '%s\n' "$lintian_out" | grep -E '^[EW]:' | sed 's/^/      lintian: /' || true

contents=$(dpkg-deb -c "$work/$deb" | awk '{print $6}')
has() { printf '%s\n' "$contents" | grep -qx "$1"; }
check "the package holds the install folder, the user unit and the autostart entry" sh -c '
  for f in ./opt/vantu/tarn/tarngateway ./opt/vantu/tarn/tarnctl ./opt/vantu/tarn/Build.id \
           ./opt/vantu/tarn/dms_local.so ./opt/vantu/tarn/www-data/index.html \
           ./usr/lib/systemd/user/tarngateway.service ./etc/xdg/autostart/tarngateway.desktop; do
    printf "%s\n" "$1" | grep -qx "$f" || { echo "missing: $f"; exit 1; }
  done' sh "$contents"

# --- A bare Debian 12 root. ------------------------------------------------------------------
mkdir -p "$cache/archives/partial"
if [ ! -f "$cache/bookworm-minbase.tar" ]; then
  echo "check-package: making a bare Debian 12 root (once; cached in $cache)"
  mmdebstrap --variant=minbase bookworm "$cache/bookworm-minbase.tar.part" \
    "deb http://deb.debian.org/debian bookworm main" \
    "deb http://deb.debian.org/debian bookworm-updates main" \
    "deb http://deb.debian.org/debian-security bookworm-security main" >"$work/mmdebstrap.log" 2>&1
  mv "$cache/bookworm-minbase.tar.part" "$cache/bookworm-minbase.tar"
fi
mkdir "$root"
tar -C "$root" -xf "$cache/bookworm-minbase.tar"
cp /etc/resolv.conf "$root/etc/resolv.conf"
# An installed Debian names localhost here (the installer writes it); a bare root doesn't.
printf '127.0.0.1\tlocalhost\n::1\tlocalhost ip6-localhost ip6-loopback\n' >"$root/etc/hosts"
mount -t proc proc "$root/proc"
mount --rbind /dev "$root/dev"
mount --bind "$cache/archives" "$root/var/cache/apt/archives"
cp "$work"/vantu-tarn_*.deb "$root/tmp/"

in_root() { chroot "$root" "$@"; }
apt_in_root() { in_root env DEBIAN_FRONTEND=noninteractive apt-get -q -y "$@"; }

echo "check-package: installing the package and what it needs"
apt_in_root update >"$work/apt.log" 2>&1
install_deb() { apt_in_root install --no-install-recommends "/tmp/$deb" >"$work/install.log" 2>&1; }
check "apt-get install pulls every dependency" install_deb
installed_at=$(date +%s.%N)
note "apt-get: $(grep -E '^[0-9]+ upgraded, [0-9]+ newly installed' "$work/install.log")"
note "apt-get: $(grep -E '^(Need to get|After this operation)' "$work/install.log" | tr '\n' ' ')"

# From here every process in the root runs in a network namespace of its own.
ip netns add "$ns"
ip -n "$ns" link set lo up
in_net() { ip netns exec "$ns" chroot "$root" "$@"; }
as_user() { in_net setpriv --reuid="$user" --regid="$user" --init-groups --reset-env "$@"; }
tarnctl() { as_user /opt/vantu/tarn/tarnctl "$@"; }
home=$root/home/$user

in_net /opt/vantu/tarn/tarnctl reg query 'HKLM\Software\Vantu\PDF\V1' /v InstallPath \
  >"$work/query.txt" 2>&1 || true
check "the machine store names the install folder" grep -q "/opt/vantu/tarn/" "$work/query.txt"
check "the user unit is on for every user" \
  test -L "$root/etc/systemd/user/graphical-session.target.wants/tarngateway.service"
check "LibreOffice's shared extension cache is readable by every user" \
  sh -c '[ "$(stat -c %a "$1")" = 755 ]' sh "$root/var/spool/libreoffice/uno_packages/cache/uno_packages"

gateway_pid=
start_gateway() {  # the unit's command, as the new user at the first login
  local exec_start
  exec_start=$(sed -n 's/^ExecStart=//p' "$root/usr/lib/systemd/user/tarngateway.service")
  as_user env TARN_TRACE=85 "$exec_start" >>"$work/gateway.log" 2>&1 &
  gateway_pid=$!
}
wait_for_gateway() {
  local i
  for i in $(seq 1 300); do
    if tarnctl call get_version 2>/dev/null | grep -q "Vantu Tarn (version 5.0)"; then return 0; fi
    sleep 0.1
  done
  return 1
}
stop_gateway() {
  if [ -n "$gateway_pid" ]; then kill "$gateway_pid" 2>/dev/null || true; wait "$gateway_pid" || true; fi
  gateway_pid=
}

in_root useradd --create-home --shell /bin/sh "$user"
started_at=$(date +%s.%N)
start_gateway
check "the gateway started as $user answers get_version on port 9090" wait_for_gateway
answered_at=$(date +%s.%N)
seconds() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a - b }'; }
note "gateway answering $(seconds "$answered_at" "$started_at") s after its start," \
  "$(seconds "$answered_at" "$installed_at") s after apt-get install ended"

# A document with a word of its own, converted through the assistant into ~/Documents/Tarn PDF.
word="Tarnpackagecheck$$"
printf 'Offer\n%s\n' "$word" >"$home/offer.txt"
in_root chown "$user:$user" "/home/$user/offer.txt"
# One document, one office: the office ends after it, so nothing stays running.
tarnctl reg add 'HKCU\Software\Vantu\PDF\V1\TarnPrint' /v OfficeIdleSeconds /t REG_DWORD /d 0 /f \
  >>"$work/checks.log" 2>&1 || true
ref=$(tarnctl dms import "/home/$user/offer.txt" 2>>"$work/checks.log" | tail -1) || true
check "tarnctl dms import stores the document" test -n "$ref"
tarnctl call send_command --cmd CONVERT_WITH_ASSISTANT "$ref" >>"$work/checks.log" 2>&1 || true
pdf_there() {
  local i
  for i in $(seq 1 600); do
    if [ -s "$home/Documents/Tarn PDF/offer.pdf" ]; then return 0; fi
    sleep 0.5
  done
  return 1
}
check "CONVERT_WITH_ASSISTANT leaves ~/Documents/Tarn PDF/offer.pdf" pdf_there
check "the PDF holds the document's text" \
  sh -c 'pdftotext "$1" - | grep -q "$2"' sh "$home/Documents/Tarn PDF/offer.pdf" "$word"
stop_gateway
end_chroot_processes

# An office run as root leaves its shared extension cache 0700; an office upgrade repairs it.
chmod 0700 "$root/var/spool/libreoffice/uno_packages/cache/uno_packages"
check "reinstalling an office package makes its shared extension cache readable again" sh -c '
  ip netns exec "$1" chroot "$2" env DEBIAN_FRONTEND=noninteractive \
    apt-get -q -y install --reinstall libreoffice-common &&
  [ "$(stat -c %a "$2/var/spool/libreoffice/uno_packages/cache/uno_packages")" = 755 ]' \
  sh "$ns" "$root"

# --- Upgrade: the user's store and settings, and the machine's policies, stay. ------------
in_net /opt/vantu/tarn/tarnctl reg add 'HKLM\Software\Policies\Vantu\Tarn 5.0\Preferences' \
  /v CollectData /t REG_DWORD /d 0 /f >>"$work/checks.log" 2>&1 || true
check "an upgrade to 5.0.0-2 installs" \
  in_net env DEBIAN_FRONTEND=noninteractive apt-get -q -y install /tmp/vantu-tarn_5.0.0-2_amd64.deb
check "after the upgrade the package is 5.0.0-2" \
  sh -c '[ "$(chroot "$1" dpkg-query -W -f "\${Version}" vantu-tarn)" = 5.0.0-2 ]' sh "$root"
check "after the upgrade the user's document is in the store" \
  sh -c "chroot \"\$1\" setpriv --reuid=$user --regid=$user --init-groups --reset-env \
    /opt/vantu/tarn/tarnctl dms list | grep -q offer" sh "$root"
check "after the upgrade the user's settings stay" \
  tarnctl reg query 'HKCU\Software\Vantu\PDF\V1\TarnPrint' /v OfficeIdleSeconds
check "after the upgrade the machine's policy stays" \
  in_net /opt/vantu/tarn/tarnctl reg query 'HKLM\Software\Policies\Vantu\Tarn 5.0\Preferences' \
    /v CollectData
start_gateway
check "after the upgrade the gateway answers" wait_for_gateway
stop_gateway
end_chroot_processes

# --- Remove, then purge: nothing of the package stays, the user's data does. ------------
check "apt-get remove" in_net env DEBIAN_FRONTEND=noninteractive apt-get -q -y remove vantu-tarn
check "after remove the registrations are gone and the policy stays" sh -c '
  store=$1/etc/vantu/registry.sqlite
  ! TARN_MACHINE_REGISTRY=$store build-package/dist/tarnctl reg query "HKLM\Software\Vantu\PDF\V1" /v InstallPath &&
  TARN_MACHINE_REGISTRY=$store build-package/dist/tarnctl reg query "HKLM\Software\Policies\Vantu\Tarn 5.0\Preferences" /v CollectData' \
  sh "$root"
check "after remove the user unit can't start" \
  sh -c '[ "$(readlink "$1/etc/systemd/user/tarngateway.service")" = /dev/null ]' sh "$root"
check "apt-get purge" in_net env DEBIAN_FRONTEND=noninteractive apt-get -q -y purge vantu-tarn
check "purge leaves nothing of the package" sh -c '
  for p in opt/vantu etc/vantu usr/lib/systemd/user/tarngateway.service \
           etc/xdg/autostart/tarngateway.desktop usr/share/doc/vantu-tarn; do
    [ ! -e "$1/$p" ] || { echo "left: /$p"; exit 1; }
  done
  left=$(find "$1/etc/systemd/user" "$1/var/lib/systemd" -name "tarngateway*" 2>/dev/null)
  [ -z "$left" ] || { echo "left: $left"; exit 1; }' sh "$root"
check "the user's data stays" sh -c '
  for p in .config/vantu/registry.sqlite .local/share/vantu .local/state/vantu \
           "Documents/Tarn PDF/offer.pdf"; do
    [ -e "$1/$p" ] || { echo "gone: ~/$p"; exit 1; }
  done' sh "$home"

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
