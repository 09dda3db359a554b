// PStream's decoder, maps and arrays: each is read onto a run of members
// (or elements) at the top of a stack shared by all open containers, and
// allocated once, at its final size, when it closes.  Keys arrive in order
// from our own encoder, so the usual member is appended without a search; a
// key out of order or repeated is found through a binary search or an index,
// and the run is sorted when the map closes (n log n for any one map).  A
// map that a repeated key merges into is rebuilt, and charged for it.
#include <algorithm>
#include <memory>
#include <new>
#include <string>
#include <unordered_map>

#include "log/log.h"
#include "stream/stream-util.h"
#include "stream/stream.h"

using stream_util::kArrayCost;
using stream_util::kComponent;
using stream_util::kMapCost;
using stream_util::LongStringCost;
using stream_util::MemberCost;

namespace {

// No member of the open map has the key.
constexpr size_t kNoMember = SIZE_MAX;

}  // namespace

// Opens an array, a map or a binary_ex: dumps its opening `mark`, counts a
// level against kMaxDepth and charges `cost`.
int PStream::EnterContainer(char mark, size_t cost) {
  if (dump_) LOG_DEBUG(kComponent, "%s%c", Indent(), mark);
  if (depth_ >= kMaxDepth) {
    LOG_ERROR(kComponent, "PStream: values nested deeper than %d levels", kMaxDepth);
    return kErrMalformed;
  }
  ++depth_;
  return Charge(cost);
}

// The usual scalars -- an integer, a string -- whole in the window with room
// to read words: read at once, true.  Anything else: false, nothing read.
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
  int rc = EnterContainer('[', kArrayCost);
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
  auto key_less = [](const PObjectMember& m, const PObjectKey& k) { return m.first < k; };
  auto it = std::lower_bound(first, last, key, key_less);
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
  int rc = EnterContainer('{', kMapCost);
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
    const bool hidden = dump_ && HideSecret(members_[at].first.view());
    if (rc == kOk) {
      const uint8_t tag = *in_pos_++;
      if (!ReadShortScalar(tag, &members_[at].second)) {
        rc = ReadRunValue(tag, Target{nullptr, &members_, nullptr, at});
      }
    }
    dump_ |= hidden;
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
