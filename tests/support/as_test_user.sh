#!/bin/sh
# Runs a test program; as root, as the user tarn-test with its own home and TMPDIR, so that a
# permission fault root would pass over shows up. TARN_TEST_AS_ROOT=1 (NEEDS_ROOT) keeps root.
user=tarn-test
if [ "$(id -u)" -ne 0 ] || [ "${TARN_TEST_AS_ROOT:-0}" = 1 ]; then exec "$@"; fi
for arg in "$@"; do
  if [ "$arg" = --gtest_list_tests ]; then exec "$@"; fi
done

home=$(getent passwd "$user" | cut -d: -f6)
if [ -z "$home" ]; then
  echo "as_test_user: no user $user: run scripts/test-user.sh as root" >&2
  exit 1
fi
as_user() { setpriv --reuid="$user" --regid="$user" --init-groups "$@"; }
if ! as_user test -x "$1"; then
  echo "as_test_user: $user can't run $1: run scripts/test-user.sh SOURCE BUILD as root" >&2
  exit 1
fi
as_user mkdir -p -m 0700 "$home/tmp"
exec env -u XDG_RUNTIME_DIR HOME="$home" USER="$user" LOGNAME="$user" \
  XDG_CONFIG_HOME="$home/.config" XDG_DATA_HOME="$home/.local/share" \
  XDG_STATE_HOME="$home/.local/state" XDG_CACHE_HOME="$home/.cache" TMPDIR="$home/tmp" \
  setpriv --reuid="$user" --regid="$user" --init-groups "$@"
