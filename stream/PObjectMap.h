// PObjectMap: the members of a map value, sorted by key in one array.
// Bytewise key order, a shorter key first on a common prefix; iteration runs
// in that order; lookups by any string-like key build nothing.
//
// A map that a PObject holds usually sits in one block with its members
// behind it (a copy, or a map the decoder built, is sized exactly); a map
// that grows past that room moves its members to a block of their own,
// doubling.  Adding a key out of order shifts the members after it, so a
// map built in random order costs O(n) per insert: fine for the small maps
// the daemon builds, while the decoder appends in key order.
//
// Members move when their map changes: a reference or iterator into a map
// does not survive an insert or erase in that same map (references into
// other maps, nested ones included, do).
#ifndef VESTA_STREAM_POBJECTMAP_H_
#define VESTA_STREAM_POBJECTMAP_H_

#include <stddef.h>
#include <stdint.h>

#include <string_view>

#include "stream/PObject.h"
#include "stream/PObjectKey.h"

// One member; the pair's names read like those of a standard map's entry.
struct PObjectMember {
  PObjectKey first;
  PObject second;
};

// Aligned as a member, so that New's members may follow the map in its block
// on every ABI (on 32-bit ARM the map alone is 20 bytes).
class alignas(PObjectMember) PObjectMap {
 public:
  using key_type = PObjectKey;
  using mapped_type = PObject;
  using value_type = PObjectMember;
  using size_type = size_t;
  using iterator = value_type*;
  using const_iterator = const value_type*;

  PObjectMap() noexcept = default;
  PObjectMap(const PObjectMap& other);
  PObjectMap& operator=(const PObjectMap& other);
  // A map whose members lie in its own block hands them over one by one,
  // allocating: moves may throw std::bad_alloc.
  PObjectMap(PObjectMap&& other);
  PObjectMap& operator=(PObjectMap&& other);
  ~PObjectMap();

  iterator begin() { return data_; }
  iterator end() { return data_ + size_; }
  const_iterator begin() const { return data_; }
  const_iterator end() const { return data_ + size_; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  // The first member whose key is not less than `key`.
  iterator lower_bound(std::string_view key) { return data_ + LowerBound(key); }
  const_iterator lower_bound(std::string_view key) const { return data_ + LowerBound(key); }
  // The member under `key`, or end().
  iterator find(std::string_view key) { return data_ + Find(key); }
  const_iterator find(std::string_view key) const { return data_ + Find(key); }
  size_t count(std::string_view key) const { return Find(key) != size_ ? 1 : 0; }

  // Finds or inserts `key` (a new member is null).
  PObject& operator[](std::string_view key);
  // Removes the member under `key`: 1, or 0 when there is none.
  size_t erase(std::string_view key);
  void clear();

  bool operator==(const PObjectMap& other) const;
  bool operator!=(const PObjectMap& other) const { return !(*this == other); }

 private:
  friend class PObject;

  // A map in one block with room for `capacity` members behind it.
  static PObjectMap* New(size_t capacity);
  // Destroys a map made by New and frees its block.
  static void Delete(PObjectMap* map);

  size_t LowerBound(std::string_view key) const;
  size_t LowerBound(const PObjectKey& key) const;
  size_t Find(std::string_view key) const {
    size_t i = LowerBound(key);
    return i < size_ && data_[i].first == key ? i : size_;
  }
  // Room for at least `want` members; the members keep their order.
  void Reserve(size_t want);
  void FreeData();

  value_type* data_ = nullptr;  // size_ members, then room for capacity_ - size_
  uint32_t size_ = 0;
  uint32_t capacity_ = 0;
  uint32_t room_ = 0;           // members the block of New holds behind the map
  bool data_inline_ = false;    // data_ is that room
};

#endif  // VESTA_STREAM_POBJECTMAP_H_
