#!/usr/bin/env bash
# Transfer decoding against Python's standard email package: every base64
# and quoted-printable leaf of the corpus messages must decode to the same
# bytes, apart from the differences listed with their reasons in
# tests/data/python_diff_exceptions.tsv.
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
if [ ! -f "$corpus/INDEX.tsv" ]; then
  echo "skipped: no corpus at $corpus"
  echo "0 passed, 0 failed, 1 skipped"
  exit 0
fi

exec python3 "$src/tests/diff_python_parts.py" "$tool" "$corpus" "$src/tests/data/python_diff_exceptions.tsv"
