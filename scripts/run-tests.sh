#!/usr/bin/env bash
# Installs what is missing, builds everything with the tests, and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh test
scripts/build.sh -DTARN_BUILD_TESTS=ON -DTARN_BUILD_BENCH=ON
ctest --test-dir build --output-on-failure --parallel 2 --timeout 900
# The HTTP request fuzzer: a clang build of its own (ASan + UBSan), then a 20 s bounded run.
generator=()
if command -v ninja >/dev/null; then generator=(-G Ninja); fi
CC=clang CXX=clang++ cmake -S . -B build-fuzz "${generator[@]}" -DTARN_FUZZ=ON \
  -DTARN_BUILD_TESTS=OFF -DTARN_BUILD_BENCH=OFF
cmake --build build-fuzz --parallel "$(nproc)" --target http_request_fuzzer
ctest --test-dir build-fuzz -L fuzz --output-on-failure
