// PStream values, decoded from standard streams and from a Channel: input
// that only another writer makes, every hostile shape of input (malformed,
// too deep, oversized, files where none are taken), the error stack and the
// dump.  The bytes of each kind both ways are the cross-check's, against the
// Python codec (tests/peers); files are stream_file_test.cc's.
#include "stream/stream.h"

#include <gtest/gtest.h>

#include "stream/PObject.h"
#include "tests/stream/stream_test_util.h"

namespace {

const char kTooDeep[] = "PStream: values nested deeper than 128 levels";

PObject Map(std::initializer_list<std::pair<const char*, PObject>> members) {
  PObject map;
  map.MutableMap();
  for (const auto& m : members) map[m.first] = m.second;
  return map;
}

PObject Array(std::initializer_list<PObject> elements) {
  PObject array;
  array.MutableArray() = elements;
  return array;
}

PObject Buffer(const std::string& bytes) {
  PObject value;
  value.MutableBuffer().Assign(bytes.data(), static_cast<uint32_t>(bytes.size()));
  return value;
}

// Valid input that this encoder never writes: integer widths it does not
// pick (also where the window holds the value whole: in an array, a short
// scalar, a plain member) and keys that come twice (a scalar replaces,
// arrays append, maps merge, another kind replaces), decoded into a target
// that holds a map, which is merged into the same way.
TEST(PStreamTest, InputOnlyAnotherWriterMakes) {
  const std::string k = WireString("k"), text(16, 't');
  const struct {
    std::string bytes;
    std::string json;
  } kInputs[] = {
      {Hex("01 00"), "0"},
      {Hex("01 02 00 05"), "5"},
      {Hex("01 03 01 00 00"), "65536"},
      {Hex("01 08 00 00 00 00 00 00 00 07"), "7"},
      {Hex("01 08 ff ff ff ff ff ff ff fe"), "-2"},
      {Hex("41 01 00 01 00 01 01 09 01 00 40"), "[0, 0, 9, 0]"},
      {Hex("41 01 00") + WireString(text) + Hex("40"), "[0, \"" + text + "\"]"},
      {Hex("42") + WireString("a") + Hex("01 00") + WireString("b") + WireString(text + text) +
           Hex("40"),
       "{\"a\": 0, \"b\": \"" + text + text + "\", \"old\": 1}"},
      {Hex("42") + k + Hex("01 01 01") + k + WireString("s") + Hex("40"),
       R"({"k": "s", "old": 1})"},
      {Hex("42") + k + Hex("41 01 01 01 40") + k + Hex("41 01 01 02 40 40"),
       R"({"k": [1, 2], "old": 1})"},
      {Hex("42") + k + Hex("42") + WireString("a") + Hex("01 01 01 40") + k + Hex("42") +
           WireString("b") + Hex("01 01 02 40 40"),
       R"({"k": {"a": 1, "b": 2}, "old": 1})"},
      {Hex("42") + k + Hex("41 40") + k + Hex("00 00 40"), R"({"k": null, "old": 1})"},
      {Hex("42") + WireString("old") + Hex("41 40 40"), R"({"old": []})"},
  };
  for (const auto& in : kInputs) {
    PObject value = Map({{"old", PObject(1)}}), from_channel = value;
    ASSERT_EQ(0,
              DecodeFromString(in.bytes, &value) + DecodeThroughChannel(in.bytes, &from_channel));
    EXPECT_EQ(in.json + in.json, ToJson(value) + ToJson(from_channel));
  }
  PObject target = Map({{"old", PObject(1)}});
  const PObject& old = target.Lookup("old");  // a reference into the map outlives the merge
  ASSERT_EQ(0, DecodeFromString(Hex("42") + k + Hex("01 01 01 40"), &target));
  EXPECT_EQ(1, old.AsInteger());
  // A buffer decoded into a longer one.
  PObject buffer = Buffer("0123456789abcdef");
  ASSERT_EQ(0, DecodeFromString(Hex("20 00 00 00 09 41 42 43 44 45 46 47 48 49"), &buffer));
  EXPECT_EQ("ABCDEFGHI", buffer.AsBuffer().View());
  ASSERT_EQ(0, DecodeFromString(Hex("20 00 00 00 00"), &buffer));
  EXPECT_EQ("", buffer.AsBuffer().View());
}

// One stream reads every input in turn: a failure leaves nothing behind
// that the next input would meet (depth, error stack, staged bytes).
TEST(PStreamTest, MalformedAndTooDeepInputFailsCleanlyAndNamesTheFailingMember) {
  TempDir dir;
  LogCapture log(dir, "");
  std::string maps, stack = "m";
  for (int i = 0; i < 129; ++i) maps += Hex("42") + WireString("m");
  for (int i = 1; i < 128; ++i) stack += ".m";
  const struct {
    std::string bytes;
    int rc;
    const char* line;  // the ERROR line before the error stack ("" = none)
    std::string stack;
  } kCases[] = {
      {Hex("00 01"), -5, "expect length 0, but we've got 1", ""},
      {Hex("42 01 01 05"), -5, "PStream: expect string, but get tag 1", ""},
      {Hex("43 00 00"), -5, "PStream: expect string, but get tag 0", ""},
      {Hex("07"), -5, "PStream: unknown tag 7", ""},
      {Hex("40"), -5, "PStream: unknown tag 64", ""},
      {Hex("42 10 00 01 61 40"), -5, "PStream: unknown tag 64", "a"},
      {Hex("01 c8 00 00"), -5, "PStream: integer of 200 bytes, at most 8 expected", ""},
      {Hex("01 09") + std::string(9, '\0'), -5, "PStream: integer of 9 bytes, at most 8 expected",
       ""},
      {"", -1, "", ""},
      {Hex("10 00 05 61 62"), -1, "", ""},
      {Hex("20 00"), -1, "", ""},
      {Hex("42 10 00"), -1, "", ""},
      {Hex("42 10 00 01 61 00 00"), -1, "", ""},
      {Hex("30 00 00 00 00 00 00 00 00"), -2, "istream not supported receive binary file.", ""},
      // 128 levels of arrays, maps and binary_ex, and no more.
      {std::string(128, '\x41') + std::string(128, '\x40'), 0, "", ""},
      {std::string(129, '\x41') + std::string(129, '\x40'), -5, kTooDeep, ""},
      {maps, -5, kTooDeep, stack},
      {std::string(128, '\x41') + Hex("43"), -5, kTooDeep, ""},
      {Hex("42") + WireString("outer") + Hex("42") + WireString("inner") + Hex("07"), -5,
       "PStream: unknown tag 7", "outer.inner"},
      // A member of a binary_ex is decoded aside, and gone before the
      // binary_ex sees it fail: its keys are named while they live.
      {Hex("43") + WireString("binary") + Hex("42") + WireString("a key past the slot") + Hex("07"),
       -5, "PStream: unknown tag 7", "binary.a key past the slot"},
      {Hex("42") + WireString("a") + Hex("00 00 40"), 0, "", ""},
      {Hex("42") + WireString("list") + Hex("41 01 01 01 00 02"), -5,
       "expect length 0, but we've got 2", "list"},  // an element: its map key alone
  };
  PStream stream;
  for (const auto& c : kCases) {
    PObject value;
    EXPECT_EQ(c.rc, DecodeFromString(c.bytes, &value, &stream)) << c.line;
    const std::string first = *c.line ? "ERROR " + std::string(c.line) + "\n" : "";
    EXPECT_EQ(c.rc == 0 ? "" : first + "ERROR Error stack: " + c.stack + "\n", log.Take());
  }
  // Over a channel, input that stops early is the channel's failure.
  PObject value;
  EXPECT_EQ(-2, DecodeThroughChannel(Hex("10 00 05 61 62"), &value));
  EXPECT_EQ("WARNING Channel: -2\nERROR Error stack: \n", log.Take());
}

TEST(PStreamTest, AnnouncedLengthsCostOnlyWhatArrivesAndTheCapCountsMemory) {
  // 4 GiB announced, three bytes sent: the block holds what arrived.
  PObject value;
  EXPECT_EQ(-2, DecodeThroughChannel(Hex("20 ff ff ff ff 61 62 63"), &value));
  EXPECT_LE(value.AsBuffer().capacity, 4096u);
  value.Clear();
  EXPECT_EQ(-1, DecodeFromString(Hex("20 ff ff ff ff 61 62 63"), &value));
  EXPECT_LE(value.AsBuffer().capacity, 4096u);
  // Large buffers arrive whole through the growing pieces.
  std::string big(300017, '\0');
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7);
  std::string bytes;
  ASSERT_EQ(0, EncodeToString(Buffer(big), &bytes) + DecodeFromString(bytes, &value));
  EXPECT_EQ(big, value.AsBuffer().View());

  std::string empties = "\x41";
  for (int i = 0; i < 20000; ++i) empties += "\x41\x40";
  empties += "\x40";
  const struct {
    std::string bytes;
    int rc;           // with a cap of 256 KiB
    int rc_uncapped;  // without a cap
  } kCases[] = {
      {empties, -5, 0},  // 40 KB on the wire, more than 256 KiB once decoded
      // Near 4 GiB: refused whatever the width of size_t (a charge computed
      // in it would wrap to almost nothing on a 32-bit build).
      {Hex("20 ff ff ff ff 61"), -5, -1},
      {Hex("20 ff ff ff e4 61"), -5, -1},
      {Hex("42") + WireString("action") + WireString("fast_monitor") + Hex("40"), 0, 0},
      {Hex("20 00 01 90 00") + std::string(102400, 'b'), 0, 0},
      {Hex("42") + WireString(std::string(200, 'k')) + Hex("00 00 40"), 0, 0},
  };
  for (const auto& c : kCases) {
    PStream capped;
    capped.SetSizeCap(256 << 10);
    EXPECT_EQ(c.rc, DecodeThroughChannel(c.bytes, &value, &capped)) << c.bytes.size();
    EXPECT_EQ(c.rc_uncapped, DecodeFromString(c.bytes, &value)) << c.bytes.size();
  }

  // What a target already holds costs nothing more: 100 bytes into a buffer
  // take one 112-byte chunk, as do the first four 24-byte elements of an
  // array; a file resumed into a binary takes no memory.
  TempDir dir;
  const std::string hundred = Hex("20 00 00 00 64") + std::string(100, 'b');
  const std::string file = Hex("30 00 00 00 00 00 00 00 01") + "f";
  const struct {
    PObject target;
    std::string bytes;
    uint64_t cap;
    int rc;
  } kTargets[] = {
      {Buffer("x"), hundred, 112, 0},
      {Buffer("x"), hundred, 111, -5},
      {Array({}), Hex("41 00 00 40"), 112, 0},
      {Array({}), Hex("41 00 00 40"), 111, -5},
      {PObject(PObject::binary_type{0, 0, dir.File("resumed")}), file, 1, 0},
  };
  for (const auto& t : kTargets) {
    PStream capped;
    capped.SetSizeCap(t.cap);
    value = t.target;
    EXPECT_EQ(t.rc, DecodeThroughChannel(t.bytes, &value, &capped)) << t.cap;
  }
}

TEST(PStreamTest, RefusedBinariesOpenNoFile) {
  TempDir dir;
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
  EXPECT_EQ("", RunCommand("ls -A '" + dir.path() + "'"));
}

TEST(PStreamTest, DumpAtDebugLevel) {
  TempDir dir;
  LogCapture log(dir, "stream=7\n");
  PObject value = Map({{"k", Array({PObject(7), Buffer("ab")})}, {"s", PObject("t")}});
  std::string bytes;
  PStream out;  // for both values: nothing of the first is left for the second
  ASSERT_EQ(0, EncodeToString(value, &bytes, &out));
  const std::string dump =
      "DEBUG {\nDEBUG   \"k\"\nDEBUG   [\nDEBUG     7\nDEBUG     2\nDEBUG   ]\n"
      "DEBUG   \"s\"\nDEBUG   \"t\"\nDEBUG }\n";
  EXPECT_EQ(dump, log.Take());
  PObject back;
  ASSERT_EQ(0, DecodeFromString(bytes, &back));
  std::string decoded = dump;  // the buffer's length quoted
  EXPECT_EQ(decoded.replace(decoded.find(" 2\n"), 3, " \"2\"\n"), log.Take());

  // Indentation stops growing at 22 blanks.
  PObject deep(5);
  for (int i = 0; i < 13; ++i) deep = Array({deep});
  ASSERT_EQ(0, EncodeToString(deep, &bytes, &out));
  const std::string deep_dump = log.Take();
  EXPECT_NE(std::string::npos, deep_dump.find("\nDEBUG " + std::string(22, ' ') + "5\n"));
  EXPECT_NE(std::string::npos, deep_dump.find("\nDEBUG " + std::string(20, ' ') + "[\n"));
  EXPECT_EQ(std::string::npos, deep_dump.find("DEBUG " + std::string(23, ' ')));
  ASSERT_EQ(0, DecodeFromString(bytes, &back));
  EXPECT_EQ(deep, back);
}

}  // namespace
