// mstr_escape_internal.h - the result rings behind the platform calls that
// return a string they keep themselves (the *_s calls).  Not installed.
#ifndef TARNPLAT_MSTR_ESCAPE_INTERNAL_H
#define TARNPLAT_MSTR_ESCAPE_INTERNAL_H

#include <array>
#include <cstddef>
#include <string>

namespace tarnplat {

// How many results of one call stay valid at the same time.
inline constexpr unsigned kRingSize = 8;
// A slot that grew past this is given back to the heap before reuse.
inline constexpr size_t kRingKeep = size_t{1} << 20;

struct EscapeRing {
  std::array<std::string, kRingSize> slot;
  unsigned next = 0;
};

// The next slot of the ring, emptied; the oldest result is given up.
std::string& ring_slot(EscapeRing& ring);

}  // namespace tarnplat

#endif  // TARNPLAT_MSTR_ESCAPE_INTERNAL_H
