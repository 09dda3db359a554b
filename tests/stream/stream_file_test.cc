// PStream's files over a UNIX socket pair: the bytes of binary and
// binary_ex, where a received file lands (fresh name, resumed target),
// digests and progress on both ends, and what a failed receive leaves
// behind.  How the Channel moves the bytes is tests/net_io's.
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

TEST_F(PStreamFileTest, BinariesTravelAsTheirBytesAndLandUnderFreshNames) {
  std::string content(300, '\0');
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i);
  PObject::binary_ex_type ex{dir_.Write("hello", "hello world\n"), 0, 12, "sha256", "", ""};
  PObject value;
  value.MutableArray().emplace_back(PObject::binary_type{100, 50, dir_.Write("source", content)});
  value.MutableArray().emplace_back(ex);
  PStream out;
  ASSERT_EQ(0, out.Send(&sender_, value));
  const std::string digest = "a948904f2f0f479b8f8197694b30184b0d2ed1c1cd2a1ec0fb85d299a192a447";
  const std::string expected = Hex("41 30 00 00 00 00 00 00 00 32") + content.substr(100, 50) +
                               Hex("43") + WireString("binary") +
                               Hex("30 00 00 00 00 00 00 00 0c") + "hello world\n" +
                               WireString("send_hash") + WireString(digest) + Hex("40 40");
  std::string raw(expected.size(), '\0');
  ASSERT_EQ(0, receiver_.Read(&raw[0], raw.size()));
  EXPECT_EQ(expected, raw);

  // Received under fresh names, with the default digest of the receiver.
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
  close(names[0]);
  close(names[1]);
  ASSERT_EQ(0, mkdir(dir_.File("x").c_str(), 0755));
  const std::string leftovers[] = {dir_.Write("x/" + std::string(next, 8), "old"),
                                   dir_.Write("x/" + std::string(next + 8, 8), "old")};
  ASSERT_EQ(0, out.Send(&sender_, value));
  PStream in;
  in.SetBinaryDir(dir_.File("x"));
  in.SetDefaultHashAlgo("sha256");
  PObject got;
  ASSERT_EQ(0, in.Recv(&receiver_, &got));
  const std::string x = dir_.File("x");
  EXPECT_EQ(R"([{"offset": 50, "length": 50, "path": ")" + x + R"(/NEW"}, {"offset": 12, )" +
                R"("length": 12, "path": ")" + x + R"(/NEW", "send_hash": ")" + digest +
                R"(", "recv_hash": ")" + digest + R"(", "hash_algo": "sha256"}])",
            Fresh(got, x));
  const std::string& b = got.AsArray()[0].AsBinary().path;
  EXPECT_EQ(content.substr(100, 50), ReadFile(b));
  EXPECT_EQ("hello world\n", ReadFile(got.AsArray()[1].AsBinaryEx().path));
  EXPECT_EQ("-rw-r--r--\n", RunCommand("stat -c %A '" + b + "'"));
  EXPECT_EQ("oldold", ReadFile(leftovers[0]) + ReadFile(leftovers[1]));

  // Without any digest the hash travels empty; discarded bytes go by,
  // undigested.
  ex.hash_algo.clear();
  ASSERT_EQ(0, out.Send(&sender_, PObject(ex)));
  PStream plain;
  plain.SetDiscardBinaries(true);
  plain.SetDefaultHashAlgo("sha256");
  ASSERT_EQ(0, plain.Recv(&receiver_, &got));
  EXPECT_EQ(R"({"offset": 12, "length": 12, "path": "/dev/null", "send_hash": "", )"
            R"("recv_hash": "", "hash_algo": "sha256"})",
            ToJson(got));
}

// A binary resumed into the file its target names, and a binary_ex under a
// fresh name, both larger than the socket buffers: the receiver's progress
// ends at the whole size and is reset once the value is complete.
TEST_F(PStreamFileTest, ResumedBinaryAndDigestedBinaryExWithProgress) {
  const int open_files = Entries("/proc/self/fd");
  const uint64_t size = (2 << 20) + 3, cut = 123457;
  const std::string source = dir_.File("source"), partial = dir_.File("partial");
  dir_.Write("source", net_io_test::Pattern(size));
  RunCommand("head -c " + std::to_string(cut) + " '" + source + "' > '" + partial + "'");
  PObject value;
  value["a"] = PObject::binary_type{cut, size - cut, source};
  value["b"] = PObject::binary_ex_type{source, 0, size, "", "", ""};
  value["c"] = PObject::binary_type{0, 3, source};
  PObject got;
  got["a"] = PObject::binary_type{cut, 0, partial};
  got["c"] = PObject::binary_type{0, 0, dir_.File("created")};  // made 0644
  PStream in;
  in.SetBinaryDir(dir_.path());
  in.SetDefaultHashAlgo("sha256");
  std::vector<std::pair<uint64_t, uint64_t>> progress;
  in.SetProgressCallback(
      [&](uint64_t done, uint64_t total) { progress.emplace_back(done, total); });
  int send_rc = -100;
  std::thread sender([&] {
    PStream out;
    out.SetDefaultHashAlgo("sha256");
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
  EXPECT_EQ(2, std::count(progress.begin(), progress.end(), std::make_pair(size, size)));
  uint64_t done = 1, total = 1;
  in.GetProgress(&done, &total);
  EXPECT_EQ(0u, done + total);
  EXPECT_EQ(open_files, Entries("/proc/self/fd"));  // every file closed on both ends
}

// Of a binary_ex from a peer only the last "binary" member that is a binary
// is kept; the files of the others go.
TEST_F(PStreamFileTest, BinaryExKeepsOnlyItsLastFile) {
  LogCapture log(dir_, "");
  const std::string value = Hex("43") + WireString("binary") + Hex("30 00 00 00 00 00 00 00 01") +
                            "a" + WireString("binary") + Hex("30 00 00 00 00 00 00 00 01") + "b" +
                            WireString("other") + Hex("30 00 00 00 00 00 00 00 01") + "c" +
                            WireString("send_hash") + Hex("30 00 00 00 00 00 00 00 01") + "d" +
                            WireString("binary") + WireString("e") + Hex("40");
  ASSERT_EQ(0, sender_.Write(value.data(), value.size()) + sender_.Flush(0));
  PStream in;
  in.SetBinaryDir(dir_.path());
  PObject got;
  ASSERT_EQ(0, in.Recv(&receiver_, &got));
  EXPECT_EQ("b", ReadFile(got.AsBinaryEx().path));
  EXPECT_EQ("", got.AsBinaryEx().send_hash);
  EXPECT_EQ(3, Entries(dir_.path()));  // with the log and its level file
  EXPECT_EQ("", log.Take());

  // A file that cannot go (a directory took its name meanwhile) is logged.
  TempDir files;
  in.SetBinaryDir(files.path());
  bool swapped = false;
  in.SetProgressCallback([&](uint64_t, uint64_t total) {
    if (total == 0 || swapped) return;
    const std::string name = files.File(RunCommand("ls '" + files.path() + "'").substr(0, 8));
    swapped = rename(name.c_str(), files.File("moved").c_str()) == 0 && mkdir(name.c_str(), 0755) == 0;
  });
  const std::string other =
      Hex("43") + WireString("other") + Hex("30 00 00 00 00 00 00 00 01") + "c" + Hex("40");
  ASSERT_EQ(0, sender_.Write(other.data(), other.size()) + sender_.Flush(0));
  ASSERT_EQ(0, in.Recv(&receiver_, &got));
  EXPECT_TRUE(swapped);
  EXPECT_EQ("ERROR unlink: Is a directory (21)\n", log.Take());
}

TEST_F(PStreamFileTest, SenderProgressCountsFileBytesUpToTheLastPiece) {
  for (size_t size : {size_t{65536}, size_t{1000}}) {
    std::string source = dir_.Write("progress", std::string(size, 'p'));
    std::vector<uint64_t> done;
    PStream out;
    out.SetProgressCallback([&](uint64_t d, uint64_t total) {
      if (total != 0) done.push_back(d);
    });
    // Something buffered ahead of the file must not count.
    PObject value;
    value.MutableArray().emplace_back("before");
    value.MutableArray().emplace_back(PObject::binary_type{0, size, source});
    std::string drain(20 + size, '\0');
    std::thread reader([&] { receiver_.Read(&drain[0], drain.size()); });
    EXPECT_EQ(0, out.Send(&sender_, value));
    reader.join();
    ASSERT_FALSE(done.empty()) << size;
    EXPECT_EQ(size, done.back());
    EXPECT_TRUE(std::is_sorted(done.begin(), done.end()));
    EXPECT_TRUE(size != 1000 || done.size() == 1) << done.size();
  }
}

TEST_F(PStreamFileTest, DigestOfABinaryExIsClearedAfterIt) {
  // The stream's own binary digest is not put back after a binary_ex: the
  // plain binary that follows is not digested.
  PObject::binary_ex_type ex{dir_.Write("first", "hello world\n"), 0, 12, "", "", ""};
  PObject value;
  value.MutableArray().emplace_back(ex);
  value.MutableArray().emplace_back(
      PObject::binary_type{0, 12, dir_.Write("second", "another file")});
  PStream out;
  out.SetDefaultHashAlgo("md5");
  ASSERT_EQ(0, out.Send(&sender_, value));
  PStream in;
  in.SetBinaryDir(dir_.path());
  in.SetDefaultHashAlgo("md5");
  in.SetBinaryHashAlgo("sha256");
  PObject got;
  ASSERT_EQ(0, in.Recv(&receiver_, &got));
  EXPECT_EQ("6f5902ac237024bdd0c176cb93063dc4", in.GetLastHash());  // md5 of the first
}

TEST_F(PStreamFileTest, SendFailuresAndMissingArguments) {
  LogCapture log(dir_, "");
  const std::string source = dir_.Write("s", "abc");
  PObject::binary_ex_type ex{source, 0, 3, "no-such-digest", "", ""};
  PObject missing;
  missing["f"].MutableBinaryEx().path = dir_.File("missing");
  const struct {
    PObject value;
    bool to_stream;
    int rc;
    std::string log;
  } kCases[] = {
      {missing, false, -1,
       "ERROR open(" + dir_.File("missing") + ") error\nERROR Error stack: f.binary\n"},
      {PObject(ex), false, -1,
       "ERROR failed to initial channel hashing 'no-such-digest'\nERROR Error stack: binary\n"},
      {PObject(PObject::binary_type{0, 3, source}), true, -2,
       "ERROR ostream not supported send binary file.\nERROR Error stack: \n"},
  };
  for (const auto& c : kCases) {
    std::string bytes;
    EXPECT_EQ(c.rc,
              c.to_stream ? EncodeToString(c.value, &bytes) : PStream().Send(&sender_, c.value));
    EXPECT_EQ(c.log, log.Take());
  }
  EXPECT_EQ(-1, PStream().Send(static_cast<Channel*>(nullptr), PObject()));
  EXPECT_EQ("CRIT shouldn't reach here.\n", log.Take());
  std::istringstream none(Hex("00 00"));
  EXPECT_EQ(-1, PStream().Recv(&none, nullptr));
  EXPECT_EQ(-1, PStream().Recv(&receiver_, nullptr));
  // A peer that reads nothing fails a value larger than the socket buffers
  // once the deadline has passed.
  PObject big;
  big.MutableBuffer().Assign(std::string(1 << 20, 'v').data(), 1 << 20);
  sender_.SetDeadline(1);
  EXPECT_EQ(-2, PStream().Send(&sender_, big));
  sender_.Close();
  EXPECT_EQ(-2, PStream().Send(&sender_, PObject(1)));
}

// A binary whose bytes stop short (the peer goes), may not grow (EFBIG) or
// meet a full device or disk; a binary_ex cut short.  The target keeps its
// range, the file keeps what arrived and no more, and a binary_ex's own
// partial file goes -- but never a file it did not make.
TEST_F(PStreamFileTest, FailedReceivesLeaveWhatArrivedAndNothingElse) {
  const std::string kept = dir_.Write("kept", "received before");
  PObject::binary_ex_type named{kept, 15, 15, "", "", ""};
  const std::string ex_head = Hex("43") + WireString("binary");
  SmallDisk disk(dir_.File("disk"), 81920);
  const struct {
    PObject target;
    std::string head;
    uint64_t announced, sent;
    rlim_t limit;
    int rc;
    uint64_t min_size, max_size;  // of the file a binary target names afterwards
    int files;                    // left in the binary directory
    const char* digest;           // of plain binaries: received by copying
  } kCases[] = {
      {PObject(), "", 8 << 20, (3 << 20) + 5, RLIM_INFINITY, -2, (3 << 20) + 5, (3 << 20) + 5, 1, ""},
      {PObject(PObject::binary_type{0, 0, dir_.File("limited")}), "", 4 << 20, 4 << 20, 1 << 20, -7,
       0, 1 << 20, 0, ""},
      {PObject(PObject::binary_type{0, 0, "/dev/full"}), "", 1 << 20, 1 << 20, RLIM_INFINITY, -4, 0,
       0, 0, ""},
      // The disk fills while the last piece waits in the copy's buffer: it
      // was counted, never written, and the file is not grown to it.
      {PObject(PObject::binary_type{0, 0, dir_.File("disk/file")}), "", 86016, 86016, RLIM_INFINITY,
       -4, 81920, 81920, 0, "sha256"},
      {PObject(PObject::binary_ex_type()), ex_head, 1 << 20, 100000, RLIM_INFINITY, -2, 0, 0, 0, ""},
      {PObject(named), ex_head, 1 << 20, 100000, RLIM_INFINITY, -2, 0, 0, 0, ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(ToJson(c.target));
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
    if (c.target.IsBinary() || c.target.IsNull()) {
      EXPECT_EQ(0u, value.AsBinary().offset + value.AsBinary().length);  // set on success only
      const std::string data = c.max_size > 0 ? ReadFile(value.AsBinary().path) : "";
      EXPECT_GE(data.size(), c.min_size);
      EXPECT_LE(data.size(), c.max_size);
      EXPECT_EQ(std::string::npos, data.find_first_not_of('z'));
    } else {
      EXPECT_TRUE(value.AsBinaryEx() == c.target.AsBinaryEx());
    }
    EXPECT_EQ("received before", ReadFile(kept));
    EXPECT_EQ(c.files, Entries(binary_dir.path()));
  }
}

}  // namespace
