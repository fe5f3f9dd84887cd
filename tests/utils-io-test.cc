#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <sstream>

#include "test-log-capture.h"
#include "utils/kestrel-io.h"

namespace kestrel {
namespace {

std::string Bytes(const std::string& s) {
  std::string out;
  char buf[4];
  for (unsigned char c : s) {
    std::snprintf(buf, sizeof(buf), "%02X ", c);
    out += buf;
  }
  if (!out.empty()) out.pop_back();
  return out;
}

template <class T>
std::string Written(bool binary, T value) {
  std::ostringstream os;
  WriteBasicType<T>(binary, value, &os);
  return os.str();
}

std::string WrittenVector(bool binary, const std::vector<int32>& v) {
  std::ostringstream os;
  WriteIntegerVector<int32>(binary, v, &os);
  return os.str();
}

TEST(IntegerIoTest, EncodingsAreExact) {
  EXPECT_EQ("04 01 00 00 00", Bytes(Written<int32>(true, 1)));
  EXPECT_EQ("08 FE FF FF FF FF FF FF FF", Bytes(Written<int64>(true, -2)));
  EXPECT_EQ("-7 ", Written<int32>(false, -7));
  EXPECT_EQ("04 00 00 00 00", Bytes(WrittenVector(true, {})));
  EXPECT_EQ("04 02 00 00 00 01 00 00 00 FF FF FF FF", Bytes(WrittenVector(true, {1, -1})));
  EXPECT_EQ("[ 1 2 3 ]\n", WrittenVector(false, {1, 2, 3}));
  EXPECT_EQ("[ ]\n", WrittenVector(false, {}));
}

TEST(IntegerIoTest, RoundTripsInBothModesAndTextReadingIsLenient) {
  for (bool binary : {true, false}) {
    std::stringstream ss;
    WriteBasicType<int32>(binary, std::numeric_limits<int32>::min(), &ss);
    WriteBasicType<int64>(binary, 1LL << 40, &ss);
    WriteIntegerVector<int32>(binary, {5, -6, 7}, &ss);
    int32 a = 0;
    int64 b = 0;
    std::vector<int32> v = {9, 9, 9, 9};  // replaced, not appended to
    ReadBasicType(binary, &a, &ss);
    ReadBasicType(binary, &b, &ss);
    ReadIntegerVector(binary, &v, &ss);
    EXPECT_EQ(std::numeric_limits<int32>::min(), a);
    EXPECT_EQ(1LL << 40, b);
    EXPECT_EQ((std::vector<int32>{5, -6, 7}), v);
  }
  std::istringstream is("[\n5\n  -6\t7]  42");
  std::vector<int32> v;
  ReadIntegerVector(false, &v, &is);
  EXPECT_EQ((std::vector<int32>{5, -6, 7}), v);
  int32 x = 0;
  ReadBasicType(false, &x, &is);  // ends exactly at end of stream: fine
  EXPECT_EQ(42, x);
}

std::string ReadIntError(bool binary, const std::string& bytes) {
  std::istringstream is(bytes);
  int32 x;
  return KESTREL_ERROR_TEXT(ReadBasicType(binary, &x, &is));
}

// The error of reading a vector from `bytes`, which must leave the target as it was.
std::string ReadVectorError(bool binary, const std::string& bytes) {
  std::istringstream is(bytes);
  std::vector<int32> v = {4, 2};
  const std::string text = KESTREL_ERROR_TEXT(ReadIntegerVector(binary, &v, &is));
  EXPECT_EQ((std::vector<int32>{4, 2}), v) << text;
  return text;
}

TEST(IntegerIoTest, FailuresGiveExactMessages) {
  const std::string basic = "Fail to read integer type in ReadBasicType()";
  const std::string at_end = basic + ", file position is -1, next char is [character -1]";
  const std::string size = "Fail to read integer type in ReadIntegerVecotr(): expecting type of "
                           "size 4, got instead ";
  EXPECT_EQ(basic + ": encountered end of stream.", ReadIntError(true, ""));
  EXPECT_EQ(basic + ": did not get expected integer type, 8 vs. 4",
            ReadIntError(true, std::string("\x08\x01\0\0\0\0\0\0\0", 9)));
  EXPECT_EQ(at_end, ReadIntError(false, "abc"));
  EXPECT_EQ(at_end, ReadIntError(true, std::string("\x04\x01", 2)));
  EXPECT_EQ(size + "8", ReadVectorError(true, std::string("\x08\0\0\0\0", 5)));
  EXPECT_EQ(size + "-1", ReadVectorError(true, ""));
  EXPECT_EQ("Fail to read integer type in ReadIntegerVector(): expecting vector size, got -1",
            ReadVectorError(true, std::string("\x04\xff\xff\xff\xff", 5)));
  // Too few elements; binary where it starts with the size byte.
  for (const std::string& bad : {std::string("\x04\x03\0\0\0\x01\0\0\0", 9),
                                 std::string("[ 1 x ]"), std::string("[ 1 2")}) {
    EXPECT_EQ("Fail to ReadIntegerVector.", ReadVectorError(bad[0] == '\x04', bad));
  }
  EXPECT_EQ("Expected token \"[\", got instead \"1\".", ReadVectorError(false, "1 2 ]"));

  std::ostringstream os;
  os.setstate(std::ios::badbit);
  EXPECT_EQ("Fail to write integer type in WriteBasicType().",
            KESTREL_ERROR_TEXT(WriteBasicType<int32>(false, 1, &os)));
  EXPECT_EQ("Fail to write integer vector in WriteIntegerVector().",
            KESTREL_ERROR_TEXT(WriteIntegerVector<int32>(true, {1}, &os)));
}

TEST(TokenIoTest, TokensPeekAndMismatch) {
  for (bool binary : {true, false}) {
    std::stringstream ss;
    WriteToken(binary, "<Kw>", &ss);
    WriteToken(binary, "</KwInfo>", &ss);
    EXPECT_EQ("<Kw> </KwInfo> ", ss.str());
    EXPECT_EQ('K', PeekToken(binary, &ss));
    ExpectToken(binary, "<Kw>", &ss);
    EXPECT_EQ('/', PeekToken(binary, &ss));
    EXPECT_EQ("Expected token \"<Nnet>\", got instead \"</KwInfo>\".",
              KESTREL_ERROR_TEXT(ExpectToken(binary, "<Nnet>", &ss)));
    EXPECT_EQ(-1, PeekToken(binary, &ss));
    EXPECT_EQ("Expected token \"<Nnet>\", got instead \"\".",
              KESTREL_ERROR_TEXT(ExpectToken(binary, "<Nnet>", &ss)));
  }
  std::istringstream garbage(std::string("\0\x01<Kw", 5));
  EXPECT_EQ("Expected token \"<Kw>\", got instead \"\\x00\\x01<Kw\".",
            KESTREL_ERROR_TEXT(ExpectToken(true, "<Kw>", &garbage)));
  std::istringstream text("  \n x");
  EXPECT_EQ('x', PeekToken(false, &text));
  std::ostringstream os;
  EXPECT_NE("", KESTREL_ERROR_TEXT(WriteToken(false, "two words", &os)));
  EXPECT_NE("", KESTREL_ERROR_TEXT(WriteToken(false, "", &os)));
}

TEST(FloatBoolIoTest, EncodingsRoundTripAndBadValuesAreErrors) {
  EXPECT_EQ("04 00 00 C0 3F", Bytes(Written<float>(true, 1.5f)));
  EXPECT_EQ("0.05 ", Written<float>(false, 0.05f));
  EXPECT_EQ("T", Written<bool>(true, true));
  EXPECT_EQ("F ", Written<bool>(false, false));
  const float values[] = {0.05f, -3.40282347e+38f, 1e-40f, 123456.78f,
                          std::numeric_limits<float>::infinity()};
  for (bool binary : {true, false}) {
    std::stringstream ss;
    for (float v : values) WriteBasicType<float>(binary, v, &ss);
    WriteBasicType<bool>(binary, true, &ss);
    WriteBasicType<bool>(binary, false, &ss);
    for (float v : values) {
      float got = 0;
      ReadBasicType(binary, &got, &ss);
      EXPECT_EQ(v, got);
    }
    bool t = false, f = true;
    ReadBasicType(binary, &t, &ss);
    ReadBasicType(binary, &f, &ss);
    EXPECT_TRUE(t);
    EXPECT_FALSE(f);
  }
  std::istringstream is(" 1e-3 -inf nan +2");
  for (float expected : {1e-3f, -std::numeric_limits<float>::infinity(), NAN, 2.0f}) {
    float got = 0;
    ReadBasicType(false, &got, &is);
    EXPECT_TRUE(got == expected || (std::isnan(expected) && std::isnan(got))) << got;
  }

  float f;
  bool b;
  std::istringstream word("0.5x");
  EXPECT_EQ("ReadBasicType: expected a float, got \"0.5x\".",
            KESTREL_ERROR_TEXT(ReadBasicType(false, &f, &word)));
  std::istringstream short_binary(std::string("\x04\x01\x02", 3));
  EXPECT_NE("", KESTREL_ERROR_TEXT(ReadBasicType(true, &f, &short_binary)));
  std::istringstream not_bool("X");
  EXPECT_EQ("ReadBasicType: expected a bool ('T' or 'F'), got 'X'.",
            KESTREL_ERROR_TEXT(ReadBasicType(false, &b, &not_bool)));
}

TEST(FileIoTest, OutputMarksBinaryAndInputRecognisesIt) {
  std::string path = testing::TempDir() + "/kestrel-io-test.bin";
  for (bool binary : {true, false}) {
    {
      Output out(path, binary);
      WriteToken(binary, "<A>", out.Stream());
      WriteBasicType<int32>(binary, 3, out.Stream());
    }
    Input in(path);
    EXPECT_EQ(binary, in.Binary());
    ExpectToken(in.Binary(), "<A>", in.Stream());
    int32 x = 0;
    ReadBasicType(in.Binary(), &x, in.Stream());
    EXPECT_EQ(3, x);
  }
  std::string missing = testing::TempDir() + "/no-such-dir/x.kmodel";
  std::string err = KESTREL_ERROR_TEXT(Input in(missing));
  EXPECT_NE(std::string::npos, err.find(missing)) << err;
  err = KESTREL_ERROR_TEXT(Output out(missing, true));
  EXPECT_NE(std::string::npos, err.find(missing)) << err;
}

}  // namespace
}  // namespace kestrel
