#!/usr/bin/env bash
# Writes a corpus of office documents into DIR, made from what Debian itself ships: HTML
# manuals under /usr/share/doc, man pages rendered to text, CSV data of distro-info-data,
# package lists as multi-sheet spreadsheets with print ranges, package descriptions as
# presentations with speaker notes, and a report with a table, footnotes, an image and
# non-Latin scripts. Each source is turned into the office formats by soffice (untimed).
#
#   bench/office_corpus.sh [--bench-set] DIR
#
# --bench-set writes only the ten documents the conversion benchmarks use, one per format.
# Prints the documents' paths, one a line. Needs soffice and, for the man pages, man-db.
set -euo pipefail

usage() { echo "usage: $0 [--bench-set] DIR" >&2; exit 2; }
bench_set=0
case "${1:-}" in
  -h|--help) sed -n '2,11p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
  --bench-set) bench_set=1; shift ;;
esac
[ $# -eq 1 ] || usage
out=$(realpath -m "$1")
mkdir -p "$out/flat" "$out/made"
command -v soffice >/dev/null || { echo "$0: soffice is missing (scripts/install-deps.sh)" >&2; exit 1; }
profile="-env:UserInstallation=file://$out/.profile"

# Converts FILE into each FORMAT beside the others in $out, named FORMAT-STEM.FORMAT.
convert() {
  local file=$1 infilter=$2; shift 2
  local stem; stem=$(basename "${file%.*}")
  for format in "$@"; do
    local args=(--headless --norestore --convert-to "$format" --outdir "$out/made/$format")
    [ -n "$infilter" ] && args+=("--infilter=$infilter")
    soffice "$profile" "${args[@]}" "$file" >/dev/null 2>&1
    [ -s "$out/made/$format/$stem.$format" ] || { echo "$0: soffice made no $format of $file" >&2; exit 1; }
    mv "$out/made/$format/$stem.$format" "$out/$format-$stem.$format"
    echo "$out/$format-$stem.$format"
  done
}

xml_escape() { sed -e 's/&/\&amp;/g' -e 's/</\&lt;/g' -e 's/>/\&gt;/g'; }

flat_odf() {  # MIME BODY
  cat <<EOF
<?xml version="1.0" encoding="UTF-8"?>
<office:document xmlns:office="urn:oasis:names:tc:opendocument:xmlns:office:1.0" xmlns:text="urn:oasis:names:tc:opendocument:xmlns:text:1.0" xmlns:table="urn:oasis:names:tc:opendocument:xmlns:table:1.0" xmlns:draw="urn:oasis:names:tc:opendocument:xmlns:drawing:1.0" xmlns:svg="urn:oasis:names:tc:opendocument:xmlns:svg-compatible:1.0" xmlns:presentation="urn:oasis:names:tc:opendocument:xmlns:presentation:1.0" xmlns:xlink="http://www.w3.org/1999/xlink" xmlns:style="urn:oasis:names:tc:opendocument:xmlns:style:1.0" xmlns:fo="urn:oasis:names:tc:opendocument:xmlns:xsl-fo-compatible:1.0" office:version="1.2" office:mimetype="$1"><office:body>$2</office:body></office:document>
EOF
}

# The benchmarks' ten: text, spreadsheet and presentation formats, RTF, HTML and plain text.
bench_documents() {
  local words=(gateway document ledger quarter report revenue forecast review meeting printer archive Grüße)
  sentence() { local s=$1 n=$2 i t=""; for ((i = 0; i < n; i++)); do t+="${t:+ }${words[$(((s * 7 + i * 5) % 12))]}"; done; echo "$t."; }
  local text="" rtf='{\rtf1\ansi{\fonttbl\f0 Times;}\f0 ' html='<html><head><meta charset="utf-8"></head><body><h1>Report</h1>' plain="" p r c s
  for ((p = 0; p < 60; p++)); do
    text+="<text:p>$(sentence $p 40)</text:p>"; rtf+="$(sentence $((p + 1)) 40)\\par "
    html+="<p>$(sentence $((p + 2)) 40)</p>"; plain+="$(sentence $((p + 3)) 40)"$'\n\n'
  done
  flat_odf application/vnd.oasis.opendocument.text "<office:text>$text</office:text>" >"$out/flat/report.fodt"
  local sheet='<office:spreadsheet><table:table table:name="Ledger">'
  for ((r = 0; r < 150; r++)); do
    sheet+="<table:table-row>"
    for ((c = 0; c < 6; c++)); do
      if ((c % 2)); then sheet+="<table:table-cell office:value-type=\"float\" office:value=\"$((r * 6 + c))\"><text:p>$((r * 6 + c))</text:p></table:table-cell>"
      else sheet+="<table:table-cell office:value-type=\"string\"><text:p>${words[$(((r + c) % 12))]}</text:p></table:table-cell>"; fi
    done
    sheet+="</table:table-row>"
  done
  flat_odf application/vnd.oasis.opendocument.spreadsheet "$sheet</table:table></office:spreadsheet>" >"$out/flat/ledger.fods"
  local slides="<office:presentation>"
  for ((s = 0; s < 4; s++)); do
    slides+="<draw:page draw:name=\"s$s\"><draw:frame svg:x=\"2cm\" svg:y=\"2cm\" svg:width=\"22cm\" svg:height=\"12cm\"><draw:text-box><text:p>$(sentence $s 12)</text:p><text:p>$(sentence $((s + 1)) 12)</text:p></draw:text-box></draw:frame></draw:page>"
  done
  flat_odf application/vnd.oasis.opendocument.presentation "$slides</office:presentation>" >"$out/flat/slides.fodp"
  convert "$out/flat/report.fodt" "" docx doc odt
  convert "$out/flat/ledger.fods" "" xlsx ods
  convert "$out/flat/slides.fodp" "" pptx odp
  printf '%s}' "$rtf" >"$out/rtf-memo.rtf"
  printf '%s</body></html>' "$html" >"$out/html-page.html"
  printf '%s' "$plain" >"$out/txt-notes.txt"
  echo "$out/rtf-memo.rtf"; echo "$out/html-page.html"; echo "$out/txt-notes.txt"
}

# HTML manuals as they are, and read into Writer and saved in the text formats.
html_manuals() {
  local n=0 f
  for f in /usr/share/doc/base-passwd/users-and-groups.html \
           /usr/share/doc/libreoffice-common/access2base.html \
           $(find /usr/share/doc -name '*.html' -size +6k -size -80k 2>/dev/null | sort | head -20); do
    [ -f "$f" ] || continue
    local stem; stem=manual-$(basename "$(dirname "$f")")-$(basename "${f%.html}")
    [ -e "$out/$stem.html" ] && continue
    cp "$f" "$out/$stem.html"; echo "$out/$stem.html"
    convert "$out/$stem.html" "HTML (StarWriter)" odt
    convert "$out/odt-$stem.odt" "" docx doc rtf
    n=$((n + 1)); [ $n -ge 3 ] && break
  done
}

# Man pages rendered to plain text, and saved as Writer documents.
man_pages() {
  local page
  for page in ls tar bash dpkg; do
    local text="$out/man-$page.txt"
    MANWIDTH=80 man -E UTF-8 "$page" 2>/dev/null | sed 's/.\x08//g' >"$text" || true
    [ -s "$text" ] || { rm -f "$text"; continue; }
    echo "$text"
    convert "$text" "" odt docx
  done
}

# CSV shipped by packages, as they are, and gathered into one workbook.
csv_data() {
  local f
  for f in /usr/share/distro-info/debian.csv /usr/share/distro-info/ubuntu.csv; do
    [ -f "$f" ] || continue
    cp "$f" "$out/data-$(basename "$f")"; echo "$out/data-$(basename "$f")"
  done
}

# Installed packages as a three-sheet workbook; the second sheet prints only its first rows.
package_workbook() {
  local sheets="" name
  for name in Packages Sizes Sections; do
    local range=""
    [ $name = Sizes ] && range=' table:print-ranges="Sizes.A1:C40"'
    sheets+="<table:table table:name=\"$name\"$range>"
    while IFS=$'\t' read -r pkg ver size section; do
      case $name in
        Packages) cols=("$pkg" "$ver") ;;
        Sizes) cols=("$pkg" "$size" "") ;;
        Sections) cols=("$section" "$pkg") ;;
      esac
      sheets+="<table:table-row>"
      for v in "${cols[@]}"; do
        if [[ $v =~ ^[0-9]+$ ]]; then sheets+="<table:table-cell office:value-type=\"float\" office:value=\"$v\"><text:p>$v</text:p></table:table-cell>"
        else sheets+="<table:table-cell office:value-type=\"string\"><text:p>$(printf '%s' "$v" | xml_escape)</text:p></table:table-cell>"; fi
      done
      sheets+="</table:table-row>"
    done < <(dpkg-query -W -f '${Package}\t${Version}\t${Installed-Size}\t${Section}\n' | sort | head -120)
    sheets+="</table:table>"
  done
  flat_odf application/vnd.oasis.opendocument.spreadsheet "<office:spreadsheet>$sheets</office:spreadsheet>" >"$out/flat/packages.fods"
  convert "$out/flat/packages.fods" "" xlsx xls ods
}

# Package descriptions as slides, each with its long description as the speaker's notes.
package_slides() {
  local slides="<office:presentation>" n=0 pkg
  for pkg in dpkg coreutils libreoffice-core qpdf poppler-utils libc6; do
    local summary long
    summary=$(dpkg-query -W -f '${binary:Summary}' "$pkg" 2>/dev/null | xml_escape) || continue
    long=$(dpkg-query -W -f '${Description}' "$pkg" 2>/dev/null | tail -n +2 | sed 's/^ \.\{0,1\}//' | xml_escape)
    slides+="<draw:page draw:name=\"p$n\"><draw:frame svg:x=\"2cm\" svg:y=\"2cm\" svg:width=\"24cm\" svg:height=\"3cm\"><draw:text-box><text:p>$pkg</text:p></draw:text-box></draw:frame>"
    slides+="<draw:frame svg:x=\"2cm\" svg:y=\"6cm\" svg:width=\"24cm\" svg:height=\"10cm\"><draw:text-box><text:p>$summary</text:p></draw:text-box></draw:frame>"
    slides+="<presentation:notes><draw:frame presentation:class=\"notes\" svg:x=\"2cm\" svg:y=\"14cm\" svg:width=\"17cm\" svg:height=\"10cm\"><draw:text-box><text:p>$long</text:p></draw:text-box></draw:frame></presentation:notes></draw:page>"
    n=$((n + 1))
  done
  flat_odf application/vnd.oasis.opendocument.presentation "$slides</office:presentation>" >"$out/flat/packages-slides.fodp"
  convert "$out/flat/packages-slides.fodp" "" pptx ppt odp
}

# A report on Debian's own files: a table, footnotes, an embedded image and non-Latin text.
report() {
  local body="<office:text><text:h text:outline-level=\"1\">Debian base files</text:h>" image=/usr/share/pixmaps/debian-logo.png
  body+="<text:p>The passwd file<text:note text:note-class=\"footnote\"><text:note-body><text:p>$(head -c 600 /usr/share/doc/base-passwd/README 2>/dev/null | xml_escape)</text:p></text:note-body></text:note> lists the users.</text:p>"
  if [ -f "$image" ]; then
    body+="<text:p><draw:frame svg:width=\"4cm\" svg:height=\"4cm\" text:anchor-type=\"as-char\"><draw:image><office:binary-data>$(base64 -w0 "$image")</office:binary-data></draw:image></draw:frame></text:p>"
  fi
  body+="<table:table table:name=\"Users\"><table:table-column table:number-columns-repeated=\"3\"/>"
  while IFS=: read -r user _ uid _ gecos home _; do
    body+="<table:table-row>"
    for v in "$user" "$uid" "$home"; do body+="<table:table-cell office:value-type=\"string\"><text:p>$(printf '%s' "$v" | xml_escape)</text:p></table:table-cell>"; done
    body+="</table:table-row>"
  done < <(head -40 /usr/share/base-passwd/passwd.master)
  body+="</table:table>"
  body+="<text:p>Ελληνικά · Русский · Українська · עברית · العربية · हिन्दी · 中文 · 日本語 · 한국어</text:p>"
  body+="<text:p>$(sed -n '1,60p' /usr/share/doc/base-passwd/README 2>/dev/null | xml_escape | sed 's/$/<\/text:p><text:p>/' | tr -d '\n')</text:p>"
  for i in 1 2 3; do
    body+="<text:p>Note $i<text:note text:note-class=\"footnote\"><text:note-body><text:p>$(sed -n "$((i * 5)),$((i * 5 + 4))p" /usr/share/doc/base-passwd/README 2>/dev/null | xml_escape | tr '\n' ' ')</text:p></text:note-body></text:note></text:p>"
  done
  flat_odf application/vnd.oasis.opendocument.text "$body</office:text>" >"$out/flat/base-files.fodt"
  convert "$out/flat/base-files.fodt" "" odt docx doc rtf
}

images() {
  local f
  for f in /usr/share/pixmaps/debian-logo.png /usr/lib/libreoffice/program/intro.png \
           /usr/share/qt6/doc/global/template/images/Qt-footer-bg.jpg; do
    [ -f "$f" ] || continue
    cp "$f" "$out/image-$(basename "$f")"; echo "$out/image-$(basename "$f")"
  done
}

bench_documents
if [ $bench_set -eq 0 ]; then
  html_manuals; man_pages; csv_data; package_workbook; package_slides; report; images
fi
rm -rf "$out/made" "$out/.profile"
