#!/usr/bin/env bash
# The installed C interface: builds the project (Release, no tests, no
# sanitizers) into a temporary directory, installs it into a temporary
# prefix, compiles tests/c_api/decode_tree.c as strict C11 with the flags
# pkg-config gives for tarnmail, runs it on a sample, and checks what the
# shared library exports.
#   TARN_SOURCE_DIR  the source tree
set -u

src=${TARN_SOURCE_DIR:?TARN_SOURCE_DIR must name the source tree}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
build=$work/build
prefix=$work/prefix

passed=0
failed=0
pass() { passed=$((passed + 1)); echo "ok - $1"; }
fail() { failed=$((failed + 1)); echo "FAILED - $1"; }
finish() {
  echo "$passed passed, $failed failed"
  [ "$failed" -eq 0 ]
  exit
}

# --- build and install -----------------------------------------------------
if cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=Release -DTARN_TESTS=OFF -DTARN_BENCH=OFF -DTARN_SANITIZE=OFF \
     -DCMAKE_INSTALL_PREFIX="$prefix" >"$work/configure.log" 2>&1; then
  pass "configure"
else
  fail "configure"
  tail -n 20 "$work/configure.log"
  finish
fi
if cmake --build "$build" -j2 >"$work/build.log" 2>&1; then pass "build"; else
  fail "build"
  grep -E 'error|Error' "$work/build.log" | head -n 20
  finish
fi
if cmake --install "$build" >"$work/install.log" 2>&1; then pass "install"; else
  fail "install"
  tail -n 20 "$work/install.log"
  finish
fi

pc=$(find "$prefix" -name tarnmail.pc | head -n 1)
if [ -n "$pc" ]; then pass "tarnmail.pc installed"; else
  fail "tarnmail.pc installed"
  finish
fi
libdir=$(dirname "$(dirname "$pc")")
lib=$libdir/libtarnmail.so
export PKG_CONFIG_PATH=$(dirname "$pc")

# --- the shared library ------------------------------------------------------
soname=$(readelf -d "$lib" | sed -n 's/.*Library soname: \[\(.*\)\].*/\1/p')
if [ "$soname" = "libtarnmail.so.6" ]; then pass "SONAME is libtarnmail.so.6"; else
  fail "SONAME is libtarnmail.so.6 (found '$soname')"
fi
if [ -e "$libdir/libtarnmail.so.6" ] && [ -e "$libdir/libtarnmail.so.6.0.1" ]; then
  pass "libtarnmail.so.6 and libtarnmail.so.6.0.1 installed"
else
  fail "libtarnmail.so.6 and libtarnmail.so.6.0.1 installed"
  ls -l "$libdir"
fi

nm -D --defined-only "$lib" | awk '{print $NF}' | sort >"$work/exports"
missing=""
for sym in mime_decode_init mime_decode_run mime_decode_shutdown mime_get_rfc822_header mime_get_header_field \
           mime_get_header_field2 array_get_header_field unquote imapME generalME msgreadME mailerdME; do
  grep -qx "$sym" "$work/exports" || missing="$missing $sym"
done
if [ -z "$missing" ]; then pass "the decoding interface is exported"; else fail "not exported:$missing"; fi
leaked=""
for sym in header_strip_parse strip_header fill_mime_header fill_mime_header_ctype fill_rfc822_header dup_pp_buf \
           he_convert_null mime_unfold mime_dos2unix mime_strip mime_strip_parse mime_boundary_find \
           mime_body_end_fill mime_decode mime_alloc mime_strndup nFirstTimeStripHeader strip_charset decode_header; do
  grep -qx "$sym" "$work/exports" && leaked="$leaked $sym"
done
if [ -z "$leaked" ]; then pass "no internal function is exported"; else fail "internal symbols exported:$leaked"; fi
mangled=$(grep -c '^_Z' "$work/exports")
if [ "$mangled" -eq 0 ]; then pass "no C++ symbol is exported"; else
  fail "$mangled C++ symbols exported"
  grep '^_Z' "$work/exports" | head -n 10 | sed 's/^/    /'
fi

# --- a C program against the installed headers and library ------------------
flags=$(pkg-config --cflags --libs tarnmail 2>"$work/pkg.err")
if [ -n "$flags" ]; then pass "pkg-config knows tarnmail"; else
  fail "pkg-config knows tarnmail"
  cat "$work/pkg.err"
  finish
fi
# shellcheck disable=SC2086  # the flags are words
if gcc -std=c11 -Wall -Wextra -Werror -pedantic -o "$work/decode_tree" "$src/tests/c_api/decode_tree.c" $flags \
     >"$work/cc.log" 2>&1; then
  pass "decode_tree.c compiles as strict C11"
else
  fail "decode_tree.c compiles as strict C11"
  head -n 30 "$work/cc.log"
  finish
fi

export LD_LIBRARY_PATH=$libdir
"$work/decode_tree" "$src/data/samples/forwarded.eml" >"$work/got" 2>"$work/err"
status=$?
if [ "$status" -eq 0 ]; then pass "decode_tree runs"; else fail "decode_tree runs (exit status $status)"; fi
if ldd "$work/decode_tree" | grep -q "libtarnmail.so.6 => $libdir/libtarnmail.so.6"; then
  pass "decode_tree uses the installed library"
else
  fail "decode_tree uses the installed library"
  ldd "$work/decode_tree" | sed 's/^/    /'
fi

cat >"$work/want" <<'EOF'
subject: Fwd: Room booking confirmed
from: Tom Berg <tom.berg@example.net>
to (raw): Ana Silva <ana.silva@example.org>
message-id: <fwd.88e1@example.net>
first Content* field: multipart/mixed; boundary="fwd-0b2e44"
MIME-Version: 1.0
X-Mailer: (none)
received fields: 0
error_code: 0
multipart/mixed ctype=7 enc=0 datalen=517
  text/plain ctype=2 enc=0 datalen=51 first line "Ana, see below: the room is ours on the 12th."
  message/rfc822 ctype=1 enc=0 datalen=321
    text/plain ctype=2 enc=0 datalen=78 first line "Your booking of meeting room 3.14 on 12 June 2024, 10:00-12:00,"
arena after shutdown: released
EOF
if cmp -s "$work/want" "$work/got"; then pass "decode_tree output on forwarded.eml"; else
  fail "decode_tree output on forwarded.eml"
  diff -u "$work/want" "$work/got" | sed 's/^/    /'
fi

# The Received look-up walks every occurrence and then stops.
"$work/decode_tree" "$src/data/samples/plain.eml" >"$work/got" 2>&1
if grep -qx 'received fields: 1' "$work/got" && grep -qx 'subject: Lunch on Thursday?' "$work/got"; then
  pass "decode_tree on plain.eml finds its one Received field"
else
  fail "decode_tree on plain.eml finds its one Received field"
  sed 's/^/    /' "$work/got"
fi

finish
