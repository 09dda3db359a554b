// BlockCache: where PObject payloads get their memory.  A value decoded and
// dropped again and again (a status reply every few seconds) would cost one
// allocator call per map, array and long string each time; instead each
// thread keeps the blocks it freed, by size, and hands them out again.
//
// Blocks are sized in steps of kStep bytes up to kMaxCached; bigger ones
// go straight to the C allocator.  A thread keeps at most kThreadCap bytes
// (beyond that, freed blocks go back to the allocator) and returns them all
// when it ends (the cap holds the blocks of a 1,000-connection status reply
// and of a 1,000-view user-info reply together).  A block may be freed on
// another thread than the one that
// took it: it then joins that thread's cache.  Under AddressSanitizer and
// ThreadSanitizer nothing is kept, so that they see every allocation.
#ifndef VESTA_STREAM_BLOCK_CACHE_H_
#define VESTA_STREAM_BLOCK_CACHE_H_

#include <stddef.h>

#include <new>

class BlockCache {
 public:
  static constexpr size_t kStep = 16;
  static constexpr size_t kMaxCached = 1024;
  static constexpr size_t kThreadCap = 2u << 20;  // bytes kept per thread

  // A block of at least `bytes`; throws std::bad_alloc when there is none.
  static void* Take(size_t bytes);
  // Gives back a block that Take(bytes) returned, with the same `bytes`.
  static void Give(void* block, size_t bytes);
};

// Routes a standard container's storage through the cache.
template <typename T>
struct BlockAllocator {
  using value_type = T;
  BlockAllocator() noexcept = default;
  template <typename U>
  BlockAllocator(const BlockAllocator<U>&) noexcept {}  // NOLINT: rebinding
  T* allocate(size_t n) {
    if (n > static_cast<size_t>(-1) / sizeof(T)) throw std::bad_alloc();
    return static_cast<T*>(BlockCache::Take(n * sizeof(T)));
  }
  void deallocate(T* p, size_t n) noexcept { BlockCache::Give(p, n * sizeof(T)); }
  template <typename U>
  bool operator==(const BlockAllocator<U>&) const noexcept {
    return true;
  }
  template <typename U>
  bool operator!=(const BlockAllocator<U>&) const noexcept {
    return false;
  }
};

#endif  // VESTA_STREAM_BLOCK_CACHE_H_
