// Replacing ranges of a stored message: whole parts, or only their bodies,
// by new text, into a new buffer.
//
// The list is sorted by offset; a range that starts inside the range before
// it is set aside behind the others and not applied.  A range that keeps
// the part's header starts after the first empty line inside it.  The new
// length is the old one plus, for each range, the length of its data minus
// its own length.  Starts and ends that lie outside the message are cut to
// it, and the length is counted from the ranges as they are applied, so
// the copy fills exactly the buffer it was given.

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "tarnmail/edit.h"

namespace {

int64_t end_of(const SMMIME_RepEntity& r) { return int64_t{r.nOffset} + r.nLen; }

// qsort order by offset: 0 for equal offsets, else 1 or -1.
int fpCmp(const void* a, const void* b) {
  const tm_off_t x = static_cast<const SMMIME_RepEntity*>(a)->nOffset;
  const tm_off_t y = static_cast<const SMMIME_RepEntity*>(b)->nOffset;
  if (x == y) return 0;
  return x > y ? 1 : -1;
}

// Moves each range that starts before the end of the range kept before it
// to the end of the list, outside the count.  Returns the count left.
int s_SetAsideOverlaps(SMMIME_RepEntity* rgst, int nCnt) {
  int i = 1;
  while (i < nCnt) {
    if (rgst[i].nOffset < end_of(rgst[i - 1])) {
      std::rotate(rgst + i, rgst + i + 1, rgst + nCnt);
      --nCnt;
    } else {
      ++i;
    }
  }
  return nCnt;
}

// Narrows a range to the body of its part: it starts after the first LF
// inside it that is followed by CR LF or by LF, and ends where it ended.
// The empty line itself may reach past the range: a part with an empty
// body ends at that line's LF, and its range then starts behind its end,
// with a negative length.  The bytes after the LF are read only inside
// the message.
void s_KeepHeader(const char* pcContent, int nSize, SMMIME_RepEntity& r) {
  const int64_t end = end_of(r);
  const int64_t from = std::clamp<int64_t>(r.nOffset, 0, nSize);
  const int64_t to = std::clamp<int64_t>(end, from, nSize);
  for (int64_t p = from; p < to; ++p) {
    if (pcContent[p] != '\n') continue;
    int64_t body = 0;
    if (p + 1 < nSize && pcContent[p + 1] == '\n') {
      body = p + 2;
    } else if (p + 2 < nSize && pcContent[p + 1] == '\r' && pcContent[p + 2] == '\n') {
      body = p + 3;
    } else {
      continue;
    }
    r.nOffset = static_cast<tm_off_t>(body);
    r.nLen = static_cast<tm_off_t>(std::clamp<int64_t>(end - body, INT32_MIN, INT32_MAX));
    return;
  }
}

// One range as it is applied: the message's bytes [from, start) are
// copied, then the data; the copy goes on from `end`.
struct Cut {
  int64_t from;
  int64_t start;
  int64_t end;
  const char* data;
  size_t datalen;
};

// Calls f with each range as it is applied, in order, and returns where
// the copy goes on after the last.  A range of negative length sends the
// copy back, so the bytes between its end and its start are copied twice:
// a body range narrowed behind its end (a part with an empty body, whose
// empty line is the line break in front of the next delimiter) so gets
// that line break back after its data.  Starts and ends are cut to the
// message, and no start lies before the point the copy has reached.  The
// count of the new length and the copy both walk the ranges through here,
// so they agree.
template <typename F>
int64_t s_ForEachCut(const SMMIME_RepEntity* rgst, int nCnt, int nSize, F f) {
  int64_t from = 0;
  for (int i = 0; i < nCnt; ++i) {
    const int64_t start = std::max(from, std::clamp<int64_t>(rgst[i].nOffset, 0, nSize));
    const int64_t end = std::clamp<int64_t>(end_of(rgst[i]), 0, nSize);
    const char* data = rgst[i].pszData;
    f(Cut{from, start, end, data, data != nullptr ? std::strlen(data) : 0});
    from = end;
  }
  return from;
}

}  // namespace

extern "C" TARNMAIL_API int MMIME_AttachmentRep(char** ppszContent, int nSize, SMMIME_RepEntity* rgstRepList,
                                               int nCnt) {
  if (nCnt < 1) return nSize;
  if (ppszContent == nullptr || *ppszContent == nullptr || rgstRepList == nullptr) return -2;
  if (nSize < 0) return -1;
  const char* pcContent = *ppszContent;

  std::qsort(rgstRepList, static_cast<size_t>(nCnt), sizeof rgstRepList[0], fpCmp);
  nCnt = s_SetAsideOverlaps(rgstRepList, nCnt);
  for (int i = 0; i < nCnt; ++i)
    if (rgstRepList[i].nFlag & MMIME_REP_BODY) s_KeepHeader(pcContent, nSize, rgstRepList[i]);

  int64_t newlen = 0;
  const int64_t tail = s_ForEachCut(rgstRepList, nCnt, nSize, [&](const Cut& c) {
    newlen += (c.start - c.from) + static_cast<int64_t>(c.datalen);
  });
  newlen += nSize - tail;
  if (newlen > INT_MAX - 1) return -1;

  char* out = static_cast<char*>(std::malloc(static_cast<size_t>(newlen) + 1));
  if (out == nullptr) return -1;
  char* w = out;
  s_ForEachCut(rgstRepList, nCnt, nSize, [&](const Cut& c) {
    std::memcpy(w, pcContent + c.from, static_cast<size_t>(c.start - c.from));
    w += c.start - c.from;
    if (c.datalen != 0) std::memcpy(w, c.data, c.datalen);
    w += c.datalen;
  });
  std::memcpy(w, pcContent + tail, static_cast<size_t>(nSize - tail));
  w += nSize - tail;
  *w = '\0';
  *ppszContent = out;
  return static_cast<int>(newlen);
}
