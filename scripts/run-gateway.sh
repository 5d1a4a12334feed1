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
exec build/dist/tarngateway
