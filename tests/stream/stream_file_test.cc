// PStream's files over a UNIX socket pair: where a received file lands
// (fresh name, resumed target), digests and progress on both ends, and what
// a failed receive leaves behind (a full disk, a peer gone mid-file: files move through the Channel and the buffered
// stream, whose own tests leave them to these).  Their bytes on the wire are
// the cross-check's (tests/peers).  The daemon itself takes no file from a
// peer and sends none.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "net/channel.h"
#include "stream/PObject.h"
#include "stream/stream.h"
#include "tests/common/small_disk.h"
#include "tests/net_io/net_io_test_util.h"
#include "tests/stream/stream_test_util.h"

namespace {

int Entries(const std::string& dir) {
  int n = -2;  // "." and ".."
  DIR* d = opendir(dir.c_str());
  while (readdir(d) != nullptr) ++n;
  closedir(d);
  return n;
}

// The JSON text of `value` with each fresh (8-character) name below `dir`
// as "NEW".
std::string Fresh(const PObject& value, const std::string& dir) {
  std::string json = ToJson(value);
  const std::string prefix = dir + "/";
  for (size_t at = 0; (at = json.find(prefix, at)) != std::string::npos; at += prefix.size()) {
    if (json.compare(at + prefix.size() + 8, 1, "\"") == 0)
      json.replace(at + prefix.size(), 8, "NEW");
  }
  return json;
}

class PStreamFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv_));
    ASSERT_EQ(0, sender_.Open(sv_[0], true));
    ASSERT_EQ(0, receiver_.Open(sv_[1], true));
  }

  TempDir dir_;
  int sv_[2];
  Channel sender_, receiver_;
};

TEST_F(PStreamFileTest, FreshNamesAndDigests) {
  // The names restart with each process: leftovers that hold the next two
  // (learnt in a child) are skipped, not written over.
  int names[2];
  ASSERT_EQ(0, pipe(names));
  if (fork() == 0) {
    const std::string next = PStream::TemporaryName() + PStream::TemporaryName();
    _exit(write(names[1], next.data(), 16) == 16 ? 0 : 1);
  }
  char next[16];
  ASSERT_EQ(16, read(names[0], next, 16));
  const std::string x = dir_.File("x");
  ASSERT_EQ(0, mkdir(x.c_str(), 0755));
  const std::string leftovers[] = {dir_.Write("x/" + std::string(next, 8), "old"),
                                   dir_.Write("x/" + std::string(next + 8, 8), "old")};

  // The stream's own binary digest (md5) does not come back after a
  // binary_ex: the plain binary that follows is not digested.
  const std::string hello = dir_.Write("hello", "hello world\n");
  PObject value;
  value.MutableArray().emplace_back(PObject::binary_ex_type{hello, 0, 12, "sha256", "", ""});
  value.MutableArray().emplace_back(PObject::binary_type{6, 5, hello});
  ASSERT_EQ(0, PStream().Send(&sender_, value));
  PStream in;
  in.SetBinaryDir(x);
  in.SetDefaultHashAlgo("sha256");
  in.SetBinaryHashAlgo("md5");
  PObject got;
  ASSERT_EQ(0, in.Recv(&receiver_, &got));
  const std::string digest = "a948904f2f0f479b8f8197694b30184b0d2ed1c1cd2a1ec0fb85d299a192a447";
  EXPECT_EQ(R"([{"offset": 12, "length": 12, "path": ")" + x + R"(/NEW", "send_hash": ")" + digest +
                R"(", "recv_hash": ")" + digest + R"(", "hash_algo": "sha256"}, )" +
                R"({"offset": 5, "length": 5, "path": ")" + x + R"(/NEW"}])",
            Fresh(got, x));
  EXPECT_EQ(digest, in.GetLastHash());
  EXPECT_EQ("hello world\n", ReadFile(got.AsArray()[0].AsBinaryEx().path));
  EXPECT_EQ("world", ReadFile(got.AsArray()[1].AsBinary().path));
  EXPECT_EQ("-rw-r--r--\n", RunCommand("stat -c %A '" + got.AsArray()[1].AsBinary().path + "'"));
  EXPECT_EQ("oldold", ReadFile(leftovers[0]) + ReadFile(leftovers[1]));
}

// A binary resumed into the file its target names, a binary_ex under a
// fresh name, both larger than the socket buffers, and a small file into a
// named target: progress on each end counts only file bytes, ends once at
// each file's whole size and is reset when the value is complete.
TEST_F(PStreamFileTest, ResumedAndFreshFilesWithProgressOnBothEnds) {
  const int open_files = Entries("/proc/self/fd");
  const uint64_t size = (2 << 20) + 3, cut = 123457;
  const std::string source = dir_.Write("source", net_io_test::Pattern(size));
  const std::string partial = dir_.Write("partial", net_io_test::Pattern(cut));
  PObject value;
  value["a"] = PObject::binary_type{cut, size - cut, source};
  value["b"] = PObject::binary_ex_type{source, 0, size, "", "", ""};
  value["c"] = PObject::binary_type{0, 3, source};
  PObject got;
  got["a"] = PObject::binary_type{cut, 0, partial};
  got["c"] = PObject::binary_type{0, 0, dir_.File("created")};
  PStream in;
  in.SetBinaryDir(dir_.path());
  in.SetDefaultHashAlgo("sha256");
  std::vector<std::pair<uint64_t, uint64_t>> received, sent;
  size_t reports = 0;
  in.SetProgressCallback([&](uint64_t done, uint64_t total) {
    ++reports;
    if (total != 0) received.emplace_back(done, total);
  });
  int send_rc = -100;
  std::thread sender([&] {
    PStream out;
    out.SetDefaultHashAlgo("sha256");
    out.SetProgressCallback([&](uint64_t done, uint64_t total) {
      if (total != 0) sent.emplace_back(done, total);
    });
    send_rc = out.Send(&sender_, value);
  });
  EXPECT_EQ(0, in.Recv(&receiver_, &got));
  sender.join();
  EXPECT_EQ(0, send_rc);
  const std::string digest = net_io_test::Sha256Of(source);
  const std::string n = std::to_string(size);
  EXPECT_EQ(R"({"a": {"offset": )" + n + R"(, "length": )" + n + R"(, "path": ")" + partial +
                R"("}, "b": {"offset": )" + n + R"(, "length": )" + n + R"(, "path": ")" +
                dir_.path() + R"(/NEW", "send_hash": ")" + digest + R"(", "recv_hash": ")" +
                digest + R"(", "hash_algo": "sha256"}, "c": {"offset": 3, "length": 3, "path": ")" +
                dir_.File("created") + R"("}})",
            Fresh(got, dir_.path()));
  EXPECT_EQ("-rw-r--r--\n", RunCommand("stat -c %A '" + dir_.File("created") + "'"));
  EXPECT_EQ(digest + digest, net_io_test::Sha256Of(partial) +
                                 net_io_test::Sha256Of(got.Lookup("b").AsBinaryEx().path));
  for (const auto* pairs : {&received, &sent}) {
    EXPECT_EQ(2, std::count(pairs->begin(), pairs->end(), std::make_pair(size, size)));
    EXPECT_EQ(std::make_pair(uint64_t{3}, uint64_t{3}), pairs->back());
  }
  ASSERT_GE(sent.size(), 2u);
  EXPECT_EQ(size, sent[sent.size() - 2].second);  // the small file is heard of once
  uint64_t done = 1, total = 1;
  in.GetProgress(&done, &total);
  EXPECT_EQ(0u, done + total);
  const size_t all_reports = reports;  // a value without files reports nothing
  ASSERT_EQ(0, PStream().Send(&sender_, PObject(1)) + in.Recv(&receiver_, &got));
  EXPECT_EQ(all_reports, reports);
  EXPECT_EQ(open_files, Entries("/proc/self/fd"));  // every file closed on both ends
}

// A binary whose bytes stop short (the peer goes), may not grow (EFBIG) or
// meet a full device or disk, received by mapping or, with a digest, by
// copying whole 81,920-byte blocks; a binary_ex cut short.  The target keeps
// its range, the file keeps what arrived and no more, and a binary_ex's own
// partial file goes -- but never a file it did not make.
TEST_F(PStreamFileTest, FailedReceivesLeaveWhatArrivedAndNothingElse) {
  const std::string kept = dir_.Write("kept", "received before");
  const std::string ex_head = Hex("43") + WireString("binary");
  SmallDisk disk(dir_.File("disk"), 81920), other_disk(dir_.File("other"), 81920);
  const struct {
    PObject target;
    std::string head;
    uint64_t announced, sent;
    rlim_t limit;
    const char* digest;
    int rc;
    uint64_t min_size, max_size;  // of the file a binary target names afterwards
    int files;                    // left in the binary directory
  } kCases[] = {
      {PObject(), "", 8 << 20, (3 << 20) + 5, RLIM_INFINITY, "", -2, (3 << 20) + 5, (3 << 20) + 5,
       1},
      {PObject(), "", 1 << 20, 200000, RLIM_INFINITY, "sha256", -2, 163840, 163840, 1},
      {PObject(PObject::binary_type{0, 0, dir_.File("limited")}), "", 4 << 20, 4 << 20, 1 << 20, "",
       -7, 0, 1 << 20, 0},
      {PObject(PObject::binary_type{0, 0, "/dev/full"}), "", 1 << 20, 1 << 20, RLIM_INFINITY, "",
       -4, 0, 0, 0},
      // The disk fills while the last piece waits in the copy's buffer: it
      // was counted, never written, and the file is not grown to it.
      {PObject(PObject::binary_type{0, 0, dir_.File("disk/copied")}), "", 86016, 86016,
       RLIM_INFINITY, "sha256", -4, 81920, 81920, 0},
      // The bytes buffered ahead of the mapping stay; then no room.
      {PObject(PObject::binary_type{0, 0, dir_.File("other/mapped")}), "", 86016, 86016,
       RLIM_INFINITY, "", -4, 0, 8192, 0},
      {PObject(PObject::binary_ex_type()), ex_head, 1 << 20, 100000, RLIM_INFINITY, "", -2, 0, 0,
       0},
      {PObject(PObject::binary_ex_type{kept, 15, 15, "", "", ""}), ex_head, 1 << 20, 100000,
       RLIM_INFINITY, "", -2, 0, 0, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(ToJson(c.target) + c.digest);
    int sv[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
    std::thread peer([&] {
      std::string bytes = c.head + Hex("30") + std::string(8, '\0') + std::string(c.sent, 'z');
      for (int i = 0; i < 8; ++i)
        bytes[c.head.size() + 1 + i] = static_cast<char>(c.announced >> (56 - 8 * i));
      for (size_t done = 0; done < bytes.size();) {
        ssize_t n = write(sv[1], bytes.data() + done, bytes.size() - done);
        if (n <= 0) break;
        done += static_cast<size_t>(n);
      }
      close(sv[1]);
    });
    TempDir binary_dir;
    PObject value(c.target);
    int rc;
    {
      net_io_test::FileSizeLimit limit(c.limit);
      Channel channel;
      channel.Open(sv[0], false);
      PStream in;
      in.SetBinaryDir(binary_dir.path());
      in.SetDefaultHashAlgo("sha256");
      in.SetBinaryHashAlgo(c.digest);
      rc = in.Recv(&channel, &value);
    }
    peer.join();
    EXPECT_EQ(c.rc, rc);
    if (c.target.IsBinaryEx()) {
      EXPECT_TRUE(value.AsBinaryEx() == c.target.AsBinaryEx());
    } else {
      EXPECT_EQ(0u, value.AsBinary().offset + value.AsBinary().length);  // set on success only
      const std::string data = c.max_size > 0 ? ReadFile(value.AsBinary().path) : "";
      EXPECT_GE(data.size(), c.min_size);
      EXPECT_LE(data.size(), c.max_size);
      EXPECT_EQ(std::string::npos, data.find_first_not_of('z'));
    }
    EXPECT_EQ("received before", ReadFile(kept));
    EXPECT_EQ(c.files, Entries(binary_dir.path()));
  }
}

}  // namespace
