#!/usr/bin/env bash
# Installs what is missing, builds everything with the tests, and runs every test: as built,
# then under ASan + UBSan, then the HTTP request fuzzer.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh test
scripts/build.sh -DTARN_BUILD_TESTS=ON -DTARN_BUILD_BENCH=ON
ctest --test-dir build --output-on-failure --parallel 2 --timeout 900

generator=()
if command -v ninja >/dev/null; then generator=(-G Ninja); fi
# The same suite, whole-process tests included, in a build of its own with ASan + UBSan. -O1
# with line tables only keeps the build within CI time and still names file:line in reports.
. scripts/sanitized-build.sh
configure_sanitized build-asan TARN_SANITIZE "-O1 -g1 -DNDEBUG"
cmake --build build-asan --parallel "$(nproc)"
# Every report goes to a file, so that a finding in a program nobody waits for (the usage
# reporter, the assistant) fails the run too. A small quarantine keeps the resident-memory
# bounds of the whole-process tests meaningful.
reports="$PWD/build-asan/sanitizer-reports"
# Tests run as an unprivileged user (and some programs in namespaces of their own): anyone may
# write a report there, or a finding would be lost.
rm -rf "$reports" && mkdir -p -m 1777 "$reports"
status=0
# ASan's shadow memory and quarantine make resident-memory figures meaningless: the bounds of
# the hostile-client memory test are checked by the plain build above.
ASAN_OPTIONS="log_path=$reports/asan:quarantine_size_mb=8" \
  UBSAN_OPTIONS="log_path=$reports/ubsan:print_stacktrace=1" \
  ctest --test-dir build-asan --output-on-failure --parallel 2 --timeout 900 \
  -E 'hostile_client_e2e_test\.MemoryStaysBounded' || status=$?
if [ -n "$(ls -A "$reports")" ]; then
  cat "$reports"/*
  echo "run-tests: the sanitizers reported the findings above" >&2
  status=1
fi
if [ "$status" -ne 0 ]; then exit "$status"; fi

# The HTTP request fuzzer: a clang build of its own (ASan + UBSan), then a 20 s bounded run.
CC=clang CXX=clang++ cmake -S . -B build-fuzz "${generator[@]}" -DTARN_FUZZ=ON \
  -DTARN_BUILD_TESTS=OFF -DTARN_BUILD_BENCH=OFF
cmake --build build-fuzz --parallel "$(nproc)" --target http_request_fuzzer
ctest --test-dir build-fuzz -L fuzz --output-on-failure
