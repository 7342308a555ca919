#!/usr/bin/env python3
"""Transfer decoding of tarnmail against Python's standard email package.

For every well-formed message of the corpus, each leaf part that either
side takes as base64 or quoted-printable must decode to the same bytes in
`tarnmail parts --all-leaves` as in Python's get_payload(decode=True).
Leaves are matched by their place in the tree ("1" the message, "1.2" its
second part, "1.2.1" the first part of that ...), which both sides number
alike: the parts of a multipart in order, and one child for an embedded
message/rfc822.

Differences, one line each:
  only-ours PATH         a base64/QP leaf of ours that Python has not
  only-python PATH       a base64/QP leaf of Python's that we have not
  cte PATH OURS PYTHON   both have the leaf, one takes another encoding
  bytes PATH             same leaf, same encoding, other decoded bytes
A message passes when its differences are exactly those listed for it in
the exceptions file (path, difference, reason; tab-separated).

usage: diff_python_parts.py TOOL CORPUS_DIR EXCEPTIONS_TSV
"""

import concurrent.futures
import email.parser
import email.policy
import hashlib
import os
import subprocess
import sys
from collections import Counter

ENCODED = ("base64", "quoted-printable")

# Transfer decoding only: no header decoding, no UTF-8 or Japanese
# conversion of text bodies, no uuencoded blocks cut out of text, no TNEF
# expansion; every body keeps the bytes its transfer encoding gives.
TOOL_ARGS = ["--all-leaves", "--decode-level", "0x7", "--auto-convert", "0"]


def messages(corpus):
    """Paths below the corpus of the files tagged as single messages."""
    out = []
    with open(os.path.join(corpus, "INDEX.tsv"), encoding="utf-8") as index:
        for line in index:
            if line.startswith("#"):
                continue
            cols = line.rstrip("\n").split("\t")
            if len(cols) < 3 or not cols[0].startswith("mime/"):
                continue
            tags = cols[2].split()
            if tags and tags[0] == "msg":
                out.append(cols[0])
    return sorted(out)


def enc_class(value):
    return value if value in ENCODED else "other"


def ours(tool, path):
    """Leaves of the tool's tree: {place: (encoding class, sha256)}."""
    run = subprocess.run([tool, "parts", path] + TOOL_ARGS, capture_output=True, timeout=120)
    if run.returncode != 0:
        err = run.stderr.decode("utf-8", "replace").strip().splitlines()
        raise RuntimeError("tarnmail exit status %d: %s" % (run.returncode, err[-1] if err else ""))
    leaves = {}
    for line in run.stdout.decode("utf-8", "surrogateescape").splitlines():
        cols = line.split("\t")
        if len(cols) < 8:
            raise RuntimeError("bad line from tarnmail: %r" % line)
        leaves[cols[0]] = (enc_class(cols[2]), cols[5])
    return leaves


def python_leaves(path):
    # parsebytes, not parse: reading through a text stream would turn
    # CR LF into LF before the parser sees the bytes.
    with open(path, "rb") as f:
        msg = email.parser.BytesParser(policy=email.policy.compat32).parsebytes(f.read())
    leaves = {}

    def walk(part, place):
        if part.is_multipart():
            for i, sub in enumerate(part.get_payload(), 1):
                walk(sub, "%s.%d" % (place, i))
            return
        # The test get_payload(decode=True) itself makes.
        cte = str(part.get("content-transfer-encoding", "")).lower()
        payload = part.get_payload(decode=True)
        if isinstance(payload, str):
            payload = payload.encode("utf-8", "surrogateescape")
        leaves[place] = (enc_class(cte), hashlib.sha256(payload or b"").hexdigest())

    walk(msg, "1")
    return leaves


def differences(mine, theirs):
    out = []
    for place in sorted(set(mine) | set(theirs), key=lambda p: [int(x) for x in p.split(".")]):
        a, b = mine.get(place), theirs.get(place)
        if not (a and a[0] in ENCODED) and not (b and b[0] in ENCODED):
            continue
        if b is None:
            out.append("only-ours " + place)
        elif a is None:
            out.append("only-python " + place)
        elif a[0] != b[0]:
            out.append("cte %s %s %s" % (place, a[0], b[0]))
        elif a[1] != b[1]:
            out.append("bytes " + place)
    return out


def load_exceptions(path):
    listed = {}
    bad = []
    with open(path, encoding="utf-8") as f:
        for n, line in enumerate(f, 1):
            line = line.rstrip("\n")
            if not line or line.startswith("#"):
                continue
            cols = line.split("\t")
            if len(cols) != 3 or not cols[2].strip():
                bad.append("%s:%d: want path, difference and reason: %r" % (path, n, line))
                continue
            listed.setdefault(cols[0], Counter())[cols[1]] += 1
    return listed, bad


def main():
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    tool, corpus, exceptions_file = sys.argv[1:]
    listed, bad_lines = load_exceptions(exceptions_file)
    files = messages(corpus)
    passed = failed = compared_leaves = 0
    for line in bad_lines:
        print("FAILED - " + line)
        failed += 1

    with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
        runs = {rel: pool.submit(ours, tool, os.path.join(corpus, rel)) for rel in files}
        for rel in files:
            want = listed.pop(rel, Counter())
            try:
                mine = runs[rel].result()
                theirs = python_leaves(os.path.join(corpus, rel))
            except Exception as e:  # a crash of either side fails the message
                print("FAILED - %s: %s" % (rel, e))
                failed += 1
                continue
            got = Counter(differences(mine, theirs))
            compared_leaves += sum(1 for p, v in mine.items() if v[0] in ENCODED and theirs.get(p) == v)
            if got == want:
                passed += 1
                continue
            failed += 1
            print("FAILED - %s" % rel)
            for d in sorted((got - want).elements()):
                print("    unlisted difference: %s\t%s" % (rel, d))
            for d in sorted((want - got).elements()):
                print("    listed but no longer differs: %s\t%s" % (rel, d))
    for rel in sorted(listed):
        print("FAILED - exception for a file that is not a compared message: " + rel)
        failed += 1
    print("%d base64/quoted-printable leaves decoded alike" % compared_leaves)
    print("%d passed, %d failed" % (passed, failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
