#!/usr/bin/env python3
"""Compares parsedate with Python's email.utils.parsedate_to_datetime.

For every message below the corpus folder (mbox files: every message), the
first Date field, unfolded, is given to both.  Where both accept it they
must name the same instant, except for the differences listed in the
exceptions file (date text, parsedate's result, Python's result, the rule
that explains it; tab-separated, "#" starts a comment line).  A listed
difference that no longer occurs counts as a failure too, so the list
stays honest.  Prints "N passed, N failed"; exits 1 on any failure.

Both sides run in UTC: a date without a zone is read as UTC by parsedate
(the probe's now has zone 0) and comes back naive from Python, which is
then taken as UTC.
"""
import argparse
import datetime
import email.utils
import os
import re
import subprocess
import sys
import tempfile

FIELD_END = re.compile(rb"\r?\n(?![ \t])")
FOLD = re.compile(rb"\r?\n(?=[ \t])")
MBOX_SPLIT = re.compile(rb"(?:^|\n)From [^\n]*\n")


def messages(data):
    """The messages of a file: an mbox holds several, anything else one."""
    if data.startswith(b"From "):
        return [m for m in MBOX_SPLIT.split(data) if m.strip()]
    return [data]


def first_date(message):
    """The first Date field of a message's header block, unfolded; None
    when the header block has none."""
    end = re.search(rb"\r?\n\r?\n", message)
    header = message[: end.start()] if end else message
    for field in FIELD_END.split(header):
        if field[:5].lower() == b"date:":
            value = FOLD.sub(b"", field[5:]).strip(b" \t\r")
            if b"\0" in value or b"\n" in value or b"\r" in value:
                return None  # not a line the probe can take
            return value
    return None


def corpus_dates(root):
    dates = []
    for folder, _, files in sorted(os.walk(root)):
        for name in sorted(files):
            path = os.path.join(folder, name)
            with open(path, "rb") as f:
                data = f.read()
            for msg in messages(data):
                value = first_date(msg)
                if value is not None:
                    dates.append((os.path.relpath(path, root), value))
    return dates


def python_instant(value):
    text = value.decode("latin-1")
    try:
        dt = email.utils.parsedate_to_datetime(text)
    except (TypeError, ValueError, IndexError, OverflowError):
        return None
    if dt is None:
        return None
    if dt.tzinfo is None:
        dt = dt.replace(tzinfo=datetime.timezone.utc)
    try:
        return int(dt.timestamp())
    except (OverflowError, ValueError, OSError):
        return None


def probe(binary, values):
    with tempfile.TemporaryDirectory() as tmp:
        src = os.path.join(tmp, "dates.txt")
        dst = os.path.join(tmp, "results.txt")
        with open(src, "wb") as f:
            for v in values:
                f.write(v + b"\n")
        env = dict(os.environ, TZ="UTC0", TARN_DATE_PROBE_IN=src, TARN_DATE_PROBE_OUT=dst)
        run = subprocess.run([binary, "--gtest_filter=DateProbe.*"], env=env,
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        if run.returncode != 0:
            sys.stdout.write(run.stdout.decode("utf-8", "replace"))
            sys.exit("the probe failed")
        with open(dst) as f:
            results = [int(line) for line in f]
    if len(results) != len(values):
        sys.exit("the probe gave %d results for %d dates" % (len(results), len(values)))
    return results


def load_exceptions(path):
    listed = {}
    with open(path, "rb") as f:
        for number, line in enumerate(f, 1):
            line = line.rstrip(b"\r\n")
            if not line or line.startswith(b"#"):
                continue
            cols = line.split(b"\t")
            if len(cols) != 4:
                sys.exit("%s:%d: want 4 tab-separated columns" % (path, number))
            listed[cols[0]] = (int(cols[1]), int(cols[2]), cols[3].decode("utf-8"))
    return listed


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--probe", required=True, help="the test_parsdate program")
    ap.add_argument("--corpus", required=True, help="folder of messages, walked recursively")
    ap.add_argument("--exceptions", required=True, help="TSV of the expected differences")
    ap.add_argument("--verbose", action="store_true", help="print every compared date")
    args = ap.parse_args()

    dates = corpus_dates(args.corpus)
    ours = probe(args.probe, [v for _, v in dates])
    listed = load_exceptions(args.exceptions)
    seen = set()
    passed = failed = skipped = 0
    for (path, value), mine in zip(dates, ours):
        theirs = python_instant(value)
        shown = value.decode("latin-1")
        if mine == -1 or theirs is None:
            skipped += 1
            if args.verbose:
                print("skip  %s: %r (parsedate %d, python %s)" % (path, shown, mine, theirs))
            continue
        if mine == theirs:
            passed += 1
            if args.verbose:
                print("same  %s: %r = %d" % (path, shown, mine))
            continue
        rule = listed.get(value)
        if rule is not None and rule[0] == mine and rule[1] == theirs:
            seen.add(value)
            passed += 1
            if args.verbose:
                print("known %s: %r parsedate %d, python %d (%s)" % (path, shown, mine, theirs, rule[2]))
            continue
        failed += 1
        print("DIFF  %s: %r parsedate %d, python %d (%+d s)%s"
              % (path, shown, mine, theirs, mine - theirs,
                 "" if rule is None else " - listed with other results"))
    for value in sorted(set(listed) - seen):
        failed += 1
        print("STALE exception no longer met: %r" % value.decode("latin-1"))
    print("(%d dates, %d not accepted by both)" % (len(dates), skipped))
    print("%d passed, %d failed" % (passed, failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
