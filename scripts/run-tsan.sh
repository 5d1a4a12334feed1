#!/usr/bin/env bash
# Builds the tests of the code that runs on several threads (server, connection threads, task
# worker, log) with ThreadSanitizer into build-tsan/ and runs them; a reported race fails them.
# Run the tests in a network namespace of their own when another gateway may be on port 9090:
#   unshare -n sh -c 'ip link set lo up && scripts/run-tsan.sh'
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh test
generator=()
if command -v ninja >/dev/null; then generator=(-G Ninja); fi
. scripts/sanitized-build.sh
configure_sanitized build-tsan TARN_TSAN "-O1 -g -DNDEBUG"
cmake --build build-tsan --parallel "$(nproc)" --target web_test process_test tasks_test log_test
TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/scripts/sanitizers/tsan.supp" \
  ctest --test-dir build-tsan -L tsan --output-on-failure --parallel "$(nproc)" --timeout 900
