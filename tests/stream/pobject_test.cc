// PObject: kinds, the never-failing readers, conversions, copies and moves,
// the inline/out-of-line string boundary, buffer blocks and the JSON text.
#include "stream/PObject.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

TEST(PObjectTest, KindsCodesEmptinessAndTruth) {
  PObject array, map, one_member, text("x"), named_binary(PObject::binary_type{0, 0, "/f"});
  array.MutableArray();
  map.MutableMap();
  one_member["k"];
  PObject::buffer_type bytes;
  ASSERT_EQ(0, bytes.Assign("ab", 2));
  const struct {
    PObject value;
    int code;
    bool empty, truth;
  } kCases[] = {
      {PObject(), 0, true, false},
      {array, 1, true, false},
      {map, 2, true, false},
      {one_member, 2, false, true},
      {PObject(0), 3, false, false},
      {PObject(-3), 3, false, true},
      {PObject(""), 4, true, false},
      {text, 4, false, true},
      {PObject(PObject::binary_type()), 5, true, false},
      {named_binary, 5, false, true},
      {PObject(PObject::binary_ex_type()), 6, true, false},
      {PObject(PObject::buffer_type()), 7, true, false},
      {PObject(bytes), 7, false, true},
  };
  for (const auto& c : kCases) {
    const PObject& v = c.value;
    EXPECT_EQ(c.code, v.GetType()) << ToJson(v);
    EXPECT_EQ(c.empty, v.Empty()) << ToJson(v);
    EXPECT_EQ(c.truth, v.AsBool()) << ToJson(v);
    EXPECT_EQ(1, v.IsNull() + v.IsArray() + v.IsMap() + v.IsInteger() + v.IsString() +
                     v.IsBinary() + v.IsBinaryEx() + v.IsBuffer());
  }
}

TEST(PObjectTest, ReadersNeverFailNorInsertAndMutableAccessorsConvert) {
  PObject seven(7);
  EXPECT_EQ(0, PObject("5").AsInteger());
  EXPECT_EQ("", seven.AsString());
  EXPECT_EQ(&PObject::empty_map, &seven.AsMap());
  EXPECT_EQ(&PObject::empty_array, &seven.AsArray());
  EXPECT_EQ(&PObject::empty_binary, &seven.AsBinary());
  EXPECT_EQ(&PObject::empty_binary_ex, &seven.AsBinaryEx());
  EXPECT_EQ(&PObject::empty_buffer, &seven.AsBuffer());
  EXPECT_EQ(&PObject::empty_object, &seven.Lookup("a"));
  EXPECT_TRUE(seven.IsInteger());
  PObject map;
  map["b"] = 2;
  EXPECT_EQ(&PObject::empty_object, &map.Lookup("a"));
  EXPECT_EQ(1u, map.AsMap().size());
  EXPECT_EQ(2, map.Lookup("b").AsInteger());

  // The right kind is kept as is; another kind is cleared first.
  PObject v(42);
  v["x"];
  v["y"] = "text";
  v.MutableMap();
  EXPECT_EQ(R"({"x": null, "y": "text"})", ToJson(v));
  v.MutableArray().push_back(PObject(1));
  EXPECT_EQ("[1]", ToJson(v));
  v.MutableBinaryEx().path = "/p";
  EXPECT_EQ(R"({"offset": 0, "length": 0, "path": "/p", "send_hash": "", "recv_hash": "", )"
            R"("hash_algo": ""})",
            ToJson(v));
  v.Clear();
  EXPECT_TRUE(v.IsNull());
}

TEST(PObjectTest, InlineAndOutOfLineStrings) {
  const std::string fifteen = "abcdefghijklmno", sixteen = fifteen + "p";
  const std::string with_zero("a\0b", 3);  // short, but kept out of line whole
  PObject a(fifteen), b(sixteen), z(with_zero);
  EXPECT_TRUE(a.IsInlineString());
  EXPECT_FALSE(b.IsInlineString());
  EXPECT_FALSE(z.IsInlineString());
  EXPECT_EQ(fifteen, a.AsString());
  EXPECT_EQ(sixteen, b.AsString());
  EXPECT_EQ(with_zero, PObject(z).AsString());
  PObject c;
  c = std::string(sixteen);
  EXPECT_EQ(sixteen, c.AsString());
  c = std::string(fifteen);
  EXPECT_TRUE(c.IsInlineString());
  PObject d(b);
  EXPECT_EQ(sixteen, d.AsString());
  EXPECT_NE(b.AsStringView().data(), d.AsStringView().data());
}

TEST(PObjectTest, DeepCopiesCheapMovesAndOrderedKeys) {
  PObject original;
  original["list"].MutableArray().push_back(PObject("a string longer than fifteen"));
  original["file"] = PObject::binary_type{10, 20, "/data/f"};
  ASSERT_EQ(0, original["bytes"].MutableBuffer().Assign("xyz", 3));
  PObject copy(original);
  EXPECT_EQ(original, copy);
  copy["list"].MutableArray().push_back(PObject(1));
  copy["bytes"].MutableBuffer().data[0] = 'Q';
  EXPECT_EQ(1u, original.Lookup("list").AsArray().size());
  EXPECT_EQ("xyz", original.Lookup("bytes").AsBuffer().View());
  EXPECT_NE(original, copy);

  const PObject::map_type* payload = &original.AsMap();
  PObject moved(std::move(original));
  EXPECT_EQ(payload, &moved.AsMap());
  EXPECT_TRUE(original.IsNull());  // NOLINT: the moved-from value is null
  PObject target(5);
  target = std::move(moved);
  EXPECT_EQ(payload, &target.AsMap());

  // Assigning a member of a value to the value itself.
  target = target.Lookup("file");
  EXPECT_EQ(20u, target.AsBinary().length);
  PObject nest;
  nest["inner"]["deep"] = "x";
  nest = std::move(nest["inner"]);
  EXPECT_EQ("x", nest.Lookup("deep").AsString());

  PObject keys;
  for (const char* key : {"b", "a", "ab", "\xff", "B"}) keys[key] = 0;
  std::string order;
  for (const auto& member : keys.AsMap()) order += std::string(member.first) + ",";
  EXPECT_EQ("B,a,ab,b,\xff,", order);
}

// A member reference survives inserts of other keys, as in a standard map:
// one more member beside the assigned one (the map grows), or none.
TEST(PObjectTest, MemberReferencesSurviveInsertsOfOtherKeys) {
  const std::string text = "a text longer than the slot";
  for (int others : {0, 3}) {
    PObject m;
    for (int i = 0; i < others; ++i) m["k" + std::to_string(i)] = i;
    m["e"] = text;
    const PObject& e = m.Lookup("e");
    m["a"] = m["e"];
    for (int i = 0; i < 100; ++i) m["b" + std::to_string(i)];
    EXPECT_EQ(text + text, m.Lookup("a").AsString() + e.AsString()) << others;
    EXPECT_EQ(&e, &m.Lookup("e"));
  }
}

TEST(PObjectTest, BufferBlocksAreKeptOrReallocated) {
  PObject::buffer_type b;
  b.Zero();  // no block: nothing to do
  const struct {
    uint32_t reserve, capacity;
    bool kept;  // the same block
  } kSteps[] = {{16, 16, false}, {10, 16, true}, {8, 16, true}, {7, 7, false}, {17, 17, false}};
  for (const auto& s : kSteps) {
    const char* block = b.data;
    ASSERT_EQ(0, b.Reserve(s.reserve));
    EXPECT_EQ(s.capacity, b.capacity) << s.reserve;
    EXPECT_TRUE(!s.kept || block == b.data) << s.reserve;
  }
  ASSERT_EQ(0, b.Assign(std::string(16, 'a').data(), 16));
  ASSERT_EQ(0, b.Assign("xyz\0\0\0\0\0", 9));  // 17 >= 9 >= 8: same block, rest zeroed
  EXPECT_EQ(17u, b.capacity);
  EXPECT_EQ(std::string("xyz") + std::string(14, '\0'), std::string(b.data, 17));
  ASSERT_EQ(0, b.Assign("hello", 5));  // 5 < 17 / 2: exactly 5
  EXPECT_EQ(5u, b.capacity);
  EXPECT_EQ("hello", b.View());
  b.Zero();
  EXPECT_EQ(0u, b.length);
  EXPECT_EQ(std::string(5, '\0'), std::string(b.data, 5));
  EXPECT_EQ(0u, PObject::buffer_type(b).capacity);  // nothing in use, nothing copied
}

// Maps, arrays, null and texts are read in the stream tests' expectations.
TEST(PObjectTest, JsonTextOfTheOtherKinds) {
  EXPECT_EQ("-9223372036854775808", ToJson(PObject(INT64_MIN)));
  PObject::buffer_type bytes;
  ASSERT_EQ(0, bytes.Assign("abc", 3));
  EXPECT_EQ(R"({"data_length": 3})", ToJson(PObject(bytes)));
  EXPECT_EQ(R"({"offset": 18446744073709551615, "length": 2, "path": "/p"})",
            ToJson(PObject(PObject::binary_type{UINT64_MAX, 2, "/p"})));
  PObject::binary_ex_type ex{"/q", 1, 2, "sha256", "s", "r"};
  EXPECT_EQ(R"({"offset": 1, "length": 2, "path": "/q", "send_hash": "s", )"
            R"("recv_hash": "r", "hash_algo": "sha256"})",
            ToJson(PObject(ex)));
  EXPECT_EQ(R"("a"b")", ToJson(PObject("a\"b")));  // texts are not escaped
}

}  // namespace
