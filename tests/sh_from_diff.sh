#!/usr/bin/env bash
# Sender addresses against Python's email.utils.parseaddr: the first From
# field of every corpus message must give the same address, or be listed in
# tests/data/from_diff_exceptions.tsv with the rule that makes it differ.
#   TARN_SOURCE_DIR  the source tree
#   TARN_BUILD_DIR   the build tree (holds tests/test_eml)
#   TARN_CORPUS_DIR  the third-party corpus
set -u

src=${TARN_SOURCE_DIR:?TARN_SOURCE_DIR must name the source tree}
build=${TARN_BUILD_DIR:?TARN_BUILD_DIR must name the build tree}
corpus=${TARN_CORPUS_DIR:?TARN_CORPUS_DIR must name the corpus}
parser=$build/tests/test_eml

if [ ! -x "$parser" ]; then
  echo "0 passed, 1 failed: $parser is not built (build the test_eml target)"
  exit 1
fi
if [ ! -f "$corpus/INDEX.tsv" ]; then
  echo "0 passed, 1 failed: no corpus index at $corpus/INDEX.tsv"
  exit 1
fi

exec python3 "$src/tests/diff_python_from.py" --corpus "$corpus" --parser "$parser" \
  --exceptions "$src/tests/data/from_diff_exceptions.tsv"
