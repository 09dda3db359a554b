// PStream: the one byte encoding of the daemon.  Send writes one PObject
// onto a Channel, Recv reads one back; every message of the local socket and
// every request and reply of a remote server is a single value.  Files travel
// inside the same stream: a binary is sent as the bytes of the file range it
// names and stored into a file on receipt.
//
// Wire format (every multi-byte number big-endian, every value led by one
// tag byte):
//   0x00 null       one byte, always 0x00
//   0x01 integer    one byte N (0..8), then N bytes of the value
//   0x10 string     16-bit length L, then L bytes
//   0x20 buffer     32-bit length L, then L bytes
//   0x30 binary     64-bit length L, then L bytes of file content
//   0x40 end        closes an array, a map or a binary_ex
//   0x41 array      the elements, then 0x40
//   0x42 map        per member: the key as a string value, the value; 0x40
//   0x43 binary_ex  members "binary" (a binary) and "send_hash" (a string)
//                   in map form, then 0x40
// A map key that starts with '_' travels without that character.
//
// The decoder parses in place from the Channel's read buffer and hands the
// bytes it used back to the channel (so a file that follows, or the next
// value, is read from the right place); each value is decoded straight into
// its place in the target.  It faces every local process, so it never
// trusts a length: a buffer longer than what is buffered is read in chunks
// that grow with what has arrived, containers nest at most kMaxDepth levels,
// and an integer has at most 8 bytes.  A stream told to refuse binaries
// fails on their tag before any file is touched.  A stream given a size cap
// charges every block that decoding allocates -- each element as the C
// allocator holds it, the decoder's own scratch included -- before it is
// allocated, in 64-bit arithmetic, and fails as soon as the charges would
// pass the cap.  Beyond its charges it holds only the key path (views, at
// most kMaxDepth) and, on failure, the error stack joined from keys it has
// charged; so the peak heap of a decode stays under twice the cap.
//
// Files: a received binary lands where its target names (resuming at the
// target's offset), else under binary_dir with a fresh name.  The binary of
// a binary_ex is decoded into a fresh member, so it always lands under a
// fresh name; when that member fails, its own partial file is removed and
// nothing else.  A failed receive leaves the target's offset and length as
// they were.
//
// Threads: one PStream serves one conversation on one thread.  Only the
// progress pair may be read from another thread (GetProgress, under the
// stream's mutex); the progress callback runs on the stream's thread without
// that mutex.  Temporary file names come from one process-wide generator
// under its own mutex.
#ifndef VESTA_STREAM_STREAM_H_
#define VESTA_STREAM_STREAM_H_

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <functional>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "net/channel.h"
#include "stream/PObject.h"

class PStream {
 public:
  // Results of Send and Recv.
  enum {
    kOk = 0,
    kErrStream = -1,        // no channel or stream, stream I/O failed, a file
                            // could not be opened, hashing could not start
    kErrChannel = -2,       // the channel failed; binary without a channel
    kErrDiskFull = -4,      // receiving a binary: disk or quota full
    kErrMalformed = -5,     // bad tag, bad length byte, key not a string,
                            // too deep, binary refused, over the size cap
    kErrFileTooLarge = -7,  // receiving a binary: file would grow too large
  };

  // Wire tags.
  enum Tag : uint8_t {
    kTagNull = 0x00,
    kTagInteger = 0x01,
    kTagString = 0x10,
    kTagBuffer = 0x20,
    kTagBinary = 0x30,
    kTagEnd = 0x40,
    kTagArray = 0x41,
    kTagMap = 0x42,
    kTagBinaryEx = 0x43,
  };

  // Deepest nesting of arrays, maps and binary_ex the decoder accepts.
  static constexpr int kMaxDepth = 128;
  // A transfer logs its progress each time this many bytes have moved.
  static constexpr uint64_t kProgressLogInterval = 104857600;  // 100 MiB

  // The tag that announces a value of `type`.
  static uint8_t TagOfType(PObject::Type type);
  // The type a tag announces: 1 and *type set, or 0 for no value tag (the
  // end marker included).
  static int TypeOfTag(uint8_t tag, PObject::Type* type);

  // Called with (bytes done, bytes total) whenever the progress pair changes.
  using ProgressCallback = std::function<void(uint64_t done, uint64_t total)>;

  // Made for each file transfer: counts the bytes the channel reports and
  // passes (base + count, total) on to the stream's progress pair.  The
  // stream must outlive it.
  class FileTransferProgressReporter : public Channel::ProgressReporter {
   public:
    FileTransferProgressReporter(PStream* stream, const std::string& path, uint64_t total,
                                 uint64_t base);
    void Update(uint64_t bytes) override;
    uint64_t GetBytes() const override { return count_; }

   private:
    PStream* stream_;   // receives the progress pair
    std::string path_;  // the file, for the progress log line
    uint64_t total_;    // offset + length of the transfer
    uint64_t base_;     // the starting offset
    uint64_t count_ = 0;  // bytes moved so far
  };

  PStream();
  ~PStream();
  PStream(const PStream&) = delete;
  PStream& operator=(const PStream&) = delete;

  // Encodes `value` onto `channel` and flushes it.  0 or a negative code.
  // `channel` must stay open for the call.
  int Send(Channel* channel, const PObject& value);
  // Reads one complete value from `channel` into `value`.  A kind already
  // held by the target is reused: a map is merged into in place (references
  // to its members stay valid), an array appended to.  On failure `value`
  // is partly filled and should be discarded.
  int Recv(Channel* channel, PObject* value);
  // The same over standard streams; binaries need a channel (-2).
  int Send(std::ostream* out, const PObject& value);
  int Recv(std::istream* in, PObject* value);

  // Digest for binary_ex values whose hash_algo is empty ("" = none).
  void SetDefaultHashAlgo(const std::string& algo) { default_hash_algo_ = algo; }
  // Digest applied to binaries sent or received ("" = none).
  void SetBinaryHashAlgo(const std::string& algo) { binary_hash_algo_ = algo; }
  // Received binaries go to /dev/null.
  void SetDiscardBinaries(bool discard) { discard_binaries_ = discard; }
  // Where received binaries without a path are stored.
  void SetBinaryDir(const std::string& dir) { binary_dir_ = dir; }
  // A binary or binary_ex tag fails with -5 before any file is opened.
  void SetRefuseBinaries(bool refuse) { refuse_binaries_ = refuse; }
  // A received value whose decoding would allocate more than `bytes` fails
  // with -5 (logged once) before the block that passes the cap is
  // allocated; 0 = no cap.
  void SetSizeCap(uint64_t bytes) { size_cap_ = bytes; }
  void SetProgressCallback(ProgressCallback callback) { progress_callback_ = std::move(callback); }

  // The digest text of the last hashed transfer.
  const std::string& GetLastHash() const { return last_hash_; }
  // The progress pair; may be called from any thread.
  void GetProgress(uint64_t* done, uint64_t* total) const;

  // kTemporaryNameLength characters from [0-9a-zA-Z-_] drawn from the
  // process-wide generator (minimal-standard LCG seeded with 1 at first use).
  static constexpr size_t kTemporaryNameLength = 8;
  static std::string TemporaryName();

 private:
  struct FileTarget;
  struct BinaryExParts;

  void Begin(Channel* channel, std::ostream* out, std::istream* in);
  int Finish(int rc);
  void SetProgress(uint64_t done, uint64_t total);
  void ResetProgress() {
    if (!progress_zero_) SetProgress(0, 0);
  }
  const char* Indent() const;

  // Writing (stream.cc; binaries in stream_binary.cc).
  int WriteValue(const PObject& value);
  int WriteInteger(int64_t value);
  int WriteString(std::string_view text);
  int WriteBuffer(const PObject::buffer_type& buffer);
  int WriteArray(const PObject::array_type& elements);
  int WriteMap(const PObject::map_type& members);
  int WriteBinary(const PObject::binary_type& binary);
  int WriteBinaryEx(const PObject::binary_ex_type& binary);
  // Called while dumping, for the value of map member `key`: when the key
  // names a secret (stream/redact.h), dumps kRedacted instead and turns the
  // dump off; true then, and the caller turns it on again after the value.
  bool HideSecret(std::string_view key);
  // Appends to the pending bytes; they go to the channel when the block is
  // full, before a file and at the end of Send.
  int WriteBytes(const void* data, size_t n) {
    if (n > pending_capacity_ - pending_length_) return WriteBytesSlow(data, n);
    memcpy(pending_.get() + pending_length_, data, n);
    pending_length_ += n;
    return kOk;
  }
  int WriteBytesSlow(const void* data, size_t n);
  int WriteDirect(const void* data, size_t n);
  int FlushPending();

  // Reading (stream_read.cc; binaries in stream_binary.cc).  The window
  // [in_pos_, in_end_) holds bytes not yet parsed: a part of the channel's
  // buffer, or a few bytes staged from a source that keeps no buffer.
  // Makes `n` (at most kStageSize) contiguous bytes available at in_pos_.
  int Need(size_t n) { return static_cast<size_t>(in_end_ - in_pos_) >= n ? kOk : Refill(n); }
  int Refill(size_t n);
  // Hands the parsed part of the window back to the channel; the window is
  // empty afterwards.  Before anything else reads the channel.
  void Commit();
  // Exactly `n` bytes, from the window first.
  int ReadBytes(void* data, size_t n);
  // Exactly `n` bytes past the window (which must be empty).
  int ReadExact(void* data, size_t n);
  // Counts `bytes` of memory against the size cap, before they are
  // allocated.
  int Charge(uint64_t bytes) {
    if (bytes <= budget_) {
      budget_ -= bytes;
      return kOk;
    }
    return OverCap();
  }
  int OverCap();
  // Gives back the charge of a block this call has freed.
  void Refund(uint64_t bytes) {
    if (size_cap_ != 0 && bytes <= size_cap_ - budget_) budget_ += bytes;
  }
  int ReadTaggedValue(PObject* target);
  int ReadValue(uint8_t tag, PObject* target);
  int ReadNull(PObject* target);
  int ReadInteger(PObject* target);
  // `length` bytes as one view, valid until the next read: in the window,
  // else in scratch_.
  int ReadText(size_t length, std::string_view* text);
  int ReadString(PObject* target);
  int ReadBuffer(PObject* target);
  int ReadArray(PObject* target);
  // Makes the next tag of a map visible; *end is true, and the tag is
  // consumed, when it closes the map.
  int AtMapEnd(bool* end);
  // A map key; the caller has made its tag visible.
  int ReadKey(std::string_view* key);
  int ReadMap(PObject* target);
  int ReadBinary(PObject* target);
  int ReadBinaryEx(PObject* target);
  int ReadBinaryExMember(const std::string& key, BinaryExParts* parts);
  int StoreBinary(PObject::binary_type* binary, uint64_t length);
  int OpenFileTarget(const PObject::binary_type& binary, FileTarget* target);
  int ReceiveFile(const FileTarget& target, uint64_t length, uint64_t* received);
  void RemoveOwnFile(const PObject& member) const;
  int EnterContainer(char mark);
  // Logs the key path of a failure, once per Send or Recv: called by the
  // innermost container being read that sees it fail, while every key on
  // the path is still alive, and by Finish for any other failure.
  void LogErrorStack();

  static constexpr size_t kStageSize = 16;

  // Set by Begin for each conversation, and stale between them.
  Channel* channel_ = nullptr;     // the conversation's channel, or:
  std::ostream* out_ = nullptr;    // the output stream, or:
  std::istream* in_ = nullptr;     // the input stream (one of the three)

  std::unique_ptr<char[]> pending_;  // encoded bytes not yet handed on
  size_t pending_length_ = 0;        // bytes in pending_
  size_t pending_capacity_ = 0;      // bytes allocated for pending_

  const uint8_t* in_pos_ = nullptr;   // next byte to parse
  const uint8_t* in_end_ = nullptr;   // end of the window
  const uint8_t* in_base_ = nullptr;  // start of a window peeked from the
                                      // channel; null for a staged one
  uint8_t staged_[kStageSize];        // a window read from a source
                                      // without a buffer
  uint64_t size_cap_ = 0;             // bytes; 0 = none
  uint64_t budget_ = 0;               // bytes left under the cap

  // The keys under which the value being read lies, outermost first: views
  // of the keys in the value itself (a map member stays put) or in the frame
  // reading a binary_ex, at most kMaxDepth.  Writing, only a failure fills
  // it, on the way out, with views of the keys of the value sent.
  std::vector<std::string_view> key_path_;
  bool error_logged_ = false;      // this call's error stack is logged
  int depth_ = 0;                  // open arrays, maps and binary_ex
  bool dump_ = false;              // DEBUG enabled for `stream` at Begin
  std::vector<char> scratch_;      // a text longer than the window; charged
                                   // as it grows, released by Finish

  mutable std::mutex progress_mutex_;  // guards the pair below
  uint64_t progress_done_ = 0;
  uint64_t progress_total_ = 0;
  bool progress_zero_ = true;  // the pair is (0, 0); owner thread only
  ProgressCallback progress_callback_;

  std::string default_hash_algo_;
  std::string binary_hash_algo_;
  std::string last_hash_;
  bool discard_binaries_ = false;
  bool refuse_binaries_ = false;
  std::string binary_dir_;
};

#endif  // VESTA_STREAM_STREAM_H_
