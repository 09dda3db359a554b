// Base64 against published vectors, its output limit and its refusals.
#include "db/base64.h"

#include <string>

#include "gtest/gtest.h"

namespace {

std::string Encode(const std::string& in, int mode) {
  std::string out = "junk";
  EXPECT_EQ(0, Base64Encode(in, mode, &out)) << mode;
  return out;
}

TEST(Base64Test, ModesVectorsLimitAndRefusals) {
  const char* kVectors[][2] = {{"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},
                               {"foo", "Zm9v"},  {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},
                               {"foobar", "Zm9vYmFy"}};
  for (const auto& v : kVectors) {
    EXPECT_EQ(v[1], Encode(v[0], kBase64Standard));
    std::string back;
    ASSERT_EQ(0, Base64Decode(v[1], kBase64Standard, &back));
    EXPECT_EQ(v[0], back);
  }
  // The URL-safe alphabet differs in its last two characters.
  EXPECT_EQ("-_-_", Encode("\xfb\xff\xbf", kBase64UrlSafeNoPad));
  std::string all, back;
  for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
  for (int mode = 0; mode < 4; ++mode) {
    for (size_t n = 250; n <= 256; ++n) {
      ASSERT_EQ(0, Base64Decode(Encode(all.substr(0, n), mode), mode, &back));
      EXPECT_EQ(all.substr(0, n), back) << mode << " " << n;
    }
  }

  std::string out;
  EXPECT_EQ(0, Base64Encode(std::string(2304, 'a'), kBase64Standard, &out));
  EXPECT_EQ(3072u, out.size());
  EXPECT_EQ(-1, Base64Encode(std::string(2305, 'a'), kBase64Standard, &out));
  EXPECT_EQ("", out);
  EXPECT_EQ(-1, Base64Encode("a", 4, &out));
  EXPECT_EQ(-1, Base64Encode("a", -1, &out));

  const char* kBad[] = {"Zg=", "Z===", "Zm9v=", "Z", "Zm9vY", "Zm 9v", "Zm9v\n", "Z=g=", "Zm=v"};
  for (const char* b : kBad) {
    EXPECT_EQ(-1, Base64Decode(b, kBase64Standard, &out)) << b;
    EXPECT_EQ("", out) << b;
  }
  EXPECT_EQ(-1, Base64Decode("Zg==", 7, &out));
}

}  // namespace
