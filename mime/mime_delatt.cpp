// Deleting parts from a stored message in place.
//
// Each range is taken as the entity tree gives it: from the part's first
// header line to the line break in front of the next delimiter line.  The
// delimiter line in front of the part goes with it, so the message keeps
// one delimiter per part that is left; the closing delimiter stays.  The
// widening starts at the line break that ends the line before the
// delimiter: in a CR LF message the CR of that line break stays, and the
// part before gains it at its end.  Stored messages have been edited this
// way for a long time, so the rule stays.
//
// Ranges outside the message are cut to it, and a backward scan stops at
// the message's first byte: the calls never touch a byte outside it.

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>

#include "tarnmail/edit.h"

namespace {

int64_t end_of(const SMMIME_DelEntity& r) { return int64_t{r.offset} + r.len; }

tm_off_t saturate(int64_t v) { return static_cast<tm_off_t>(std::clamp<int64_t>(v, INT32_MIN, INT32_MAX)); }

// Takes the delimiter line in front of the part into the range, with the
// line break that ends the line before it.  The scan starts two bytes
// before the part (over the line break of the delimiter line) and runs back
// to an LF; when that byte is already the LF, or no LF stands between the
// start of the message and the part, the range stays as it is.
void s_WidenToDelimiter(const char* pcContent, int nSize, SMMIME_DelEntity& r) {
  const int64_t from = int64_t{r.offset} - 2;
  if (from < 0 || from >= nSize) return;
  int64_t p = from;
  while (p >= 0 && pcContent[p] != '\n') --p;
  if (p < 0) return;
  const int64_t k = from - p;
  if (k == 0) return;
  r.offset = saturate(int64_t{r.offset} - (k + 2));
  r.len = saturate(int64_t{r.len} + (k + 2));
}

// Drops every range that starts before the end of the range kept before
// it, shifting the rest down.  Nothing is merged.  Returns the count left.
int s_DropOverlaps(SMMIME_DelEntity* rgst, int nCnt) {
  int i = 1;
  while (i < nCnt) {
    if (rgst[i].offset < end_of(rgst[i - 1])) {
      std::memmove(&rgst[i], &rgst[i + 1], sizeof rgst[0] * static_cast<size_t>(nCnt - i - 1));
      --nCnt;
    } else {
      ++i;
    }
  }
  return nCnt;
}

// Moves every stretch between the end of one range and the start of the
// next (after the last: the end of the message) down over the gaps and
// returns the new length.  Each range is cut to the message and to what
// lies after the range before it, so a range that runs backwards or past
// the end removes only bytes of the message, and each at most once.
int MMEM_CutEntities(char* pcContent, int nSize, const SMMIME_DelEntity* rgst, int nCnt) {
  const int64_t size = nSize;
  int64_t nWrite = 0;
  int64_t nKept = 0;  // start of the stretch still to move: the end of the last range
  for (int i = 0; i < nCnt; ++i) {
    const int64_t start = std::clamp<int64_t>(rgst[i].offset, nKept, size);
    const int64_t end = std::clamp<int64_t>(end_of(rgst[i]), start, size);
    if (nWrite != nKept) std::memmove(pcContent + nWrite, pcContent + nKept, static_cast<size_t>(start - nKept));
    nWrite += start - nKept;
    nKept = end;
  }
  if (nWrite != nKept) std::memmove(pcContent + nWrite, pcContent + nKept, static_cast<size_t>(size - nKept));
  nWrite += size - nKept;
  return static_cast<int>(nWrite);
}

}  // namespace

extern "C" TARNMAIL_API int MMIME_AttachmentDel(char* pcContent, int nSize, SMMIME_DelEntity* rgstDelList,
                                               int nCnt) {
  if (nSize < 1 || nCnt < 1) return -1;
  if (pcContent == nullptr || rgstDelList == nullptr) return -2;
  for (int i = 0; i < nCnt; ++i) s_WidenToDelimiter(pcContent, nSize, rgstDelList[i]);
  nCnt = s_DropOverlaps(rgstDelList, nCnt);
  return MMEM_CutEntities(pcContent, nSize, rgstDelList, nCnt);
}
