#!/usr/bin/env bash
# Installs what is missing, builds everything with the tests, and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh test
scripts/build.sh -DTARN_BUILD_TESTS=ON -DTARN_BUILD_BENCH=ON
ctest --test-dir build --output-on-failure --parallel 2 --timeout 900
