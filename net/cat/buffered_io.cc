#include "net/cat/buffered_io.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>

namespace cat {
namespace {

struct ErrorName {
  int code;
  const char* text;
};

constexpr ErrorName kErrorNames[] = {
    {kErrIO, "I/O failure"},
    {kErrCancelled, "cancelled"},
    {kErrTimeout, "idle time-out"},
    {kErrNotSocket, "not a socket"},
    {kErrNoSpace, "no space left on the file system or quota exceeded"},
    {kErrTooLarge, "file too large"},
    {kErrSslNotSocket, "TLS: stream is not on a socket"},
    {kErrSslVerify, "TLS: certificate did not verify"},
    {kErrSslSignature, "TLS: certificate signature mismatch"},
    {kErrSslHost, "TLS: certificate does not name the host"},
};

// Writes all n bytes to `file`; 0, or -1 with errno set.
int WriteAll(File& file, const char* data, size_t n) {
  while (n > 0) {
    ssize_t w = file.Write(data, n);
    if (w < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (w == 0) {
      errno = EIO;
      return -1;
    }
    data += w;
    n -= static_cast<size_t>(w);
  }
  return 0;
}

// Reads up to n bytes from `file`, stopping early only at its end or on an
// error; returns the count read.
size_t ReadUpTo(File& file, char* data, size_t n) {
  size_t done = 0;
  while (done < n) {
    ssize_t r = file.Read(data + done, n - done);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    done += static_cast<size_t>(r);
  }
  return done;
}

bool IsRetryable(int err) {
  return err == EINTR || err == EAGAIN || err == EWOULDBLOCK;
}

// Owns one shared mapping of a file window.
class Mapping {
 public:
  Mapping(int fd, uint64_t start, size_t length) : length_(length) {
    void* p = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd,
                   static_cast<off_t>(start));
    data_ = (p == MAP_FAILED) ? nullptr : static_cast<char*>(p);
  }
  ~Mapping() {
    if (data_ != nullptr) munmap(data_, length_);
  }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  char* data() const { return data_; }

 private:
  char* data_;     // null when mmap failed
  size_t length_;  // bytes mapped
};

// Makes sure `fd` holds room for [offset, end): reserves the blocks where the
// file system can (so a full disk is an error now, not a fault on a mapped
// page later), else extends the size.  0, or -1 with errno set.
int ReserveFile(int fd, uint64_t offset, uint64_t end) {
  if (fallocate(fd, 0, static_cast<off_t>(offset),
                static_cast<off_t>(end - offset)) == 0) {
    return 0;
  }
  if (errno != EOPNOTSUPP && errno != ENOSYS) return -1;
  struct stat st;
  if (fstat(fd, &st) < 0) return -1;
  if (static_cast<uint64_t>(st.st_size) >= end) return 0;
  return ftruncate(fd, static_cast<off_t>(end));
}

}  // namespace

const char* StreamErrorText(int code) {
  for (const ErrorName& e : kErrorNames) {
    if (e.code == code) return e.text;
  }
  return "Unknown error";
}

int FileWriteError(int saved_errno) {
  if (saved_errno == ENOSPC || saved_errno == EDQUOT) return kErrNoSpace;
  if (saved_errno == EFBIG) return kErrTooLarge;
  return kErrIO;
}

BufferedIOController BufferedIOBase::default_controller_;

BufferedIOBase::BufferedIOBase()
    : controller_(&default_controller_),
      clock_(Clock::Real()),
      timeout_(kDefaultTimeout) {}

BufferedIOBase::~BufferedIOBase() = default;

void BufferedIOBase::SetController(BufferedIOController* controller) {
  controller_ = controller != nullptr ? controller : &default_controller_;
}

bool BufferedIOBase::IsReadable() const {
  return io_ != nullptr && !(flags_ & kReadClosed) && error_ == 0;
}

bool BufferedIOBase::IsWritable() const {
  return io_ != nullptr && !(flags_ & kWriteClosed) && error_ == 0;
}

void BufferedIOBase::ResetState() {
  flags_ = 0;
  error_ = 0;
}

int BufferedIOBase::HandOver(BufferedIOBase* target) {
  if (io_ == nullptr) return -1;
  target->SetTimeout(timeout_);
  target->SetController(controller_);
  target->SetClock(clock_);
  target->deadline_us_ = deadline_us_;
  if (target->Attach(*io_) != 0) return -1;
  Detach();
  return 0;
}

void BufferedIOBase::Detach() {
  io_.reset();
  ResetState();
}

void BufferedIOBase::SetDeadline(uint64_t micros) {
  deadline_us_ = micros == 0 ? 0 : clock_->NowMicros() + micros;
}

int BufferedIOBase::WaitReady(int events) {
  const uint64_t limit_us = static_cast<uint64_t>(timeout_ < 0 ? 0 : timeout_) * 1000000u;
  const uint64_t start_us = clock_->NowMicros();
  for (;;) {
    if (controller_->IsCancelled()) {
      SetError(kErrCancelled);
      return 0;
    }
    int slice = kWaitSliceSeconds;
    if (deadline_us_ != 0) {
      const uint64_t now = clock_->NowMicros();
      if (now >= deadline_us_) {
        SetError(kErrTimeout);
        return 0;
      }
      // The last slice ends within a second after the deadline.
      slice = static_cast<int>(std::min<uint64_t>(slice, (deadline_us_ - now + 999999) / 1000000));
    }
    int rc = io_->Wait(events, slice);
    if (rc > 0) return 1;
    if (rc < 0) {
      if (errno == EINTR) continue;
      SetError(kErrIO);
      return 0;
    }
    if (clock_->NowMicros() - start_us > limit_us) {
      SetError(kErrTimeout);
      return 0;
    }
  }
}

int64_t BufferedIOBase::SendFile(File& file, uint64_t offset, uint64_t length) {
  if (file.Seek(offset) < 0) {
    SetError(kErrIO);
    return -1;
  }
  std::vector<char> piece(static_cast<size_t>(std::min<uint64_t>(kFilePieceSize, length)));
  uint64_t sent = 0;
  while (sent < length) {
    size_t want = static_cast<size_t>(std::min<uint64_t>(piece.size(), length - sent));
    if (ReadUpTo(file, piece.data(), want) != want ||
        Write(piece.data(), want) != static_cast<ssize_t>(want)) {
      SetError(kErrIO);
      return -1;
    }
    sent += want;
  }
  return static_cast<int64_t>(sent);
}

int64_t BufferedIOBase::RecvFile(File& file, uint64_t offset, uint64_t length) {
  if (file.Seek(offset) < 0) {
    SetError(kErrIO);
    return -1;
  }
  std::vector<char> piece(static_cast<size_t>(std::min<uint64_t>(kFilePieceSize, length)));
  uint64_t received = 0;
  while (received < length) {
    size_t want = static_cast<size_t>(std::min<uint64_t>(piece.size(), length - received));
    ssize_t got = Read(piece.data(), want);
    if (got > 0 && WriteAll(file, piece.data(), static_cast<size_t>(got)) != 0) {
      int code = FileWriteError(errno);
      SetError(code);
      if (code == kErrNoSpace || code == kErrTooLarge) return -1;
      return static_cast<int64_t>(received);
    }
    if (got > 0) received += static_cast<uint64_t>(got);
    if (got < static_cast<ssize_t>(want)) break;
  }
  return static_cast<int64_t>(received);
}

int BufferedIO::Attach(const IOBase& io) {
  io_ = io.Clone();
  read_buffer_.resize(kBufferSize);
  write_buffer_.resize(kBufferSize);
  read_pos_ = read_end_ = write_len_ = 0;
  ResetState();
  return 0;
}

void BufferedIO::Detach() {
  std::vector<char>().swap(read_buffer_);
  std::vector<char>().swap(write_buffer_);
  read_pos_ = read_end_ = write_len_ = 0;
  BufferedIOBase::Detach();
}

ssize_t BufferedIO::ReadSome(void* buffer, size_t n) {
  for (;;) {
    if (!WaitReady(kWaitRead)) return 0;
    size_t quota = controller_->ReadQuota(n);
    assert(quota > 0 && quota <= n);
    ssize_t got = io_->Read(buffer, quota);
    if (got < 0) {
      if (IsRetryable(errno)) continue;
      SetError(kErrIO);
      flags_ |= kReadClosed;
      return 0;
    }
    if (got == 0) {
      flags_ |= kReadClosed;
      return 0;
    }
    controller_->OnRead(static_cast<size_t>(got));
    return got;
  }
}

ssize_t BufferedIO::Read(void* buffer, size_t n) {
  char* out = static_cast<char*>(buffer);
  size_t got = 0;
  while (got < n) {
    if (read_pos_ < read_end_) {
      size_t k = std::min(n - got, read_end_ - read_pos_);
      memcpy(out + got, read_buffer_.data() + read_pos_, k);
      read_pos_ += k;
      got += k;
      continue;
    }
    if (!IsReadable()) break;
    if (n - got >= kBufferSize) {  // large reads bypass the buffer
      ssize_t k = ReadSome(out + got, n - got);
      if (k == 0) break;
      got += static_cast<size_t>(k);
    } else {
      ssize_t k = ReadSome(read_buffer_.data(), kBufferSize);
      if (k == 0) break;
      read_pos_ = 0;
      read_end_ = static_cast<size_t>(k);
    }
  }
  return static_cast<ssize_t>(got);
}

size_t BufferedIO::Peek(size_t want, const char** data) {
  want = std::min(want, kBufferSize);
  if (read_end_ - read_pos_ < want && IsReadable()) {
    // Move what is held to the front, then fill the rest.
    memmove(read_buffer_.data(), read_buffer_.data() + read_pos_, read_end_ - read_pos_);
    read_end_ -= read_pos_;
    read_pos_ = 0;
    while (read_end_ < want) {
      ssize_t k = ReadSome(read_buffer_.data() + read_end_, kBufferSize - read_end_);
      if (k == 0) break;
      read_end_ += static_cast<size_t>(k);
    }
  }
  *data = read_buffer_.data() + read_pos_;
  return read_end_ - read_pos_;
}

void BufferedIO::Consume(size_t n) {
  assert(n <= read_end_ - read_pos_);
  read_pos_ += n;
}

size_t BufferedIO::WriteDirect(const char* data, size_t n) {
  size_t done = 0;
  while (done < n && IsWritable()) {
    if (!WaitReady(kWaitWrite)) break;
    size_t quota = controller_->WriteQuota(n - done);
    assert(quota > 0 && quota <= n - done);
    ssize_t w = io_->Write(data + done, quota);
    if (w < 0) {
      if (IsRetryable(errno)) continue;
      SetError(FileWriteError(errno));
      flags_ |= kWriteClosed;
      break;
    }
    if (w == 0) {
      flags_ |= kWriteClosed;
      break;
    }
    done += static_cast<size_t>(w);
    controller_->OnWrite(static_cast<size_t>(w));
  }
  return done;
}

ssize_t BufferedIO::Write(const void* buffer, size_t n) {
  if (!IsWritable()) return 0;
  const char* data = static_cast<const char*>(buffer);
  if (n <= kBufferSize - write_len_) {
    memcpy(write_buffer_.data() + write_len_, data, n);
    write_len_ += n;
    return static_cast<ssize_t>(n);
  }
  if (Flush() != 0) return 0;
  if (n <= kBufferSize) {
    memcpy(write_buffer_.data(), data, n);
    write_len_ = n;
    return static_cast<ssize_t>(n);
  }
  return static_cast<ssize_t>(WriteDirect(data, n));
}

int BufferedIO::Flush() {
  if (write_len_ == 0) return 0;
  size_t written = WriteDirect(write_buffer_.data(), write_len_);
  if (written == write_len_) {
    write_len_ = 0;
    return 0;
  }
  memmove(write_buffer_.data(), write_buffer_.data() + written, write_len_ - written);
  write_len_ -= written;
  return -1;
}

int64_t BufferedIO::RecvFile(File& file, uint64_t offset, uint64_t length) {
  if (dynamic_cast<File*>(io_.get()) != nullptr) {
    return BufferedIOBase::RecvFile(file, offset, length);
  }
  if (dynamic_cast<Socket*>(io_.get()) == nullptr) {
    SetError(kErrNotSocket);
    return -1;
  }
  uint64_t received = std::min<uint64_t>(BufferedReadBytes(), length);
  if (received > 0) {
    if (file.Seek(offset) < 0 ||
        WriteAll(file, read_buffer_.data() + read_pos_, static_cast<size_t>(received)) != 0) {
      SetError(FileWriteError(errno));
      return -1;
    }
    read_pos_ += static_cast<size_t>(received);
    controller_->OnRead(static_cast<size_t>(received));
  }
  if (received == length) return static_cast<int64_t>(received);

  int64_t mapped = RecvFileMapped(file, offset + received, length - received);
  if (mapped < 0) return -1;
  received += static_cast<uint64_t>(mapped);
  if (received < length && IsReadable()) {
    int64_t copied = BufferedIOBase::RecvFile(file, offset + received, length - received);
    if (copied < 0) return -1;
    received += static_cast<uint64_t>(copied);
  }
  return static_cast<int64_t>(received);
}

int64_t BufferedIO::RecvFileMapped(File& file, uint64_t offset, uint64_t length) {
  if (dynamic_cast<Socket*>(io_.get()) == nullptr) {
    SetError(kErrNotSocket);
    return -1;
  }
  if (length == 0) return 0;
  struct stat st;
  if (fstat(file.fd(), &st) < 0 || !S_ISREG(st.st_mode)) return 0;  // not mappable
  const uint64_t end = offset + length;
  if (ReserveFile(file.fd(), offset, end) != 0) {
    SetError(FileWriteError(errno));
    return -1;
  }
  const uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  uint64_t pos = offset;  // next file byte to fill
  while (pos < end) {
    const uint64_t window_start = pos & ~(page - 1);
    const uint64_t window_end = std::min<uint64_t>(window_start + kMapWindow, end);
    Mapping map(file.fd(), window_start, static_cast<size_t>(window_end - window_start));
    if (map.data() == nullptr) break;  // not mappable: the caller copies
    uint64_t synced = window_start;  // pages below this were handed to msync
    while (pos < window_end) {
      if (!WaitReady(kWaitRead)) return static_cast<int64_t>(pos - offset);
      size_t want = static_cast<size_t>(std::min<uint64_t>(kMapStep, window_end - pos));
      size_t quota = controller_->ReadQuota(want);
      ssize_t got = io_->Read(map.data() + (pos - window_start), quota);
      if (got < 0) {
        if (IsRetryable(errno)) continue;
        SetError(kErrIO);
        flags_ |= kReadClosed;
        return static_cast<int64_t>(pos - offset);
      }
      if (got == 0) {
        flags_ |= kReadClosed;
        return static_cast<int64_t>(pos - offset);
      }
      pos += static_cast<uint64_t>(got);
      controller_->OnRead(static_cast<size_t>(got));
      const uint64_t whole = pos & ~(page - 1);
      if (whole > synced) {
        msync(map.data() + (synced - window_start), whole - synced, MS_ASYNC);
        synced = whole;
      }
    }
  }
  return static_cast<int64_t>(pos - offset);
}

}  // namespace cat
