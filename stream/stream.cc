// PStream: the tag table, progress, the conversation frame of Send and Recv,
// the encoder of every value but files, and temporary names.
#include "stream/stream.h"

#include <assert.h>

#include <algorithm>
#include <istream>
#include <ostream>
#include <random>

#include "log/log.h"
#include "stream/redact.h"
#include "stream/stream-util.h"

using stream_util::kComponent;
using stream_util::ULL;

namespace {

// Which tag announces which kind: the one table of the encoding's dispatch.
struct TagKind {
  uint8_t tag;
  PObject::Type type;
};

constexpr TagKind kTagKinds[] = {
    {PStream::kTagNull, PObject::kNull},       {PStream::kTagInteger, PObject::kInteger},
    {PStream::kTagString, PObject::kString},   {PStream::kTagBuffer, PObject::kBuffer},
    {PStream::kTagBinary, PObject::kBinary},   {PStream::kTagArray, PObject::kArray},
    {PStream::kTagMap, PObject::kMap},         {PStream::kTagBinaryEx, PObject::kBinaryEx},
};

// Encoded bytes gathered before they are handed to the channel in one call.
constexpr size_t kPendingLimit = 65536;
// The first block of pending bytes; it doubles up to kPendingLimit.
constexpr size_t kPendingFirst = 4096;

const char kTemporaryNameAlphabet[] =
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_";

}  // namespace

// ---- tag table ----

uint8_t PStream::TagOfType(PObject::Type type) {
  for (const TagKind& k : kTagKinds) {
    if (k.type == type) return k.tag;
  }
  assert(false && "every type has a tag");
  return kTagNull;
}

int PStream::TypeOfTag(uint8_t tag, PObject::Type* type) {
  for (const TagKind& k : kTagKinds) {
    if (k.tag == tag) {
      *type = k.type;
      return 1;
    }
  }
  return 0;
}

// ---- progress ----

PStream::FileTransferProgressReporter::FileTransferProgressReporter(PStream* stream,
                                                                    const std::string& path,
                                                                    uint64_t total, uint64_t base)
    : stream_(stream), path_(path), total_(total), base_(base) {}

void PStream::FileTransferProgressReporter::Update(uint64_t bytes) {
  count_ += bytes;
  stream_->SetProgress(base_ + count_, total_);
  if (count_ > 0 && count_ % kProgressLogInterval == 0) {
    LOG_INFO(kComponent, "sending %s ... (%llu / %llu)", path_.c_str(), ULL(base_ + count_),
             ULL(total_));
  }
}

void PStream::SetProgress(uint64_t done, uint64_t total) {
  {
    std::lock_guard<std::mutex> lock(progress_mutex_);
    progress_done_ = done;
    progress_total_ = total;
  }
  progress_zero_ = done == 0 && total == 0;
  if (progress_callback_) progress_callback_(done, total);
}

void PStream::GetProgress(uint64_t* done, uint64_t* total) const {
  std::lock_guard<std::mutex> lock(progress_mutex_);
  *done = progress_done_;
  *total = progress_total_;
}

// ---- conversation frame ----

PStream::PStream() { key_path_.reserve(8); }

PStream::~PStream() = default;

void PStream::Begin(Channel* channel, std::ostream* out, std::istream* in) {
  channel_ = channel;
  out_ = out;
  in_ = in;
  dump_ = Logger::IsLogEnabled(LOG_LEVEL_DEBUG, kComponent);
  budget_ = size_cap_ != 0 ? size_cap_ : UINT64_MAX;
}

int PStream::Finish(int rc) {
  if (rc != kOk) LogErrorStack();
  Commit();
  key_path_.clear();
  error_logged_ = false;
  std::vector<char>().swap(scratch_);
  depth_ = 0;
  ResetProgress();
  pending_length_ = 0;
  return rc;
}

void PStream::LogErrorStack() {
  if (error_logged_) return;
  error_logged_ = true;
  std::string joined;
  for (size_t i = 0; i < key_path_.size(); ++i) {
    if (i > 0) joined.push_back('.');
    joined.append(key_path_[i]);
  }
  LOG_ERROR(kComponent, "Error stack: %s", joined.c_str());
}

// Two blanks per level, at most 22.
const char* PStream::Indent() const {
  static const char kBlanks[] = "                      ";
  const int width = 2 * std::min(depth_, 11);
  return kBlanks + (sizeof(kBlanks) - 1) - width;
}

int PStream::Send(Channel* channel, const PObject& value) {
  if (channel == nullptr) {
    LOG_CRIT(kComponent, "shouldn't reach here.");
    return kErrStream;
  }
  Begin(channel, nullptr, nullptr);
  int rc = WriteValue(value);
  if (rc == kOk) rc = FlushPending();
  if (rc == kOk) {
    int flushed = channel->Flush(0);
    if (flushed < 0) {
      LOG_WARNING(kComponent, "Channel: %d", flushed);
      rc = kErrChannel;
    }
  }
  return Finish(rc);
}

int PStream::Send(std::ostream* out, const PObject& value) {
  if (out == nullptr) {
    LOG_CRIT(kComponent, "shouldn't reach here.");
    return kErrStream;
  }
  Begin(nullptr, out, nullptr);
  int rc = WriteValue(value);
  if (rc == kOk) rc = FlushPending();
  if (rc == kOk && !out->flush()) rc = kErrStream;
  return Finish(rc);
}

int PStream::Recv(Channel* channel, PObject* value) {
  if (channel == nullptr || value == nullptr) {
    LOG_CRIT(kComponent, "shouldn't reach here.");
    return kErrStream;
  }
  Begin(channel, nullptr, nullptr);
  return Finish(ReadTaggedValue(value));
}

int PStream::Recv(std::istream* in, PObject* value) {
  if (in == nullptr || value == nullptr) {
    LOG_CRIT(kComponent, "shouldn't reach here.");
    return kErrStream;
  }
  Begin(nullptr, nullptr, in);
  return Finish(ReadTaggedValue(value));
}

// ---- writing ----

int PStream::WriteDirect(const void* data, size_t n) {
  if (channel_ != nullptr) {
    int rc = channel_->Write(data, n);
    if (rc != 0) {
      LOG_WARNING(kComponent, "Channel: %d", rc);
      return kErrChannel;
    }
    return kOk;
  }
  if (out_ != nullptr) {
    return out_->write(static_cast<const char*>(data), static_cast<std::streamsize>(n))
               ? kOk
               : kErrStream;
  }
  LOG_CRIT(kComponent, "shouldn't reach here.");
  return kErrStream;
}

int PStream::FlushPending() {
  if (pending_length_ == 0) return kOk;
  int rc = WriteDirect(pending_.get(), pending_length_);
  pending_length_ = 0;
  return rc;
}

// The block grows until it holds kPendingLimit bytes; after that it is
// handed on whenever full, and what does not fit in it goes directly.
int PStream::WriteBytesSlow(const void* data, size_t n) {
  if (pending_capacity_ < kPendingLimit) {
    size_t capacity = pending_capacity_ == 0 ? kPendingFirst : pending_capacity_ * 2;
    while (capacity < kPendingLimit && capacity - pending_length_ < n) capacity *= 2;
    capacity = std::min(capacity, kPendingLimit);
    std::unique_ptr<char[]> grown(new char[capacity]);
    if (pending_length_ > 0) memcpy(grown.get(), pending_.get(), pending_length_);
    pending_ = std::move(grown);
    pending_capacity_ = capacity;
    if (n <= pending_capacity_ - pending_length_) return WriteBytes(data, n);
  }
  int rc = FlushPending();
  if (rc != kOk) return rc;
  if (n >= pending_capacity_) return WriteDirect(data, n);
  return WriteBytes(data, n);
}

int PStream::WriteValue(const PObject& value) {
  switch (value.GetType()) {
    case PObject::kNull: {
      ResetProgress();
      const uint8_t bytes[2] = {kTagNull, 0};
      return WriteBytes(bytes, sizeof(bytes));
    }
    case PObject::kInteger:
      ResetProgress();
      return WriteInteger(value.AsInteger());
    case PObject::kString:
      ResetProgress();
      return WriteString(value.AsStringView());
    case PObject::kBuffer:
      ResetProgress();
      return WriteBuffer(value.AsBuffer());
    case PObject::kArray:
      return WriteArray(value.AsArray());
    case PObject::kMap:
      return WriteMap(value.AsMap());
    case PObject::kBinary:
      return WriteBinary(value.AsBinary());
    case PObject::kBinaryEx:
      return WriteBinaryEx(value.AsBinaryEx());
  }
  return kErrMalformed;
}

int PStream::WriteInteger(int64_t value) {
  // The value is sent as unsigned: every negative number takes 8 bytes.
  const uint64_t bits = static_cast<uint64_t>(value);
  uint8_t width;
  if (bits < (1ull << 8)) {
    width = 1;
  } else if (bits < (1ull << 16)) {
    width = 2;
  } else if ((bits >> 32) == 0) {
    width = 4;
  } else {
    width = 8;
  }
  // The tag and the width, then the value's low `width` bytes: the tail of
  // its 8-byte form.
  uint8_t bytes[2 + 8];
  Channel::PutUInt64(bytes + 2, bits);
  bytes[8 - width] = kTagInteger;
  bytes[9 - width] = width;
  if (dump_) LOG_DEBUG(kComponent, "%s%llu", Indent(), ULL(bits));
  return WriteBytes(bytes + 8 - width, 2u + width);
}

int PStream::WriteString(std::string_view text) {
  // The length field has 16 bits: a longer text is cut to its length
  // modulo 65536.
  const uint16_t length = static_cast<uint16_t>(text.size() & 0xFFFF);
  uint8_t head[3] = {kTagString};
  Channel::PutUInt16(head + 1, length);
  if (dump_) {
    LOG_DEBUG(kComponent, "%s\"%.*s\"", Indent(), static_cast<int>(length),
              text.empty() ? "" : text.data());
  }
  int rc = WriteBytes(head, sizeof(head));
  if (rc != kOk) return rc;
  return WriteBytes(text.data(), length);
}

int PStream::WriteBuffer(const PObject::buffer_type& buffer) {
  const uint32_t n = buffer.length;
  uint8_t head[5] = {kTagBuffer};
  Channel::PutUInt32(head + 1, n);
  if (dump_) LOG_DEBUG(kComponent, "%s%u", Indent(), n);
  int rc = WriteBytes(head, sizeof(head));
  if (rc != kOk || n == 0) return rc;
  return WriteBytes(buffer.data, n);
}

int PStream::WriteArray(const PObject::array_type& elements) {
  const uint8_t open = kTagArray, close = kTagEnd;
  if (dump_) LOG_DEBUG(kComponent, "%s[", Indent());
  int rc = WriteBytes(&open, 1);
  if (rc != kOk) return rc;
  ++depth_;
  for (const PObject& element : elements) {
    rc = WriteValue(element);
    if (rc != kOk) return rc;
  }
  --depth_;
  if (dump_) LOG_DEBUG(kComponent, "%s]", Indent());
  return WriteBytes(&close, 1);
}

int PStream::WriteMap(const PObject::map_type& members) {
  const uint8_t open = kTagMap, close = kTagEnd;
  if (dump_) LOG_DEBUG(kComponent, "%s{", Indent());
  int rc = WriteBytes(&open, 1);
  if (rc != kOk) return rc;
  ++depth_;
  for (const auto& member : members) {
    std::string_view key = member.first;
    // Keys with a leading '_' travel without it ("_agent" as "agent").
    if (!key.empty() && key[0] == '_') key.remove_prefix(1);
    rc = WriteString(key);
    const bool hidden = dump_ && rc == kOk && HideSecret(key);
    if (rc == kOk) rc = WriteValue(member.second);
    dump_ |= hidden;
    if (rc != kOk) {
      key_path_.insert(key_path_.begin(), key);
      return rc;
    }
  }
  --depth_;
  if (dump_) LOG_DEBUG(kComponent, "%s}", Indent());
  return WriteBytes(&close, 1);
}

bool PStream::HideSecret(std::string_view key) {
  if (!IsSecretKey(key)) return false;
  LOG_DEBUG(kComponent, "%s\"%s\"", Indent(), kRedacted);
  dump_ = false;
  return true;
}

// ---- temporary names ----

std::string PStream::TemporaryName() {
  static std::mutex mutex;
  static std::minstd_rand0 generator(1);  // multiplier 16807, modulus 2^31 - 1
  std::uniform_int_distribution<int> pick(0, static_cast<int>(sizeof(kTemporaryNameAlphabet)) - 2);
  std::string name(kTemporaryNameLength, ' ');
  std::lock_guard<std::mutex> lock(mutex);
  for (char& c : name) c = kTemporaryNameAlphabet[pick(generator)];
  return name;
}
