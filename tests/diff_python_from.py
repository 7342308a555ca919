#!/usr/bin/env python3
"""Compares MLG_FromParse with Python's email.utils.parseaddr.

For every message of the corpus (the files INDEX.tsv tags "msg" or "other"
under mime/; mbox files are left out) the first From field of the message's
own header is unfolded and handed to both parsers.  The addresses must be
equal, unless tests/data/from_diff_exceptions.tsv lists the file with exactly
the two addresses seen and the parsing rule that makes them differ.  A listed
difference that no longer shows as listed fails as well, so the list stays
true.  Prints "N passed, N failed" and exits 1 on any failure.

The library side runs in test_eml (the FromDiff test), which reads one
hex-encoded value per line and writes "rc<TAB>hex(address)<TAB>hex(nick)".
"""
import argparse
import email.utils
import os
import subprocess
import sys
import tempfile

MESSAGE_KINDS = {"msg", "other"}


def message_files(corpus):
    """Corpus-relative paths of the single messages below mime/, sorted."""
    paths = []
    with open(os.path.join(corpus, "INDEX.tsv"), encoding="utf-8") as index:
        for line in index:
            if line.startswith("#"):
                continue
            cols = line.rstrip("\n").split("\t")
            if len(cols) < 3 or not cols[0].startswith("mime/"):
                continue
            tags = cols[2].split()
            if tags and tags[0] in MESSAGE_KINDS:
                paths.append(cols[0])
    return sorted(paths)


def header_lines(data):
    """Lines of the header block, without their line ends; a leading mbox
    "From " line is not part of it."""
    lines = []
    for i, raw in enumerate(data.split(b"\n")):
        line = raw[:-1] if raw.endswith(b"\r") else raw
        if i == 0 and line.startswith(b"From "):
            continue
        if line == b"":
            break
        lines.append(line)
    return lines


def first_from(data):
    """Value of the first From field, unfolded (line ends removed, the
    blanks that follow them kept), or None."""
    lines = header_lines(data)
    for i, line in enumerate(lines):
        name, colon, value = line.partition(b":")
        if not colon or name.strip().lower() != b"from":
            continue
        for cont in lines[i + 1:]:
            if not cont[:1] in (b" ", b"\t"):
                break
            value += cont
        return value
    return None


def python_address(value):
    # Bytes map one to one onto latin-1 characters and back.
    return email.utils.parseaddr(value.decode("latin-1"))[1].encode("latin-1")


def escape(data):
    """Printable ASCII as is; a backslash, tabs, controls and high bytes as \\xNN."""
    return "".join(chr(b) if 0x20 <= b < 0x7F and b != 0x5C else "\\x%02x" % b for b in data)


def load_exceptions(path):
    listed = {}
    with open(path, encoding="utf-8") as tsv:
        for n, line in enumerate(tsv, 1):
            line = line.rstrip("\n")
            if not line or line.startswith("#"):
                continue
            cols = line.split("\t")
            if len(cols) != 4 or not cols[3].strip():
                sys.exit("%s:%d: want path, library address, parseaddr address, rule" % (path, n))
            listed[cols[0]] = (cols[1], cols[2], cols[3])
    return listed


def run_library(parser, values):
    with tempfile.TemporaryDirectory() as tmp:
        in_path = os.path.join(tmp, "in.txt")
        out_path = os.path.join(tmp, "out.txt")
        with open(in_path, "w", encoding="ascii") as f:
            for v in values:
                f.write(v.hex() + "\n")
        env = dict(os.environ, TARN_FROM_DIFF_IN=in_path, TARN_FROM_DIFF_OUT=out_path)
        subprocess.run([parser, "--gtest_filter=FromDiff.*"], env=env, check=True,
                       stdout=subprocess.DEVNULL)
        with open(out_path, encoding="ascii") as f:
            rows = [line.rstrip("\n").split("\t") for line in f]
    if len(rows) != len(values):
        sys.exit("the parser answered %d of %d values" % (len(rows), len(values)))
    return [(int(rc), bytes.fromhex(addr)) for rc, addr, _nick in rows]


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--corpus", required=True, help="the corpus folder (holds INDEX.tsv)")
    ap.add_argument("--parser", required=True, help="the test_eml program")
    ap.add_argument("--exceptions", required=True, help="from_diff_exceptions.tsv")
    ap.add_argument("--show", action="store_true", help="print every unlisted difference as a TSV line")
    args = ap.parse_args()

    cases = []
    for path in message_files(args.corpus):
        with open(os.path.join(args.corpus, path), "rb") as f:
            value = first_from(f.read())
        if value is not None:
            cases.append((path, value))
    results = run_library(args.parser, [v for _, v in cases])
    listed = load_exceptions(args.exceptions)

    passed = failed = 0
    seen = set()
    for (path, value), (rc, ours) in zip(cases, results):
        theirs = python_address(value)
        seen.add(path)
        got = (escape(ours), escape(theirs))
        want = listed.get(path)
        if rc != 0 and value.strip(b" \t\r\n") != b"":
            ok, why = False, "MLG_FromParse returned %d" % rc
        elif want is not None:
            ok = got == want[:2]
            why = "listed as %r / %r" % want[:2]
        else:
            ok, why = ours == theirs, "not listed"
        if ok:
            passed += 1
            continue
        failed += 1
        print("FAIL %s: From %r: library %r, parseaddr %r (%s)"
              % (path, escape(value), got[0], got[1], why))
        if args.show:
            print("%s\t%s\t%s\t?" % (path, got[0], got[1]))
    for path in sorted(set(listed) - seen):
        failed += 1
        print("FAIL %s: listed, but no From field of the corpus was read from it" % path)
    print("%d passed, %d failed" % (passed, failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
