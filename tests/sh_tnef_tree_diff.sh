#!/usr/bin/env bash
# The TNEF expansion of the decoding engine against the Debian `tnef`
# unpacker: each TNEF stream of the corpus is sent as the base64
# application/ms-tnef part of a message, decoded with the msgread preset
# (`tarnmail parts --all-leaves`), and the files linked below the TNEF
# entity are compared by name and bytes with what `tnef` extracts from the
# stream.  Differences, one line each:
#   only-ours NAME                a file of ours that tnef does not write
#   only-tnef NAME                a file tnef writes that we do not have
#   renamed OURS -> TNEF          the same bytes under another name
#   bytes NAME                    the same name with other bytes
# A stream passes when its differences are exactly those listed for it in
# tests/data/tnef_tree_exceptions.tsv (stream, difference, reason).
#   TARN_TOOL        the tarnmail program
#   TARN_SOURCE_DIR  the source tree
#   TARN_CORPUS_DIR  the third-party corpus
set -u

tool=${TARN_TOOL:?TARN_TOOL must name the tarnmail program}
src=${TARN_SOURCE_DIR:?TARN_SOURCE_DIR must name the source tree}
corpus=${TARN_CORPUS_DIR:?TARN_CORPUS_DIR must name the corpus}
exceptions=$src/tests/data/tnef_tree_exceptions.tsv

skip() {
  echo "skipped: $1"
  echo "0 passed, 0 failed, 1 skipped"
  exit 0
}
command -v tnef >/dev/null 2>&1 || skip "the tnef program is not installed (apt-get install tnef)"
[ -f "$corpus/INDEX.tsv" ] || skip "no corpus at $corpus"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
passed=0
failed=0

# The TNEF streams: files below tnef/ whose first tag is "tnef" (expected
# outputs and attachment lists carry other tags).
awk -F'\t' '$1 ~ /^tnef\// { split($3, tags, " "); if (tags[1] == "tnef") print substr($1, 6) }' \
  "$corpus/INDEX.tsv" | LC_ALL=C sort >"$work/streams"

# wrap STREAM: a message with a text part and the stream as winmail.dat.
wrap() {
  printf 'From: sender@example.org\nTo: rcpt@example.net\nSubject: TNEF\nMIME-Version: 1.0\n'
  printf 'Content-Type: multipart/mixed; boundary="tnef-b"\n\n--tnef-b\nContent-Type: text/plain\n\nSee the attachment.\n'
  printf -- '--tnef-b\nContent-Type: application/ms-tnef; name="winmail.dat"\nContent-Transfer-Encoding: base64\n'
  printf 'Content-Disposition: attachment; filename="winmail.dat"\n\n'
  base64 -w 76 "$1"
  printf -- '--tnef-b--\n'
}

# ours MESSAGE: "sha256<TAB>name" of each file below the TNEF entity (the
# message's second part, place 1.2).
ours() {
  "$tool" parts "$1" --all-leaves | awk -F'\t' '$1 ~ /^1\.2\./ { print $6 "\t" $8 }'
}

# theirs STREAM: "sha256<TAB>name" of each file tnef writes; a name tnef
# numbered because an earlier file had it (NAME.1, NAME.2) counts as NAME.
theirs() {
  local dir=$work/tnef.d
  rm -rf "$dir" && mkdir "$dir"
  # tnef gives up on some damaged streams, on two of them with an abort; what
  # it wrote counts.  The subshell keeps the shell's report of the abort.
  (tnef --number-backups --ignore-checksum -C "$dir" -f "$1" >/dev/null 2>&1; :) 2>/dev/null
  local f name key
  for f in "$dir"/* "$dir"/.[!.]*; do
    [ -f "$f" ] || continue
    name=${f##*/}
    key=$name
    if [[ $name =~ ^(.+)\.[0-9]+$ ]] && [ -e "$dir/${BASH_REMATCH[1]}" ]; then key=${BASH_REMATCH[1]}; fi
    printf '%s\t%s\n' "$(sha256sum "$f" | cut -d' ' -f1)" "$key"
  done
}

# Bytes outside printable ASCII as \xNN: names come in UTF-8 from us and
# in the stream's code page from tnef, and the exceptions file stays text.
escape() { LC_ALL=C perl -pe 's/([^\n\x20-\x7e])/sprintf("\\x%02x", ord $1)/ge'; }

# differences OURS-FILE THEIRS-FILE: the lines described at the top.  Pairs are taken by name and bytes first, then by bytes alone,
# then by name alone.
differences() {
  local -a mine=() tn=()
  local line
  while IFS= read -r line; do mine+=("$line"); done <"$1"
  while IFS= read -r line; do tn+=("$line"); done <"$2"
  local pass i j
  for pass in both bytes name; do
    for i in "${!mine[@]}"; do
      for j in "${!tn[@]}"; do
        local ms=${mine[$i]%%$'\t'*} mn=${mine[$i]#*$'\t'} ts=${tn[$j]%%$'\t'*} tname=${tn[$j]#*$'\t'}
        case $pass in
          both) [ "$ms" = "$ts" ] && [ "$mn" = "$tname" ] || continue ;;
          bytes) [ "$ms" = "$ts" ] || continue
                 echo "renamed $mn -> $tname" ;;
          name) [ "$mn" = "$tname" ] || continue
                echo "bytes $mn" ;;
        esac
        unset 'mine[i]' 'tn[j]'
        break
      done
    done
  done
  for i in "${!mine[@]}"; do echo "only-ours ${mine[$i]#*$'\t'}"; done
  for j in "${!tn[@]}"; do echo "only-tnef ${tn[$j]#*$'\t'}"; done
}

agreeing=0
while IFS= read -r stream; do
  wrap "$corpus/tnef/$stream" >"$work/msg.eml"
  if ! ours "$work/msg.eml" >"$work/ours" 2>"$work/err" || [ -s "$work/err" ]; then
    failed=$((failed + 1))
    echo "FAILED - $stream: tarnmail failed"
    sed 's/^/    /' "$work/err"
    continue
  fi
  theirs "$corpus/tnef/$stream" >"$work/theirs"
  differences "$work/ours" "$work/theirs" | escape | LC_ALL=C sort >"$work/got"
  awk -F'\t' -v s="$stream" '!/^#/ && $1 == s { print $2 }' "$exceptions" | LC_ALL=C sort >"$work/want"
  agreeing=$((agreeing + $(wc -l <"$work/ours") - $(grep -vc '^only-tnef ' "$work/got")))
  if cmp -s "$work/want" "$work/got"; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    echo "FAILED - $stream"
    LC_ALL=C comm -13 "$work/want" "$work/got" | sed "s|^|    unlisted difference: $stream\t|"
    LC_ALL=C comm -23 "$work/want" "$work/got" | sed "s|^|    listed but no longer differs: $stream\t|"
  fi
done <"$work/streams"

# Every exception names a stream of the corpus and gives a reason.
while IFS=$'\t' read -r stream diff reason; do
  case $stream in '#'* | '') continue ;; esac
  if ! grep -qxF -- "$stream" "$work/streams" || [ -z "$diff" ] || [ -z "$reason" ]; then
    failed=$((failed + 1))
    echo "FAILED - exception line without a corpus stream, difference and reason: $stream $diff"
  fi
done <"$exceptions"

echo "$(wc -l <"$work/streams") streams; $agreeing files alike in name and bytes"
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
