// PStream's decoder, maps and arrays: each member or element is decoded
// straight into its place in the target.  A map already held is merged into
// in place: a repeated key decodes into the member its first occurrence
// made, so no member ever moves and nothing is rebuilt.  Keys arrive in
// order from our own encoder, so the usual member is added at the end
// after one comparison; any other order costs a search in the tree.
#include <string>
#include <tuple>

#include "log/log.h"
#include "stream/stream-util.h"
#include "stream/stream.h"

using stream_util::BlockCost;
using stream_util::ElementsCost;
using stream_util::kComponent;
using stream_util::MemberCost;

// Opens an array, a map or a binary_ex: dumps its opening `mark` and counts
// a level against kMaxDepth.
int PStream::EnterContainer(char mark) {
  if (dump_) LOG_DEBUG(kComponent, "%s%c", Indent(), mark);
  if (depth_ >= kMaxDepth) {
    LOG_ERROR(kComponent, "PStream: values nested deeper than %d levels", kMaxDepth);
    return kErrMalformed;
  }
  ++depth_;
  return kOk;
}

int PStream::ReadArray(PObject* target) {
  int rc = EnterContainer('[');
  if (rc == kOk) rc = Charge(target->IsArray() ? 0 : BlockCost(sizeof(PObject::array_type)));
  if (rc != kOk) return rc;
  PObject::array_type& elements = target->MutableArray();
  for (;;) {
    rc = Need(1);
    if (rc != kOk) break;
    const uint8_t tag = *in_pos_++;
    if (tag == kTagEnd) break;
    if (elements.size() == elements.capacity()) {
      // The block doubles: the new one is charged while the old one lives,
      // the old one's charge comes back once it is gone.
      const size_t held = elements.capacity(), want = std::max<size_t>(4, 2 * held);
      rc = Charge(ElementsCost(want));
      if (rc != kOk) break;
      elements.reserve(want);
      if (held > 0) Refund(ElementsCost(held));
    }
    rc = ReadValue(tag, &elements.emplace_back());
    if (rc != kOk) break;
  }
  if (rc != kOk) {
    LogErrorStack();
    return rc;
  }
  --depth_;
  if (dump_) LOG_DEBUG(kComponent, "%s]", Indent());
  return kOk;
}

int PStream::ReadKey(std::string_view* key) {
  const uint8_t tag = *in_pos_++;
  if (tag != kTagString) {
    LOG_ERROR(kComponent, "PStream: expect string, but get tag %u", static_cast<unsigned>(tag));
    return kErrMalformed;
  }
  int rc = Need(2);
  if (rc != kOk) return rc;
  const size_t length = Channel::GetUInt16(in_pos_);
  in_pos_ += 2;
  rc = ReadText(length, key);
  if (rc != kOk) return rc;
  if (dump_) LOG_DEBUG(kComponent, "%s\"%.*s\"", Indent(), static_cast<int>(key->size()), key->data());
  return kOk;
}

int PStream::AtMapEnd(bool* end) {
  int rc = Need(1);
  if (rc != kOk) return rc;
  *end = *in_pos_ == kTagEnd;
  if (*end) ++in_pos_;
  return kOk;
}

int PStream::ReadMap(PObject* target) {
  int rc = EnterContainer('{');
  if (rc == kOk) rc = Charge(target->IsMap() ? 0 : BlockCost(sizeof(PObject::map_type)));
  if (rc != kOk) return rc;
  PObject::map_type& members = target->MutableMap();
  for (;;) {
    bool end = false;
    rc = AtMapEnd(&end);
    if (rc != kOk || end) break;
    std::string_view key;
    rc = ReadKey(&key);
    if (rc != kOk) break;
    // Charged as a new member; a repeated key finds the member its first
    // occurrence made, and the node made to look for it is gone again.
    rc = Charge(MemberCost(key.size()));
    if (rc != kOk) break;
    const size_t held = members.size();
    const auto at = members.emplace_hint(members.end(), std::piecewise_construct,
                                         std::forward_as_tuple(key), std::forward_as_tuple());
    if (members.size() == held) Refund(MemberCost(key.size()));
    key_path_.push_back(at->first);
    const bool hidden = dump_ && HideSecret(at->first);
    rc = ReadTaggedValue(&at->second);
    dump_ |= hidden;
    if (rc != kOk) break;
    key_path_.pop_back();
  }
  if (rc != kOk) {
    LogErrorStack();
    return rc;
  }
  --depth_;
  if (dump_) LOG_DEBUG(kComponent, "%s}", Indent());
  return kOk;
}
