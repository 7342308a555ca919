#!/usr/bin/env bash
# Shows the entity tree of each sample message: `make demo` runs it as
#   bash tools/demo.sh BUILD_DIR
set -u

build=${1:?usage: tools/demo.sh BUILD_DIR}
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
samples=$root/data/samples
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
  esac
}

status=0
for file in "$samples"/*.eml; do
  name=$(basename "$file")
  what=$(describe "$name")
  echo "=== $name${what:+: $what}"
  "$tool" tree "$file" || status=1
  echo
done

echo "The samples are in $samples."
echo "Decode any message the same way: $tool tree FILE [--preset imap|general|msgread|mailerd]"
exit $status
