#!/usr/bin/env bash
# Installs the Debian 12 packages that building, running or testing the gateway needs,
# asking apt only when one is missing, and keeps LibreOffice usable by every user of the machine.
# Usage: scripts/install-deps.sh [run|test|package]
set -euo pipefail

run_packages=(
  build-essential cmake ninja-build pkg-config
  libthrift-dev thrift-compiler libcpprest-dev libssl-dev libboost-dev
  qt6-base-dev libsqlite3-dev nlohmann-json3-dev libcli11-dev
  libqpdf-dev qpdf libgxps-dev
  libreoffice-writer libreoffice-calc libreoffice-impress-nogui libreofficekit-dev
  xdg-user-dirs xdg-utils file
)
test_packages=(
  googletest libgtest-dev libgmock-dev
  poppler-utils xvfb xauth xdotool chromium strace
  clang libclang-rt-14-dev
  systemd desktop-file-utils iproute2
  fonts-dejavu-core libarchive-dev libgxps-utils distro-info-data
  qt6-image-formats-plugins
  acl util-linux
  dunst dbus-daemon dbus-bin
)
# Building the Debian package and checking it in a bare Debian root (scripts/check-package.sh).
package_packages=(
  dpkg-dev file lintian mmdebstrap iproute2 poppler-utils
)

# LibreOffice started as root creates its shared extension cache with mode 0700, and every other
# user's office then fails at start. Made beforehand with 0755 (or repaired), it stays readable.
office_cache_readable() {
  [ "$(id -u)" -eq 0 ] && [ -d /var/spool/libreoffice ] || return 0
  local cache=/var/spool/libreoffice/uno_packages/cache
  mkdir -p "$cache/uno_packages"
  chmod 0755 /var/spool/libreoffice /var/spool/libreoffice/uno_packages "$cache" \
    "$cache/uno_packages"
  find "$cache/uno_packages" -xdev ! -type l -exec chmod go+rX {} +
}
trap office_cache_readable EXIT

wanted=("${run_packages[@]}")
case "${1:-run}" in
  run) ;;
  test) wanted+=("${test_packages[@]}") ;;
  package) wanted+=("${package_packages[@]}") ;;
  *) echo "install-deps: unknown set '$1' (run, test or package)" >&2; exit 2 ;;
esac

missing=()
for pkg in "${wanted[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$pkg")
  fi
done
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "install-deps: missing packages: ${missing[*]}; run as root to install them" >&2
    exit 1
  fi
  echo "install-deps: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update
  apt-get install -y --no-install-recommends "${missing[@]}"
fi

# Tests run by root run as an unprivileged user of their own.
if [ "${1:-run}" = test ]; then "$(dirname "$0")/test-user.sh"; fi

