// PStream byte vectors (both directions, through standard streams and
// through a Channel), key rules, merging of repeated keys, malformed input,
// the error stack, the dump and small binaries.
#include "stream/stream.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "stream/PObject.h"
#include "tests/stream/stream_test_util.h"

namespace {

std::vector<std::string> ListDir(const std::string& path) {
  std::vector<std::string> names;
  DIR* d = opendir(path.c_str());
  if (d == nullptr) return names;
  while (struct dirent* e = readdir(d)) {
    std::string name = e->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

PObject Map(std::initializer_list<std::pair<const char*, PObject>> members) {
  PObject map;
  map.MutableMap();
  for (const auto& m : members) map[m.first] = m.second;
  return map;
}

PObject Array(std::initializer_list<PObject> elements) {
  PObject array;
  for (const PObject& e : elements) array.MutableArray().push_back(e);
  array.MutableArray();
  return array;
}

PObject Buffer(const std::string& bytes) {
  PObject value;
  value.MutableBuffer().Assign(bytes.data(), static_cast<uint32_t>(bytes.size()));
  return value;
}

// Values with exactly one encoding, typed from the format's table.
struct Vector {
  const char* name;
  PObject value;
  std::string bytes;
};

std::vector<Vector> Vectors() {
  return {
      {"null", PObject(), Hex("00 00")},
      {"0", PObject(0), Hex("01 01 00")},
      {"255", PObject(255), Hex("01 01 ff")},
      {"256", PObject(256), Hex("01 02 01 00")},
      {"65535", PObject(65535), Hex("01 02 ff ff")},
      {"65536", PObject(65536), Hex("01 04 00 01 00 00")},
      {"2^32-1", PObject(4294967295LL), Hex("01 04 ff ff ff ff")},
      {"2^32", PObject(4294967296LL), Hex("01 08 00 00 00 01 00 00 00 00")},
      {"-1", PObject(-1), Hex("01 08 ff ff ff ff ff ff ff ff")},
      {"min", PObject(INT64_MIN), Hex("01 08 80 00 00 00 00 00 00 00")},
      {"empty string", PObject(""), Hex("10 00 00")},
      {"x", PObject("x"), Hex("10 00 01 78")},
      {"empty map", Map({}), Hex("42 40")},
      {"empty array", Array({}), Hex("41 40")},
      {"empty buffer", Buffer(""), Hex("20 00 00 00 00")},
      {"buffer", Buffer(std::string("a\0c", 3)), Hex("20 00 00 00 03 61 00 63")},
      {"array", Array({PObject(), PObject("x")}), Hex("41 00 00 10 00 01 78 40")},
      {"map in order", Map({{"b", PObject(1)}, {"a", PObject(2)}}),
       Hex("42 10 00 01 61 01 01 02 10 00 01 62 01 01 01 40")},
      {"nested", Map({{"k", Array({Map({})})}}), Hex("42 10 00 01 6b 41 42 40 40 40")},
  };
}

TEST(PStreamTest, ByteVectorsBothWaysOverStreamsAndChannels) {
  for (const Vector& v : Vectors()) {
    SCOPED_TRACE(v.name);
    std::string bytes;
    ASSERT_EQ(0, EncodeToString(v.value, &bytes));
    EXPECT_EQ(ToHex(v.bytes), ToHex(bytes));
    ASSERT_EQ(0, EncodeThroughChannel(v.value, &bytes));
    EXPECT_EQ(ToHex(v.bytes), ToHex(bytes));

    PObject back;
    ASSERT_EQ(0, DecodeFromString(v.bytes, &back));
    EXPECT_EQ(ToJson(v.value), ToJson(back));
    EXPECT_TRUE(v.value == back);
    PObject through_channel;
    ASSERT_EQ(0, DecodeThroughChannel(v.bytes, &through_channel));
    EXPECT_TRUE(v.value == through_channel);
  }
}

TEST(PStreamTest, KeysStringsAndIntegerWidthsOnInput) {
  // A leading '_' is dropped on the way out; the reader keeps what arrives.
  PObject agent = Map({{"_agent", PObject("x")}});
  std::string bytes;
  ASSERT_EQ(0, EncodeToString(agent, &bytes));
  EXPECT_EQ(ToHex(Hex("42") + WireString("agent") + WireString("x") + Hex("40")), ToHex(bytes));
  PObject back;
  ASSERT_EQ(0, DecodeFromString(bytes, &back));
  EXPECT_EQ("x", back.Lookup("agent").AsString());
  EXPECT_TRUE(back.Lookup("_agent").IsNull());
  PObject underscore_only = Map({{"_", PObject(1)}});
  ASSERT_EQ(0, EncodeToString(underscore_only, &bytes));
  EXPECT_EQ(ToHex(Hex("42 10 00 00 01 01 01 40")), ToHex(bytes));

  // 65,537 bytes travel as length 1 and the first byte; 65,535 whole.
  std::string long_text(65537, 'b');
  long_text[0] = 'a';
  ASSERT_EQ(0, EncodeToString(PObject(long_text), &bytes));
  EXPECT_EQ(ToHex(Hex("10 00 01 61")), ToHex(bytes));
  std::string longest(65535, 'z');
  ASSERT_EQ(0, EncodeToString(PObject(longest), &bytes));
  ASSERT_EQ(3u + 65535u, bytes.size());
  ASSERT_EQ(0, DecodeFromString(bytes, &back));
  EXPECT_EQ(longest, back.AsString());

  // Widths the writer never picks are still read.
  struct {
    const char* hex;
    int64_t value;
  } const kInputs[] = {
      {"01 00", 0},
      {"01 02 00 05", 5},
      {"01 03 01 00 00", 65536},
      {"01 08 00 00 00 00 00 00 00 07", 7},
      {"01 08 ff ff ff ff ff ff ff fe", -2},
  };
  for (const auto& in : kInputs) {
    SCOPED_TRACE(in.hex);
    PObject value("previous");
    ASSERT_EQ(0, DecodeFromString(Hex(in.hex), &value));
    ASSERT_TRUE(value.IsInteger());
    EXPECT_EQ(in.value, value.AsInteger());
  }

  // Texts with zero bytes and all byte values come back unchanged.
  std::string all_bytes;
  for (int i = 0; i < 256; ++i) all_bytes.push_back(static_cast<char>(i));
  PObject odd = Map({{"\x01\xff", PObject(std::string("\0\0", 2))}, {"all", PObject(all_bytes)}});
  ASSERT_EQ(0, EncodeToString(odd, &bytes));
  PObject odd_back;
  ASSERT_EQ(0, DecodeFromString(bytes, &odd_back));
  EXPECT_TRUE(odd == odd_back);
}

TEST(PStreamTest, RepeatedKeysAndReusedTargets) {
  const std::string k = WireString("k");
  PObject value;
  // A scalar replaces; arrays append; maps merge; another kind replaces.
  ASSERT_EQ(0, DecodeFromString(Hex("42") + k + Hex("01 01 01") + k + WireString("s") + Hex("40"),
                                &value));
  EXPECT_EQ("s", value.Lookup("k").AsString());
  ASSERT_EQ(0, DecodeFromString(
                   Hex("42") + k + Hex("41 01 01 01 40") + k + Hex("41 01 01 02 40") + Hex("40"),
                   &value));
  EXPECT_EQ("{\"k\": [1, 2]}", ToJson(value));
  value.Clear();
  ASSERT_EQ(0, DecodeFromString(Hex("42") + k + Hex("42") + WireString("a") + Hex("01 01 01 40") +
                                    k + Hex("42") + WireString("b") + Hex("01 01 02 40") + Hex("40"),
                                &value));
  EXPECT_EQ("{\"k\": {\"a\": 1, \"b\": 2}}", ToJson(value));
  ASSERT_EQ(0, DecodeFromString(Hex("42") + k + Hex("41 40") + k + Hex("00 00 40"), &value));
  EXPECT_EQ("{\"k\": null}", ToJson(value));

  // The target of Recv is reused the same way.
  PObject reply = Map({{"old", PObject(1)}});
  ASSERT_EQ(0, DecodeFromString(Hex("42") + WireString("new") + Hex("01 01 02 40"), &reply));
  EXPECT_EQ("{\"new\": 2, \"old\": 1}", ToJson(reply));
  PObject buffer = Buffer("0123456789abcdef");
  const char* block = buffer.AsBuffer().data;
  ASSERT_EQ(0, DecodeFromString(Hex("20 00 00 00 09 41 42 43 44 45 46 47 48 49"), &buffer));
  EXPECT_EQ("ABCDEFGHI", buffer.AsBuffer().View());
  EXPECT_EQ(block, buffer.AsBuffer().data);  // 16 >= 9 >= 8: same block
}

TEST(PStreamTest, MalformedInputFailsCleanly) {
  TempDir dir;
  LogCapture log(dir);
  struct {
    const char* name;
    std::string bytes;
    int rc;
    const char* message;  // expected in the log, or null
  } const kCases[] = {
      {"null length 1", Hex("00 01"), -5, "expect length 0, but we've got 1"},
      {"key not a string", Hex("42 01 01 05"), -5, "PStream: expect string, but get tag 1"},
      {"unknown tag", Hex("07"), -5, nullptr},
      {"end marker alone", Hex("40"), -5, nullptr},
      {"end marker as a member", Hex("42 10 00 01 61 40"), -5, nullptr},
      {"integer length 200", Hex("01 c8 00 00"), -5, nullptr},
      {"integer length 9", Hex("01 09 00 00 00 00 00 00 00 00 00"), -5, nullptr},
      {"binary_ex key not a string", Hex("43 00 00"), -5, "PStream: expect string, but get tag 0"},
      {"empty input", "", -1, nullptr},
      {"cut string", Hex("10 00 05 61 62"), -1, nullptr},
      {"open map", Hex("42 10 00 01 61 00 00"), -1, nullptr},
      {"binary without a channel", Hex("30 00 00 00 00 00 00 00 00"), -2, nullptr},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    PObject value;
    EXPECT_EQ(c.rc, DecodeFromString(c.bytes, &value));
    if (c.message != nullptr) {
      EXPECT_NE(std::string::npos, log.Text().find(c.message));
    }
  }
  // Over a channel, input that stops early is the channel's failure.
  PObject value;
  EXPECT_EQ(-2, DecodeThroughChannel(Hex("10 00 05 61 62"), &value));
  EXPECT_NE(std::string::npos, log.Messages().find("Channel: -2\n"));
}

TEST(PStreamTest, NestingIsBounded) {
  const int limit = PStream::kMaxDepth;
  std::string deepest_allowed = std::string(limit, '\x41') + std::string(limit, '\x40');
  PObject value;
  ASSERT_EQ(0, DecodeFromString(deepest_allowed, &value));
  int depth = 0;
  for (const PObject* v = &value; v->IsArray(); v = v->AsArray().empty() ? nullptr : &v->AsArray()[0]) {
    ++depth;
    if (v->AsArray().empty()) break;
  }
  EXPECT_EQ(limit, depth);

  EXPECT_EQ(-5, DecodeFromString(std::string(limit + 1, '\x41') + std::string(limit + 1, '\x40'),
                                 &value));
  EXPECT_EQ(-5, DecodeThroughChannel(std::string(200000, '\x41'), &value));
  // Maps and binary_ex count as levels too.
  std::string maps;
  for (int i = 0; i <= limit; ++i) maps += Hex("42") + WireString("m");
  EXPECT_EQ(-5, DecodeFromString(maps, &value));
  std::string mixed = std::string(limit, '\x41') + Hex("43");
  EXPECT_EQ(-5, DecodeFromString(mixed, &value));
}

TEST(PStreamTest, AnnouncedLengthsCostOnlyWhatArrives) {
  // 4 GiB announced, three bytes sent: the block holds what arrived.
  PObject value;
  EXPECT_EQ(-2, DecodeThroughChannel(Hex("20 ff ff ff ff 61 62 63"), &value));
  ASSERT_TRUE(value.IsBuffer());
  EXPECT_LE(value.AsBuffer().capacity, 4096u);
  value.Clear();
  EXPECT_EQ(-1, DecodeFromString(Hex("20 ff ff ff ff 61 62 63"), &value));
  EXPECT_LE(value.AsBuffer().capacity, 4096u);

  // Large buffers arrive whole through the growing pieces.
  std::string big(3 * 1024 * 1024 + 17, '\0');
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7);
  PObject original = Buffer(big);
  std::string bytes;
  ASSERT_EQ(0, EncodeToString(original, &bytes));
  PObject back;
  ASSERT_EQ(0, DecodeFromString(bytes, &back));
  EXPECT_TRUE(back.AsBuffer().View() == big);
}

TEST(PStreamTest, SizeCapCountsMemoryNotWireBytes) {
  std::string empties = "\x41";
  for (int i = 0; i < 100000; ++i) empties += "\x41\x40";
  empties += "\x40";
  std::string map = Hex("42") + WireString("action") + WireString("fast_monitor") + Hex("40");
  struct {
    const char* name;
    std::string bytes;
    int rc;           // with a cap of 1 MiB
    int rc_uncapped;  // without a cap
  } const kCases[] = {
      // 200 KB on the wire, several MiB once decoded.
      {"empty arrays", empties, -5, 0},
      {"4 GiB buffer announced", Hex("20 ff ff ff ff 61"), -5, -1},
      {"a request", map, 0, 0},
      {"buffer under the cap", Hex("20 00 01 90 00") + std::string(102400, 'b'), 0, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    PStream capped;
    capped.SetSizeCap(1 << 20);
    PObject value;
    EXPECT_EQ(c.rc, DecodeThroughChannel(c.bytes, &value, &capped));
    EXPECT_EQ(c.rc_uncapped, DecodeFromString(c.bytes, &value));
  }
}

TEST(PStreamTest, RefusedBinariesOpenNoFile) {
  TempDir dir;
  LogCapture log(dir);
  const std::string kInputs[] = {
      Hex("30 00 00 00 00 00 00 00 03 61 62 63"),
      Hex("42") + WireString("f") + Hex("30 00 00 00 00 00 00 00 03 61 62 63 40"),
      Hex("43") + WireString("binary") + Hex("30 00 00 00 00 00 00 00 01 61 40"),
  };
  for (const std::string& input : kInputs) {
    PStream stream;
    stream.SetRefuseBinaries(true);
    stream.SetBinaryDir(dir.path());
    PObject value;
    EXPECT_EQ(-5, DecodeThroughChannel(input, &value, &stream));
  }
  // Only the log file is in the directory.
  EXPECT_EQ(std::vector<std::string>{"test.log"}, ListDir(dir.path()));
}

TEST(PStreamTest, ErrorStackNamesTheFailingMember) {
  TempDir dir;
  LogCapture log(dir);
  PObject value;
  std::string input = Hex("42") + WireString("outer") + Hex("42") + WireString("inner") + Hex("07");
  ASSERT_EQ(-5, DecodeFromString(input, &value));
  EXPECT_NE(std::string::npos, log.Messages().find("Error stack: outer.inner\n"));

  // The state is reset: the same stream reads the next value.
  PStream stream;
  std::string two = Hex("00 01");
  EXPECT_EQ(-5, DecodeFromString(two, &value, &stream));
  EXPECT_EQ(0, DecodeFromString(Hex("42") + WireString("a") + Hex("00 00 40"), &value, &stream));
  // An array member is named by its map key alone.
  ASSERT_EQ(-5, DecodeFromString(Hex("42") + WireString("list") + Hex("41 01 01 01 00 02"), &value));
  EXPECT_NE(std::string::npos, log.Messages().find("Error stack: list\n"));
}

TEST(PStreamTest, DumpAtDebugLevel) {
  TempDir dir;
  LogCapture log(dir, LOG_LEVEL_DEBUG);
  PObject value = Map({{"k", Array({PObject(7), Buffer("ab")})}, {"s", PObject("t")}});
  std::string bytes;
  ASSERT_EQ(0, EncodeToString(value, &bytes));
  EXPECT_EQ(
      "{\n"
      "  \"k\"\n"
      "  [\n"
      "    7\n"
      "    2\n"
      "  ]\n"
      "  \"s\"\n"
      "  \"t\"\n"
      "}\n",
      log.Messages());
  PObject back;
  ASSERT_EQ(0, DecodeFromString(bytes, &back));
  EXPECT_NE(std::string::npos, log.Messages().find("    7\n    \"2\"\n  ]\n"));

  // Indentation stops growing at 22 blanks.
  PObject deep;
  PObject* at = &deep;
  for (int i = 0; i < 13; ++i) {
    at->MutableArray().emplace_back();
    at = &at->MutableArray().back();
  }
  *at = 5;
  TempDir dir2;
  LogCapture log2(dir2, LOG_LEVEL_DEBUG);
  ASSERT_EQ(0, EncodeToString(deep, &bytes));
  EXPECT_NE(std::string::npos, log2.Messages().find("\n" + std::string(22, ' ') + "5\n"));
  EXPECT_NE(std::string::npos, log2.Messages().find("\n" + std::string(20, ' ') + "[\n"));
  EXPECT_EQ(std::string::npos, log2.Messages().find(std::string(23, ' ')));
}

TEST(PStreamTest, TagTable) {
  // Typed from the format's table, not from the code.
  struct {
    uint8_t tag;
    PObject::Type type;
  } const kTags[] = {
      {0x00, PObject::kNull},   {0x01, PObject::kInteger}, {0x10, PObject::kString},
      {0x20, PObject::kBuffer}, {0x30, PObject::kBinary},  {0x41, PObject::kArray},
      {0x42, PObject::kMap},    {0x43, PObject::kBinaryEx},
  };
  for (const auto& t : kTags) {
    PObject::Type type;
    ASSERT_EQ(1, PStream::TypeOfTag(t.tag, &type));
    EXPECT_EQ(t.type, type);
    EXPECT_EQ(t.tag, PStream::TagOfType(t.type));
  }
  int value_tags = 0;
  for (int tag = 0; tag < 256; ++tag) {
    PObject::Type type;
    value_tags += PStream::TypeOfTag(static_cast<uint8_t>(tag), &type);
  }
  EXPECT_EQ(8, value_tags);  // 0x40 and everything else announce no value
}

TEST(PStreamTest, TemporaryNames) {
  const std::string alphabet =
      "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_";
  std::string a = PStream::TemporaryName(), b = PStream::TemporaryName();
  EXPECT_NE(a, b);
  for (const std::string& name : {a, b}) {
    ASSERT_EQ(8u, name.size());
    EXPECT_EQ(std::string::npos, name.find_first_not_of(alphabet));
  }
  // Names drawn from several threads at once stay distinct.
  std::vector<std::string> names(4 * 200);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&names, t] {
      for (int i = 0; i < 200; ++i) names[t * 200 + i] = PStream::TemporaryName();
    });
  }
  for (std::thread& t : threads) t.join();
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names.end(), std::adjacent_find(names.begin(), names.end()));
}

// ---- small binaries over a socket pair ----

class BinaryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv_));
    ASSERT_EQ(0, sender_.Open(sv_[0], false));
    ASSERT_EQ(0, receiver_.Open(sv_[1], false));
  }

  TempDir dir_;
  int sv_[2];
  Channel sender_, receiver_;
};

TEST_F(BinaryTest, RangeTravelsAsItsBytesAndLandsUnderBinaryDir) {
  std::string content(300, '\0');
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i);
  std::string source = dir_.Write("source", content);
  ASSERT_EQ(0, mkdir(dir_.File("x").c_str(), 0755));

  PObject value(PObject::binary_type{100, 50, source});
  PStream out;
  ASSERT_EQ(0, out.Send(&sender_, value));

  std::string raw(1 + 8 + 50, '\0');
  ASSERT_EQ(0, receiver_.Read(&raw[0], raw.size()));
  EXPECT_EQ(ToHex(Hex("30 00 00 00 00 00 00 00 32") + content.substr(100, 50)), ToHex(raw));

  // Same again, now received.
  ASSERT_EQ(0, out.Send(&sender_, value));
  PStream in;
  in.SetBinaryDir(dir_.File("x"));
  PObject got;
  ASSERT_EQ(0, in.Recv(&receiver_, &got));
  ASSERT_TRUE(got.IsBinary());
  const std::string prefix = dir_.File("x") + "/";
  ASSERT_EQ(prefix.size() + 8, got.AsBinary().path.size());
  EXPECT_EQ(prefix, got.AsBinary().path.substr(0, prefix.size()));
  EXPECT_EQ(50u, got.AsBinary().offset);
  EXPECT_EQ(50u, got.AsBinary().length);
  EXPECT_EQ(content.substr(100, 50), ReadFile(got.AsBinary().path));
  struct stat st;
  ASSERT_EQ(0, stat(got.AsBinary().path.c_str(), &st));
  EXPECT_EQ(0644u, st.st_mode & 0777);
}

TEST_F(BinaryTest, BinaryExCarriesBothDigests) {
  std::string source = dir_.Write("source", "hello world\n");
  PObject::binary_ex_type ex;
  ex.path = source;
  ex.length = 12;
  ex.hash_algo = "sha256";
  PStream out;
  ASSERT_EQ(0, out.Send(&sender_, PObject(ex)));
  const std::string digest = "a948904f2f0f479b8f8197694b30184b0d2ed1c1cd2a1ec0fb85d299a192a447";
  std::string expected = Hex("43") + WireString("binary") + Hex("30 00 00 00 00 00 00 00 0c") +
                         "hello world\n" + WireString("send_hash") + WireString(digest) + Hex("40");
  std::string raw(expected.size(), '\0');
  ASSERT_EQ(0, receiver_.Read(&raw[0], raw.size()));
  EXPECT_EQ(ToHex(expected), ToHex(raw));

  // Received with the default digest of the receiving stream.
  ASSERT_EQ(0, out.Send(&sender_, PObject(ex)));
  PStream in;
  in.SetBinaryDir(dir_.path());
  in.SetDefaultHashAlgo("sha256");
  PObject got;
  ASSERT_EQ(0, in.Recv(&receiver_, &got));
  const PObject::binary_ex_type& r = got.AsBinaryEx();
  EXPECT_EQ(digest, r.send_hash);
  EXPECT_EQ(digest, r.recv_hash);
  EXPECT_EQ("sha256", r.hash_algo);
  EXPECT_EQ(12u, r.length);
  EXPECT_EQ("hello world\n", ReadFile(r.path));

  // Without any digest the hash travels empty.
  ex.hash_algo.clear();
  ASSERT_EQ(0, out.Send(&sender_, PObject(ex)));
  PStream plain;
  plain.SetDiscardBinaries(true);
  PObject discarded;
  ASSERT_EQ(0, plain.Recv(&receiver_, &discarded));
  EXPECT_EQ("", discarded.AsBinaryEx().send_hash);
  EXPECT_EQ("/dev/null", discarded.AsBinaryEx().path);
  EXPECT_EQ(12u, discarded.AsBinaryEx().length);  // what went by
}

TEST_F(BinaryTest, SenderProgressCountsFileBytesUpToTheLastPiece) {
  for (size_t size : {size_t{65536}, size_t{1000}}) {
    SCOPED_TRACE(size);
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
    ASSERT_FALSE(done.empty());
    EXPECT_EQ(size, done.back());
    EXPECT_TRUE(std::is_sorted(done.begin(), done.end()));
    EXPECT_TRUE(size != 1000 || done.size() == 1) << done.size();
  }
}

TEST_F(BinaryTest, DigestOfABinaryExIsClearedAfterIt) {
  // The stream's own binary digest is not put back after a binary_ex: the
  // plain binary that follows is not digested.
  std::string first = dir_.Write("first", "hello world\n");
  std::string second = dir_.Write("second", "another file");
  PObject::binary_ex_type ex;
  ex.path = first;
  ex.length = 12;
  PObject value;
  value.MutableArray().emplace_back(ex);
  value.MutableArray().emplace_back(PObject::binary_type{0, 12, second});
  PStream out;
  out.SetDefaultHashAlgo("md5");
  ASSERT_EQ(0, out.Send(&sender_, value));
  PStream in;
  in.SetBinaryDir(dir_.path());
  in.SetDefaultHashAlgo("md5");
  in.SetBinaryHashAlgo("sha256");
  PObject got;
  ASSERT_EQ(0, in.Recv(&receiver_, &got));
  EXPECT_EQ("6f5902ac237024bdd0c176cb93063dc4", in.GetLastHash());
}

TEST_F(BinaryTest, SendFailures) {
  LogCapture log(dir_);
  PStream out;
  // A file that cannot be opened.
  EXPECT_EQ(-1, out.Send(&sender_, PObject(PObject::binary_type{0, 1, dir_.File("missing")})));
  EXPECT_NE(std::string::npos, log.Messages().find("open(" + dir_.File("missing") + ") error\n"));
  // An unknown digest.
  std::string source = dir_.Write("s", "abc");
  PObject::binary_ex_type ex;
  ex.path = source;
  ex.length = 3;
  ex.hash_algo = "no-such-digest";
  EXPECT_EQ(-1, out.Send(&sender_, PObject(ex)));
  EXPECT_NE(std::string::npos,
            log.Messages().find("failed to initial channel hashing 'no-such-digest'\n"));
  // Binaries need a channel.
  std::string bytes;
  EXPECT_EQ(-2, EncodeToString(PObject(PObject::binary_type{0, 3, source}), &bytes));
  EXPECT_NE(std::string::npos, log.Messages().find("ostream not supported send binary file.\n"));
  // No channel at all.
  EXPECT_EQ(-1, out.Send(static_cast<Channel*>(nullptr), PObject()));
  EXPECT_NE(std::string::npos, log.Messages().find("shouldn't reach here.\n"));
  // A closed channel.
  sender_.Close();
  EXPECT_EQ(-2, out.Send(&sender_, PObject(1)));
}

}  // namespace
