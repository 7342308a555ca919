#!/usr/bin/env bash
# parsedate against Python's email.utils.parsedate_to_datetime on the Date
# fields of the corpus messages: the same instant wherever both accept a
# date, apart from the differences listed in tests/data/date_diff_exceptions.tsv.
#   TARN_BUILD_DIR   the build tree (for tests/test_parsdate, the probe)
#   TARN_SOURCE_DIR  the source tree
#   TARN_CORPUS_DIR  the third-party corpus
set -u

build=${TARN_BUILD_DIR:?TARN_BUILD_DIR must name the build tree}
src=${TARN_SOURCE_DIR:?TARN_SOURCE_DIR must name the source tree}
corpus=${TARN_CORPUS_DIR:?TARN_CORPUS_DIR must name the corpus}
probe=$build/tests/test_parsdate

if [ ! -x "$probe" ]; then
  echo "FAILED - $probe is missing: build the test_parsdate target first"
  exit 1
fi
if [ ! -d "$corpus/mime" ]; then
  echo "FAILED - no messages under $corpus/mime"
  exit 1
fi

exec python3 "$src/tests/diff_python_dates.py" --probe "$probe" --corpus "$corpus/mime" \
  --exceptions "$src/tests/data/date_diff_exceptions.tsv"
