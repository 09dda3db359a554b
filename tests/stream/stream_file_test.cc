// Files through PStream over a UNIX socket pair and over loopback TCP:
// 64 MiB as binary and as binary_ex (digests checked against sha256sum),
// a resumed transfer, a file that may not grow (EFBIG), a full device and a
// peer that disappears halfway.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "net/channel.h"
#include "stream/PObject.h"
#include "stream/stream.h"
#include "tests/common/temp_dir.h"

namespace {

constexpr uint64_t kBigFile = 64ull << 20;

std::string Sha256Sum(const std::string& path) {
  std::unique_ptr<FILE, int (*)(FILE*)> p(popen(("sha256sum '" + path + "'").c_str(), "r"),
                                         pclose);
  char digest[65] = {0};
  if (p == nullptr || fscanf(p.get(), "%64s", digest) != 1) return "";
  return digest;
}

uint64_t FileSize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : UINT64_MAX;
}

// `size` bytes of a fixed pseudo-random sequence.
std::string MakeFile(const TempDir& dir, const std::string& name, uint64_t size) {
  std::string path = dir.File(name);
  std::ofstream out(path, std::ios::binary);
  std::string block(1 << 20, '\0');
  uint64_t x = 0x9E3779B97F4A7C15ull;
  for (uint64_t done = 0; done < size; done += block.size()) {
    for (size_t i = 0; i < block.size(); i += 8) {
      x ^= x << 13, x ^= x >> 7, x ^= x << 17;
      memcpy(&block[i], &x, 8);
    }
    out.write(block.data(), static_cast<std::streamsize>(std::min<uint64_t>(block.size(), size - done)));
  }
  return path;
}

enum class Transport { kUnixPair, kTcp };

// Two connected channels.
struct Link {
  Channel sender, receiver;
};

void Connect(Transport transport, Link* link) {
  if (transport == Transport::kUnixPair) {
    int sv[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
    ASSERT_EQ(0, link->sender.Open(sv[0], false));
    ASSERT_EQ(0, link->receiver.Open(sv[1], false));
    return;
  }
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(listener, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(addr);
  ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
  ASSERT_EQ(0, listen(listener, 1));
  ASSERT_EQ(0, getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len));
  ASSERT_EQ(0, link->sender.Open("127.0.0.1", ntohs(addr.sin_port)));
  int fd = accept(listener, nullptr, nullptr);
  close(listener);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, link->receiver.Open(fd, false));
}

class FileTransferTest : public ::testing::TestWithParam<Transport> {
 protected:
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    ASSERT_EQ(0, mkdir(dir_.File("in").c_str(), 0755));
    Connect(GetParam(), &link_);
  }

  // Sends `value` on a thread while `receive` runs on this one.
  template <typename Receive>
  int Exchange(const PObject& value, Receive receive, int* send_rc) {
    std::thread sender([&] {
      PStream out;
      *send_rc = out.Send(&link_.sender, value);
    });
    int rc = receive();
    sender.join();
    return rc;
  }

  TempDir dir_;
  Link link_;
};

TEST_P(FileTransferTest, BigFileAsBinaryAndAsBinaryEx) {
  const std::string source = MakeFile(dir_, "big", kBigFile);
  const std::string digest = Sha256Sum(source);
  ASSERT_EQ(64u, digest.size());

  PObject received;
  uint64_t last_done = 0, last_total = 0;
  PStream in;
  in.SetBinaryDir(dir_.File("in"));
  in.SetProgressCallback([&](uint64_t done, uint64_t total) {
    if (total != 0) last_done = done, last_total = total;
  });
  int send_rc = -100;
  ASSERT_EQ(0, Exchange(PObject(PObject::binary_type{0, kBigFile, source}),
                        [&] { return in.Recv(&link_.receiver, &received); }, &send_rc));
  EXPECT_EQ(0, send_rc);
  EXPECT_EQ(kBigFile, received.AsBinary().length);
  EXPECT_EQ(digest, Sha256Sum(received.AsBinary().path));
  EXPECT_EQ(kBigFile, last_done);
  EXPECT_EQ(kBigFile, last_total);
  uint64_t done = 1, total = 1;
  in.GetProgress(&done, &total);
  EXPECT_EQ(0u, done + total);  // reset once the value is complete

  PObject::binary_ex_type ex;
  ex.path = source;
  ex.length = kBigFile;
  PStream in_ex;
  in_ex.SetBinaryDir(dir_.File("in"));
  in_ex.SetDefaultHashAlgo("sha256");
  std::thread sender([&] {
    PStream out;
    out.SetDefaultHashAlgo("sha256");
    send_rc = out.Send(&link_.sender, PObject(ex));
  });
  PObject got;
  ASSERT_EQ(0, in_ex.Recv(&link_.receiver, &got));
  sender.join();
  EXPECT_EQ(0, send_rc);
  const PObject::binary_ex_type& r = got.AsBinaryEx();
  EXPECT_EQ(digest, r.send_hash);
  EXPECT_EQ(digest, r.recv_hash);
  EXPECT_EQ(digest, Sha256Sum(r.path));
  EXPECT_EQ(kBigFile, r.length);
}

TEST_P(FileTransferTest, ResumesAtTheTargetsOffset) {
  const uint64_t size = 5 * 1000 * 1000 + 3, cut = 1234567;
  const std::string source = MakeFile(dir_, "source", size);
  // The first `cut` bytes are already there.
  std::string partial = dir_.File("in/partial");
  ASSERT_EQ(0, truncate(source.c_str(), static_cast<off_t>(size)));
  {
    std::ifstream src(source, std::ios::binary);
    std::string head(cut, '\0');
    src.read(&head[0], static_cast<std::streamsize>(cut));
    std::ofstream(partial, std::ios::binary) << head;
  }
  PObject target(PObject::binary_type{cut, 0, partial});
  int send_rc = -100;
  PStream in;
  ASSERT_EQ(0, Exchange(PObject(PObject::binary_type{cut, size - cut, source}),
                        [&] { return in.Recv(&link_.receiver, &target); }, &send_rc));
  EXPECT_EQ(0, send_rc);
  EXPECT_EQ(partial, target.AsBinary().path);
  EXPECT_EQ(size, target.AsBinary().offset);
  EXPECT_EQ(size, target.AsBinary().length);
  EXPECT_EQ(Sha256Sum(source), Sha256Sum(partial));
}

TEST_P(FileTransferTest, PeerDisappearingLeavesWhatArrived) {
  const uint64_t announced = 8 << 20, sent = (3 << 20) + 5;
  const std::string source = MakeFile(dir_, "source", sent);
  std::thread peer([&] {
    uint8_t head[9] = {0x30};
    for (int i = 0; i < 8; ++i) head[1 + i] = static_cast<uint8_t>(announced >> (56 - 8 * i));
    link_.sender.Write(head, sizeof(head));
    std::string bytes = ReadFile(source);
    link_.sender.Write(bytes.data(), bytes.size());
    link_.sender.Close();
  });
  PStream in;
  in.SetBinaryDir(dir_.File("in"));
  PObject got;
  EXPECT_EQ(-2, in.Recv(&link_.receiver, &got));
  peer.join();
  ASSERT_TRUE(got.IsBinary());
  EXPECT_EQ(0u, got.AsBinary().offset + got.AsBinary().length);  // set only on success
  EXPECT_EQ(sent, FileSize(got.AsBinary().path));
  EXPECT_EQ(Sha256Sum(source), Sha256Sum(got.AsBinary().path));
}

INSTANTIATE_TEST_SUITE_P(Transports, FileTransferTest,
                         ::testing::Values(Transport::kUnixPair, Transport::kTcp),
                         [](const ::testing::TestParamInfo<Transport>& info) {
                           return info.param == Transport::kUnixPair ? "UnixPair" : "Tcp";
                         });

class FileLimitTest : public ::testing::Test {
 protected:
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv_));
  }
  void TearDown() override {
    if (sv_[0] >= 0) close(sv_[0]);
    if (sv_[1] >= 0) close(sv_[1]);
  }

  // Writes `prefix`, then a binary announcing `announced` bytes of which
  // `sent` zero bytes follow, on sv_[1], and closes it.
  void SendZeros(uint64_t announced, uint64_t sent, const std::string& prefix = "") {
    std::string bytes = prefix + "\x30";
    for (int i = 0; i < 8; ++i) bytes.push_back(static_cast<char>(announced >> (56 - 8 * i)));
    bytes.append(sent, '\0');
    for (size_t done = 0; done < bytes.size();) {
      ssize_t n = write(sv_[1], bytes.data() + done, bytes.size() - done);
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    close(sv_[1]);
    sv_[1] = -1;
  }

  // Receives one value on sv_[0] through a Channel.
  int Receive(PStream* in, PObject* value) {
    Channel channel;
    if (channel.Open(sv_[0], false) != 0) return -100;
    sv_[0] = -1;
    return in->Recv(&channel, value);
  }

  TempDir dir_;
  int sv_[2] = {-1, -1};
};

TEST_F(FileLimitTest, FileTooLargeGivesMinus7) {
  const uint64_t limit = 1 << 20;
  std::string target = dir_.File("limited");
  // The limit applies to the child alone; it reports the result as its
  // exit status.
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(sv_[1]);
    signal(SIGXFSZ, SIG_IGN);
    rlimit rl{limit, limit};
    setrlimit(RLIMIT_FSIZE, &rl);
    int rc;
    {
      Channel channel;
      channel.Open(sv_[0], false);
      PStream in;
      PObject value(PObject::binary_type{0, 0, target});
      rc = in.Recv(&channel, &value);
    }
    _exit(rc == -7 ? 0 : 100 - rc);
  }
  close(sv_[0]);
  sv_[0] = -1;
  SendZeros(4 << 20, 4 << 20);
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status)) << "result " << 100 - WEXITSTATUS(status);
  EXPECT_LE(FileSize(target), limit);
}

TEST_F(FileLimitTest, FullDeviceGivesMinus4) {
  std::thread peer([&] { SendZeros(1 << 20, 1 << 20); });
  PStream in;
  PObject value(PObject::binary_type{0, 0, "/dev/full"});
  EXPECT_EQ(-4, Receive(&in, &value));
  peer.join();
}

TEST_F(FileLimitTest, BinaryExCutShortRemovesOnlyItsOwnPartialFile) {
  // Into a fresh target, and into one that names an existing file: either
  // way the bytes land under a fresh name, which goes again; the existing
  // file and the target's range stay as they were.
  for (bool names_a_file : {false, true}) {
    SCOPED_TRACE(names_a_file);
    TempDir dir;
    const std::string kept = dir.Write("kept", "received before");
    if (sv_[0] < 0) {
      ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv_));
    }
    const std::string prefix = std::string("\x43\x10\x00\x06", 4) + "binary";
    std::thread peer([&] { SendZeros(1 << 20, 100000, prefix); });
    PStream in;
    in.SetBinaryDir(dir.path());
    in.SetDefaultHashAlgo("sha256");
    PObject::binary_ex_type before;
    if (names_a_file) before.path = kept, before.offset = before.length = 15;
    PObject value(before);
    EXPECT_EQ(-2, Receive(&in, &value));
    peer.join();
    EXPECT_EQ("received before", ReadFile(kept));
    EXPECT_TRUE(value.AsBinaryEx() == before);
    std::unique_ptr<FILE, int (*)(FILE*)> ls(popen(("ls -A '" + dir.path() + "'").c_str(), "r"),
                                            pclose);
    char line[256];
    ASSERT_NE(nullptr, fgets(line, sizeof(line), ls.get()));
    EXPECT_EQ("kept\n", std::string(line));
    EXPECT_EQ(nullptr, fgets(line, sizeof(line), ls.get())) << line;
  }
}

}  // namespace
