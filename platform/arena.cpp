// arena.cpp - the growing region behind my_Xalloc / my_Xfree.
//
// A handle points at an Arena record that lives at the front of the arena's
// first chunk.  Chunks come from calloc, so every byte of a chunk is zero
// when it arrives and, as blocks are never handed out twice, a block needs
// no clearing of its own; large calloc requests are served by fresh
// mappings, which the C library knows to be zero, so big blocks are never
// written before the caller touches them.
//
// Small blocks are bumped off the current chunk (16 KiB first, doubling up
// to 1 MiB).  A request larger than half the next chunk gets a chunk of its
// own and leaves the current one in service.  Every chunk is linked into
// one list so that my_Xfree can release them all.
//
// Under AddressSanitizer the unused part of each chunk is poisoned and each
// block is followed by a poisoned gap, so an overrun from one block into
// the next is reported instead of silently corrupting a neighbour.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "tarnplat.h"

#if defined(__SANITIZE_ADDRESS__)
#define ARENA_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ARENA_ASAN 1
#endif
#endif

#ifdef ARENA_ASAN
#include <sanitizer/asan_interface.h>
#define ARENA_POISON(p, n) ASAN_POISON_MEMORY_REGION((p), (n))
#define ARENA_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION((p), (n))
#else
#define ARENA_POISON(p, n) ((void)(p), (void)(n))
#define ARENA_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace {

constexpr size_t kAlign = 16;
constexpr size_t kFirstChunk = 16 * 1024;
constexpr size_t kMaxChunk = 1024 * 1024;
#ifdef ARENA_ASAN
constexpr size_t kGap = kAlign;  // poisoned bytes after every block
#else
constexpr size_t kGap = 0;
#endif

// Front of every chunk: the list link and the chunk's whole size (the size
// is needed to unpoison the chunk before it goes back to the C heap).
struct alignas(kAlign) Chunk {
  Chunk* prev;
  size_t size;
};
static_assert(sizeof(Chunk) == kAlign, "the chunk header stays one alignment unit");

struct alignas(kAlign) Arena {
  char* cur;         // next free byte of the current chunk
  char* end;         // end of the current chunk
  Chunk* chunks;     // most recently allocated chunk, linked through prev
  size_t next_size;  // size of the next regular chunk
  size_t used;       // bytes requested so far
};

constexpr size_t kLimit = SIZE_MAX / 2;  // no single request may come near it

[[noreturn]] void out_of_memory(size_t n) {
  std::fprintf(stderr, "my_Xalloc: out of memory (%zu bytes requested)\n", n);
  std::fflush(stderr);
  std::abort();
}

constexpr uintptr_t align_up(uintptr_t v) { return (v + (kAlign - 1)) & ~uintptr_t(kAlign - 1); }

char* aligned(char* p) {
  return p + (align_up(reinterpret_cast<uintptr_t>(p)) - reinterpret_cast<uintptr_t>(p));
}

// A zero-filled chunk of `size` bytes (header included) linked in front of
// `prev`.  The usable area after the header is poisoned until handed out.
Chunk* new_chunk(size_t size, Chunk* prev, size_t request) {
  void* mem = std::calloc(1, size);
  if (mem == nullptr) out_of_memory(request);
  Chunk* c = static_cast<Chunk*>(mem);
  c->prev = prev;
  c->size = size;
  ARENA_POISON(reinterpret_cast<char*>(c + 1), size - sizeof(Chunk));
  return c;
}

// Room left in the current chunk for `need` bytes at the next aligned
// position: that position, or nullptr.
char* fit(const Arena* a, size_t need) {
  uintptr_t cur = reinterpret_cast<uintptr_t>(a->cur);
  uintptr_t end = reinterpret_cast<uintptr_t>(a->end);
  uintptr_t start = align_up(cur);
  if (start > end || end - start < need) return nullptr;
  return a->cur + (start - cur);
}

// Hands out [p, p + n) and moves the bump pointer past it and its gap.
void* take(Arena* a, char* p, size_t n, size_t need) {
  ARENA_UNPOISON(p, n);
  a->cur = p + need;
  a->used += n;
  return p;
}

// Fresh arena: the record sits at the start of the first chunk's area.
Arena* new_arena() {
  Chunk* c = new_chunk(kFirstChunk, nullptr, sizeof(Arena));
  char* area = aligned(reinterpret_cast<char*>(c + 1));
  ARENA_UNPOISON(area, sizeof(Arena));
  Arena* a = reinterpret_cast<Arena*>(area);
  a->chunks = c;
  a->cur = area + sizeof(Arena);
  a->end = reinterpret_cast<char*>(c) + kFirstChunk;
  a->next_size = kFirstChunk * 2;
  a->used = 0;
  return a;
}

// A block too large to share: a chunk of its own, the current one kept.
void* alloc_alone(Arena* a, size_t n) {
  size_t size = sizeof(Chunk) + (kAlign - 1) + n + kGap;
  Chunk* c = new_chunk(size, a->chunks, n);
  a->chunks = c;
  char* p = aligned(reinterpret_cast<char*>(c + 1));
  ARENA_UNPOISON(p, n);
  a->used += n;
  return p;
}

// The current chunk is full: start the next regular one.
void next_chunk(Arena* a, size_t n) {
  size_t size = a->next_size;
  Chunk* c = new_chunk(size, a->chunks, n);
  a->chunks = c;
  a->cur = reinterpret_cast<char*>(c + 1);
  a->end = reinterpret_cast<char*>(c) + size;
  a->next_size = std::min(size * 2, kMaxChunk);
}

}  // namespace

extern "C" {

TARNPLAT_API void* my_Xalloc(void** ppArena, size_t nzSize) {
  if (ppArena == nullptr) {
    std::fprintf(stderr, "my_Xalloc: no arena handle\n");
    std::abort();
  }
  if (nzSize > kLimit) out_of_memory(nzSize);
  Arena* a = static_cast<Arena*>(*ppArena);
  if (a == nullptr) {
    a = new_arena();
    *ppArena = a;
  }
  // A block of size 0 still takes a byte, so that every pointer is unique.
  size_t need = std::max<size_t>(nzSize, 1) + kGap;
  if (char* p = fit(a, need)) return take(a, p, nzSize, need);
  if (need > a->next_size / 2) return alloc_alone(a, nzSize);
  next_chunk(a, nzSize);
  return take(a, fit(a, need), nzSize, need);
}

TARNPLAT_API void my_Xfree(void** ppArena) {
  if (ppArena == nullptr || *ppArena == nullptr) return;
  Chunk* c = static_cast<Arena*>(*ppArena)->chunks;  // read before the record's chunk goes
  *ppArena = nullptr;
  while (c != nullptr) {
    Chunk* prev = c->prev;
    ARENA_UNPOISON(reinterpret_cast<char*>(c), c->size);
    std::free(c);
    c = prev;
  }
}

TARNPLAT_API size_t my_Xused(void* const* ppArena) {
  if (ppArena == nullptr || *ppArena == nullptr) return 0;
  return static_cast<const Arena*>(*ppArena)->used;
}

}  // extern "C"
