#!/usr/bin/env bash
# The `tarnmail tree` command: its output on the samples, standard input,
# and its answers to bad arguments.
#   TARN_TOOL        the tarnmail program
#   TARN_SOURCE_DIR  the source tree (for data/samples)
set -u

tool=${TARN_TOOL:?TARN_TOOL must name the tarnmail program}
samples=${TARN_SOURCE_DIR:?TARN_SOURCE_DIR must name the source tree}/data/samples
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

. "$(dirname "$0")/tap.sh"

# --- the tree of a forwarded message, structure only ---------------------
# imap decodes no body, so offsets, lengths and charsets stay 0; positions
# are those of the header and body starts in the file.
cat >"$work/want" <<'EOF'
entity offset=0 len=0 datalen=0 header=0 body=257 ctype=7(mixed) type="multipart/mixed; boundary=\"fwd-0b2e44\"" enc=0(none) charset=0 boundary="fwd-0b2e44"
  entity offset=0 len=0 datalen=0 header=270 body=314 ctype=2(text) type="text/plain; charset=us-ascii" enc=0(none) charset=0
  entity offset=0 len=0 datalen=0 header=379 body=437 ctype=1(message/rfc822) type="message/rfc822" enc=0(none) charset=0
    entity offset=0 len=0 datalen=0 header=437 body=680 ctype=2(text) type="text/plain; charset=us-ascii" enc=0(none) charset=0
error_code=0
EOF
"$tool" tree --preset imap "$samples/forwarded.eml" >"$work/got" 2>"$work/err"
expect_status "tree --preset imap forwarded.eml exits 0" 0 $?
expect_output "tree --preset imap forwarded.eml prints the tree" "$work/want" "$work/got"

# --- a message with CR LF line ends and base64 attachments ---------------
cat >"$work/want" <<'EOF'
entity offset=0 len=0 datalen=0 header=0 body=266 ctype=7(mixed) type="multipart/mixed; boundary=\"----=_Part_3310_1718\"" enc=0(none) charset=0 boundary="----=_Part_3310_1718"
  entity offset=0 len=0 datalen=0 header=338 body=414 ctype=2(text) type="text/plain; charset=utf-8" enc=4(8bit) charset=0
  entity offset=0 len=0 datalen=0 header=530 body=693 ctype=9(other) type="application/pdf; name=\"invoice-2024-117.pdf\"" enc=1(base64) charset=0
  entity offset=0 len=0 datalen=0 header=1529 body=1664 ctype=4(image) type="image/png; name=\"usage.png\"" enc=1(base64) charset=0
error_code=0
EOF
"$tool" tree --preset imap "$samples/attachments.eml" >"$work/got" 2>"$work/err"
expect_output "tree --preset imap attachments.eml prints the tree" "$work/want" "$work/got"

# The default preset decodes: the attachments come out at their sizes
# (a 591-byte PDF and an 80-byte PNG), named and numbered.
"$tool" tree "$samples/attachments.eml" >"$work/got" 2>"$work/err"
expect_status "tree attachments.eml exits 0" 0 $?
if grep -q '^  entity offset=530 len=973 datalen=591 header=530 body=693 ctype=9(other) .* enc=1(base64) .*filename="invoice-2024-117.pdf" file_id=1A$' "$work/got" &&
   grep -q '^  entity offset=1529 len=247 datalen=80 header=1529 body=1664 ctype=4(image) .* enc=1(base64) .*filename="usage.png" file_id=2A$' "$work/got" &&
   [ "$(tail -n 1 "$work/got")" = "error_code=0" ] && [ "$(wc -l <"$work/got")" -eq 5 ]; then
  pass "tree attachments.eml decodes and names the attachments"
else
  fail "tree attachments.eml decodes and names the attachments"
  sed 's/^/    /' "$work/got"
fi

# --- standard input --------------------------------------------------------
"$tool" tree --preset imap - <"$samples/forwarded.eml" >"$work/stdin" 2>"$work/err"
expect_status "tree - exits 0" 0 $?
"$tool" tree --preset imap "$samples/forwarded.eml" >"$work/file" 2>/dev/null
expect_output "tree - reads standard input" "$work/file" "$work/stdin"

# A header without an empty line, from standard input: the error bit is
# named on the last line.
printf 'Subject: no body\nFrom: a@example.org' | "$tool" tree --preset imap - >"$work/got" 2>"$work/err"
expect_status "tree - on a header without end exits 0" 0 $?
cat >"$work/want" <<'EOF'
entity offset=0 len=0 datalen=0 header=0 body=17 ctype=2(text) type="text/plain" enc=0(none) charset=0
error_code=2 (header-without-end)
EOF
expect_output "tree - names the error bits" "$work/want" "$work/got"

# --- bad arguments ---------------------------------------------------------
"$tool" tree "$work/no-such-file.eml" >"$work/got" 2>"$work/err"
expect_status "a missing file exits 2" 2 $?
if [ "$(wc -l <"$work/err")" -eq 1 ] && grep -q 'no-such-file.eml' "$work/err" && [ ! -s "$work/got" ]; then
  pass "a missing file gives one line on stderr and nothing on stdout"
else
  fail "a missing file gives one line on stderr and nothing on stdout"
  sed 's/^/    stderr: /' "$work/err"
fi

"$tool" tree --preset nosuch "$samples/plain.eml" >"$work/got" 2>"$work/err"
expect_status "an unknown preset exits 2" 2 $?
if [ "$(wc -l <"$work/err")" -eq 1 ] && grep -q 'nosuch' "$work/err" && [ ! -s "$work/got" ]; then
  pass "an unknown preset is named in one line on stderr"
else
  fail "an unknown preset is named in one line on stderr"
  sed 's/^/    stderr: /' "$work/err"
fi

"$tool" tree >/dev/null 2>&1
expect_status "tree without a file exits 2" 2 $?
"$tool" tree "$samples/plain.eml" "$samples/forwarded.eml" >/dev/null 2>&1
expect_status "tree with two files exits 2" 2 $?
"$tool" tree "$samples/plain.eml" --preset >/dev/null 2>&1
expect_status "--preset without a name exits 2" 2 $?

finish
