#!/usr/bin/env bash
# Every corpus message rendered by `tarnmail render` gives a complete page
# with no HTML error that the engine or the page made: the page's own head
# and end, the header blocks, and every text the engine wrote itself (see
# tests/check_html.py for what is checked).  Expected failures, with their
# reasons, are listed in tests/data/render_html_exceptions.tsv.
#   TARN_TOOL        the tarnmail program
#   TARN_SOURCE_DIR  the source tree
#   TARN_CORPUS_DIR  the third-party corpus
set -u

tool=${TARN_TOOL:?TARN_TOOL must name the tarnmail program}
src=${TARN_SOURCE_DIR:?TARN_SOURCE_DIR must name the source tree}
corpus=${TARN_CORPUS_DIR:?TARN_CORPUS_DIR must name the corpus}

if ! command -v python3 >/dev/null 2>&1; then
  echo "skipped: python3 is not installed"
  echo "0 passed, 0 failed, 1 skipped"
  exit 0
fi
if [ ! -d "$corpus/mime" ]; then
  echo "skipped: no corpus at $corpus"
  echo "0 passed, 0 failed, 1 skipped"
  exit 0
fi

# Two renderings at a time: the machine has two cores.
exec python3 "$src/tests/check_html.py" -j 2 "$tool" "$corpus" "$src/tests/data/render_html_exceptions.tsv"
