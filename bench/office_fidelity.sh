#!/usr/bin/env bash
# Compares tarnprint's PDFs with `soffice --headless --convert-to pdf` of the same files, on
# the corpus of bench/office_corpus.sh: page count and words (pdftotext, as a multiset) of
# each document. Prints one row per document and the mismatches; exits 1 when any.
#
#   bench/office_fidelity.sh [--dist DIR] [--corpus DIR] WORKDIR
#
# --dist: the folder holding tarnprint (build/dist); --corpus: use documents already made
# there instead of making them in WORKDIR/corpus. Needs soffice, qpdf and pdftotext.
set -euo pipefail

here=$(dirname "$(realpath "$0")")
dist=$here/../build/dist
corpus=""
while [ $# -gt 1 ]; do
  case $1 in
    --dist) dist=$2; shift 2 ;;
    --corpus) corpus=$2; shift 2 ;;
    *) break ;;
  esac
done
case "${1:-}" in
  -h|--help|"") sed -n '2,9p' "$0" | sed 's/^# \{0,1\}//'; [ -n "${1:-}" ]; exit $? ;;
esac
work=$(realpath -m "$1")
for tool in soffice qpdf pdftotext "$dist/tarnprint"; do
  command -v "$tool" >/dev/null || { echo "$0: $tool is missing" >&2; exit 2; }
done
mkdir -p "$work/soffice" "$work/ours" "$work/tmp"
chmod 700 "$work/tmp"
if [ -z "$corpus" ]; then
  corpus=$work/corpus
  "$here/office_corpus.sh" "$corpus" >/dev/null
fi
mapfile -t docs < <(find "$corpus" -maxdepth 1 -type f ! -name '.*' | sort)

# The warm office this run starts lives in its own temporary folder and ends with the run.
export TMPDIR=$work/tmp
stop_office() {
  local pid
  for pid in $(cat "$TMPDIR"/tarnoffice/office*.pid "$TMPDIR"/tarnoffice/*/office.pid 2>/dev/null); do
    kill "$pid" 2>/dev/null || true
  done
}
trap stop_office EXIT

soffice "-env:UserInstallation=file://$work/soffice-profile" --headless --norestore \
  --convert-to pdf --outdir "$work/soffice" "${docs[@]}" >/dev/null 2>&1 || true

words() { pdftotext -enc UTF-8 "$1" - 2>/dev/null | tr -s '[:space:]' '\n' | grep -v '^$' | sort; }
pages() { qpdf --show-npages "$1" 2>/dev/null || echo "-"; }

mismatches=0
printf '%-58s %7s %5s %6s\n' document soffice ours words
for doc in "${docs[@]}"; do
  name=$(basename "$doc"); stem=${name%.*}
  theirs=$work/soffice/$stem.pdf mine=$work/ours/$stem.pdf
  "$dist/tarnprint" /p "$doc" "$mine" /noviewpdf 2>"$work/ours/$stem.err" || true
  tp=$(pages "$theirs") op=$(pages "$mine") differing="-"
  if [ -s "$theirs" ] && [ -s "$mine" ]; then
    differing=$(comm -3 <(words "$theirs") <(words "$mine") | wc -l)
  fi
  verdict=""
  if [ "$tp" != "$op" ] || [ "$differing" != 0 ]; then verdict="  MISMATCH"; mismatches=$((mismatches + 1)); fi
  printf '%-58s %7s %5s %6s%s\n' "$name" "$tp" "$op" "$differing" "$verdict"
done
echo "${#docs[@]} documents, $mismatches mismatched"
[ "$mismatches" -eq 0 ]
