// BlockCache: per-thread lists of freed payload blocks, by size class.
#include "stream/block_cache.h"

#include <stdlib.h>

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kKeepBlocks = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kKeepBlocks = false;
#else
constexpr bool kKeepBlocks = true;
#endif
#else
constexpr bool kKeepBlocks = true;
#endif

constexpr size_t kClasses = BlockCache::kMaxCached / BlockCache::kStep;

// A kept block holds the link to the next one of its size.
struct FreeBlock {
  FreeBlock* next;
};

// One thread's kept blocks: a list per size class.  Plain data, so it stays
// usable until the thread is gone; the Drain below empties it at thread
// exit, after which blocks go straight back to the allocator.
struct ThreadBlocks {
  FreeBlock* heads[kClasses + 1];
  size_t kept;    // bytes in all lists
  bool drain_set;  // the thread's Drain exists
  bool drained;    // the thread is ending: keep nothing more
};

thread_local ThreadBlocks t_blocks;

struct Drain {
  ~Drain() {
    for (FreeBlock*& head : t_blocks.heads) {
      while (head != nullptr) {
        FreeBlock* next = head->next;
        free(head);
        head = next;
      }
    }
    t_blocks.kept = 0;
    t_blocks.drained = true;
  }
};

// The size class of `bytes` (1.. kClasses), or 0 when such blocks are not
// kept.
size_t ClassOf(size_t bytes) {
  if (!kKeepBlocks || bytes > BlockCache::kMaxCached) return 0;
  return bytes == 0 ? 1 : (bytes + BlockCache::kStep - 1) / BlockCache::kStep;
}

}  // namespace

void* BlockCache::Take(size_t bytes) {
  const size_t c = ClassOf(bytes);
  if (c != 0) {
    ThreadBlocks& blocks = t_blocks;
    if (FreeBlock* block = blocks.heads[c]) {
      blocks.heads[c] = block->next;
      blocks.kept -= c * kStep;
      return block;
    }
    bytes = c * kStep;  // any block of the class serves any request of it
  }
  void* block = malloc(bytes == 0 ? 1 : bytes);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void BlockCache::Give(void* block, size_t bytes) {
  if (block == nullptr) return;
  const size_t c = ClassOf(bytes);
  if (c != 0) {
    ThreadBlocks& blocks = t_blocks;
    if (!blocks.drain_set && !blocks.drained) {
      blocks.drain_set = true;
      static thread_local Drain drain;
      (void)drain;
    }
    if (!blocks.drained && blocks.kept + c * kStep <= kThreadCap) {
      auto* kept = static_cast<FreeBlock*>(block);
      kept->next = blocks.heads[c];
      blocks.heads[c] = kept;
      blocks.kept += c * kStep;
      return;
    }
  }
  free(block);
}
