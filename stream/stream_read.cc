// PStream's decoder: parsing in place from the channel's read buffer, the
// limits a value from an untrusted peer meets (depth, integer width, growing
// reads, the size cap), scalars, and the members of a binary_ex (the file
// itself is stream_binary.cc's; maps and arrays are stream_read_containers.cc's).
#include <assert.h>

#include <algorithm>
#include <istream>

#include "log/log.h"
#include "stream/stream-util.h"
#include "stream/stream.h"

using stream_util::kAllocOverhead;
using stream_util::kComponent;
using stream_util::kFirstPiece;
using stream_util::LongStringCost;
using stream_util::ULL;

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

// Reads the members of a binary_ex up to its end marker, each value through
// `read_member(key)`.  The opening "{" is dumped here; the caller dumps the
// closing "}".  A failing member's key is recorded for the error stack.
template <typename ReadMember>
int PStream::ReadMembers(ReadMember read_member) {
  int rc = EnterContainer('{', 0);
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
