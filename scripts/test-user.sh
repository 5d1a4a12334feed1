#!/usr/bin/env bash
# Makes the unprivileged user the tests run as when ctest runs as root, and lets it reach the
# source and build trees. Usage (as root):
#   scripts/test-user.sh [--write FOLDER]... [--write-file FILE]... [FOLDER...]
# FOLDERs become readable, --write FOLDERs and FILEs (made if missing) writable for the user.
# As another user it does nothing: the tests then run as that user.
set -euo pipefail
user=tarn-test
[ "$(id -u)" -eq 0 ] || exit 0

if ! getent passwd "$user" >/dev/null; then
  # Two runs at once may race here; the loser finds the user made.
  useradd --create-home --user-group --shell /usr/sbin/nologin \
    --comment "runs the gateway's tests" "$user" 2>/dev/null || getent passwd "$user" >/dev/null
fi

as_user() { setpriv --reuid="$user" --regid="$user" --init-groups "$@"; }

writable=()
writable_files=()
readable=()
while [ $# -gt 0 ]; do
  case "$1" in
    --write) writable+=("$2"); shift 2 ;;
    --write-file) writable_files+=("$2"); shift 2 ;;
    *) readable+=("$1"); shift ;;
  esac
done

# Read and enter only, never write: a folder the user could write would be an untrusted place
# for the programs and libraries the tests load from it.
for folder in "${readable[@]}"; do
  folder=$(realpath "$folder")
  step=/
  IFS=/ read -ra parts <<<"${folder#/}"
  for part in "${parts[@]}"; do
    step="${step%/}/$part"
    if ! as_user test -x "$step" 2>/dev/null; then
      command -v setfacl >/dev/null || {
        echo "test-user: $user can't enter $step and setfacl is missing (apt-get install acl)," \
             "or build in a folder that others can enter" >&2
        exit 1
      }
      setfacl -m "u:$user:x" "$step"
    fi
  done
  if [ -n "$(find "$folder" \( -type d ! -perm -o=rx -o ! -type d ! -perm -o=r \) -print -quit)" ]; then
    setfacl -R -m "u:$user:rX" -m "d:u:$user:rX" "$folder"
  fi
done

for folder in "${writable[@]}"; do
  mkdir -p "$folder"
  # -R: files an earlier run as root left there must be writable for the user too.
  setfacl -R -m "u:$user:rwX" -m "d:u:$user:rwx" "$folder"
done
for file in "${writable_files[@]}"; do
  touch "$file"
  setfacl -m "u:$user:rw" "$file"
done

# An office run as root leaves its shared extension cache 0700, which stops every other
# user's office at start.
cache=/var/spool/libreoffice/uno_packages/cache/uno_packages
if [ -d "$cache" ]; then chmod 0755 "$cache"; fi
