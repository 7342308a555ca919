#!/usr/bin/env bash
# Renders each sample message as a reading page: `make demo` runs it as
#   bash tools/demo.sh BUILD_DIR
# The pages go to out/<sample>.html, the parts they link to to out/parts/;
# open the pages straight from disk in a browser.
set -u

build=${1:?usage: tools/demo.sh BUILD_DIR}
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
samples=$root/data/samples
out=$root/out
tool=$build/tarnmail
case $tool in /*) ;; *) tool=$PWD/$tool ;; esac

if [ ! -x "$tool" ]; then
  echo "demo: no tarnmail program in $build (build the project first)" >&2
  exit 1
fi

# What each sample shows; a sample not listed here is shown by name alone.
describe() {
  case $1 in
    plain.eml) echo "a plain-text message" ;;
    html-inline-image.eml) echo "HTML with a plain-text alternative and an inline cid: image" ;;
    forwarded.eml) echo "a forwarded message (message/rfc822 inside multipart/mixed)" ;;
    japanese.eml) echo "Japanese text in ISO-2022-JP with encoded-word headers" ;;
    attachments.eml) echo "a PDF and a PNG attached in base64, CR LF line ends" ;;
    quoted-printable.eml) echo "quoted-printable UTF-8 text with encoded-word headers" ;;
    winmail.eml) echo "a text file and a picture inside a TNEF winmail.dat (msgread page)" ;;
  esac
}

# The stored-message page (msgread) expands TNEF attachments; the others
# are shown as the reading page (mailread) shows new mail.  The tree is
# printed as the page decodes the message.
preset_of() {
  case $1 in
    winmail.eml) echo msgread ;;
    *) echo mailread ;;
  esac
}
decoding_of() {
  case $1 in
    msgread) echo msgread ;;
    *) echo general ;;
  esac
}

mkdir -p "$out"
status=0
pages=()
for file in "$samples"/*.eml; do
  name=$(basename "$file")
  page=$out/${name%.eml}.html
  what=$(describe "$name")
  preset=$(preset_of "$name")
  echo "=== $name${what:+: $what}"
  "$tool" tree "$file" --preset "$(decoding_of "$preset")" || status=1
  if "$tool" render "$file" --preset "$preset" -o "$page"; then
    echo "page: $page"
    pages+=("$page")
  else
    status=1
  fi
  echo
done

echo "${#pages[@]} pages in $out (their parts in $out/parts); open them in a browser, e.g."
echo "  file://${pages[0]:-$out}"
echo "Render any message the same way: $tool render FILE -o PAGE.html [--preset NAME]"
exit $status
