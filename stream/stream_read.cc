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

using stream_util::BlockCost;
using stream_util::kComponent;
using stream_util::kFirstPiece;
using stream_util::StdStringCost;
using stream_util::StringCost;
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

int PStream::ReadText(size_t length, std::string_view* text) {
  if (length <= kStageSize) {
    int rc = Need(length);
    if (rc != kOk) return rc;
  }
  if (static_cast<size_t>(in_end_ - in_pos_) >= length) {
    *text = std::string_view(reinterpret_cast<const char*>(in_pos_), length);
    in_pos_ += length;
    return kOk;
  }
  if (length > scratch_.size()) {
    int rc = Charge(BlockCost(length));
    if (rc != kOk) return rc;
    scratch_ = std::vector<char>(length);  // a block of exactly that
  }
  int rc = ReadBytes(scratch_.data(), length);
  if (rc != kOk) return rc;
  *text = std::string_view(scratch_.data(), length);
  return kOk;
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
      return ReadArray(target);
    case kTagMap:
      return ReadMap(target);
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
  uint64_t bits = 0;
  for (uint8_t i = 0; i < width; ++i) bits = bits << 8 | in_pos_[i];
  in_pos_ += width;
  if (dump_) LOG_DEBUG(kComponent, "%s%llu", Indent(), ULL(bits));
  target->SetInteger(static_cast<int64_t>(bits));
  return kOk;
}

int PStream::ReadString(PObject* target) {
  int rc = Need(2);
  if (rc != kOk) return rc;
  const size_t length = Channel::GetUInt16(in_pos_);
  in_pos_ += 2;
  std::string_view text;
  rc = ReadText(length, &text);
  if (rc == kOk) rc = Charge(StringCost(text));
  if (rc != kOk) return rc;
  if (dump_) LOG_DEBUG(kComponent, "%s\"%.*s\"", Indent(), static_cast<int>(length), text.data());
  *target = text;
  return kOk;
}

int PStream::ReadBuffer(PObject* target) {
  int rc = Need(4);
  if (rc != kOk) return rc;
  const uint32_t length = Channel::GetUInt32(in_pos_);
  in_pos_ += 4;
  if (dump_) LOG_DEBUG(kComponent, "%s\"%u\"", Indent(), length);
  rc = Charge((target->IsBuffer() ? 0 : BlockCost(sizeof(PObject::buffer_type))) +
              BlockCost(length));
  if (rc != kOk) return rc;
  PObject::buffer_type& buffer = target->MutableBuffer();
  // Under a cap the block, charged in full, is made at once; without one it
  // grows with the bytes that arrive.  A block already big enough is reused
  // as Assign would.
  const uint32_t first = size_cap_ != 0 || buffer.capacity >= length
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

// ---- binary_ex ----

int PStream::ReadBinaryEx(PObject* target) {
  int rc = Charge(target->IsBinaryEx() ? 0 : BlockCost(sizeof(PObject::binary_ex_type)));
  if (rc != kOk) return rc;
  PObject::binary_ex_type& ex = target->MutableBinaryEx();
  const std::string algo = ex.hash_algo.empty() ? default_hash_algo_ : ex.hash_algo;
  stream_util::HashAlgoScope scope(&binary_hash_algo_, algo);
  last_hash_.clear();
  BinaryExParts parts;
  rc = EnterContainer('{');
  while (rc == kOk) {
    bool end = false;
    rc = AtMapEnd(&end);
    if (rc != kOk || end) break;
    std::string_view read;
    rc = ReadKey(&read);
    if (rc == kOk) rc = Charge(StdStringCost(read.size()));
    if (rc != kOk) break;
    const std::string key(read);  // the view ends with the next read
    key_path_.push_back(key);
    rc = ReadBinaryExMember(key, &parts);
    if (rc != kOk) LogErrorStack();
    key_path_.pop_back();
  }
  if (rc != kOk) {
    // A file without the rest of its value is of no use.
    RemoveOwnFile(parts.file);
    return rc;
  }
  --depth_;
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
int PStream::ReadBinaryExMember(const std::string& key, BinaryExParts* parts) {
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
    // Copied twice more: into the parts, then into the target.
    rc = Charge(2 * StdStringCost(member.AsStringView().size()));
    if (rc != kOk) return rc;
    parts->send_hash = member.AsString();
    if (dump_) {
      LOG_DEBUG(kComponent, "%ssender provide binary hash '%s'.", Indent(), parts->send_hash.c_str());
    }
  } else {
    RemoveOwnFile(member);
  }
  return kOk;
}
