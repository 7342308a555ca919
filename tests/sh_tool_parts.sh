#!/usr/bin/env bash
# The `tarnmail parts` command: its listing, the files --extract writes
# (numbered when a name repeats, never outside the directory, never over
# an existing file or through a link), the type tables it is given, and
# its answers to bad arguments.
#   TARN_TOOL        the tarnmail program
#   TARN_SOURCE_DIR  the source tree (for data/samples)
set -u

tool=${TARN_TOOL:?TARN_TOOL must name the tarnmail program}
samples=${TARN_SOURCE_DIR:?TARN_SOURCE_DIR must name the source tree}/data/samples
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

. "$(dirname "$0")/tap.sh"

# expect_error NAME WORD: the last run printed nothing on stdout and one
# line naming WORD on stderr.
expect_error() {
  if [ ! -s "$work/out" ] && [ "$(wc -l <"$work/err")" -eq 1 ] && grep -qF -- "$2" "$work/err"; then
    pass "$1"
  else
    fail "$1"
    sed 's/^/    stdout: /' "$work/out"
    sed 's/^/    stderr: /' "$work/err"
  fi
}

sha() { sha256sum "$1" | cut -d' ' -f1; }
size() { wc -c <"$1" | tr -d ' '; }

# --- the listing of a sample --------------------------------------------
# The PDF and the PNG: file id, name, type without parameters, decoded
# size and SHA-256, tab-separated; the text part has no name.
printf '1A\tinvoice-2024-117.pdf\tapplication/pdf\t591\td363fd9d8b7043991b4222e3b43eef1f187781d28bd08953342f6b7304f1e646\n2A\tusage.png\timage/png\t80\t76dd8f785de5ecd4ec64bbf78ee5e8e5815e96ca976b131acbeae8019ef670b3\n' >"$work/want"
"$tool" parts "$samples/attachments.eml" >"$work/got" 2>"$work/err"
expect_status "parts attachments.eml exits 0" 0 $?
expect_output "parts attachments.eml lists the two attachments" "$work/want" "$work/got"
[ ! -s "$work/err" ] && pass "parts attachments.eml is silent on stderr" || fail "parts attachments.eml is silent on stderr"

"$tool" parts - <"$samples/attachments.eml" >"$work/got" 2>/dev/null
expect_output "parts - reads standard input" "$work/want" "$work/got"

# Structure only: nothing is decoded, so nothing is named.
"$tool" parts --preset imap "$samples/attachments.eml" >"$work/got" 2>"$work/err"
expect_status "parts --preset imap exits 0" 0 $?
[ ! -s "$work/got" ] && pass "parts --preset imap names no part" || fail "parts --preset imap names no part"

# --- a message whose files are made here -----------------------------------
# Two files named report.pdf, two named README, a name that tries to climb
# out of the directory and one that is "..".  Their bytes are known, so
# the listing's sizes and digests can be checked against sha256sum.
all_bytes=""
for i in $(seq 0 255); do all_bytes+=$(printf '\\%03o' "$i"); done
printf "$all_bytes" >"$work/f1"                          # every byte value once
{ printf "$all_bytes"; printf "$all_bytes"; printf '%%PDF-1.4\n'; } >"$work/f2"
printf 'first readme\r\n' >"$work/f3"
head -c 5000 /dev/zero | tr '\0' 'z' >"$work/f4"
printf '\0' >"$work/f5"
part() {  # part NAME-PARAMETER FILE
  printf -- '--b1\nContent-Type: application/octet-stream; name="%s"\nContent-Transfer-Encoding: base64\n\n' "$1"
  base64 -w 76 "$2"
}
{
  printf 'From: a@example.org\nSubject: files\nMIME-Version: 1.0\nContent-Type: multipart/mixed; boundary="b1"\n\n'
  printf -- '--b1\nContent-Type: text/plain\n\nSee the files.\n'
  part report.pdf "$work/f1"
  part report.pdf "$work/f2"
  part README "$work/f3"
  part README "$work/f4"
  printf -- '--b1\nContent-Type: text/plain; name="../escape.txt"\nContent-Transfer-Encoding: quoted-printable\n\nclimb=3Dout=\n\n'
  part .. "$work/f5"
  printf -- '--b1--\n'
} >"$work/files.eml"
printf 'climb=out' >"$work/f6"

"$tool" parts "$work/files.eml" >"$work/got" 2>"$work/err"
expect_status "parts files.eml exits 0" 0 $?
# The climbing name and ".." come out made safe by the engine.
{
  printf '1A\treport.pdf\tapplication/octet-stream\t%s\t%s\n' "$(size "$work/f1")" "$(sha "$work/f1")"
  printf '2A\treport.pdf\tapplication/octet-stream\t%s\t%s\n' "$(size "$work/f2")" "$(sha "$work/f2")"
  printf '3A\tREADME\tapplication/octet-stream\t%s\t%s\n' "$(size "$work/f3")" "$(sha "$work/f3")"
  printf '4A\tREADME\tapplication/octet-stream\t%s\t%s\n' "$(size "$work/f4")" "$(sha "$work/f4")"
  printf '5A\t_escape.txt\ttext/plain\t%s\t%s\n' "$(size "$work/f6")" "$(sha "$work/f6")"
  printf '6A\t_\tapplication/octet-stream\t%s\t%s\n' "$(size "$work/f5")" "$(sha "$work/f5")"
} >"$work/want"
expect_output "parts lists sizes and SHA-256 digests that sha256sum agrees with" "$work/want" "$work/got"

# --- extraction --------------------------------------------------------------
out=$work/out.d
"$tool" parts "$work/files.eml" --extract "$out" >"$work/got" 2>"$work/err"
expect_status "parts --extract exits 0" 0 $?
expect_output "parts --extract prints the same listing" "$work/want" "$work/got"
(cd "$out" && ls -A | LC_ALL=C sort) >"$work/files"
printf '%s\n' README 'README (2)' _ _escape.txt 'report (2).pdf' report.pdf >"$work/want_files"
expect_output "repeated names are numbered before the extension" "$work/want_files" "$work/files"
ok=1
for pair in "report.pdf f1" "report (2).pdf f2" "README f3" "README (2) f4" "_escape.txt f6" "_ f5"; do
  name=${pair% *}
  cmp -s "$out/$name" "$work/${pair##* }" || { ok=0; echo "    $name differs from ${pair##* }"; }
done
[ $ok -eq 1 ] && pass "each file holds its part's decoded bytes" || fail "each file holds its part's decoded bytes"
[ ! -e "$work/escape.txt" ] && [ "$(ls -A "$work" | grep -c escape)" -eq 0 ] &&
  pass "nothing is written outside the directory" || fail "nothing is written outside the directory"

# A second run into the same directory overwrites nothing: every name is
# taken, so the new files get the next numbers.
"$tool" parts "$work/files.eml" --extract "$out" >/dev/null 2>"$work/err"
expect_status "a second --extract into the same directory exits 0" 0 $?
if cmp -s "$out/report.pdf" "$work/f1" && cmp -s "$out/report (2).pdf" "$work/f2" &&
   cmp -s "$out/report (3).pdf" "$work/f1" && cmp -s "$out/report (4).pdf" "$work/f2" &&
   cmp -s "$out/README (3)" "$work/f3" && [ "$(ls -A "$out" | wc -l)" -eq 12 ]; then
  pass "existing files are kept and the new ones numbered on"
else
  fail "existing files are kept and the new ones numbered on"
  ls -A "$out" | sed 's/^/    /'
fi

# A link in the directory under a part's name is not followed.
links=$work/links.d
mkdir "$links"
ln -s "$work/target.pdf" "$links/report.pdf"
"$tool" parts "$work/files.eml" --extract "$links" >/dev/null 2>"$work/err"
expect_status "--extract beside a dangling link exits 0" 0 $?
if [ ! -e "$work/target.pdf" ] && [ -L "$links/report.pdf" ] && cmp -s "$links/report (2).pdf" "$work/f1"; then
  pass "a link under a part's name is left alone and the part numbered"
else
  fail "a link under a part's name is left alone and the part numbered"
  ls -lA "$links" | sed 's/^/    /'
fi

# Names longer than a file system takes (255 bytes) are cut before the
# extension, and a UTF-8 name between characters, never inside one.
long=$(printf 'a%.0s' $(seq 300))
accents=$(for i in $(seq 200); do printf '%s' '%C3%A9'; done)
{
  printf 'From: a@example.org\nMIME-Version: 1.0\nContent-Type: multipart/mixed; boundary="b1"\n\n'
  for param in "name=\"$long.bin\"" "name=\"$long.bin\"" "name*=utf-8''$accents.bin"; do
    printf -- '--b1\nContent-Type: application/octet-stream; %s\nContent-Transfer-Encoding: base64\n\nAAEC\n' "$param"
  done
  printf -- '--b1--\n'
} >"$work/long.eml"
"$tool" parts "$work/long.eml" --extract "$work/long.d" >"$work/got" 2>"$work/err"
expect_status "--extract of overlong names exits 0" 0 $?
e_acute=$(printf '\303\251')
want_accents=$(for i in $(seq 125); do printf '%s' "$e_acute"; done).bin
if [ -f "$work/long.d/$(printf 'a%.0s' $(seq 251)).bin" ] && [ -f "$work/long.d/$(printf 'a%.0s' $(seq 247)) (2).bin" ] &&
   [ -f "$work/long.d/$want_accents" ] && [ "$(ls -A "$work/long.d" | wc -l)" -eq 3 ] &&
   [ "$(cut -f2 "$work/got" | head -n 1)" = "$long.bin" ]; then
  pass "overlong names are cut to 255 bytes on whole characters; the listing keeps them whole"
else
  fail "overlong names are cut to 255 bytes on whole characters; the listing keeps them whole"
  ls -A "$work/long.d" | sed 's/^/    /'
fi

# Uuencoded blocks whose "begin" lines name nothing: listed with "-" for
# the name, written as "unnamed", "unnamed (2)".
printf 'From: a@example.org\nSubject: uu\n\nText.\nbegin 644 \n#:&D*\n`\nend\nMore.\nbegin 644 \n#:&\\*\n`\nend\n' >"$work/unnamed.eml"
"$tool" parts "$work/unnamed.eml" --extract "$work/unnamed.d" >"$work/got" 2>"$work/err"
expect_status "--extract of unnamed blocks exits 0" 0 $?
if [ "$(cut -f2 "$work/got" | tr '\n' ' ')" = "- - " ] && [ "$(cat "$work/unnamed.d/unnamed")" = "hi" ] &&
   [ "$(cat "$work/unnamed.d/unnamed (2)")" = "ho" ] && [ "$(ls -A "$work/unnamed.d" | wc -l)" -eq 2 ]; then
  pass "parts without a name are listed as - and written as unnamed"
else
  fail "parts without a name are listed as - and written as unnamed"
  sed 's/^/    /' "$work/got" "$work/err"
  ls -A "$work/unnamed.d" | sed 's/^/    /'
fi

# The directory is made when it does not exist; one that cannot be made
# is an error before anything is listed.
"$tool" parts "$samples/attachments.eml" --extract "$work/f1/sub" >"$work/out" 2>"$work/err"
expect_status "--extract into a path below a file exits 2" 2 $?
expect_error "--extract into a path below a file names it in one line" "f1/sub"

# --- type tables ---------------------------------------------------------------
# Uuencoded blocks inside a text body become parts typed from their names
# (mime.types) or, failing that, their first bytes (magic).
cat >"$work/uu.eml" <<'EOF'
From: a@example.org
Subject: uu
MIME-Version: 1.0
Content-Type: text/plain

See the file.
begin 644 blob
65$%23DU!1TE#('-A;7!L92!D871A"@``
`
end
And another.
begin 644 blob.tarnx
65$%23DU!1TE#('-A;7!L92!D871A"@``
`
end
EOF
printf 'TARNMAGIC sample data\n' >"$work/uu.data"
printf 'application/x-tarn-test\t\ttarnx\n' >"$work/mime.types"
printf '0\tstring\tTARNMAGIC\tapplication/x-tarn-magic\n' >"$work/magic"
digest=$(sha "$work/uu.data")
# (The file ids of such blocks are the engine's business; not compared.)
"$tool" parts "$work/uu.eml" 2>"$work/err" | cut -f2- >"$work/got"
printf 'blob\ttext/plain\t22\t%s\nblob.tarnx\ttext/plain\t22\t%s\n' "$digest" "$digest" >"$work/want"
expect_output "with the default tables both blocks are plain text" "$work/want" "$work/got"
[ ! -s "$work/err" ] && pass "the default magic file is found" || { fail "the default magic file is found"; sed 's/^/    /' "$work/err"; }
"$tool" parts "$work/uu.eml" --magic "$work/magic" --mime-types "$work/mime.types" 2>"$work/err" | cut -f2- >"$work/got"
printf 'blob\tapplication/x-tarn-magic\t22\t%s\nblob.tarnx\tapplication/x-tarn-test\t22\t%s\n' "$digest" "$digest" >"$work/want"
expect_output "--magic and --mime-types are the tables used" "$work/want" "$work/got"

"$tool" parts "$work/uu.eml" --magic "$work/no-magic" >"$work/out" 2>"$work/err"
expect_status "a missing --magic file exits 2" 2 $?
expect_error "a missing --magic file is named in one line" "no-magic"
"$tool" parts "$work/uu.eml" --mime-types "$work/no-types" >"$work/out" 2>"$work/err"
expect_status "a missing --mime-types file exits 2" 2 $?
expect_error "a missing --mime-types file is named in one line" "no-types"

# --- bad arguments -----------------------------------------------------------
"$tool" parts "$work/no-such-file.eml" >"$work/out" 2>"$work/err"
expect_status "a missing file exits 2" 2 $?
expect_error "a missing file gives one line on stderr and nothing on stdout" "no-such-file.eml"
"$tool" parts --preset nosuch "$samples/plain.eml" >"$work/out" 2>"$work/err"
expect_status "an unknown preset exits 2" 2 $?
expect_error "an unknown preset is named in one line on stderr" "nosuch"
"$tool" parts >"$work/out" 2>"$work/err"
expect_status "parts without a file exits 2" 2 $?
expect_error "parts without a file says so in one line" "FILE"
"$tool" parts "$samples/plain.eml" "$samples/forwarded.eml" >/dev/null 2>&1
expect_status "parts with two files exits 2" 2 $?
for opt in --preset --extract --magic --mime-types; do
  "$tool" parts "$samples/plain.eml" $opt >/dev/null 2>&1
  expect_status "$opt without a value exits 2" 2 $?
done

finish
