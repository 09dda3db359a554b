#include "stream/PObject.h"

#include <assert.h>
#include <stdlib.h>
#include <string.h>

#include <new>
#include <string>
#include <tuple>
#include <utility>

const PObject PObject::empty_object;
const PObject::map_type PObject::empty_map;
const PObject::array_type PObject::empty_array;
const PObject::binary_type PObject::empty_binary;
const PObject::binary_ex_type PObject::empty_binary_ex;
const PObject::buffer_type PObject::empty_buffer;

// ---- buffer_type ----

PObject::buffer_type::~buffer_type() {
  length = 0;
  capacity = 0;
  free(data);
  data = nullptr;
}

PObject::buffer_type::buffer_type(const buffer_type& other) {
  if (other.length == 0) return;
  data = static_cast<char*>(malloc(other.length));
  if (data == nullptr) throw std::bad_alloc();
  memcpy(data, other.data, other.length);
  length = other.length;
  capacity = other.length;
}

PObject::buffer_type& PObject::buffer_type::operator=(const buffer_type& other) {
  if (this != &other) {
    buffer_type copy(other);
    *this = std::move(copy);
  }
  return *this;
}

PObject::buffer_type::buffer_type(buffer_type&& other) noexcept
    : length(other.length), capacity(other.capacity), data(other.data) {
  other.length = 0;
  other.capacity = 0;
  other.data = nullptr;
}

PObject::buffer_type& PObject::buffer_type::operator=(buffer_type&& other) noexcept {
  if (this != &other) {
    free(data);
    length = other.length;
    capacity = other.capacity;
    data = other.data;
    other.length = 0;
    other.capacity = 0;
    other.data = nullptr;
  }
  return *this;
}

int PObject::buffer_type::Reserve(uint32_t size) {
  // A block more than twice the size asked for is given back.
  if (capacity >= size && size >= capacity / 2) return 0;
  if (size == 0) {
    free(data);
    data = nullptr;
    capacity = 0;
    length = 0;
    return 0;
  }
  void* block = realloc(data, size);
  if (block == nullptr) return -1;
  data = static_cast<char*>(block);
  capacity = size;
  if (length > size) length = size;
  return 0;
}

void PObject::buffer_type::Zero() {
  if (data == nullptr) return;
  memset(data, 0, capacity);
  length = 0;
}

int PObject::buffer_type::Assign(const void* bytes, uint32_t n) {
  if (Reserve(n) != 0) return -1;
  Zero();
  if (n > 0) memcpy(data, bytes, n);
  length = n;
  return 0;
}

// ---- slot access ----

template <typename T>
T* PObject::Pointer() const {
  T* p;
  memcpy(&p, slot_, sizeof(p));
  return p;
}

template <typename T>
void PObject::SetPointer(T* p) {
  memcpy(slot_, &p, sizeof(p));
}

int64_t PObject::Integer() const {
  int64_t value;
  memcpy(&value, slot_, sizeof(value));
  return value;
}

// ---- long texts ----

namespace {

// A string too long for the slot: one block, its length then its text.
size_t TextBlockSize(size_t n) { return sizeof(size_t) + n; }

char* NewText(std::string_view text) {
  const size_t n = text.size();
  char* block = static_cast<char*>(malloc(TextBlockSize(n)));
  if (block == nullptr) throw std::bad_alloc();
  memcpy(block, &n, sizeof(n));
  if (n > 0) memcpy(block + sizeof(size_t), text.data(), n);
  return block;
}

std::string_view TextOf(const char* block) {
  size_t n;
  memcpy(&n, block, sizeof(n));
  return std::string_view(block + sizeof(size_t), n);
}

}  // namespace

// ---- life cycle ----

PObject::PObject(const PObject& other) : PObject() { CopyFrom(other); }

PObject& PObject::operator=(const PObject& other) {
  if (this != &other) {
    // `other` may live inside this value's payload: copy before releasing.
    PObject copy(other);
    Clear();
    MoveFrom(copy);
  }
  return *this;
}

PObject::PObject(std::string_view text) : PObject() { SetString(text); }
PObject::PObject(const binary_type& value) : PObject() { *this = value; }
PObject::PObject(const binary_ex_type& value) : PObject() { *this = value; }
PObject::PObject(const buffer_type& value) : PObject() { *this = value; }

void PObject::Release() {
  switch (type_) {
    case kArray:
      delete Pointer<array_type>();
      break;
    case kMap:
      delete Pointer<map_type>();
      break;
    case kString:
      free(Pointer<char>());
      break;
    case kBinary:
      delete Pointer<binary_type>();
      break;
    case kBinaryEx:
      delete Pointer<binary_ex_type>();
      break;
    case kBuffer:
      delete Pointer<buffer_type>();
      break;
    case kNull:
    case kInteger:
      break;
  }
}

void PObject::CopyFrom(const PObject& other) {
  assert(type_ == kNull);
  switch (other.type_) {
    case kNull:
      return;
    case kInteger:
      memcpy(slot_, other.slot_, kSlotSize);
      break;
    case kString:
      SetString(other.AsStringView());
      return;
    case kArray:
      SetPointer(new array_type(*other.Pointer<array_type>()));
      break;
    case kMap:
      SetPointer(new map_type(*other.Pointer<map_type>()));
      break;
    case kBinary:
      SetPointer(new binary_type(*other.Pointer<binary_type>()));
      break;
    case kBinaryEx:
      SetPointer(new binary_ex_type(*other.Pointer<binary_ex_type>()));
      break;
    case kBuffer:
      SetPointer(new buffer_type(*other.Pointer<buffer_type>()));
      break;
  }
  type_ = other.type_;
}

// ---- assignment of scalars and records ----

size_t PObject::StringBlockSize(std::string_view text) {
  const bool fits = text.size() <= kInlineStringMax &&
                    (text.empty() || memchr(text.data(), 0, text.size()) == nullptr);
  return fits ? 0 : TextBlockSize(text.size());
}

void PObject::SetString(std::string_view text) {
  // Built aside first: `text` may point into this value's own payload.
  unsigned char slot[kSlotSize] = {0};
  if (StringBlockSize(text) == 0) {
    if (!text.empty()) memcpy(slot, text.data(), text.size());
  } else {
    char* block = NewText(text);
    memcpy(slot, &block, sizeof(block));
    slot[kSlotSize - 1] = 1;
  }
  Clear();
  memcpy(slot_, slot, kSlotSize);
  type_ = kString;
}

PObject& PObject::operator=(std::string_view text) {
  SetString(text);
  return *this;
}

PObject& PObject::operator=(std::string&& text) {
  SetString(text);
  return *this;
}

// The record is copied before the old payload goes: `value` may live inside
// it (v = v["file"].AsBinary()).
PObject& PObject::operator=(const binary_type& value) {
  binary_type copy(value);
  MutableBinary() = std::move(copy);
  return *this;
}

PObject& PObject::operator=(const binary_ex_type& value) {
  binary_ex_type copy(value);
  MutableBinaryEx() = std::move(copy);
  return *this;
}

PObject& PObject::operator=(const buffer_type& value) {
  buffer_type copy(value);
  MutableBuffer() = std::move(copy);
  return *this;
}

// ---- reading ----

bool PObject::Empty() const {
  switch (type_) {
    case kNull:
      return true;
    case kInteger:
      return false;
    case kString:
      return AsStringView().empty();
    case kArray:
      return Pointer<array_type>()->empty();
    case kMap:
      return Pointer<map_type>()->empty();
    case kBinary:
      return Pointer<binary_type>()->path.empty();
    case kBinaryEx:
      return Pointer<binary_ex_type>()->path.empty();
    case kBuffer:
      return Pointer<buffer_type>()->length == 0;
  }
  return true;
}

bool PObject::AsBool() const {
  if (type_ == kInteger) return Integer() != 0;
  return !Empty();
}

std::string_view PObject::AsStringView() const {
  if (type_ != kString) return std::string_view();
  if (slot_[kSlotSize - 1] == 0) return std::string_view(reinterpret_cast<const char*>(slot_));
  return TextOf(Pointer<char>());
}

const PObject::array_type& PObject::AsArray() const {
  return type_ == kArray ? *Pointer<array_type>() : empty_array;
}

const PObject::map_type& PObject::AsMap() const {
  return type_ == kMap ? *Pointer<map_type>() : empty_map;
}

const PObject::binary_type& PObject::AsBinary() const {
  return type_ == kBinary ? *Pointer<binary_type>() : empty_binary;
}

const PObject::binary_ex_type& PObject::AsBinaryEx() const {
  return type_ == kBinaryEx ? *Pointer<binary_ex_type>() : empty_binary_ex;
}

const PObject::buffer_type& PObject::AsBuffer() const {
  return type_ == kBuffer ? *Pointer<buffer_type>() : empty_buffer;
}

const PObject& PObject::Lookup(std::string_view key) const {
  if (type_ != kMap) return empty_object;
  const map_type& members = *Pointer<map_type>();
  const auto it = members.find(key);
  return it == members.end() ? empty_object : it->second;
}

// ---- mutable access ----

// Makes the value a T of kind `kind`, keeping the payload when it already
// is one.
template <typename T>
T& PObject::MutablePayload(Type kind) {
  if (type_ != kind) {
    T* payload = new T();
    Clear();
    SetPointer(payload);
    type_ = kind;
  }
  return *Pointer<T>();
}

PObject::array_type& PObject::MutableArray() { return MutablePayload<array_type>(kArray); }
PObject::map_type& PObject::MutableMap() { return MutablePayload<map_type>(kMap); }
PObject::binary_type& PObject::MutableBinary() { return MutablePayload<binary_type>(kBinary); }
PObject::binary_ex_type& PObject::MutableBinaryEx() {
  return MutablePayload<binary_ex_type>(kBinaryEx);
}
PObject::buffer_type& PObject::MutableBuffer() { return MutablePayload<buffer_type>(kBuffer); }

PObject& PObject::operator[](std::string_view key) {
  if (type_ != kMap) {
    // `key` may lie in the payload that becoming a map releases.
    const std::string copy(key);
    MutableMap();
    return (*this)[copy];
  }
  map_type& members = *Pointer<map_type>();
  auto it = members.lower_bound(key);
  if (it == members.end() || it->first != key) {
    it = members.emplace_hint(it, std::piecewise_construct, std::forward_as_tuple(key),
                              std::forward_as_tuple());
  }
  return it->second;
}

bool PObject::operator==(const PObject& other) const {
  if (type_ != other.type_) return false;
  switch (type_) {
    case kNull:
      return true;
    case kInteger:
      return Integer() == other.Integer();
    case kString:
      return AsStringView() == other.AsStringView();
    case kArray:
      return *Pointer<array_type>() == *other.Pointer<array_type>();
    case kMap:
      return *Pointer<map_type>() == *other.Pointer<map_type>();
    case kBinary:
      return *Pointer<binary_type>() == *other.Pointer<binary_type>();
    case kBinaryEx:
      return *Pointer<binary_ex_type>() == *other.Pointer<binary_ex_type>();
    case kBuffer:
      return *Pointer<buffer_type>() == *other.Pointer<buffer_type>();
  }
  return false;
}

// ---- JSON text ----

namespace {

void AppendQuoted(std::string_view text, std::string* out) {
  out->push_back('"');
  out->append(text);
  out->push_back('"');
}

void AppendUnsigned(const char* name, uint64_t value, std::string* out) {
  AppendQuoted(name, out);
  out->append(": ");
  out->append(std::to_string(value));
}

void AppendText(const char* name, const std::string& value, std::string* out) {
  AppendQuoted(name, out);
  out->append(": ");
  AppendQuoted(value, out);
}

// "offset", "length" and "path" of a binary or binary_ex.
template <typename Range>
void AppendFileRange(const Range& r, std::string* out) {
  AppendUnsigned("offset", r.offset, out);
  out->append(", ");
  AppendUnsigned("length", r.length, out);
  out->append(", ");
  AppendText("path", r.path, out);
}

void AppendJson(const PObject& value, std::string* out) {
  switch (value.GetType()) {
    case PObject::kNull:
      out->append("null");
      return;
    case PObject::kInteger:
      out->append(std::to_string(value.AsInteger()));
      return;
    case PObject::kString:
      AppendQuoted(value.AsStringView(), out);
      return;
    case PObject::kArray: {
      out->push_back('[');
      const char* separator = "";
      for (const PObject& element : value.AsArray()) {
        out->append(separator);
        AppendJson(element, out);
        separator = ", ";
      }
      out->push_back(']');
      return;
    }
    case PObject::kMap: {
      out->push_back('{');
      const char* separator = "";
      for (const auto& member : value.AsMap()) {
        out->append(separator);
        AppendQuoted(member.first, out);
        out->append(": ");
        AppendJson(member.second, out);
        separator = ", ";
      }
      out->push_back('}');
      return;
    }
    case PObject::kBuffer:
      out->push_back('{');
      AppendUnsigned("data_length", value.AsBuffer().length, out);
      out->push_back('}');
      return;
    case PObject::kBinary:
      out->push_back('{');
      AppendFileRange(value.AsBinary(), out);
      out->push_back('}');
      return;
    case PObject::kBinaryEx: {
      const PObject::binary_ex_type& b = value.AsBinaryEx();
      out->push_back('{');
      AppendFileRange(b, out);
      out->append(", ");
      AppendText("send_hash", b.send_hash, out);
      out->append(", ");
      AppendText("recv_hash", b.recv_hash, out);
      out->append(", ");
      AppendText("hash_algo", b.hash_algo, out);
      out->push_back('}');
      return;
    }
  }
}

}  // namespace

std::string ToJson(const PObject& value) {
  std::string out;
  AppendJson(value, &out);
  return out;
}
