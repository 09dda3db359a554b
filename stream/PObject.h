// PObject: the one dynamic value of the daemon.  Every message on the local
// socket and every request and reply exchanged with a remote server is a
// PObject, almost always a map of named fields; stream/stream.h gives its
// byte encoding.
//
// A value is a 32-bit type code and a 16-byte payload slot.  Integers live in
// the slot; strings of up to 15 bytes live in the slot too, zero-terminated
// (one holding a zero byte is kept out of line, so no byte is ever lost); a
// longer string is one block holding its length and its text; everything
// else is an owned pointer in the slot.  A PObject exclusively owns its
// payload: copies are deep, moves are cheap (the slot changes hands and the
// source becomes null).  There is no sharing and no reference counting.
//
// A map is a std::map from key to member, ordered bytewise: it behaves as
// one.  A reference to a member stays valid while other keys come and go
// (the decoder merging into the map included) and ends when that member is
// erased or the map released, so `m["a"] = m["e"]` is sound; one kept past
// its end reads freed memory, which AddressSanitizer builds report.  An
// array is a std::vector, with a vector's rules for references.
//
// Reading never fails and never allocates: asking a value for a kind it does
// not hold yields 0, an empty string or one of the shared empty values below.
// Asking for a mutable payload of another kind converts the value (its old
// payload is released first).
//
// Threads: a PObject is a plain value; concurrent readers are fine, a writer
// needs exclusive access.  The shared empty values are never modified.
#ifndef VESTA_STREAM_POBJECT_H_
#define VESTA_STREAM_POBJECT_H_

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

class PObject {
 public:
  // Type codes; the wire encoding dispatches on the same numbers.
  enum Type : int32_t {
    kNull = 0,
    kArray = 1,
    kMap = 2,
    kInteger = 3,
    kString = 4,
    kBinary = 5,
    kBinaryEx = 6,
    kBuffer = 7,
  };

  // A byte range of a file: the unit in which whole files travel.  The
  // encoding streams the file content, not this record.
  struct binary_type {
    uint64_t offset = 0;  // first byte of the range in the file
    uint64_t length = 0;  // bytes in the range
    std::string path;     // the file; empty counts as an empty binary

    bool operator==(const binary_type& o) const {
      return offset == o.offset && length == o.length && path == o.path;
    }
    bool operator!=(const binary_type& o) const { return !(*this == o); }
  };

  // A file range that travels with a content digest.
  struct binary_ex_type {
    std::string path;       // the file; empty counts as an empty binary_ex
    uint64_t offset = 0;    // first byte of the range in the file
    uint64_t length = 0;    // bytes in the range
    std::string hash_algo;  // digest name; "" = the stream's default
    std::string send_hash;  // digest text computed by the sender
    std::string recv_hash;  // digest text computed by the receiver

    bool operator==(const binary_ex_type& o) const {
      return path == o.path && offset == o.offset && length == o.length &&
             hash_algo == o.hash_algo && send_hash == o.send_hash && recv_hash == o.recv_hash;
    }
    bool operator!=(const binary_ex_type& o) const { return !(*this == o); }
  };

  // An in-memory byte block, allocated with the C allocator.
  struct buffer_type {
    uint32_t length = 0;    // bytes in use
    uint32_t capacity = 0;  // bytes allocated
    char* data = nullptr;   // owned; null while capacity is 0

    buffer_type() = default;
    ~buffer_type();
    buffer_type(const buffer_type& other);             // allocates a new block
    buffer_type& operator=(const buffer_type& other);  // idem
    buffer_type(buffer_type&& other) noexcept;
    buffer_type& operator=(buffer_type&& other) noexcept;

    // Keeps the block when capacity >= size >= capacity / 2; otherwise
    // reallocates to exactly `size` bytes (length is cut to fit).  0, or -1
    // when the allocation fails (the old block stays).
    int Reserve(uint32_t size);
    // Sets all `capacity` bytes to 0 and `length` to 0.
    void Zero();
    // Reserve(n), Zero(), then copies the n bytes in.  0 or -1.
    int Assign(const void* bytes, uint32_t n);

    std::string_view View() const { return std::string_view(data, length); }
    // Equal when the bytes in use are equal (capacity does not count).
    bool operator==(const buffer_type& o) const { return View() == o.View(); }
    bool operator!=(const buffer_type& o) const { return !(*this == o); }
  };

  using array_type = std::vector<PObject>;
  // Ordered bytewise, shorter key first on a common prefix; looked up by any
  // string-like key without building a std::string.
  using map_type = std::map<std::string, PObject, std::less<>>;

  // Shared constant values handed out by the read accessors.
  static const PObject empty_object;  // a null
  static const map_type empty_map;
  static const array_type empty_array;
  static const binary_type empty_binary;
  static const binary_ex_type empty_binary_ex;
  static const buffer_type empty_buffer;

  // Longest string held inside the slot.
  static constexpr size_t kInlineStringMax = 15;
  // Bytes a string value of `text` takes outside the slot: 0 when it sits
  // inside, else its block (length, then text).
  static size_t StringBlockSize(std::string_view text);

  PObject() noexcept : type_(kNull) { memset(slot_, 0, kSlotSize); }
  ~PObject() {
    if (OwnsMemory()) Release();
  }
  PObject(const PObject& other);
  PObject& operator=(const PObject& other);
  PObject(PObject&& other) noexcept : type_(other.type_) {
    memcpy(slot_, other.slot_, kSlotSize);
    other.type_ = kNull;
    memset(other.slot_, 0, kSlotSize);
  }
  PObject& operator=(PObject&& other) noexcept {
    if (this != &other) {
      // `other` may live inside this value's payload: take it first.
      PObject taken(std::move(other));
      Clear();
      MoveFrom(taken);
    }
    return *this;
  }

  template <typename T, typename = std::enable_if_t<std::is_integral_v<T>>>
  explicit PObject(T value) : PObject() {
    SetInteger(static_cast<int64_t>(value));
  }
  explicit PObject(std::string_view text);
  explicit PObject(const std::string& text) : PObject(std::string_view(text)) {}
  explicit PObject(const char* text) : PObject(std::string_view(text)) {}
  explicit PObject(const binary_type& value);
  explicit PObject(const binary_ex_type& value);
  explicit PObject(const buffer_type& value);

  // Replacing the value: the old payload is released, the code changes.
  template <typename T, typename = std::enable_if_t<std::is_integral_v<T>>>
  PObject& operator=(T value) {
    SetInteger(static_cast<int64_t>(value));
    return *this;
  }
  PObject& operator=(std::string_view text);
  PObject& operator=(const std::string& text) { return *this = std::string_view(text); }
  PObject& operator=(const char* text) { return *this = std::string_view(text); }
  PObject& operator=(std::string&& text);
  PObject& operator=(const binary_type& value);
  PObject& operator=(const binary_ex_type& value);
  PObject& operator=(const buffer_type& value);

  void SetInteger(int64_t value) {
    if (OwnsMemory()) Release();
    memcpy(slot_, &value, sizeof(value));
    type_ = kInteger;
  }

  Type GetType() const { return type_; }
  bool IsNull() const { return type_ == kNull; }
  bool IsArray() const { return type_ == kArray; }
  bool IsMap() const { return type_ == kMap; }
  bool IsInteger() const { return type_ == kInteger; }
  bool IsString() const { return type_ == kString; }
  bool IsBinary() const { return type_ == kBinary; }
  bool IsBinaryEx() const { return type_ == kBinaryEx; }
  bool IsBuffer() const { return type_ == kBuffer; }

  // Null: always.  Integer: never (0 is a value).  String: length 0.  Array,
  // map: no members.  Binary, binary_ex: empty path.  Buffer: length 0.
  bool Empty() const;
  // An integer is true when non-zero; anything else when not Empty().
  bool AsBool() const;

  // Read accessors: they never change the value and never fail.
  int64_t AsInteger() const { return type_ == kInteger ? Integer() : 0; }
  std::string AsString() const { return std::string(AsStringView()); }
  // The text without a copy; valid until the value changes.  "" when not a
  // string.
  std::string_view AsStringView() const;
  const array_type& AsArray() const;
  const map_type& AsMap() const;
  const binary_type& AsBinary() const;
  const binary_ex_type& AsBinaryEx() const;
  const buffer_type& AsBuffer() const;
  // The member under `key`, or empty_object when this is no map or the key
  // is absent.  Inserts nothing.
  const PObject& Lookup(std::string_view key) const;

  // Mutable accessors: a value of another kind is cleared and becomes an
  // empty payload of the asked kind; a value of the right kind stays as is.
  array_type& MutableArray();
  map_type& MutableMap();
  binary_type& MutableBinary();
  binary_ex_type& MutableBinaryEx();
  buffer_type& MutableBuffer();
  // Makes the value a map, then finds or inserts `key` (a new member is
  // null).
  PObject& operator[](std::string_view key);

  // Releases the payload and leaves a null with a zeroed slot.
  void Clear() {
    if (OwnsMemory()) Release();
    type_ = kNull;
    memset(slot_, 0, kSlotSize);
  }

  // Deep equality: same code and equal payloads.
  bool operator==(const PObject& other) const;
  bool operator!=(const PObject& other) const { return !(*this == other); }

  // True when a string value sits inside the slot (tests and diagnostics).
  bool IsInlineString() const { return type_ == kString && slot_[kSlotSize - 1] == 0; }

 private:
  static constexpr size_t kSlotSize = 16;

  int64_t Integer() const;
  template <typename T>
  T* Pointer() const;
  template <typename T>
  void SetPointer(T* p);
  template <typename T>
  T& MutablePayload(Type kind);
  void SetString(std::string_view text);
  void CopyFrom(const PObject& other);
  void MoveFrom(PObject& other) noexcept {
    type_ = other.type_;
    memcpy(slot_, other.slot_, kSlotSize);
    other.type_ = kNull;
    memset(other.slot_, 0, kSlotSize);
  }
  // Whether the slot holds something to free: anything but a null, an
  // integer and an inline string.
  bool OwnsMemory() const {
    return type_ != kNull && type_ != kInteger && (type_ != kString || slot_[kSlotSize - 1] != 0);
  }
  // Frees what the slot owns, when OwnsMemory() holds; the code and the
  // slot are left as they were.
  void Release();

  Type type_;                                // what the slot holds
  alignas(8) unsigned char slot_[kSlotSize];  // inline value or owned pointer;
                                              // for a string, byte 15 is 0 when
                                              // the text is inline and 1 when the
                                              // first word points to a text block
};

// JSON-like text of `value` on one line, for logs and diagnostics.  Strings,
// keys and paths are not escaped; buffers show only their length.
std::string ToJson(const PObject& value);

#endif  // VESTA_STREAM_POBJECT_H_
