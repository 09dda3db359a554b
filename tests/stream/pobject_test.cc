// PObject: kinds, the never-failing readers, conversions, copies and moves,
// strings either side of the slot's size, buffer contents.  The JSON text is
// read in every expectation of the stream tests.
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
  EXPECT_TRUE(seven.AsMap().empty() && seven.AsArray().empty() && seven.AsBinary().path.empty() &&
              seven.AsBinaryEx().path.empty() && seven.AsBuffer().length == 0 &&
              seven.Lookup("a").IsNull());
  EXPECT_TRUE(seven.IsInteger());
  PObject map;
  map["b"] = 2;
  EXPECT_TRUE(map.Lookup("a").IsNull());
  EXPECT_EQ(R"({"b": 2})", ToJson(map));

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
  v.MutableArray() = {PObject(INT64_MIN), PObject("a\"b")};
  EXPECT_EQ(R"([-9223372036854775808, "a"b"])", ToJson(v));  // texts are not escaped
}

TEST(PObjectTest, CopiesMovesAndStrings) {
  PObject original;
  original["list"].MutableArray().push_back(PObject("a string longer than fifteen"));
  original["file"] = PObject::binary_type{10, 20, "/data/f"};
  ASSERT_EQ(0, original["bytes"].MutableBuffer().Assign("xyz", 3));
  // 15 bytes fit the value's slot, 16 do not; a zero byte is kept.
  original["texts"].MutableArray() = {PObject("abcdefghijklmno"), PObject("abcdefghijklmnop"),
                                      PObject(std::string("a\0b", 3))};
  PObject copy(original);
  EXPECT_EQ(original, copy);
  EXPECT_EQ(R"(["abcdefghijklmno", "abcdefghijklmnop", "a)" + std::string(1, '\0') + R"(b"])",
            ToJson(copy.Lookup("texts")));
  copy["list"].MutableArray().push_back(PObject(1));
  copy["bytes"].MutableBuffer().data[0] = 'Q';
  EXPECT_EQ(1u, original.Lookup("list").AsArray().size());
  EXPECT_EQ("xyz", original.Lookup("bytes").AsBuffer().View());
  EXPECT_NE(original, copy);

  PObject moved(std::move(copy));
  EXPECT_TRUE(copy.IsNull());  // NOLINT: the moved-from value is null
  PObject target("a text longer than the slot");
  target = std::move(moved);
  EXPECT_EQ("Qyz", target.Lookup("bytes").AsBuffer().View());

  // A value assigned from a member of itself, or of its own map.
  target = target.Lookup("file");
  EXPECT_EQ(20u, target.AsBinary().length);
  PObject nest;
  nest["inner"]["deep"] = "x";
  nest = std::move(nest["inner"]);
  EXPECT_EQ(R"({"deep": "x"})", ToJson(nest));
  for (int others : {0, 3}) {  // a member reference survives the map growing
    PObject m;
    for (int i = 0; i < others; ++i) m["k" + std::to_string(i)] = i;
    m["e"] = "a text longer than the slot";
    m["a"] = m["e"];
    EXPECT_EQ("a text longer than the slot", m.Lookup("a").AsString()) << others;
  }

  PObject keys;
  for (const char* key : {"b", "a", "ab", "\xff", "B"}) keys[key] = 0;
  EXPECT_EQ("{\"B\": 0, \"a\": 0, \"ab\": 0, \"b\": 0, \"\xff\": 0}", ToJson(keys));
}

TEST(PObjectTest, BufferContents) {
  PObject::buffer_type b;
  b.Zero();  // no block: nothing to do
  for (const std::string& bytes : {std::string(16, 'a'), std::string("xyz\0\0z", 6),
                                   std::string("hello"), std::string(40, 'b'), std::string()}) {
    ASSERT_EQ(0, b.Assign(bytes.data(), static_cast<uint32_t>(bytes.size())));
    EXPECT_EQ(bytes, b.View());
    EXPECT_EQ(bytes, PObject::buffer_type(b).View());
  }
  ASSERT_EQ(0, b.Assign("abc", 3));
  EXPECT_EQ(R"({"data_length": 3})", ToJson(PObject(b)));
  b.Zero();
  EXPECT_EQ(0u, b.length);
  EXPECT_EQ(std::string(3, '\0'), std::string(b.data, 3));
  PObject::buffer_type moved(std::move(b));
  ASSERT_EQ(0, b.Assign("z", 1));  // NOLINT: a moved-from block is empty and takes bytes again
  EXPECT_EQ("z", b.View());
}

}  // namespace
