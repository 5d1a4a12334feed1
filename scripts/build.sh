#!/usr/bin/env bash
# Configures and builds into build/; the runnable install folder is build/dist/.
set -euo pipefail
cd "$(dirname "$0")/.."
generator=()
if command -v ninja >/dev/null; then generator=(-G Ninja); fi
if [ ! -f build/CMakeCache.txt ]; then
  cmake -S . -B build "${generator[@]}" "$@"
elif [ $# -gt 0 ]; then
  cmake -S . -B build "$@"
fi
cmake --build build --parallel "$(nproc)"
