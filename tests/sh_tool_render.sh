#!/usr/bin/env bash
# The `tarnmail render` and `tarnmail hdr` commands: the page's head and
# policy, links to the saved parts that resolve from disk wherever the
# parts go, a second rendering that writes nothing, the removals a page
# adds to the display context's own, the text contexts, the header record
# both ways, and the answers to bad arguments.
#   TARN_TOOL        the tarnmail program
#   TARN_SOURCE_DIR  the source tree (for data/samples)
set -u

tool=${TARN_TOOL:?TARN_TOOL must name the tarnmail program}
samples=${TARN_SOURCE_DIR:?TARN_SOURCE_DIR must name the source tree}/data/samples
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

. "$(dirname "$0")/tap.sh"
check() {  # check NAME COMMAND...: passes when the command succeeds
  local name=$1
  shift
  if "$@"; then pass "$name"; else fail "$name"; fi
}
has() { grep -qF -- "$2" "$1"; }
lacks() { ! grep -qiF -- "$2" "$1"; }

# expect_error NAME WORD: the last run exited 2, printed nothing on stdout
# and one line naming WORD on stderr.
expect_error() {
  local status=$?
  if [ "$status" -eq 2 ] && [ ! -s "$work/out" ] && [ "$(wc -l <"$work/err")" -eq 1 ] && grep -qF -- "$2" "$work/err"; then
    pass "$1"
  else
    fail "$1 (exit status $status)"
    sed 's/^/    stdout: /' "$work/out"
    sed 's/^/    stderr: /' "$work/err"
  fi
}

# Every link of a page into its parts directory (href and src values that
# start with PREFIX), read as a browser reads it from disk, must name a
# file; prints each one that does not, and each linked file as
# "SHA-256 NAME" into LIST.
links_resolve() {  # links_resolve PAGE PREFIX LIST
  python3 - "$@" <<'EOF'
import hashlib, html, os, re, sys, urllib.parse
page, prefix, listing = sys.argv[1:4]
text = open(page, encoding="utf-8", errors="replace").read()
bad = 0
out = []
for m in re.finditer(r'(?:href|src)="([^"]*)"', text):
    url = html.unescape(m.group(1))
    if not url.startswith(prefix):
        continue
    path = os.path.join(os.path.dirname(page), urllib.parse.unquote(url.split("?")[0].split("#")[0]))
    if os.path.isfile(path):
        out.append(hashlib.sha256(open(path, "rb").read()).hexdigest() + " " + os.path.basename(path))
    else:
        print("    unresolved link:", url)
        bad += 1
open(listing, "w").write("".join(sorted(set(line + "\n" for line in out))))
sys.exit(1 if bad or not out else 0)
EOF
}

# "SHA-256 NAME" of every named part, as `tarnmail parts` decodes them.
part_digests() {  # part_digests FILE PRESET
  "$tool" parts "$1" --preset "$2" | awk -F'\t' '{print $5 " " $2}' | sort -u
}

# --- the page of a sample ------------------------------------------------
mkdir "$work/a"
"$tool" render "$samples/attachments.eml" -o "$work/a/page.html" >"$work/out" 2>"$work/err"
check "render exits 0" [ $? -eq 0 ]
check "render is silent when it writes a file" [ ! -s "$work/out" ] && [ ! -s "$work/err" ]
cat >"$work/want" <<'EOF'
<!DOCTYPE html>
<html>
<head>
<meta charset="utf-8">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; img-src 'self' data:; style-src 'unsafe-inline'; base-uri 'none'; form-action 'none'">
<meta name="referrer" content="no-referrer">
EOF
head -6 "$work/a/page.html" >"$work/got"
expect_output "the page opens with its charset and a policy that allows no script and no remote load" "$work/want" "$work/got"
check "the title is the subject" has "$work/a/page.html" "<title>Invoice 2024-117</title>"
check "the page ends after the engine's output" [ "$(tail -3 "$work/a/page.html" | tr '\n' '|')" = "</main>|</body>|</html>|" ]

# Each part lies where the page links to it: a directory per part, named as
# in the engine's links, holding the part under its own name.
part_digests "$samples/attachments.eml" general >"$work/want"
links_resolve "$work/a/page.html" "parts/" "$work/got"
check "every parts link of the page names a file" [ $? -eq 0 ]
expect_output "the linked files hold the decoded parts under their names" "$work/want" "$work/got"
check "no staging directory is left behind" [ -z "$(find "$work/a/parts" -name '.incoming-*')" ]

# Rendering the same stored message again writes nothing new.
find "$work/a/parts" -mindepth 1 -printf '%P %s %T@\n' | sort >"$work/before"
cp "$work/a/page.html" "$work/a/first.html"
"$tool" render "$samples/attachments.eml" -o "$work/a/page.html" 2>"$work/err"
find "$work/a/parts" -mindepth 1 -printf '%P %s %T@\n' | sort >"$work/after"
expect_output "a second rendering leaves the parts as they were" "$work/before" "$work/after"
expect_output "a second rendering writes the same page" "$work/a/first.html" "$work/a/page.html"

# Parts elsewhere: the links climb out of the page's directory.
"$tool" render "$samples/attachments.eml" -o "$work/a/other.html" --download-dir "$work/elsewhere/files" 2>"$work/err"
check "--download-dir creates the directory" [ -d "$work/elsewhere/files" ]
check "links lead from the page to --download-dir" has "$work/a/other.html" 'href="../elsewhere/files/'
links_resolve "$work/a/other.html" "../elsewhere/files/" "$work/got"
check "every link into --download-dir names a file" [ $? -eq 0 ]
expect_output "the files in --download-dir hold the decoded parts" "$work/want" "$work/got"

# Without -o: the page on standard output, the parts beside the working
# directory.
mkdir "$work/cwd"
(cd "$work/cwd" && "$tool" render - <"$samples/attachments.eml" >page.html 2>"$work/err")
check "render - writes the page to standard output" has "$work/cwd/page.html" "<title>Invoice 2024-117</title>"
links_resolve "$work/cwd/page.html" "parts/" "$work/got"
check "standard output: the parts go to ./parts" [ $? -eq 0 ]

# TNEF: the stored-message context expands winmail.dat.
mkdir "$work/t"
"$tool" render "$samples/winmail.eml" --preset msgread -o "$work/t/page.html" 2>"$work/err"
part_digests "$samples/winmail.eml" msgread >"$work/want"
links_resolve "$work/t/page.html" "parts/" "$work/got"
check "msgread: every parts link names a file" [ $? -eq 0 ]
expect_output "msgread: the files inside winmail.dat are linked and saved" "$work/want" "$work/got"

# --- names that a URL would mangle ----------------------------------------
# The attachment list links a part by its name without direction
# overrides, URI-escaped; the engine's own links (here the inline picture)
# by the safe form of the whole name, HTML-escaped.  Both resolve.
png=iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAIAAACQd1PeAAAADElEQVQI12P4z8AAAAMBAQAY3Y2wAAAAAElFTkSuQmCC
cat >"$work/names.eml" <<EOF
From: a@example.org
Subject: names
MIME-Version: 1.0
Content-Type: multipart/mixed; boundary="b1"

--b1
Content-Type: text/plain

See the files.
--b1
Content-Type: text/plain
Content-Disposition: attachment; filename*=utf-8''notes%E2%80%AEtxt.exe

the notes
--b1
Content-Type: image/png; name="a&b chart.png"
Content-Transfer-Encoding: base64

$png
--b1--
EOF
mkdir "$work/n"
"$tool" render "$work/names.eml" -o "$work/n/page.html" 2>"$work/err"
links_resolve "$work/n/page.html" "parts/" "$work/got"
check "names with an override, & and blanks: every link names a file" [ $? -eq 0 ]
check "the attachment list links the name without the override" grep -q 'href="parts/[^"/]*[.]exe/notestxt[.]exe"' "$work/n/page.html"
check "the engine's picture link uses the safe name" grep -q 'src="parts/[^"/]*/a&amp;b chart[.]png"' "$work/n/page.html"

# --- what a safe page removes --------------------------------------------
cat >"$work/hostile.eml" <<'EOF'
From: "Mallory <script>" <m@example.org>
Subject: <b>"Q&A"</b>
MIME-Version: 1.0
Content-Type: text/html; charset=utf-8

<html><head><meta http-equiv="refresh" content="0;url=http://evil.example/"></head>
<body><p>Hello</p><script>alert(1)</script>
<a href="http://example.org/" onclick="steal()">link</a>
<img src="http://tracker.example/p.gif" width=1 height=1>
<object data="x.swf"></object><embed src="y.swf"><xml>z</xml>
</body></html>
EOF
mkdir "$work/h"
"$tool" render "$work/hostile.eml" -o "$work/h/safe.html" 2>"$work/err"
check "the title escapes the subject" has "$work/h/safe.html" "<title>&lt;b&gt;&quot;Q&amp;A&quot;&lt;/b&gt;</title>"
check "safe page: no script element" lacks "$work/h/safe.html" "<script"
check "safe page: no event attribute" lacks "$work/h/safe.html" " onclick="
check "safe page: no object or embed" lacks "$work/h/safe.html" "<object" && lacks "$work/h/safe.html" "<embed"
check "safe page: no refresh" lacks "$work/h/safe.html" 'http-equiv="refresh"'
check "safe page: no XML island" lacks "$work/h/safe.html" "<xml>"
check "safe page: the remote picture is blocked" lacks "$work/h/safe.html" "tracker.example"

"$tool" render "$work/hostile.eml" -o "$work/h/images.html" --show-images 2>"$work/err"
check "--show-images: the remote picture stays" has "$work/h/images.html" 'src="http://tracker.example/p.gif"'
check "--show-images: the policy lets pictures from other sites in" \
  has "$work/h/images.html" "img-src 'self' data: http: https:;"
check "--show-images: scripts are still removed" lacks "$work/h/images.html" "<script"

"$tool" render "$work/hostile.eml" -o "$work/h/preset.html" --preset-flags 2>"$work/err"
check "--preset-flags: the reading context's own switches keep the script element" has "$work/h/preset.html" "<script>"
check "--preset-flags: and the remote picture" has "$work/h/preset.html" "tracker.example"
check "--preset-flags: the policy still forbids scripts" has "$work/h/preset.html" "content=\"default-src 'none'; img-src 'self' data:;"

# --- contexts whose output is text -----------------------------------------
cat >"$work/tags.eml" <<'EOF'
From: a@example.org
Subject: tags
Content-Type: text/plain

Use <b>bold</b> & more.
EOF
mkdir "$work/x"
"$tool" render "$work/tags.eml" --preset wap -o "$work/x/wap.html" 2>"$work/err"
check "wap: raw text is escaped into a pre block" has "$work/x/wap.html" '<pre class="tm-text">From: a@example.org'
check "wap: the body's markup is shown as text" has "$work/x/wap.html" "Use &lt;b&gt;bold&lt;/b&gt; &amp; more."
"$tool" render "$work/tags.eml" --preset text_reply -o "$work/x/reply.html" 2>"$work/err"
check "text_reply: quoted lines in a pre block, escaped once" has "$work/x/reply.html" ">Use &lt;b&gt;bold&lt;/b&gt; &amp; more."
check "text_reply: the pre block ends the page" [ "$(grep -c '<pre class="tm-text">' "$work/x/reply.html")" -eq 1 ]
"$tool" render "$work/tags.eml" --preset msgread -o "$work/x/msgread.html" 2>"$work/err"
check "msgread: an HTML context, no pre block" lacks "$work/x/msgread.html" '<pre class="tm-text">'
check "msgread: text bodies escaped by the engine" has "$work/x/msgread.html" "Use &lt;b&gt;bold&lt;/b&gt; &amp; more.<br>"

# --- bad arguments -----------------------------------------------------------
"$tool" render "$samples/plain.eml" --preset nosuch -o "$work/x/no.html" >"$work/out" 2>"$work/err"
expect_error "an unknown preset is named in one line" "nosuch"
check "an unknown preset writes no page" [ ! -e "$work/x/no.html" ]
"$tool" render "$samples/plain.eml" --preset mailreadDE >"$work/out" 2>"$work/err"
expect_error "a preset is named without DE" "mailreadDE"
"$tool" render "$work/no-such-file.eml" -o "$work/x/no.html" >"$work/out" 2>"$work/err"
expect_error "a missing file" "no-such-file.eml"
"$tool" render "$samples/plain.eml" --forms "$work/no-forms" >"$work/out" 2>"$work/err"
expect_error "a forms directory without the header form" "mail_header_html.dat"
"$tool" render "$samples/plain.eml" -o "$work/no-dir/page.html" >"$work/out" 2>"$work/err"
expect_error "a page in a missing directory" "no-dir"
"$tool" render "$samples/plain.eml" --bogus >"$work/out" 2>"$work/err"
expect_error "an unknown option" "--bogus"
"$tool" render "$samples/plain.eml" "$samples/forwarded.eml" >"$work/out" 2>"$work/err"
expect_error "two files" "one FILE"
"$tool" render "$samples/plain.eml" -o >"$work/out" 2>"$work/err"
expect_error "-o without a file" "-o"

# --- the header record -------------------------------------------------------
cat >"$work/hdr.eml" <<'EOF'
Received: from relay.example.org (relay.example.org [192.0.2.7]) by mx.example.net
Received: from a.example by relay.example.org (envelope-from <bounce@example.org>)
From: =?utf-8?Q?Ren=C3=A9e?= <r@example.org>
To: t@example.net, u@example.net
Subject: =?utf-8?Q?caf=C3=A9?=
X-Priority: 2
Message-ID: <m1@example.org>
Content-Type: text/plain; charset=utf-8
Content-Transfer-Encoding: quoted-printable

A caf=C3=A9 at noon?
EOF
cat >"$work/want" <<'EOF'
Message-ID: '<m1@example.org>'
From: 'Renée <r@example.org>'
Resent-From: ''
Subject: 'café'
CC: ''
To: 't@example.net, u@example.net'
BCC: ''
Content-Type: 'text/plain'
Reply-To:  ''
In-Reply-To:  '(null)'
Refrences:  '(null)'
Date: ''
Charset: 'utf-8'
Hops: 2
Important: 2
Partial:  0/0
Envelope num: 1
Envelope 1: 'bounce@example.org'
Hostnum: 3
Host 1: 'relay.example.org'
Host 2: '192.0.2.7'
Host 3: 'a.example'
Text:
A café at noon?

EOF
"$tool" hdr --raw "$work/hdr.eml" >"$work/got" 2>"$work/err"
check "hdr --raw exits 0" [ $? -eq 0 ]
expect_output "hdr --raw: the record parsed from the raw header text" "$work/want" "$work/got"

# From the decoded message: the full content type, absent fields empty,
# and the preview rendered as plain text.
sed -e "s/^Content-Type: 'text\/plain'$/Content-Type: 'text\/plain; charset=utf-8'/" \
    -e "s/^In-Reply-To:  '(null)'$/In-Reply-To:  ''/" -e "s/^Refrences:  '(null)'$/Refrences:  ''/" \
    "$work/want" >"$work/want2"
"$tool" hdr "$work/hdr.eml" >"$work/got" 2>"$work/err"
check "hdr exits 0" [ $? -eq 0 ]
expect_output "hdr: the record filled from the decoded message" "$work/want2" "$work/got"

"$tool" hdr "$work/no-such-file.eml" >"$work/out" 2>"$work/err"
expect_error "hdr: a missing file" "no-such-file.eml"
"$tool" hdr >"$work/out" 2>"$work/err"
expect_error "hdr without a file" "FILE"
"$tool" hdr --full "$samples/plain.eml" >"$work/out" 2>"$work/err"
expect_error "hdr: an unknown option" "--full"

finish
