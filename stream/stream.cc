#include "stream/stream.h"

#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <istream>
#include <ostream>
#include <random>

#include "log/log.h"

namespace {

const char kComponent[] = "stream";

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
// The first piece of a string or buffer body; later pieces grow with what has
// arrived, so memory follows the bytes received, not the length announced.
constexpr size_t kFirstPiece = 4096;

const char kTemporaryNameAlphabet[] =
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_";
constexpr int kTemporaryNameLength = 8;
// Fresh names tried before a receive into binary_dir gives up.
constexpr int kTemporaryNameAttempts = 64;

const char kNullDevice[] = "/dev/null";

unsigned long long ULL(uint64_t v) { return static_cast<unsigned long long>(v); }

// Owns one file descriptor.
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) close(fd_);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;  // -1 when none
};

// Digesting on a channel for the life of the object; stopped on every path.
class ChannelHashing {
 public:
  explicit ChannelHashing(Channel* channel) : channel_(channel) {}
  ~ChannelHashing() {
    if (active_) channel_->SetHash(false, "");
  }
  ChannelHashing(const ChannelHashing&) = delete;
  ChannelHashing& operator=(const ChannelHashing&) = delete;

  // True when digesting with `algo` has started.
  bool Start(const std::string& algo) {
    active_ = channel_->SetHash(true, algo) == 1;
    return active_;
  }
  bool active() const { return active_; }

 private:
  Channel* channel_;
  bool active_ = false;
};

std::string JoinKeys(const std::vector<std::string>& keys) {
  std::string joined;
  for (size_t i = 0; i < keys.size(); ++i) {
    if (i > 0) joined.push_back('.');
    joined.append(keys[i]);
  }
  return joined;
}

// The file result of a failed channel receive.
int FileReceiveResult(int channel_rc) {
  if (channel_rc == Channel::kErrFileTooLarge) return PStream::kErrFileTooLarge;
  if (channel_rc == Channel::kErrDiskFull) return PStream::kErrDiskFull;
  return PStream::kErrChannel;
}

}  // namespace

// Sets binary_hash_algo for a binary_ex and puts the old value back on every
// path out.
class PStream::HashAlgoScope {
 public:
  HashAlgoScope(std::string* slot, const std::string& algo) : slot_(slot), saved_(*slot) {
    if (!algo.empty()) *slot_ = algo;
  }
  ~HashAlgoScope() { *slot_ = saved_; }
  HashAlgoScope(const HashAlgoScope&) = delete;
  HashAlgoScope& operator=(const HashAlgoScope&) = delete;

 private:
  std::string* slot_;
  std::string saved_;
};

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

// Scalars reset the pair; the lock is taken only when it was not (0, 0).
void PStream::ResetProgress() {
  if (!progress_zero_) SetProgress(0, 0);
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
}

int PStream::Finish(int rc) {
  if (rc != kOk) LOG_ERROR(kComponent, "Error stack: %s", JoinKeys(key_path_).c_str());
  key_path_.clear();
  depth_ = 0;
  ResetProgress();
  pending_.clear();
  if (pending_.capacity() > kPendingLimit * 2) pending_.shrink_to_fit();
  channel_ = nullptr;
  out_ = nullptr;
  in_ = nullptr;
  return rc;
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
  if (pending_.empty()) return kOk;
  int rc = WriteDirect(pending_.data(), pending_.size());
  pending_.clear();
  return rc;
}

int PStream::WriteBytes(const void* data, size_t n) {
  if (pending_.size() + n > kPendingLimit) {
    int rc = FlushPending();
    if (rc != kOk) return rc;
    if (n >= kPendingLimit) return WriteDirect(data, n);
  }
  pending_.append(static_cast<const char*>(data), n);
  return kOk;
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
  uint8_t bytes[10] = {kTagInteger, width};
  for (int i = 0; i < width; ++i) {
    bytes[2 + i] = static_cast<uint8_t>(bits >> (8 * (width - 1 - i)));
  }
  if (dump_) LOG_DEBUG(kComponent, "%s%llu", Indent(), ULL(bits));
  return WriteBytes(bytes, 2u + width);
}

int PStream::WriteString(std::string_view text) {
  // The length field has 16 bits: a longer text is cut to its length
  // modulo 65536.
  const uint16_t length = static_cast<uint16_t>(text.size() & 0xFFFF);
  const uint8_t head[3] = {kTagString, static_cast<uint8_t>(length >> 8),
                           static_cast<uint8_t>(length)};
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
  const uint8_t head[5] = {kTagBuffer, static_cast<uint8_t>(n >> 24), static_cast<uint8_t>(n >> 16),
                           static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)};
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
    key_path_.emplace_back(key);
    rc = WriteString(key);
    if (rc == kOk) rc = WriteValue(member.second);
    if (rc != kOk) return rc;
    key_path_.pop_back();
  }
  --depth_;
  if (dump_) LOG_DEBUG(kComponent, "%s}", Indent());
  return WriteBytes(&close, 1);
}

int PStream::WriteBinary(const PObject::binary_type& binary) {
  if (channel_ == nullptr) {
    LOG_ERROR(kComponent, "ostream not supported send binary file.");
    return kErrChannel;
  }
  FileTransferProgressReporter reporter(this, binary.path, binary.offset + binary.length,
                                        binary.offset);
  uint8_t head[9] = {kTagBinary};
  for (int i = 0; i < 8; ++i) head[1 + i] = static_cast<uint8_t>(binary.length >> (56 - 8 * i));
  int rc = WriteBytes(head, sizeof(head));
  // The digest must see the file bytes only: everything before goes out now.
  if (rc == kOk) rc = FlushPending();
  if (rc != kOk) return rc;

  FileDescriptor fd(open(binary.path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) {
    LOG_ERROR(kComponent, "open(%s) error", binary.path.c_str());
    return kErrStream;
  }
  ChannelHashing hashing(channel_);
  if (!binary_hash_algo_.empty() && !hashing.Start(binary_hash_algo_)) {
    LOG_ERROR(kComponent, "failed to initial channel hashing '%s'", binary_hash_algo_.c_str());
    return kErrStream;
  }
  rc = channel_->SendFile(fd.get(), binary.offset, binary.length, &reporter);
  if (rc < 0) {
    LOG_WARNING(kComponent, "Channel: %d", rc);
    return kErrChannel;
  }
  if (hashing.active()) last_hash_ = channel_->GetHash();
  return kOk;
}

int PStream::WriteBinaryEx(const PObject::binary_ex_type& binary) {
  const uint8_t open = kTagBinaryEx, close = kTagEnd;
  const std::string& algo = binary.hash_algo.empty() ? default_hash_algo_ : binary.hash_algo;
  if (dump_) LOG_DEBUG(kComponent, "%s{", Indent());
  int rc = WriteBytes(&open, 1);
  if (rc != kOk) return rc;
  ++depth_;

  std::string sent_hash;
  {
    HashAlgoScope scope(&binary_hash_algo_, algo);
    if (!algo.empty()) last_hash_.clear();
    key_path_.push_back("binary");
    rc = WriteString("binary");
    if (rc == kOk) rc = WriteBinary(PObject::binary_type{binary.offset, binary.length, binary.path});
    if (rc != kOk) return rc;
    key_path_.pop_back();
    if (!algo.empty()) {
      sent_hash.swap(last_hash_);
      last_hash_.clear();
    }
  }
  key_path_.push_back("send_hash");
  rc = WriteString("send_hash");
  if (rc == kOk) rc = WriteString(sent_hash);
  if (rc != kOk) return rc;
  key_path_.pop_back();

  --depth_;
  if (dump_) LOG_DEBUG(kComponent, "%s}", Indent());
  return WriteBytes(&close, 1);
}

// ---- reading ----

int PStream::ReadRaw(void* data, size_t n) {
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

int PStream::ReadTag(uint8_t* tag) { return ReadRaw(tag, 1); }

int PStream::ReadTaggedValue(PObject* target) {
  uint8_t tag;
  int rc = ReadTag(&tag);
  if (rc != kOk) return rc;
  return ReadValue(tag, target);
}

int PStream::ReadValue(uint8_t tag, PObject* target) {
  PObject::Type type;
  if (!TypeOfTag(tag, &type)) {
    LOG_ERROR(kComponent, "PStream: unknown tag %u", static_cast<unsigned>(tag));
    return kErrMalformed;
  }
  if (refuse_binaries_ && (type == PObject::kBinary || type == PObject::kBinaryEx)) {
    LOG_ERROR(kComponent, "PStream: binaries are refused on this stream, but get tag %u",
              static_cast<unsigned>(tag));
    return kErrMalformed;
  }
  switch (type) {
    case PObject::kNull:
      ResetProgress();
      return ReadNull(target);
    case PObject::kInteger:
      ResetProgress();
      return ReadInteger(target);
    case PObject::kString: {
      ResetProgress();
      int rc = ReadStringBody(&scratch_);
      if (rc != kOk) return rc;
      if (dump_) LOG_DEBUG(kComponent, "%s\"%s\"", Indent(), scratch_.c_str());
      if (scratch_.size() > PObject::kInlineStringMax) {
        *target = std::move(scratch_);  // the value takes the allocation
        scratch_.clear();
      } else {
        *target = std::string_view(scratch_);
      }
      return kOk;
    }
    case PObject::kBuffer:
      ResetProgress();
      return ReadBuffer(target);
    case PObject::kArray:
      return ReadArray(target);
    case PObject::kMap:
      return ReadMap(target);
    case PObject::kBinary:
      return ReadBinary(target);
    case PObject::kBinaryEx:
      return ReadBinaryEx(target);
  }
  return kErrMalformed;
}

int PStream::ReadNull(PObject* target) {
  uint8_t length;
  int rc = ReadRaw(&length, 1);
  if (rc != kOk) return rc;
  if (length != 0) {
    LOG_ERROR(kComponent, "expect length 0, but we've got %u", static_cast<unsigned>(length));
    return kErrMalformed;
  }
  target->Clear();
  return kOk;
}

int PStream::ReadInteger(PObject* target) {
  uint8_t width;
  int rc = ReadRaw(&width, 1);
  if (rc != kOk) return rc;
  if (width > 8) {
    LOG_ERROR(kComponent, "PStream: integer of %u bytes, at most 8 expected",
              static_cast<unsigned>(width));
    return kErrMalformed;
  }
  uint8_t bytes[8];
  rc = ReadRaw(bytes, width);
  if (rc != kOk) return rc;
  uint64_t bits = 0;
  for (int i = 0; i < width; ++i) bits = (bits << 8) | bytes[i];
  if (dump_) LOG_DEBUG(kComponent, "%s%llu", Indent(), ULL(bits));
  target->SetInteger(static_cast<int64_t>(bits));
  return kOk;
}

int PStream::ReadStringBody(std::string* text) {
  uint8_t head[2];
  int rc = ReadRaw(head, sizeof(head));
  if (rc != kOk) return rc;
  const size_t length = (static_cast<size_t>(head[0]) << 8) | head[1];
  text->clear();
  // Pieces grow with what has arrived: a peer that announces 64 KiB and
  // stops early costs what it sent and a page.
  for (size_t got = 0; got < length;) {
    size_t piece = std::min(length - got, std::max(kFirstPiece, got));
    text->resize(got + piece);
    rc = ReadRaw(&(*text)[got], piece);
    if (rc != kOk) return rc;
    got += piece;
  }
  return kOk;
}

int PStream::ReadBuffer(PObject* target) {
  uint8_t head[4];
  int rc = ReadRaw(head, sizeof(head));
  if (rc != kOk) return rc;
  const uint32_t length = (static_cast<uint32_t>(head[0]) << 24) |
                          (static_cast<uint32_t>(head[1]) << 16) |
                          (static_cast<uint32_t>(head[2]) << 8) | head[3];
  if (dump_) LOG_DEBUG(kComponent, "%s\"%u\"", Indent(), length);
  PObject::buffer_type& buffer = target->MutableBuffer();
  // A block already big enough is reused as Assign would; otherwise the
  // block grows with the bytes that arrive.
  const uint32_t first =
      buffer.capacity >= length ? length : static_cast<uint32_t>(std::min<size_t>(length, kFirstPiece));
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
    rc = ReadRaw(buffer.data + got, piece);
    if (rc != kOk) return rc;
    got += piece;
    buffer.length = got;
  }
  return kOk;
}

int PStream::EnterContainer() {
  if (depth_ >= kMaxDepth) {
    LOG_ERROR(kComponent, "PStream: values nested deeper than %d levels", kMaxDepth);
    return kErrMalformed;
  }
  ++depth_;
  return kOk;
}

int PStream::ReadArray(PObject* target) {
  PObject::array_type& elements = target->MutableArray();
  if (dump_) LOG_DEBUG(kComponent, "%s[", Indent());
  int rc = EnterContainer();
  if (rc != kOk) return rc;
  for (;;) {
    uint8_t tag;
    rc = ReadTag(&tag);
    if (rc != kOk) return rc;
    if (tag == kTagEnd) break;
    elements.emplace_back();
    rc = ReadValue(tag, &elements.back());
    if (rc != kOk) return rc;
  }
  --depth_;
  if (dump_) LOG_DEBUG(kComponent, "%s]", Indent());
  return kOk;
}

int PStream::ReadKey(uint8_t tag, std::string* key) {
  if (tag != kTagString) {
    LOG_ERROR(kComponent, "PStream: expect string, but get tag %u", static_cast<unsigned>(tag));
    return kErrMalformed;
  }
  int rc = ReadStringBody(key);
  if (rc == kOk && dump_) LOG_DEBUG(kComponent, "%s\"%s\"", Indent(), key->c_str());
  return rc;
}

// Reads the members of a map or a binary_ex up to its end marker: each key
// is pushed on the key path while `read_member(key)` decodes its value.
// The opening "{" is dumped here; the caller dumps the closing "}".
template <typename ReadMember>
int PStream::ReadMembers(ReadMember read_member) {
  if (dump_) LOG_DEBUG(kComponent, "%s{", Indent());
  int rc = EnterContainer();
  if (rc != kOk) return rc;
  std::string key;
  for (;;) {
    uint8_t tag;
    rc = ReadTag(&tag);
    if (rc != kOk) return rc;
    if (tag == kTagEnd) break;
    rc = ReadKey(tag, &key);
    if (rc != kOk) return rc;
    key_path_.push_back(key);
    rc = read_member(key);
    if (rc != kOk) return rc;
    key_path_.pop_back();
  }
  --depth_;
  return kOk;
}

int PStream::ReadMap(PObject* target) {
  PObject::map_type& members = target->MutableMap();
  int rc = ReadMembers([&](const std::string& key) -> int {
    // A repeated key decodes into the member the first one made.
    return ReadTaggedValue(&members.try_emplace(key).first->second);
  });
  if (rc != kOk) return rc;
  if (dump_) LOG_DEBUG(kComponent, "%s}", Indent());
  return kOk;
}

int PStream::ReadBinaryEx(PObject* target) {
  PObject::binary_ex_type& ex = target->MutableBinaryEx();
  const std::string algo = ex.hash_algo.empty() ? default_hash_algo_ : ex.hash_algo;
  HashAlgoScope scope(&binary_hash_algo_, algo);
  last_hash_.clear();
  int rc = ReadMembers([&](const std::string& key) -> int {
    // The file lands where the target says, when it names a place.
    PObject member;
    if (key == "binary") member = PObject::binary_type{ex.offset, 0, ex.path};
    int member_rc = ReadTaggedValue(&member);
    if (member_rc != kOk) {
      // A partial file without its digest is of no use: it goes.
      std::string partial = member.IsBinary()     ? member.AsBinary().path
                            : member.IsBinaryEx() ? member.AsBinaryEx().path
                                                  : std::string();
      if (!partial.empty() && !discard_binaries_ && partial != kNullDevice &&
          unlink(partial.c_str()) != 0 && errno != ENOENT) {
        LOG_ERROR(kComponent, "unlink: %s (%d)", strerror(errno), errno);
      }
      return member_rc;
    }
    if (key == "binary" && member.IsBinary()) {
      const PObject::binary_type& b = member.AsBinary();
      ex.path = b.path;
      ex.offset = b.offset;
      ex.length = b.length;
      ex.hash_algo = binary_hash_algo_;
      ex.recv_hash = last_hash_;
      if (dump_) {
        LOG_DEBUG(kComponent, "%ssender provide binary to path: '%s', length: %llu, offset: %llu.",
                  Indent(), ex.path.c_str(), ULL(ex.length), ULL(ex.offset));
      }
    } else if (key == "send_hash" && member.IsString()) {
      ex.send_hash = member.AsString();
      if (dump_) LOG_DEBUG(kComponent, "%ssender provide binary hash '%s'.", Indent(), ex.send_hash.c_str());
    }
    return kOk;
  });
  if (rc != kOk) return rc;
  if (dump_) {
    LOG_DEBUG(kComponent, "%s}", Indent());
    LOG_DEBUG(kComponent, "%sbinary with hash has been stored at '%s' with length %llu", Indent(),
              ex.path.c_str(), ULL(ex.length));
  }
  return kOk;
}

int PStream::ReadBinary(PObject* target) {
  if (channel_ == nullptr) {
    LOG_ERROR(kComponent, "istream not supported receive binary file.");
    return kErrChannel;
  }
  uint64_t length;
  int rc = channel_->ReadUInt64(&length);
  if (rc != 0) {
    LOG_WARNING(kComponent, "Channel: %d", rc);
    return kErrChannel;
  }
  return StoreBinary(&target->MutableBinary(), length);
}

int PStream::StoreBinary(PObject::binary_type* binary, uint64_t length) {
  const bool discard = discard_binaries_;
  int fd_number = -1;
  if (discard) {
    LOG_DEBUG(kComponent, "discard binary to null device.");
    binary->path = kNullDevice;
    binary->offset = 0;
    binary->length = 0;
    fd_number = open(kNullDevice, O_RDWR | O_CLOEXEC);
  } else if (binary->path.empty()) {
    // A fresh name each time: an earlier run's file is never written over.
    binary->offset = 0;
    binary->length = 0;
    for (int attempt = 0; attempt < kTemporaryNameAttempts; ++attempt) {
      binary->path = binary_dir_ + "/" + TemporaryName();
      fd_number = open(binary->path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
      if (fd_number >= 0 || errno != EEXIST) break;
    }
  } else {
    LOG_DEBUG(kComponent, "store binary to %s, offset %llu", binary->path.c_str(),
              ULL(binary->offset));
    fd_number = open(binary->path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  }
  FileDescriptor fd(fd_number);
  if (fd.get() < 0) {
    LOG_ERROR(kComponent, "open(%s) error: reason %s(%d)", binary->path.c_str(), strerror(errno),
              errno);
    return kErrStream;
  }

  const uint64_t offset = binary->offset;
  FileTransferProgressReporter reporter(this, binary->path, offset + length, offset);
  ChannelHashing hashing(channel_);
  if (!discard && !binary_hash_algo_.empty() && !hashing.Start(binary_hash_algo_)) {
    LOG_ERROR(kComponent, "enable channel hashing error. [hash algo: '%s']",
              binary_hash_algo_.c_str());
  }
  uint64_t received = 0;
  int rc;
  if (!discard && !hashing.active()) {
    rc = channel_->RecvFile(fd.get(), offset, length, &reporter, &received);
  } else {
    rc = channel_->RecvFileCopying(fd.get(), offset, length, &reporter);
    received = reporter.GetBytes();
  }
  if (rc != 0) {
    LOG_WARNING(kComponent, "Channel: %d", rc);
    if (!discard) {
      // Keep what arrived and nothing more: a mapped receive reserves the
      // whole range ahead, a copying one may count a block it never wrote.
      uint64_t end = offset + std::max(received, reporter.GetBytes());
      struct stat st;
      if (fstat(fd.get(), &st) == 0 && static_cast<uint64_t>(st.st_size) < end) {
        end = std::max<uint64_t>(offset, static_cast<uint64_t>(st.st_size));
      }
      if (ftruncate(fd.get(), static_cast<off_t>(end)) != 0) {
        LOG_ERROR(kComponent, "truncate: %s (%d)", strerror(errno), errno);
      }
      binary->offset = binary->length = end;
    }
    return FileReceiveResult(rc);
  }
  if (hashing.active()) last_hash_ = channel_->GetHash();
  binary->offset = binary->length = offset + received;
  if (dump_) {
    LOG_DEBUG(kComponent, "%sbinary has been stored at '%s' with length %llu", Indent(),
              binary->path.c_str(), ULL(binary->length));
  }
  return kOk;
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
