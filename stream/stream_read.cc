// PStream's decoder: parsing in place from the channel's read buffer, the
// limits a value from an untrusted peer meets (depth, integer width, growing
// reads, the size cap), the merge rules of a target that already holds a
// value, and the members of a binary_ex (the file itself is
// stream_binary.cc's).
#include <assert.h>

#include <algorithm>
#include <istream>
#include <memory>
#include <new>
#include <unordered_map>

#include "log/log.h"
#include "stream/stream-util.h"
#include "stream/stream.h"

using stream_util::kComponent;
using stream_util::kFirstPiece;
using stream_util::ULL;

namespace {

// Memory footprints counted against the size cap.  Every allocation is
// counted with the allocator's own overhead.
constexpr size_t kAllocOverhead = 16;
// An array: the vector object, and the block of its elements.
constexpr size_t kArrayCost = sizeof(PObject::array_type) + 2 * kAllocOverhead;
// A map: its header, in one block with its members.
constexpr size_t kMapCost = sizeof(PObject::map_type) + kAllocOverhead;
// A member: its key and value in the map's block; a key too long to sit in
// the member has a block of its own.
size_t MemberCost(size_t key_length) {
  return sizeof(PObjectMember) +
         (key_length > PObjectKey::kInlineMax ? key_length + kAllocOverhead : 0);
}
// A string value too long for the slot: one block with its length, its
// text and a terminating zero.
size_t LongStringCost(size_t length) {
  return length > PObject::kInlineStringMax ? sizeof(size_t) + length + 1 + kAllocOverhead : 0;
}

// No member of the open map has the key.
constexpr size_t kNoMember = SIZE_MAX;

}  // namespace

// What a binary_ex's members brought, applied to the target only once the
// whole value has arrived.
struct PStream::BinaryExParts {
  PObject file;           // the "binary" member: fresh, so its file is ours
  std::string recv_hash;  // our digest of its bytes
  std::string send_hash;  // the sender's digest
};

// ---- the window over the channel's buffer ----

void PStream::Commit() {
  if (in_base_ != nullptr) channel_->Consume(static_cast<size_t>(in_pos_ - in_base_));
  in_base_ = in_pos_ = in_end_ = nullptr;
}

int PStream::Refill(size_t n) {
  assert(n <= kStageSize);
  // A staged window is always used up before the next one is asked for.
  assert(in_base_ != nullptr || in_pos_ == in_end_);
  Commit();
  if (channel_ != nullptr) {
    const uint8_t* data = nullptr;
    size_t visible = channel_->Peek(n, &data);
    if (visible >= n) {
      in_base_ = in_pos_ = data;
      in_end_ = data + visible;
      return kOk;
    }
  }
  // A source without a buffer, or input that stops short: exact reads.
  int rc = ReadExact(staged_, n);
  if (rc != kOk) return rc;
  in_pos_ = staged_;
  in_end_ = staged_ + n;
  return kOk;
}

int PStream::ReadExact(void* data, size_t n) {
  assert(in_pos_ == in_end_);
  if (channel_ != nullptr) {
    int rc = channel_->Read(data, n);
    if (rc != 0) {
      LOG_WARNING(kComponent, "Channel: %d", rc);
      return kErrChannel;
    }
    return kOk;
  }
  if (in_ != nullptr) {
    in_->read(static_cast<char*>(data), static_cast<std::streamsize>(n));
    return static_cast<size_t>(in_->gcount()) == n ? kOk : kErrStream;
  }
  LOG_CRIT(kComponent, "shouldn't reach here.");
  return kErrStream;
}

int PStream::ReadBytes(void* data, size_t n) {
  const size_t take = std::min(n, static_cast<size_t>(in_end_ - in_pos_));
  if (take > 0) memcpy(data, in_pos_, take);
  in_pos_ += take;
  if (take == n) return kOk;
  Commit();
  return ReadExact(static_cast<char*>(data) + take, n - take);
}

int PStream::OverCap() {
  LOG_ERROR(kComponent, "PStream: value takes more than %llu bytes of memory, refused",
            ULL(size_cap_));
  budget_ = 0;
  return kErrMalformed;
}

// ---- values ----

int PStream::ReadTaggedValue(PObject* target) {
  int rc = Need(1);
  if (rc != kOk) return rc;
  return ReadValue(*in_pos_++, target);
}

int PStream::ReadValue(uint8_t tag, PObject* target) {
  switch (tag) {
    case kTagNull:
      ResetProgress();
      return ReadNull(target);
    case kTagInteger:
      ResetProgress();
      return ReadInteger(target);
    case kTagString:
      ResetProgress();
      return ReadString(target);
    case kTagBuffer:
      ResetProgress();
      return ReadBuffer(target);
    case kTagArray:
      return ReadArray(Target{target});
    case kTagMap:
      return ReadMap(Target{target});
    case kTagBinary:
    case kTagBinaryEx:
      if (refuse_binaries_) {
        LOG_ERROR(kComponent, "PStream: binaries are refused on this stream, but get tag %u",
                  static_cast<unsigned>(tag));
        return kErrMalformed;
      }
      return tag == kTagBinary ? ReadBinary(target) : ReadBinaryEx(target);
    default:
      LOG_ERROR(kComponent, "PStream: unknown tag %u", static_cast<unsigned>(tag));
      return kErrMalformed;
  }
}

int PStream::ReadNull(PObject* target) {
  int rc = Need(1);
  if (rc != kOk) return rc;
  const uint8_t length = *in_pos_++;
  if (length != 0) {
    LOG_ERROR(kComponent, "expect length 0, but we've got %u", static_cast<unsigned>(length));
    return kErrMalformed;
  }
  target->Clear();
  return kOk;
}

int PStream::ReadInteger(PObject* target) {
  uint64_t bits;
  if (in_end_ - in_pos_ >= 9 && in_pos_[0] <= 8) {
    // The usual case: the width and 8 bytes in the window; the value is the
    // first `width` of them.
    const unsigned width = in_pos_[0];
    const uint64_t word = Channel::GetUInt64(in_pos_ + 1);
    bits = width == 0 ? 0 : word >> (8 * (8 - width));
    in_pos_ += 1 + width;
  } else {
    int rc = Need(1);
    if (rc != kOk) return rc;
    const uint8_t width = *in_pos_++;
    if (width > 8) {
      LOG_ERROR(kComponent, "PStream: integer of %u bytes, at most 8 expected",
                static_cast<unsigned>(width));
      return kErrMalformed;
    }
    rc = Need(width);
    if (rc != kOk) return rc;
    // The `width` bytes are the tail of the value's 8-byte form.
    uint8_t bytes[8] = {0};
    memcpy(bytes + 8 - width, in_pos_, width);
    in_pos_ += width;
    bits = Channel::GetUInt64(bytes);
  }
  if (dump_) LOG_DEBUG(kComponent, "%s%llu", Indent(), ULL(bits));
  target->SetInteger(static_cast<int64_t>(bits));
  return kOk;
}

// Pieces grow with what has arrived: a peer that announces 64 KiB and stops
// early costs what it sent and a page.
int PStream::ReadStringBody(size_t length, std::string* text) {
  if (static_cast<size_t>(in_end_ - in_pos_) >= length) {
    text->assign(reinterpret_cast<const char*>(in_pos_), length);
    in_pos_ += length;
    return kOk;
  }
  text->clear();
  for (size_t got = 0; got < length;) {
    size_t piece = std::min(length - got, std::max(kFirstPiece, got));
    text->resize(got + piece);
    int rc = ReadBytes(&(*text)[got], piece);
    if (rc != kOk) return rc;
    got += piece;
  }
  return kOk;
}

int PStream::ReadString(PObject* target) {
  int rc = Need(2);
  if (rc != kOk) return rc;
  const size_t length = Channel::GetUInt16(in_pos_);
  in_pos_ += 2;
  if (length <= PObject::kInlineStringMax && in_end_ - in_pos_ >= 16) {
    // The usual case: a text that fits the slot, with room to read whole
    // words.
    if (dump_) {
      LOG_DEBUG(kComponent, "%s\"%.*s\"", Indent(), static_cast<int>(length),
                reinterpret_cast<const char*>(in_pos_));
    }
    target->AssignShortText(in_pos_, length);
    in_pos_ += length;
    return kOk;
  }
  rc = Charge(LongStringCost(length));
  if (rc != kOk) return rc;
  if (static_cast<size_t>(in_end_ - in_pos_) >= length) {
    // The common case: the whole text is in the window.
    const std::string_view text(reinterpret_cast<const char*>(in_pos_), length);
    in_pos_ += length;
    if (dump_) LOG_DEBUG(kComponent, "%s\"%.*s\"", Indent(), static_cast<int>(length), text.data());
    *target = text;
    return kOk;
  }
  rc = ReadStringBody(length, &scratch_);
  if (rc != kOk) return rc;
  if (dump_) LOG_DEBUG(kComponent, "%s\"%s\"", Indent(), scratch_.c_str());
  *target = std::string_view(scratch_);
  return kOk;
}

int PStream::ReadBuffer(PObject* target) {
  int rc = Need(4);
  if (rc != kOk) return rc;
  const uint32_t length = Channel::GetUInt32(in_pos_);
  in_pos_ += 4;
  if (dump_) LOG_DEBUG(kComponent, "%s\"%u\"", Indent(), length);
  rc = Charge(sizeof(PObject::buffer_type) + kAllocOverhead + length);
  if (rc != kOk) return rc;
  PObject::buffer_type& buffer = target->MutableBuffer();
  // A block already big enough is reused as Assign would; otherwise the
  // block grows with the bytes that arrive.
  const uint32_t first = buffer.capacity >= length
                             ? length
                             : static_cast<uint32_t>(std::min<size_t>(length, kFirstPiece));
  if (buffer.Reserve(first) != 0) {
    LOG_ERROR(kComponent, "PStream: no memory for %u bytes", first);
    return kErrStream;
  }
  buffer.Zero();
  for (uint32_t got = 0; got < length;) {
    uint32_t piece = static_cast<uint32_t>(
        std::min<size_t>(length - got, std::max<size_t>(kFirstPiece, got)));
    if (got + piece > buffer.capacity && buffer.Reserve(got + piece) != 0) {
      LOG_ERROR(kComponent, "PStream: no memory for %u bytes", got + piece);
      return kErrStream;
    }
    rc = ReadBytes(buffer.data + got, piece);
    if (rc != kOk) return rc;
    got += piece;
    buffer.length = got;
  }
  return kOk;
}

// ---- containers ----

int PStream::EnterContainer() {
  if (depth_ >= kMaxDepth) {
    LOG_ERROR(kComponent, "PStream: values nested deeper than %d levels", kMaxDepth);
    return kErrMalformed;
  }
  ++depth_;
  return kOk;
}

// The usual scalars -- an integer, a string -- whole in the window with room
// to read words: read at once, true.  Anything else:
// false, nothing read.
inline bool PStream::ReadShortScalar(uint8_t tag, PObject* target) {
  if (dump_ || in_end_ - in_pos_ < 2 + 16) return false;
  if (tag == kTagInteger && in_pos_[0] <= 8) {
    ResetProgress();
    const unsigned width = in_pos_[0];
    const uint64_t word = Channel::GetUInt64(in_pos_ + 1);
    target->SetInteger(static_cast<int64_t>(width == 0 ? 0 : word >> (8 * (8 - width))));
    in_pos_ += 1 + width;
    return true;
  }
  if (tag != kTagString) return false;
  const size_t length = Channel::GetUInt16(in_pos_);
  if (length <= PObject::kInlineStringMax) {
    ResetProgress();
    target->AssignShortText(in_pos_ + 2, length);
    in_pos_ += 2 + length;
    return true;
  }
  // A longer text whole in the window and under the cap (else the full
  // path fails it, once).
  if (static_cast<size_t>(in_end_ - in_pos_) - 2 < length || LongStringCost(length) > budget_) {
    return false;
  }
  ResetProgress();
  budget_ -= LongStringCost(length);
  target->SetString(std::string_view(reinterpret_cast<const char*>(in_pos_ + 2), length));
  in_pos_ += 2 + length;
  return true;
}

// Reads a value of `tag` into the run member `place`, starting from what the
// member holds, so that a repeated key merges as any target would.  Maps
// and arrays find the member again when they close; a binary_ex is read
// aside, since its members may move the run.
int PStream::ReadRunValue(uint8_t tag, const Target& place) {
  switch (tag) {
    case kTagArray:
      return ReadArray(place);
    case kTagMap:
      return ReadMap(place);
    case kTagBinaryEx: {
      // Decoded aside: its members may move the run.
      PObject value(std::move(*place.Get()));
      const int rc = ReadValue(tag, &value);
      *place.Get() = std::move(value);
      return rc;
    }
    default:
      return ReadValue(tag, place.Get());
  }
}

int PStream::ReadArray(const Target& target) {
  if (dump_) LOG_DEBUG(kComponent, "%s[", Indent());
  int rc = EnterContainer();
  if (rc == kOk) rc = Charge(kArrayCost);
  if (rc != kOk) return rc;
  const size_t base = elements_.size();
  for (;;) {
    rc = Need(1);
    if (rc != kOk) break;
    const uint8_t tag = *in_pos_++;
    if (tag == kTagEnd) break;
    rc = Charge(sizeof(PObject));
    if (rc != kOk) break;
    const size_t slot = elements_.size();
    if (ReadShortScalar(tag, &elements_.Push())) continue;
    rc = ReadRunValue(tag, Target{nullptr, nullptr, &elements_, slot});
    if (rc != kOk) break;
  }
  // What arrived joins the target, after a failure too.  A fresh array is
  // sized exactly; one appended to (a repeated key) grows by doubling.
  PObject::array_type& out = target.Get()->MutableArray();
  const size_t n = elements_.size() - base;
  if (out.size() + n > out.capacity()) {
    const size_t want = std::max(out.size() + n, 2 * out.size());
    const int charged = Charge((want - out.size() - n) * sizeof(PObject));
    if (charged != kOk) {
      elements_.Truncate(base);
      return charged;
    }
    out.reserve(want);
  }
  for (size_t i = base; i < elements_.size(); ++i) out.push_back(std::move(elements_[i]));
  elements_.Truncate(base);
  if (rc != kOk) return rc;
  --depth_;
  if (dump_) LOG_DEBUG(kComponent, "%s]", Indent());
  return kOk;
}

int PStream::ReadKey(PObjectKey* key) {
  int rc = Need(1);
  if (rc != kOk) return rc;
  const uint8_t tag = *in_pos_++;
  if (tag != kTagString) {
    LOG_ERROR(kComponent, "PStream: expect string, but get tag %u", static_cast<unsigned>(tag));
    return kErrMalformed;
  }
  rc = Need(2);
  if (rc != kOk) return rc;
  const size_t length = Channel::GetUInt16(in_pos_);
  in_pos_ += 2;
  if (length <= PObjectKey::kInlineMax && in_end_ - in_pos_ >= 24) {
    key->AssignShort(in_pos_, length);  // the usual case
    in_pos_ += length;
  } else if (static_cast<size_t>(in_end_ - in_pos_) >= length) {
    *key = PObjectKey(std::string_view(reinterpret_cast<const char*>(in_pos_), length));
    in_pos_ += length;
  } else {
    rc = ReadStringBody(length, &scratch_);
    if (rc != kOk) return rc;
    *key = PObjectKey(scratch_);
  }
  if (dump_) {
    LOG_DEBUG(kComponent, "%s\"%.*s\"", Indent(), static_cast<int>(key->size()), key->data());
  }
  return kOk;
}

// Reads the members of a binary_ex up to its end marker, each value through
// `read_member(key)`.  The opening "{" is dumped here; the caller dumps the
// closing "}".  A failing member's key is recorded for the error stack.
template <typename ReadMember>
int PStream::ReadMembers(ReadMember read_member) {
  if (dump_) LOG_DEBUG(kComponent, "%s{", Indent());
  int rc = EnterContainer();
  if (rc != kOk) return rc;
  PObjectKey key;
  for (;;) {
    rc = Need(1);
    if (rc != kOk) return rc;
    if (*in_pos_ == kTagEnd) {
      ++in_pos_;
      break;
    }
    rc = ReadKey(&key);
    if (rc != kOk) return rc;
    rc = read_member(key);
    if (rc != kOk) {
      error_keys_.emplace_back(key.view());
      return rc;
    }
  }
  --depth_;
  return kOk;
}

// Where the members of the map being read are found once its keys stop
// arriving in order: until then a key greater than the last needs no search
// at all, and any other is searched in the sorted run.
class PStream::MemberIndex {
 public:
  bool sorted = true;
  // Into members_; made when the keys first come out of order.
  std::unique_ptr<std::unordered_map<std::string, size_t>> position;
};

// The member of the run [base, slot) with the key of the member at `slot`.
size_t PStream::FindMember(size_t base, size_t slot, MemberIndex* index) {
  const PObjectKey& key = members_[slot].first;
  if (!index->sorted) {
    auto it = index->position->find(key.str());
    return it == index->position->end() ? kNoMember : it->second;
  }
  if (slot == base) return kNoMember;
  PObjectMember* first = members_.data() + base;
  PObjectMember* last = members_.data() + slot;
  auto it = std::lower_bound(first, last, key,
                             [](const PObjectMember& m, const PObjectKey& k) { return m.first < k; });
  if (it != last && it->first == key) return static_cast<size_t>(it - members_.data());
  // Out of order: from here on the index finds members, and the run is
  // sorted when the map closes.
  index->sorted = false;
  index->position = std::make_unique<std::unordered_map<std::string, size_t>>();
  for (size_t i = base; i < slot; ++i) index->position->emplace(members_[i].first.str(), i);
  return kNoMember;
}

// The usual members of a map -- a short key in order, then an integer or a
// string -- decoded in a tight loop on local copies of the window,
// the run's top and the budget, while the window holds them whole.  Stops,
// reading nothing more, at the first member that is not one of those (or
// at the end marker); the general loop takes that one.
void PStream::ReadPlainMembers(size_t base) {
  // What the window must hold to look at a member: tag, length, 23 key
  // bytes read as 24, then a string's tag, length and 16 bytes read as
  // words (a longer string is checked on its own).
  constexpr ptrdiff_t kLongest = 3 + 24 + 3 + 16;
  const uint8_t* pos = in_pos_;
  const uint8_t* const end = in_end_;
  size_t top = members_.size();
  size_t budget = budget_;
  while (end - pos >= kLongest && pos[0] == kTagString && budget >= sizeof(PObjectMember)) {
    const size_t key_length = Channel::GetUInt16(pos + 1);
    if (key_length > PObjectKey::kInlineMax) break;
    const uint8_t* value = pos + 3 + key_length;
    size_t value_size, text_cost = 0;
    if (value[0] == kTagInteger && value[1] <= 8) {
      value_size = 2 + value[1];
    } else if (value[0] == kTagString) {
      const size_t length = Channel::GetUInt16(value + 1);
      value_size = 3 + length;
      text_cost = LongStringCost(length);
      if (end - value < static_cast<ptrdiff_t>(value_size) ||
          budget - sizeof(PObjectMember) < text_cost) {
        break;
      }
    } else {
      break;
    }
    if (top == members_.capacity()) {
      members_.SetSize(top);  // so that growing moves them all
      members_.Reserve(top + 1);
    }
    PObjectMember* member = members_.data() + top;
    new (&member->first) PObjectKey(PObjectKey::FromPadded{}, pos + 3, key_length);
    if (top > base && !(member[-1].first < member->first)) break;  // the key stays uncounted
    new (&member->second) PObject();
    ResetProgress();
    if (value[0] == kTagInteger) {
      const unsigned width = value[1];
      const uint64_t word = Channel::GetUInt64(value + 2);
      member->second.SetInteger(static_cast<int64_t>(width == 0 ? 0 : word >> (8 * (8 - width))));
    } else if (value_size - 3 <= PObject::kInlineStringMax) {
      member->second.AssignShortText(value + 3, value_size - 3);
    } else {
      member->second.SetString(
          std::string_view(reinterpret_cast<const char*>(value + 3), value_size - 3));
    }
    ++top;
    budget -= sizeof(PObjectMember) + text_cost;
    pos = value + value_size;
  }
  members_.SetSize(top);
  in_pos_ = pos;
  budget_ = budget;
}

int PStream::ReadMap(const Target& target) {
  if (dump_) LOG_DEBUG(kComponent, "%s{", Indent());
  int rc = EnterContainer();
  if (rc == kOk) rc = Charge(kMapCost);
  if (rc != kOk) return rc;
  const size_t base = members_.size();
  if (target.Get()->IsMap() && !target.Get()->AsMap().empty()) {
    // Merging into a map already held (a repeated key): its members join
    // the run and the map is built anew when it closes.  The new block is
    // charged in full -- old and new are alive together -- which also keeps
    // what repeated keys can make merging cost within the cap.
    PObject::map_type& held = target.Get()->MutableMap();
    rc = Charge(held.size() * sizeof(PObjectMember));
    if (rc != kOk) return rc;
    for (PObjectMember& m : held) members_.Push() = std::move(m);
    held.clear();
  }
  MemberIndex index;
  for (;;) {
    if (index.sorted && !dump_) ReadPlainMembers(base);
    rc = Need(1);
    if (rc != kOk) break;
    if (*in_pos_ == kTagEnd) {
      ++in_pos_;
      break;
    }
    // The key is read into a new member at the top of the run.
    const size_t slot = members_.size();
    members_.Push();
    rc = ReadKey(&members_[slot].first);
    if (rc != kOk) {
      members_.Pop();
      break;
    }
    const size_t key_length = members_[slot].first.size();
    // A repeated key decodes into the member its first occurrence made.
    // Keys in order, the usual case, need no search.
    const bool next_in_order =
        index.sorted && (slot == base || members_[slot - 1].first < members_[slot].first);
    size_t at = next_in_order ? kNoMember : FindMember(base, slot, &index);
    if (at != kNoMember) {
      members_.Pop();
    } else {
      at = slot;
      rc = Charge(MemberCost(key_length));
      if (rc != kOk) {
        members_.Pop();
        break;
      }
      if (!index.sorted) index.position->emplace(members_[slot].first.str(), slot);
    }
    rc = Need(1);
    if (rc == kOk) {
      const uint8_t tag = *in_pos_++;
      if (!ReadShortScalar(tag, &members_[at].second)) {
        rc = ReadRunValue(tag, Target{nullptr, &members_, nullptr, at});
      }
    }
    if (rc != kOk) {
      error_keys_.emplace_back(members_[at].first.view());
      break;
    }
  }
  // What arrived becomes the target, after a failure too.
  if (!index.sorted) {
    std::sort(members_.data() + base, members_.data() + members_.size(),
              [](const PObjectMember& a, const PObjectMember& b) { return a.first < b.first; });
  }
  target.Get()->AdoptMembers(members_.data() + base, members_.size() - base);
  members_.Forget(base);
  if (rc != kOk) return rc;
  --depth_;
  if (dump_) LOG_DEBUG(kComponent, "%s}", Indent());
  return kOk;
}

// ---- binary_ex ----

int PStream::ReadBinaryEx(PObject* target) {
  int rc = Charge(sizeof(PObject::binary_ex_type));
  if (rc != kOk) return rc;
  PObject::binary_ex_type& ex = target->MutableBinaryEx();
  const std::string algo = ex.hash_algo.empty() ? default_hash_algo_ : ex.hash_algo;
  stream_util::HashAlgoScope scope(&binary_hash_algo_, algo);
  last_hash_.clear();
  BinaryExParts parts;
  rc = ReadMembers([&](const PObjectKey& key) { return ReadBinaryExMember(key, &parts); });
  if (rc != kOk) {
    // A file without the rest of its value is of no use.
    RemoveOwnFile(parts.file);
    return rc;
  }
  if (parts.file.IsBinary()) {
    const PObject::binary_type& b = parts.file.AsBinary();
    ex.path = b.path;
    ex.offset = b.offset;
    ex.length = b.length;
    ex.hash_algo = algo;
    ex.recv_hash = parts.recv_hash;
  }
  ex.send_hash = parts.send_hash;
  if (dump_) {
    LOG_DEBUG(kComponent, "%s}", Indent());
    LOG_DEBUG(kComponent, "%sbinary with hash has been stored at '%s' with length %llu", Indent(),
              ex.path.c_str(), ULL(ex.length));
  }
  return kOk;
}

// Each member decodes into a fresh value, so a file it receives is always
// this transfer's own, under a fresh name: that file, and no other, goes
// when the member fails or is of no use.
int PStream::ReadBinaryExMember(const PObjectKey& key, BinaryExParts* parts) {
  PObject member;
  int rc = ReadTaggedValue(&member);
  if (rc != kOk) {
    RemoveOwnFile(member);
    return rc;
  }
  if (key == "binary" && member.IsBinary()) {
    RemoveOwnFile(parts->file);  // a repeated "binary" replaces the first
    parts->file = std::move(member);
    parts->recv_hash = last_hash_;
    if (dump_) {
      const PObject::binary_type& b = parts->file.AsBinary();
      LOG_DEBUG(kComponent, "%ssender provide binary to path: '%s', length: %llu, offset: %llu.",
                Indent(), b.path.c_str(), ULL(b.length), ULL(b.offset));
    }
  } else if (key == "send_hash" && member.IsString()) {
    parts->send_hash = member.AsString();
    if (dump_) {
      LOG_DEBUG(kComponent, "%ssender provide binary hash '%s'.", Indent(), parts->send_hash.c_str());
    }
  } else {
    RemoveOwnFile(member);
  }
  return kOk;
}
