#!/usr/bin/env python3
"""Every message of the corpus rendered by `tarnmail render` must give a
complete page whose HTML has no error that the engine or the page made.

Message-supplied HTML may be as broken as its sender made it; what is
checked is everything else:

  render   `tarnmail render` (reading page, mailread) exits 0 and writes a
           complete page: the page's own head (charset, the content
           security policy, a title with no markup in it, the style sheet)
           and its closing lines, exactly.
  header   every header block of the reading page (a <section> made from
           the header form: fields, address links, the attachment list) is
           engine content throughout.
  page     for a message with no HTML part, the whole reading page between
           the page's head and its closing lines is engine content.
  text     the small-screen page (imode), which reduces HTML bodies to text,
           is engine content throughout, for every message.

Engine content must hold only the elements and attributes that the forms
and the renderers write, every start tag well formed (attribute values
quoted or plain, no quote or "<" left over from an unescaped value), no
"<" as text (an unescaped "<" in a header value or a text body), no
comment or declaration, every element closed in order and nothing closed
that is not open.

Failures listed in the exceptions file (message, check, reason) are
expected; an exception that no longer fails is reported, not counted.

usage: check_html.py TOOL CORPUS EXCEPTIONS.tsv [-j JOBS]
"""

import argparse
import concurrent.futures
import os
import re
import shutil
import subprocess
import sys
import tempfile
from html.parser import HTMLParser

HEAD_START = (
    "<!DOCTYPE html>\n<html>\n<head>\n<meta charset=\"utf-8\">\n"
    "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; img-src 'self' data:; "
    "style-src 'unsafe-inline'; base-uri 'none'; form-action 'none'\">\n"
    "<meta name=\"referrer\" content=\"no-referrer\">\n")
HEAD_RE = re.compile(
    re.escape(HEAD_START) +
    r'<meta name="viewport" content="[^"<>]*">\n'
    r'<meta name="generator" content="tarnmail">\n'
    r'<title>(?P<title>[^<>]*)</title>\n'
    r'<style>\n[^<]*</style>\n'
    r'</head>\n<body>\n<main class="tm-page">\n')
PAGE_END = "\n</main>\n</body>\n</html>\n"

# What the header forms, the text renderer and the walk write.
ENGINE_TAGS = {
    "a", "b", "br", "button", "center", "div", "embed", "font", "form", "h1", "h2", "hr", "img", "input",
    "li", "p", "pre", "section", "span", "table", "td", "th", "tr", "ul",
}
ENGINE_ATTRS = {
    "action", "alt", "class", "color", "height", "href", "method", "name", "rel", "scope", "src", "target",
    "type", "value", "width",
}
VOID = {"br", "hr", "img", "input"}

# One start tag whose attributes are all well formed.
ATTR = r"""[^\s"'<>/=]+(?:\s*=\s*(?:"[^"<]*"|'[^'<]*'|[^\s"'<>=`]+))?"""
START_TAG = re.compile(r"<[a-zA-Z][a-zA-Z0-9-]*(?:\s+" + ATTR + r")*\s*/?>\Z")


class EngineContent(HTMLParser):
    """Collects the errors of a fragment that the engine wrote alone."""

    def __init__(self):
        super().__init__(convert_charrefs=False)
        self.stack = []
        self.errors = []

    def error_at(self, text):
        line, col = self.getpos()
        if len(self.errors) < 5:
            self.errors.append(f"line {line}:{col}: {text}")

    def handle_starttag(self, tag, attrs):
        raw = self.get_starttag_text() or ""
        if not START_TAG.match(raw):
            self.error_at(f"malformed tag {raw[:80]!r}")
        if tag not in ENGINE_TAGS:
            self.error_at(f"element <{tag}> is none of the engine's")
        for name, _ in attrs:
            if name not in ENGINE_ATTRS:
                self.error_at(f"attribute {name!r} of <{tag}> is none of the engine's")
        if tag not in VOID:
            self.stack.append(tag)

    def handle_startendtag(self, tag, attrs):
        self.handle_starttag(tag, attrs)
        if tag not in VOID and self.stack and self.stack[-1] == tag:
            self.stack.pop()

    def handle_endtag(self, tag):
        if tag in VOID:
            self.error_at(f"end tag of the void element <{tag}>")
        elif self.stack and self.stack[-1] == tag:
            self.stack.pop()
        else:
            self.error_at(f"</{tag}> while {'<' + self.stack[-1] + '>' if self.stack else 'nothing'} is open")

    def handle_data(self, data):
        if "<" in data:
            self.error_at(f"'<' as text near {data[max(0, data.index('<') - 20):data.index('<') + 20]!r}")

    def handle_comment(self, data):
        self.error_at("comment")

    def handle_decl(self, decl):
        self.error_at(f"declaration {decl[:40]!r}")

    def unknown_decl(self, data):
        self.error_at(f"declaration {data[:40]!r}")

    def handle_pi(self, data):
        self.error_at(f"processing instruction {data[:40]!r}")

    def finish(self):
        self.close()
        if self.stack:
            self.error_at("left open: " + " ".join(f"<{t}>" for t in self.stack[-6:]))
        return self.errors


def engine_errors(fragment):
    checker = EngineContent()
    checker.feed(fragment)
    return checker.finish()


def split_page(page):
    """(body, None) for a complete page, else (None, what is wrong)."""
    m = HEAD_RE.match(page)
    if not m:
        at = next((i for i, (a, b) in enumerate(zip(page, HEAD_START)) if a != b), min(len(page), len(HEAD_START)))
        return None, f"the page's head is not as written by render (from byte {at}: {page[at:at + 60]!r})"
    if not page.endswith(PAGE_END):
        return None, f"the page does not end as written by render: {page[-60:]!r}"
    return page[m.end():len(page) - len(PAGE_END)], None


def header_sections(body):
    """The header blocks: each <section class="tm-header..."> up to its </section>."""
    out = []
    for m in re.finditer(r'<section class="tm-header', body):
        end = body.find("</section>", m.start())
        out.append(body[m.start():] if end < 0 else body[m.start():end + len("</section>")])
    return out


# The checker's own test, run first: fragments the engine could write if
# it went wrong must be caught, and clean engine output must pass.
SELF_TEST = (
    ('<table class="tm-fields"><tr><th scope="row">From</th><td><a href="/cgi-bin/genMail?adr=a%40b">A</a> '
     '<span class="tm-addr">&lt;a@b&gt;</span><br></td></tr></table>', False),
    ('<font color=#707070>&gt; quoted</font><br>\n<BR><center><img src="parts/x_1A.png/a.png" alt="a.png"></center>',
     False),
    ("<td>1 < 2</td>", True),                      # unescaped '<' in text
    ('<a href="x"y">t</a>', True),                 # a quote left in an attribute value
    ('<span class="a<b">x</span>', True),          # '<' in an attribute value
    ("<p>x</span></p>", True),                     # misnested
    ("<table><tr><td>x</td>", True),               # left open
    ("<br></br>", True),                           # a void element closed
    ("<td>x</td><script>y</script>", True),        # an element the engine never writes
    ('<a href="x" onclick="y">t</a>', True),       # an attribute the engine never writes
    ("<p>a<!-- c --></p>", True),                  # comment
)


def self_test():
    wrong = [frag for frag, must_fail in SELF_TEST if bool(engine_errors(frag)) != must_fail]
    good = HEAD_START + ('<meta name="viewport" content="width=device-width">\n<meta name="generator" content="tarnmail">\n'
                         "<title>a &amp; b</title>\n<style>\nbody{}\n</style>\n</head>\n<body>\n"
                         '<main class="tm-page">\n<p>x</p>' + PAGE_END)
    if split_page(good)[0] != "<p>x</p>":
        wrong.append("a complete page")
    for bad in (good.replace("default-src 'none'; ", ""), good.replace("<title>a &amp; b", "<title>a <b>"),
                good[:-len("</html>\n")]):
        if split_page(bad)[0] is not None:
            wrong.append("an incomplete page: " + bad[-40:])
    return wrong


def run(cmd, **kw):
    return subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=120, **kw)


def check_message(tool, corpus, rel, work):
    """{check: error text} for one message; an empty dict when it passes."""
    path = os.path.join(corpus, rel)
    slot = tempfile.mkdtemp(dir=work)
    failures = {}
    try:
        tree = run([tool, "tree", path])
        has_html = b"ctype=3(html)" in tree.stdout
        for preset, checks in (("mailread", ("render", "header", "page")), ("imode", ("text",))):
            out = os.path.join(slot, preset + ".html")
            r = run([tool, "render", path, "--preset", preset, "-o", out, "--download-dir",
                     os.path.join(slot, "parts")])
            if r.returncode != 0 or not os.path.exists(out):
                failures[checks[0]] = f"exit status {r.returncode}: {r.stderr.decode(errors='replace')[-300:]}"
                continue
            with open(out, "rb") as f:
                page = f.read().decode("utf-8", errors="replace")
            body, why = split_page(page)
            if body is None:
                failures[checks[0]] = why
                continue
            if preset == "imode":
                errs = engine_errors(body)
                if errs:
                    failures["text"] = "; ".join(errs)
                continue
            errs = [e for section in header_sections(body) for e in engine_errors(section)]
            if errs:
                failures["header"] = "; ".join(errs[:5])
            if not has_html:
                errs = engine_errors(body)
                if errs:
                    failures["page"] = "; ".join(errs)
    except subprocess.TimeoutExpired as e:
        failures["render"] = f"timed out: {' '.join(e.cmd[:2])}"
    finally:
        shutil.rmtree(slot, ignore_errors=True)
    return failures


def corpus_messages(corpus):
    """The messages below mime/ by the corpus index (single messages, mbox
    files, header-less or malformed message-like files); every file there
    when the index says nothing."""
    found = []
    index = os.path.join(corpus, "INDEX.tsv")
    if os.path.exists(index):
        with open(index, encoding="utf-8") as f:
            for line in f:
                if line.startswith("#"):
                    continue
                cols = line.rstrip("\n").split("\t")
                if len(cols) >= 3 and cols[0].startswith("mime/") and cols[2].split(" ")[0] in ("msg", "mbox", "other"):
                    found.append(cols[0])
    if not found:
        for root, _, files in os.walk(os.path.join(corpus, "mime")):
            found += [os.path.relpath(os.path.join(root, n), corpus) for n in files]
    return sorted(p for p in found if os.path.isfile(os.path.join(corpus, p)))


def read_exceptions(path):
    out = {}
    with open(path, encoding="utf-8") as f:
        for n, line in enumerate(f, 1):
            if not line.strip() or line.startswith("#"):
                continue
            cols = line.rstrip("\n").split("\t")
            if len(cols) != 3 or not cols[2].strip():
                sys.exit(f"{path}:{n}: want three tab-separated columns: message, check, reason")
            out[(cols[0], cols[1])] = cols[2]
    return out


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("tool")
    ap.add_argument("corpus")
    ap.add_argument("exceptions")
    ap.add_argument("-j", "--jobs", type=int, default=2)
    args = ap.parse_args()

    wrong = self_test()
    if wrong:
        for w in wrong:
            print(f"FAILED - the checker misjudges {w!r}")
        print(f"0 passed, {len(wrong)} failed")
        return 1
    exceptions = read_exceptions(args.exceptions)
    messages = corpus_messages(args.corpus)
    if not messages:
        print("skipped: no corpus messages")
        print("0 passed, 0 failed, 1 skipped")
        return 0
    work = tempfile.mkdtemp(prefix="tarn_html_")
    passed = failed = 0
    seen = set()
    try:
        with concurrent.futures.ThreadPoolExecutor(max_workers=args.jobs) as pool:
            results = pool.map(lambda rel: (rel, check_message(args.tool, args.corpus, rel, work)), messages)
            for rel, failures in results:
                unexpected = {c: e for c, e in failures.items() if (rel, c) not in exceptions}
                seen.update((rel, c) for c in failures)
                if unexpected:
                    failed += 1
                    for check, err in sorted(unexpected.items()):
                        print(f"FAILED - {rel} [{check}]: {err}")
                else:
                    passed += 1
    finally:
        shutil.rmtree(work, ignore_errors=True)
    for (rel, check) in sorted(set(exceptions) - seen):
        print(f"note - {rel} [{check}] is listed as an exception but passes now")
    print(f"{passed} passed, {failed} failed")
    return 0 if failed == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
