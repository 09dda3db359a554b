// PObject: kinds, the never-failing readers, conversions, copies and moves,
// the inline/out-of-line string boundary, buffer reservation and the JSON
// text.
#include "stream/PObject.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

// One value of every kind, with the code and emptiness it must report.
struct KindCase {
  const char* name;
  PObject value;
  int code;
  bool empty;
  bool truth;
};

std::vector<KindCase> KindCases() {
  std::vector<KindCase> cases;
  cases.push_back({"null", PObject(), 0, true, false});
  cases.push_back({"array", PObject(), 1, true, false});
  cases.back().value.MutableArray();
  cases.push_back({"map", PObject(), 2, true, false});
  cases.back().value.MutableMap();
  cases.push_back({"integer 0", PObject(0), 3, false, false});
  cases.push_back({"integer -3", PObject(-3), 3, false, true});
  cases.push_back({"string", PObject(""), 4, true, false});
  cases.push_back({"binary", PObject(PObject::binary_type()), 5, true, false});
  cases.push_back({"binary_ex", PObject(PObject::binary_ex_type()), 6, true, false});
  cases.push_back({"buffer", PObject(PObject::buffer_type()), 7, true, false});
  return cases;
}

TEST(PObjectTest, KindsCodesEmptinessAndTruth) {
  for (const KindCase& c : KindCases()) {
    SCOPED_TRACE(c.name);
    const PObject& v = c.value;
    EXPECT_EQ(c.code, v.GetType());
    EXPECT_EQ(c.empty, v.Empty());
    EXPECT_EQ(c.truth, v.AsBool());
    int hits = v.IsNull() + v.IsArray() + v.IsMap() + v.IsInteger() + v.IsString() +
               v.IsBinary() + v.IsBinaryEx() + v.IsBuffer();
    EXPECT_EQ(1, hits);
  }

  PObject one_member;
  one_member["k"];
  EXPECT_TRUE(one_member.AsBool());
  PObject named_binary(PObject::binary_type{0, 0, "/f"});
  EXPECT_FALSE(named_binary.Empty());
  PObject::buffer_type bytes;
  ASSERT_EQ(0, bytes.Assign("ab", 2));
  EXPECT_TRUE(PObject(bytes).AsBool());
}

TEST(PObjectTest, ReadersNeverFailNorChangeTheValue) {
  PObject five_text("5");
  EXPECT_EQ(0, five_text.AsInteger());
  PObject seven(7);
  EXPECT_EQ("", seven.AsString());
  EXPECT_EQ(&PObject::empty_map, &seven.AsMap());
  EXPECT_EQ(&PObject::empty_array, &seven.AsArray());
  EXPECT_EQ(&PObject::empty_binary, &seven.AsBinary());
  EXPECT_EQ(&PObject::empty_binary_ex, &seven.AsBinaryEx());
  EXPECT_EQ(&PObject::empty_buffer, &seven.AsBuffer());

  // Lookup on an integer, on an empty map and for an absent key: the shared
  // null, and nothing inserted anywhere.
  EXPECT_EQ(&PObject::empty_object, &seven.Lookup("a"));
  EXPECT_TRUE(seven.IsInteger());
  PObject empty_map;
  empty_map.MutableMap();
  EXPECT_EQ(&PObject::empty_object, &empty_map.Lookup("a"));
  EXPECT_TRUE(empty_map.AsMap().empty());
  PObject map;
  map["b"] = 2;
  EXPECT_EQ(&PObject::empty_object, &map.Lookup("a"));
  EXPECT_EQ(1u, map.AsMap().size());
  EXPECT_EQ(2, map.Lookup("b").AsInteger());
  EXPECT_TRUE(PObject::empty_object.IsNull());
  EXPECT_TRUE(PObject::empty_map.empty());
}

TEST(PObjectTest, MutableAccessorsConvert) {
  PObject v(42);
  v["x"];
  ASSERT_TRUE(v.IsMap());
  ASSERT_EQ(1u, v.AsMap().size());
  EXPECT_TRUE(v.Lookup("x").IsNull());

  // The right kind is kept as is; another kind is cleared first.
  v["y"] = "text";
  v.MutableMap();
  EXPECT_EQ(2u, v.AsMap().size());
  v.MutableArray().push_back(PObject(1));
  ASSERT_TRUE(v.IsArray());
  EXPECT_EQ(1u, v.AsArray().size());
  v.MutableBinaryEx().path = "/p";
  EXPECT_EQ("/p", v.AsBinaryEx().path);
  EXPECT_EQ(0u, v.AsBinaryEx().offset);
  EXPECT_EQ("", v.AsBinaryEx().hash_algo);
  v = "now a string";
  EXPECT_TRUE(v.IsString());
  v.Clear();
  EXPECT_TRUE(v.IsNull());
}

TEST(PObjectTest, InlineAndOutOfLineStrings) {
  const std::string fifteen = "abcdefghijklmno";
  const std::string sixteen = "abcdefghijklmnop";
  PObject a(fifteen), b(sixteen);
  EXPECT_TRUE(a.IsInlineString());
  EXPECT_FALSE(b.IsInlineString());
  EXPECT_EQ(fifteen, a.AsString());
  EXPECT_EQ(sixteen, b.AsString());

  // The same through the moving assignment and through copies.
  PObject c;
  c = std::string(sixteen);
  EXPECT_EQ(sixteen, c.AsString());
  c = std::string(fifteen);
  EXPECT_TRUE(c.IsInlineString());
  PObject d(b);
  EXPECT_EQ(sixteen, d.AsString());
  EXPECT_NE(b.AsStringView().data(), d.AsStringView().data());

  // A short text holding a zero byte keeps every byte.
  const std::string with_zero("a\0b", 3);
  PObject z(with_zero);
  EXPECT_FALSE(z.IsInlineString());
  EXPECT_EQ(with_zero, z.AsString());
  EXPECT_EQ(with_zero, PObject(z).AsString());
}

TEST(PObjectTest, DeepCopiesAndCheapMoves) {
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
  PObject holder;
  holder["f"] = PObject::binary_type{1, 2, "/q"};
  holder = holder.Lookup("f").AsBinary();
  EXPECT_EQ("/q", holder.AsBinary().path);
}

TEST(PObjectTest, MapKeysAreOrderedBytewise) {
  PObject map;
  map["b"] = 1;
  map["a"] = 2;
  map["ab"] = 3;
  map["\xff"] = 4;
  map["B"] = 5;
  std::vector<std::string> keys;
  for (const auto& member : map.AsMap()) keys.push_back(member.first);
  EXPECT_EQ((std::vector<std::string>{"B", "a", "ab", "b", "\xff"}), keys);
}

TEST(PObjectTest, BufferReserveKeepsOrReallocates) {
  PObject::buffer_type b;
  ASSERT_EQ(0, b.Reserve(16));
  EXPECT_EQ(16u, b.capacity);
  char* block = b.data;

  ASSERT_EQ(0, b.Reserve(10));  // 16 >= 10 >= 8: kept
  EXPECT_EQ(16u, b.capacity);
  EXPECT_EQ(block, b.data);
  ASSERT_EQ(0, b.Reserve(8));  // the lower edge is kept too
  EXPECT_EQ(16u, b.capacity);
  ASSERT_EQ(0, b.Reserve(7));
  EXPECT_EQ(7u, b.capacity);
  ASSERT_EQ(0, b.Reserve(17));
  EXPECT_EQ(17u, b.capacity);

  ASSERT_EQ(0, b.Assign("hello", 5));
  EXPECT_EQ(5u, b.length);
  EXPECT_EQ(5u, b.capacity);  // 5 < 17 / 2: reallocated to exactly 5
  EXPECT_EQ("hello", b.View());
}

TEST(PObjectTest, BufferZeroAndAssign) {
  PObject::buffer_type b;
  b.Zero();  // no block: nothing to do
  EXPECT_EQ(nullptr, b.data);
  ASSERT_EQ(0, b.Assign("abcdefgh", 8));
  ASSERT_EQ(0, b.Assign("xyz", 4));  // 8 >= 4 >= 4: same block, tail zeroed
  EXPECT_EQ(8u, b.capacity);
  EXPECT_EQ(4u, b.length);
  EXPECT_EQ(std::string("xyz\0\0\0\0\0", 8), std::string(b.data, 8));
  b.Zero();
  EXPECT_EQ(0u, b.length);
  EXPECT_EQ(std::string(8, '\0'), std::string(b.data, 8));

  PObject::buffer_type copy(b);
  EXPECT_EQ(0u, copy.capacity);  // nothing in use, nothing copied
  ASSERT_EQ(0, b.Assign("", 0));
  EXPECT_EQ(0u, b.length);
}

TEST(PObjectTest, JsonText) {
  PObject map;
  map["a"] = 1;
  map["b"].MutableArray().push_back(PObject("x"));
  EXPECT_EQ("{\"a\": 1, \"b\": [\"x\"]}", ToJson(map));

  PObject list;
  list.MutableArray().emplace_back();
  list.MutableArray().back().MutableMap();
  EXPECT_EQ("[{}]", ToJson(list));

  PObject empty_array;
  empty_array.MutableArray();
  EXPECT_EQ("[]", ToJson(empty_array));
  EXPECT_EQ("null", ToJson(PObject()));
  EXPECT_EQ("-9223372036854775808", ToJson(PObject(INT64_MIN)));

  PObject::buffer_type bytes;
  ASSERT_EQ(0, bytes.Assign("abc", 3));
  EXPECT_EQ("{\"data_length\": 3}", ToJson(PObject(bytes)));
  EXPECT_EQ("{\"offset\": 18446744073709551615, \"length\": 2, \"path\": \"/p\"}",
            ToJson(PObject(PObject::binary_type{UINT64_MAX, 2, "/p"})));
  PObject::binary_ex_type ex;
  ex.path = "/q";
  ex.offset = 1;
  ex.length = 2;
  ex.hash_algo = "sha256";
  ex.send_hash = "s";
  ex.recv_hash = "r";
  EXPECT_EQ(
      "{\"offset\": 1, \"length\": 2, \"path\": \"/q\", \"send_hash\": \"s\", "
      "\"recv_hash\": \"r\", \"hash_algo\": \"sha256\"}",
      ToJson(PObject(ex)));
  // Texts are not escaped.
  EXPECT_EQ("\"a\"b\"", ToJson(PObject("a\"b")));
}

}  // namespace
