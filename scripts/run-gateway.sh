#!/usr/bin/env bash
# Installs what is missing, builds, registers the install folder and the shipped components
# in the machine store, and runs the gateway in the foreground on port 9090 (Ctrl-C ends it).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh run
scripts/build.sh -DTARN_BUILD_TESTS=OFF -DTARN_BUILD_BENCH=OFF
build/dist/tarnctl setup
echo "Starting the gateway on port 9090 (diagnostic lines below; Ctrl-C to stop)."
export TARN_TRACE="${TARN_TRACE:-85}"
# Through sudo the set-up above needs root, the gateway must not have it: any web page the
# user opens can talk to it. It runs as the user who called sudo, with that user's folders.
if [ "$(id -u)" -eq 0 ] && [ -n "${SUDO_USER:-}" ] && [ "${SUDO_USER}" != root ]; then
  home="$(getent passwd "${SUDO_USER}" | cut -d: -f6)"
  runtime=()
  if [ -d "/run/user/${SUDO_UID}" ]; then runtime=("XDG_RUNTIME_DIR=/run/user/${SUDO_UID}"); fi
  echo "Running the gateway as ${SUDO_USER}, not as root."
  exec runuser -u "${SUDO_USER}" -- env HOME="${home}" USER="${SUDO_USER}" \
    LOGNAME="${SUDO_USER}" "${runtime[@]}" TARN_TRACE="${TARN_TRACE}" build/dist/tarngateway
fi
exec build/dist/tarngateway
