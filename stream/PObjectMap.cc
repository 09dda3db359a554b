// PObjectMap: the sorted member array of a map value, and PObjectKey's
// out-of-line form.
#include "stream/PObjectMap.h"


#include <assert.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <new>
#include <stdexcept>

// ---- PObjectKey ----

const uint8_t PObjectKey::kTextBytes[2 * kSize] = {
    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

void PObjectKey::Init(std::string_view text) {
  const size_t n = text.size();
  if (n <= kInlineMax) {
    if (n > 0) memcpy(bytes_, text.data(), n);
    memset(bytes_ + n, 0, kLast - n);
    bytes_[kLast] = static_cast<uint8_t>(kInlineMax - n);
    return;
  }
  char* block = static_cast<char*>(malloc(n));
  if (block == nullptr) throw std::bad_alloc();
  memcpy(block, text.data(), n);
  memcpy(bytes_, &block, sizeof(block));
  memcpy(bytes_ + sizeof(block), &n, sizeof(n));
  bytes_[kLast] = kHeap;
}

void PObjectKey::ReleaseHeap() {
  free(const_cast<char*>(HeapText()));
  SetEmpty();
}

// ---- PObjectMap ----

namespace {

// Moves `n` members' bytes from `from` to `to` (the ranges may overlap):
// neither a key nor a value points into itself, so no constructor is
// needed, and the source places are left to be overwritten or freed.
void MoveMembers(PObjectMember* to, PObjectMember* from, size_t n) {
  if (n > 0) {
    memmove(static_cast<void*>(to), static_cast<const void*>(from), n * sizeof(PObjectMember));
  }
}

}  // namespace

PObjectMap* PObjectMap::New(size_t capacity) {
  if (capacity > UINT32_MAX) throw std::length_error("PObjectMap");
  void* block = BlockCache::Take(sizeof(PObjectMap) + capacity * sizeof(value_type));
  PObjectMap* map = new (block) PObjectMap();
  map->room_ = static_cast<uint32_t>(capacity);
  if (capacity > 0) {
    map->data_ = reinterpret_cast<value_type*>(map + 1);
    map->capacity_ = static_cast<uint32_t>(capacity);
    map->data_inline_ = true;
  }
  return map;
}

void PObjectMap::Delete(PObjectMap* map) {
  const size_t room = map->room_;
  map->~PObjectMap();
  BlockCache::Give(map, sizeof(PObjectMap) + room * sizeof(value_type));
}

static_assert(sizeof(PObjectMap) % alignof(PObjectMember) == 0,
              "members follow the map in its block");

PObjectMap::PObjectMap(const PObjectMap& other) {
  Reserve(other.size_);
  for (const value_type& m : other) {
    new (data_ + size_) value_type(m);
    ++size_;
  }
}

PObjectMap& PObjectMap::operator=(const PObjectMap& other) {
  if (this != &other) {
    PObjectMap copy(other);
    *this = std::move(copy);
  }
  return *this;
}

PObjectMap::PObjectMap(PObjectMap&& other) { *this = std::move(other); }

PObjectMap& PObjectMap::operator=(PObjectMap&& other) {
  if (this == &other) return *this;
  clear();
  if (!other.data_inline_) {
    FreeData();
    data_ = other.data_;
    size_ = other.size_;
    capacity_ = other.capacity_;
    data_inline_ = false;
    other.data_ = nullptr;
    other.size_ = other.capacity_ = 0;
    return *this;
  }
  Reserve(other.size_);
  MoveMembers(data_, other.data_, other.size_);
  size_ = other.size_;
  other.size_ = 0;
  return *this;
}

PObjectMap::~PObjectMap() {
  clear();
  FreeData();
}

void PObjectMap::FreeData() {
  if (!data_inline_) BlockCache::Give(data_, capacity_ * sizeof(value_type));
  data_ = nullptr;
  capacity_ = 0;
  data_inline_ = false;
}

void PObjectMap::clear() {
  for (uint32_t i = 0; i < size_; ++i) data_[i].~value_type();
  size_ = 0;
}

void PObjectMap::Reserve(size_t want) {
  if (want <= capacity_) return;
  if (want > UINT32_MAX) throw std::length_error("PObjectMap");
  size_t capacity = std::max<size_t>({want, 4, size_t{capacity_} * 2});
  capacity = std::min<size_t>(capacity, UINT32_MAX);
  auto* grown = static_cast<value_type*>(BlockCache::Take(capacity * sizeof(value_type)));
  MoveMembers(grown, data_, size_);
  if (!data_inline_) BlockCache::Give(data_, capacity_ * sizeof(value_type));
  data_ = grown;
  capacity_ = static_cast<uint32_t>(capacity);
  data_inline_ = false;
}

size_t PObjectMap::LowerBound(std::string_view key) const {
  if (key.size() <= PObjectKey::kInlineMax) {
    // As a key of its own, the text compares word by word (no allocation).
    const PObjectKey probe(key);
    return LowerBound(probe);
  }
  size_t low = 0, high = size_;
  while (low < high) {
    const size_t mid = low + (high - low) / 2;
    if (data_[mid].first.view() < key) {
      low = mid + 1;
    } else {
      high = mid;
    }
  }
  return low;
}

size_t PObjectMap::LowerBound(const PObjectKey& key) const {
  size_t low = 0, high = size_;
  while (low < high) {
    const size_t mid = low + (high - low) / 2;
    if (data_[mid].first < key) {
      low = mid + 1;
    } else {
      high = mid;
    }
  }
  return low;
}

PObject& PObjectMap::operator[](std::string_view key) {
  // Built in key order, a map grows at its end: look there first.
  size_t at = size_ > 0 && data_[size_ - 1].first.view() < key ? size_ : LowerBound(key);
  if (at < size_ && data_[at].first == key) return data_[at].second;
  PObjectKey made(key);  // before anything moves: `key` may lie in this map
  Reserve(size_ + 1);
  MoveMembers(data_ + at + 1, data_ + at, size_ - at);
  new (data_ + at) value_type{std::move(made), PObject()};
  ++size_;
  return data_[at].second;
}

size_t PObjectMap::erase(std::string_view key) {
  const size_t at = Find(key);
  if (at == size_) return 0;
  data_[at].~value_type();
  MoveMembers(data_ + at, data_ + at + 1, size_ - at - 1);
  --size_;
  return 1;
}

bool PObjectMap::operator==(const PObjectMap& other) const {
  if (size_ != other.size_) return false;
  for (uint32_t i = 0; i < size_; ++i) {
    if (data_[i].first != other.data_[i].first || data_[i].second != other.data_[i].second) {
      return false;
    }
  }
  return true;
}
