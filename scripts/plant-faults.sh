#!/usr/bin/env bash
# Plants the faults of a list in the product one at a time, rebuilds, runs the tests and
# tells which tests caught each fault: what the suite is worth, before and after a change.
set -uo pipefail
export LC_ALL=C
shopt -u patsub_replacement 2>/dev/null || true  # "&" in a replacement is plain text

usage() {
  cat <<'EOF'
Usage: scripts/plant-faults.sh [options]

Applies each fault of the list on its own to the source tree, rebuilds the build folder
incrementally, runs the tests the entry names and prints a table: each fault and the tests
that failed, or "none". The list's head says how an entry is written. The tree is restored
after every fault, also on Ctrl-C; a run killed outright is repaired by the next one.

  --all           run the whole suite for each fault, not only the entry's tests
  --only REGEX    plant only the faults whose names match REGEX (grep -E)
  --check         only check that every entry applies; build and run nothing
  --no-baseline   don't first run the tests without any fault
  --list FILE     the list (default: scripts/planted-faults.txt)
  --build DIR     the build folder, configured with -DTARN_BUILD_TESTS=ON (default: build)
  -h, --help      this text

As root the tests run in a private network namespace, so their port 9090 is never the
machine's, and as the user tarn-test (tests/support/as_test_user.sh).

Exit codes: 0 every fault was caught (or is marked harmless); 1 some fault survived;
2 bad usage, a stale entry (its text not found exactly once, no test matching its pattern),
a fault that doesn't build, or tests that fail without any fault.
EOF
}

root=$(cd "$(dirname "$0")/.." && pwd)
list=$root/scripts/planted-faults.txt
build=$root/build
all=0 only= check=0 baseline=1
while [ $# -gt 0 ]; do
  case $1 in
    -h | --help) usage; exit 0 ;;
    --all) all=1 ;;
    --check) check=1 ;;
    --no-baseline) baseline=0 ;;
    --only | --list | --build)
      [ $# -ge 2 ] || { echo "plant-faults: $1 needs a value (see --help)" >&2; exit 2; }
      case $1 in --only) only=$2 ;; --list) list=$2 ;; --build) build=$2 ;; esac
      shift ;;
    *) echo "plant-faults: unknown argument \"$1\" (see --help)" >&2; exit 2 ;;
  esac
  shift
done
[ -r "$list" ] || { echo "plant-faults: can't read the list $list" >&2; exit 2; }
if [ "$check" = 0 ] && [ ! -f "$build/CTestTestfile.cmake" ]; then
  echo "plant-faults: $build is no build folder with tests (run scripts/build.sh" \
       "-DTARN_BUILD_TESTS=ON first)" >&2
  exit 2
fi

# --- the list -----------------------------------------------------------------------------
declare -A pattern_of
names=() files=() finds=() repls=() patterns=() harmless=()
bad_list() { echo "plant-faults: $list:$1: $2" >&2; exit 2; }
line_no=0 state=head
while IFS= read -r line || [ -n "$line" ]; do
  line_no=$((line_no + 1))
  case $state:$line in
    head:'#'* | head:) ;;
    head:'tests '*)
      read -r _ alias regex <<<"$line"
      pattern_of[$alias]=$regex ;;
    head:*)
      read -r name file tests mark extra <<<"$line"
      { [ -n "$tests" ] && [ -z "$extra" ] && { [ -z "$mark" ] || [ "$mark" = harmless ]; }; } ||
        bad_list "$line_no" "expected NAME FILE TESTS [harmless], got \"$line\""
      names+=("$name") files+=("$file") patterns+=("${pattern_of[$tests]:-$tests}")
      harmless+=("${mark:+1}")
      state=find ;;
    find:'- '?*) finds+=("${line#- }"); state=repl ;;
    repl:'+ '* | repl:+) repls+=("${line#+}"); repls[-1]=${repls[-1]# }; state=head ;;
    *) bad_list "$line_no" "expected a \"- TEXT\" and then a \"+ TEXT\" line, got \"$line\"" ;;
  esac
done <"$list"
[ "$state" = head ] || bad_list "$line_no" "the last entry is cut short"

# Which entries to plant.
picked=()
for i in "${!names[@]}"; do
  if [ -z "$only" ] || grep -qE -- "$only" <<<"${names[$i]}"; then picked+=("$i"); fi
done
[ ${#picked[@]} -gt 0 ] || { echo "plant-faults: no fault matches \"$only\"" >&2; exit 2; }

# --- planting and restoring --------------------------------------------------------------
# The original of the planted file waits in the build folder, so that even a run killed with
# SIGKILL leaves something the next run puts back.
saved=$build/plant-faults.saved
saved_path=$build/plant-faults.path
restore() {
  [ -f "$saved_path" ] || return 0
  local target
  target=$(<"$saved_path")
  # cat rather than mv keeps the file's owner and ACLs; the new mtime makes ninja rebuild.
  cat "$saved" >"$target" && rm -f "$saved" "$saved_path"
}

# Prints how often the literal $2 occurs in file $1.
count_in() {
  local text rest
  IFS= read -rd '' text <"$1"
  rest=${text//"$2"/}
  echo $(((${#text} - ${#rest}) / ${#2}))
}

# Plants fault $1; false (and the tree untouched) when its text isn't there exactly once.
plant() {
  local i=$1 file=$root/${files[$1]} text
  [ -f "$file" ] && [ "$(count_in "$file" "${finds[$i]}")" = 1 ] || return 1
  mkdir -p "$build"
  cp "$file" "$saved" && echo "$file" >"$saved_path" || return 1
  IFS= read -rd '' text <"$file"
  printf '%s' "${text/"${finds[$i]}"/"${repls[$i]}"}" >"$file"
}

# One run at a time per build folder: a second would put back the first one's fault.
mkdir -p "$build"
exec 9>"$build/plant-faults.lock"
flock -n 9 || { echo "plant-faults: another run is using $build" >&2; exit 2; }
restore  # what a killed run left
if [ "$check" = 1 ]; then
  stale=0
  for i in "${picked[@]}"; do
    file=$root/${files[$i]}
    n=$([ -f "$file" ] && count_in "$file" "${finds[$i]}" || echo "no file")
    if [ "$n" != 1 ]; then
      echo "stale: ${names[$i]}: \"${finds[$i]}\" found $n times in ${files[$i]}"
      stale=1
    fi
  done
  [ "$stale" = 0 ] && echo "all ${#picked[@]} entries apply"
  exit $((stale * 2))
fi

trap 'restore' EXIT
trap 'exit 130' INT TERM HUP

# --- building and testing -----------------------------------------------------------------
logs=$build/plant-faults
mkdir -p "$logs"
# Runs the tests matching $1 (all with an empty $1), output in the log $2; prints the names
# of those that failed. As root, in a network namespace of its own with just loopback.
run_tests() {
  local cmd=(ctest --test-dir "$build" --parallel 2 --timeout 300)
  [ -n "$1" ] && cmd+=(-R "$1")
  if [ "$(id -u)" = 0 ]; then
    cmd=(unshare -n sh -c 'ip link set lo up && exec "$@"' sh "${cmd[@]}")
  fi
  "${cmd[@]}" >"$2" 2>&1
  # "Not Run" tests are the victims of a failed set-up, which the caller looks at itself.
  sed -n '/The following tests FAILED:/,$ s/^[[:space:]]*[0-9]* - \(.*\) (\(.*\))$/\2\t\1/p' "$2" |
    grep -v '^Not Run' | cut -f2
}
tests_of() { [ "$all" = 1 ] && echo "" || echo "${patterns[$1]}"; }
no_tests() { grep -q 'No tests were found' "$1"; }

if [ "$baseline" = 1 ]; then
  echo "plant-faults: building and running the tests without a fault" >&2
  cmake --build "$build" --parallel 2 >"$logs/baseline-build.log" 2>&1 ||
    { echo "plant-faults: the tree doesn't build; see $logs/baseline-build.log" >&2; exit 2; }
  union=
  if [ "$all" = 0 ]; then
    union=$(for i in "${picked[@]}"; do echo "${patterns[$i]}"; done | sort -u | paste -sd'|')
  fi
  failed=$(run_tests "$union" "$logs/baseline.log")
  if [ -n "$failed" ] || grep -q 'Not Run' "$logs/baseline.log"; then
    echo "plant-faults: tests fail without any fault; see $logs/baseline.log:" $failed >&2
    exit 2
  fi
fi

results=() status=0 started=$SECONDS
for n in "${!picked[@]}"; do
  i=${picked[$n]} name=${names[$i]}
  printf '[%d/%d] %s: ' $((n + 1)) ${#picked[@]} "$name" >&2
  restore
  if ! plant "$i"; then
    echo "stale entry" >&2
    results+=("$name|STALE: the text is not found exactly once in ${files[$i]}") status=2
    continue
  fi
  printf 'building, ' >&2
  if ! cmake --build "$build" --parallel 2 >"$logs/$name.build.log" 2>&1; then
    echo "doesn't build" >&2
    results+=("$name|BUILD FAILED: see $logs/$name.build.log") status=2
    continue
  fi
  printf 'testing, ' >&2
  t0=$SECONDS
  failed=$(run_tests "$(tests_of "$i")" "$logs/$name.log")
  if no_tests "$logs/$name.log"; then
    echo "no tests" >&2
    results+=("$name|STALE: no test matches its pattern") status=2
  elif [ -n "$failed" ]; then
    count=$(wc -l <<<"$failed")
    shown=$(head -3 <<<"$failed" | paste -sd' ')
    [ "$count" -gt 3 ] && shown="$shown (+$((count - 3)) more)"
    echo "caught ($((SECONDS - t0)) s)" >&2
    results+=("$name|$shown")
  elif grep -q 'Not Run' "$logs/$name.log"; then
    echo "the tests' set-up failed" >&2
    results+=("$name|SET-UP FAILED: see $logs/$name.log") status=2
  elif [ -n "${harmless[$i]}" ]; then
    echo "survived, marked harmless" >&2
    results+=("$name|none (harmless)")
  else
    echo "SURVIVED ($((SECONDS - t0)) s)" >&2
    results+=("$name|none") && [ "$status" = 0 ] && status=1
  fi
done
restore
echo "plant-faults: rebuilding the tree without faults" >&2
cmake --build "$build" --parallel 2 >"$logs/final-build.log" 2>&1 ||
  echo "plant-faults: the final build failed; see $logs/final-build.log" >&2

printf '\n%-36s %s\n' "fault" "caught by"
for row in "${results[@]}"; do printf '%-36s %s\n' "${row%%|*}" "${row#*|}"; done
echo "$(grep -c '|none$' <(printf '%s\n' "${results[@]}")) of ${#results[@]} survived;" \
     "$(((SECONDS - started) / 60)) min; logs in $logs"
exit "$status"
