// PStream's files: a binary sent as the bytes of the file range it names
// and stored into a file on receipt, and a binary_ex, the same with the
// digests of both ends.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "log/log.h"
#include "stream/stream-util.h"
#include "stream/stream.h"

using stream_util::BlockCost;
using stream_util::kComponent;
using stream_util::StdStringCost;
using stream_util::ULL;

namespace {

const char kNullDevice[] = "/dev/null";
// Fresh names tried before a receive into binary_dir gives up.
constexpr int kTemporaryNameAttempts = 64;

// Owns one file descriptor.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  ~FileDescriptor() {
    if (fd_ >= 0) close(fd_);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  void reset(int fd) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }
  int get() const { return fd_; }

 private:
  int fd_ = -1;  // -1 when none
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

// The file result of a failed channel receive.
int FileReceiveResult(int channel_rc) {
  if (channel_rc == Channel::kErrFileTooLarge) return PStream::kErrFileTooLarge;
  if (channel_rc == Channel::kErrDiskFull) return PStream::kErrDiskFull;
  return PStream::kErrChannel;
}

}  // namespace

// Where the bytes of one received binary go.
struct PStream::FileTarget {
  FileDescriptor fd;
  std::string path;
  uint64_t offset = 0;   // first byte to write
  bool discard = false;  // the null device
};

// ---- sending ----

int PStream::WriteBinary(const PObject::binary_type& binary) {
  if (channel_ == nullptr) {
    LOG_ERROR(kComponent, "ostream not supported send binary file.");
    return kErrChannel;
  }
  FileTransferProgressReporter reporter(this, binary.path, binary.offset + binary.length,
                                        binary.offset);
  uint8_t head[9] = {kTagBinary};
  Channel::PutUInt64(head + 1, binary.length);
  int rc = WriteBytes(head, sizeof(head));
  // The digest must see the file bytes only: everything before goes out now.
  if (rc == kOk) rc = FlushPending();
  if (rc != kOk) return rc;

  FileDescriptor fd;
  fd.reset(open(binary.path.c_str(), O_RDONLY | O_CLOEXEC));
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
    // Without an algorithm the stream's own binary digest, if any, applies.
    stream_util::HashAlgoScope scope(algo.empty() ? nullptr : &binary_hash_algo_, algo);
    if (!algo.empty()) last_hash_.clear();
    rc = WriteString("binary");
    if (rc == kOk) rc = WriteBinary(PObject::binary_type{binary.offset, binary.length, binary.path});
    if (rc != kOk) {
      key_path_.insert(key_path_.begin(), "binary");
      return rc;
    }
    if (!algo.empty()) {
      sent_hash.swap(last_hash_);
      last_hash_.clear();
    }
  }
  rc = WriteString("send_hash");
  if (rc == kOk) rc = WriteString(sent_hash);
  if (rc != kOk) {
    key_path_.insert(key_path_.begin(), "send_hash");
    return rc;
  }
  --depth_;
  if (dump_) LOG_DEBUG(kComponent, "%s}", Indent());
  return WriteBytes(&close, 1);
}

// ---- receiving ----

int PStream::ReadBinary(PObject* target) {
  if (channel_ == nullptr) {
    LOG_ERROR(kComponent, "istream not supported receive binary file.");
    return kErrChannel;
  }
  // The record, and the path of a fresh file under binary_dir.
  const uint64_t path_length =
      target->AsBinary().path.empty() ? binary_dir_.size() + 1 + kTemporaryNameLength : 0;
  int rc = Charge((target->IsBinary() ? 0 : BlockCost(sizeof(PObject::binary_type))) +
                  StdStringCost(path_length));
  if (rc == kOk) rc = Need(8);
  if (rc != kOk) return rc;
  const uint64_t length = Channel::GetUInt64(in_pos_);
  in_pos_ += 8;
  // The file's bytes are the channel's to move from here.
  Commit();
  return StoreBinary(&target->MutableBinary(), length);
}

int PStream::StoreBinary(PObject::binary_type* binary, uint64_t length) {
  FileTarget file;
  int rc = OpenFileTarget(*binary, &file);
  if (rc != kOk) return rc;
  // Where the bytes go is known from here on, also when they stop short.
  binary->path = file.path;
  uint64_t received = 0;
  rc = ReceiveFile(file, length, &received);
  if (rc != kOk) return rc;
  binary->offset = binary->length = file.offset + received;
  if (dump_) {
    LOG_DEBUG(kComponent, "%sbinary has been stored at '%s' with length %llu", Indent(),
              binary->path.c_str(), ULL(binary->length));
  }
  return kOk;
}

// The null device when discarding; the target's file at its offset when it
// names one (a resumed transfer); else a fresh name under binary_dir, so an
// earlier file is never written over.
int PStream::OpenFileTarget(const PObject::binary_type& binary, FileTarget* target) {
  if (discard_binaries_) {
    LOG_DEBUG(kComponent, "discard binary to null device.");
    target->discard = true;
    target->path = kNullDevice;
    target->fd.reset(open(kNullDevice, O_RDWR | O_CLOEXEC));
  } else if (binary.path.empty()) {
    for (int attempt = 0; attempt < kTemporaryNameAttempts; ++attempt) {
      target->path = binary_dir_ + "/" + TemporaryName();
      target->fd.reset(open(target->path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
      if (target->fd.get() >= 0 || errno != EEXIST) break;
    }
  } else {
    LOG_DEBUG(kComponent, "store binary to %s, offset %llu", binary.path.c_str(),
              ULL(binary.offset));
    target->path = binary.path;
    target->offset = binary.offset;
    target->fd.reset(open(binary.path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  }
  if (target->fd.get() < 0) {
    LOG_ERROR(kComponent, "open(%s) error: reason %s(%d)", target->path.c_str(), strerror(errno),
              errno);
    return kErrStream;
  }
  return kOk;
}

// Moves `length` bytes from the channel into the target's file, digesting
// them when binary_hash_algo names a digest.  On failure the file keeps
// what arrived and nothing more.
int PStream::ReceiveFile(const FileTarget& target, uint64_t length, uint64_t* received) {
  const int fd = target.fd.get();
  FileTransferProgressReporter reporter(this, target.path, target.offset + length, target.offset);
  ChannelHashing hashing(channel_);
  if (!target.discard && !binary_hash_algo_.empty() && !hashing.Start(binary_hash_algo_)) {
    LOG_ERROR(kComponent, "enable channel hashing error. [hash algo: '%s']",
              binary_hash_algo_.c_str());
  }
  int rc;
  if (!target.discard && !hashing.active()) {
    rc = channel_->RecvFile(fd, target.offset, length, &reporter, received);
  } else {
    rc = channel_->RecvFileCopying(fd, target.offset, length, &reporter);
    *received = reporter.GetBytes();
  }
  if (rc != 0) {
    LOG_WARNING(kComponent, "Channel: %d", rc);
    if (!target.discard) {
      // A mapped receive reserves the whole range ahead, a copying one may
      // count a block it never wrote.
      uint64_t end = target.offset + std::max(*received, reporter.GetBytes());
      struct stat st;
      if (fstat(fd, &st) == 0 && static_cast<uint64_t>(st.st_size) < end) {
        end = std::max<uint64_t>(target.offset, static_cast<uint64_t>(st.st_size));
      }
      if (ftruncate(fd, static_cast<off_t>(end)) != 0) {
        LOG_ERROR(kComponent, "truncate: %s (%d)", strerror(errno), errno);
      }
    }
    return FileReceiveResult(rc);
  }
  if (hashing.active()) last_hash_ = channel_->GetHash();
  return kOk;
}

void PStream::RemoveOwnFile(const PObject& member) const {
  const std::string& path = member.IsBinary() ? member.AsBinary().path : member.AsBinaryEx().path;
  if (path.empty() || discard_binaries_ || path == kNullDevice) return;
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    LOG_ERROR(kComponent, "unlink: %s (%d)", strerror(errno), errno);
  }
}
