// The token and binary formats every file is written in, and the matrices
// and vectors written in them.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <sstream>

#include "test-log-capture.h"
#include "utils/kestrel-io.h"
#include "utils/kestrel-matrix.h"

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

template <class T>
T Read(bool binary, std::istream* is) {
  T value{};
  ReadBasicType(binary, &value, is);
  return value;
}

std::string WrittenVector(bool binary, const std::vector<int32>& v) {
  std::ostringstream os;
  WriteIntegerVector<int32>(binary, v, &os);
  return os.str();
}

TEST(BasicIoTest, EncodingsAreExact) {
  EXPECT_EQ("04 01 00 00 00", Bytes(Written<int32>(true, 1)));
  EXPECT_EQ("08 FE FF FF FF FF FF FF FF", Bytes(Written<int64>(true, -2)));
  EXPECT_EQ("-7 ", Written<int32>(false, -7));
  EXPECT_EQ("04 00 00 00 00", Bytes(WrittenVector(true, {})));
  EXPECT_EQ("04 02 00 00 00 01 00 00 00 FF FF FF FF", Bytes(WrittenVector(true, {1, -1})));
  EXPECT_EQ("[ 1 2 3 ]\n", WrittenVector(false, {1, 2, 3}));
  EXPECT_EQ("[ ]\n", WrittenVector(false, {}));
  EXPECT_EQ("04 00 00 C0 3F", Bytes(Written<float>(true, 1.5f)));
  EXPECT_EQ("0.05 ", Written<float>(false, 0.05f));
  EXPECT_EQ("T", Written<bool>(true, true));
  EXPECT_EQ("F ", Written<bool>(false, false));
}

TEST(BasicIoTest, EveryTypeRoundTripsInBothModes) {
  const float floats[] = {0.05f, -3.40282347e+38f, 1e-40f, 123456.78f,
                          std::numeric_limits<float>::infinity()};
  for (bool binary : {true, false}) {
    std::stringstream ss;
    WriteBasicType<int32>(binary, std::numeric_limits<int32>::min(), &ss);
    WriteBasicType<int64>(binary, 1LL << 40, &ss);
    WriteIntegerVector<int32>(binary, {5, -6, 7}, &ss);
    for (float v : floats) WriteBasicType<float>(binary, v, &ss);
    WriteBasicType<bool>(binary, true, &ss);
    WriteBasicType<bool>(binary, false, &ss);
    EXPECT_EQ(std::numeric_limits<int32>::min(), Read<int32>(binary, &ss));
    EXPECT_EQ(1LL << 40, Read<int64>(binary, &ss));
    std::vector<int32> v = {9, 9, 9, 9};  // replaced, not appended to
    ReadIntegerVector(binary, &v, &ss);
    EXPECT_EQ((std::vector<int32>{5, -6, 7}), v);
    for (float expected : floats) EXPECT_EQ(expected, Read<float>(binary, &ss));
    EXPECT_TRUE(Read<bool>(binary, &ss));
    EXPECT_FALSE(Read<bool>(binary, &ss));
  }
}

TEST(BasicIoTest, TextReadingIsLenient) {
  std::istringstream is("[\n5\n  -6\t7]   1e-3 -inf nan +2 42");
  std::vector<int32> v;
  ReadIntegerVector(false, &v, &is);
  EXPECT_EQ((std::vector<int32>{5, -6, 7}), v);
  for (float expected : {1e-3f, -std::numeric_limits<float>::infinity(), NAN, 2.0f}) {
    const float got = Read<float>(false, &is);
    EXPECT_TRUE(got == expected || (std::isnan(expected) && std::isnan(got))) << got;
  }
  EXPECT_EQ(42, Read<int32>(false, &is));  // ends exactly at end of stream: fine
}

template <class T = int32>
std::string ReadError(bool binary, const std::string& bytes) {
  std::istringstream is(bytes);
  return KESTREL_ERROR_TEXT(Read<T>(binary, &is));
}

// The error of reading a vector from `bytes`, which must leave the target as it was.
std::string ReadVectorError(bool binary, const std::string& bytes) {
  std::istringstream is(bytes);
  std::vector<int32> v = {4, 2};
  const std::string text = KESTREL_ERROR_TEXT(ReadIntegerVector(binary, &v, &is));
  EXPECT_EQ((std::vector<int32>{4, 2}), v) << text;
  return text;
}

TEST(BasicIoTest, FailuresGiveExactMessages) {
  const std::string basic = "Fail to read integer type in ReadBasicType()";
  const std::string at_end = basic + ", file position is -1, next char is [character -1]";
  const std::string size = "Fail to read integer type in ReadIntegerVecotr(): expecting type of "
                           "size 4, got instead ";
  EXPECT_EQ(basic + ": encountered end of stream.", ReadError(true, ""));
  EXPECT_EQ(basic + ": did not get expected integer type, 8 vs. 4",
            ReadError(true, std::string("\x08\x01\0\0\0\0\0\0\0", 9)));
  EXPECT_EQ(at_end, ReadError(false, "abc"));
  EXPECT_EQ(at_end, ReadError(true, std::string("\x04\x01", 2)));
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
  EXPECT_EQ("ReadBasicType: expected a float, got \"0.5x\".", ReadError<float>(false, "0.5x"));
  EXPECT_NE("", ReadError<float>(true, std::string("\x04\x01\x02", 3)));
  EXPECT_EQ("ReadBasicType: expected a bool ('T' or 'F'), got 'X'.", ReadError<bool>(false, "X"));

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

// Writing and reading whole files is covered by the model file tests; here,
// that a file which cannot be opened is named.
TEST(FileIoTest, FilesThatCannotBeOpenedAreNamed) {
  std::string missing = testing::TempDir() + "/no-such-dir/x.kmodel";
  std::string err = KESTREL_ERROR_TEXT(Input in(missing));
  EXPECT_NE(std::string::npos, err.find(missing)) << err;
  err = KESTREL_ERROR_TEXT(Output out(missing, true));
  EXPECT_NE(std::string::npos, err.find(missing)) << err;
}

Matrix Counting(int rows, int cols) {
  Matrix m(rows, cols);
  for (int r = 0; r < rows; ++r)
    for (int c = 0; c < cols; ++c) m(r, c) = r * 10 + c + 0.5f;
  return m;
}

std::vector<std::vector<float>> Values(const MatrixBase& m) {
  std::vector<std::vector<float>> rows;
  for (int r = 0; r < m.NumRows(); ++r) rows.emplace_back(m.RowData(r), m.RowData(r) + m.NumCols());
  return rows;
}

TEST(MatrixTest, RowsAreAlignedAndViewsShareStorage) {
  Matrix m = Counting(3, 5);
  EXPECT_GE(m.Stride(), 5);
  for (int r = 0; r < 3; ++r) EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(m.RowData(r)) % 32);
  SubMatrix rows = m.RowRange(1, 2);
  EXPECT_EQ(2, rows.NumRows());
  EXPECT_EQ(10.5f, rows(0, 0));
  rows.Set(1.0f);
  EXPECT_EQ(1.0f, m(2, 4));
  EXPECT_EQ(0.5f, m(0, 0));
  EXPECT_NE("", KESTREL_ERROR_TEXT(m.RowRange(2, 2)));
}

TEST(MatrixTest, ResizeKindsAndCopies) {
  Matrix m = Counting(2, 3);
  Matrix copy(m);
  m.Resize(3, 2, kCopyData);
  EXPECT_EQ(Values(m), (std::vector<std::vector<float>>{{0.5f, 1.5f}, {10.5f, 11.5f}, {0, 0}}));
  EXPECT_EQ(12.5f, copy(1, 2));  // the copy owns its own data
  m.Resize(2, 2);
  EXPECT_EQ(0.0f, m(1, 1));
  m.Resize(0, 0);
  EXPECT_EQ(0, m.NumRows());
  m.ReleaseMatrixMemory();
  EXPECT_EQ(nullptr, m.Data());
}

TEST(MatrixTest, TextAndBinaryFormsRoundTrip) {
  Matrix m = Counting(2, 3);
  std::ostringstream text;
  m.Write(false, &text);
  EXPECT_EQ(" [\n  0.5 1.5 2.5\n  10.5 11.5 12.5 ]\n", text.str());
  std::ostringstream bin;
  m.Write(true, &bin);
  EXPECT_EQ(std::string("FM \x04\x02\0\0\0\x04\x03\0\0\0", 13), bin.str().substr(0, 13));
  EXPECT_EQ(13u + 6 * 4, bin.str().size());
  // Text reading is lenient about white space within and between rows.
  const std::string lenient = " [ 0.5  1.5\t2.5\n 10.5 11.5 12.5 \n ]\n";
  for (const std::string& form : {text.str(), bin.str(), lenient}) {
    std::istringstream is(form);
    Matrix back;
    back.Read(form[0] == 'F', &is);
    EXPECT_EQ(Values(m), Values(back)) << form;
  }
  Matrix back = Counting(1, 1);
  std::istringstream empty(" [ ]\n");
  back.Read(false, &empty);
  EXPECT_EQ(0, back.NumRows());
}

TEST(MatrixTest, MalformedInputIsAnErrorAndReadsNothing) {
  const char* bad_text[] = {" [ 1 2\n 3 ]", " [ 1 x ]", " [ 1 2", "1 2 ]"};
  for (const char* s : bad_text) {
    std::istringstream is(s);
    Matrix m = Counting(1, 1);
    EXPECT_NE("", KESTREL_ERROR_TEXT(m.Read(false, &is))) << s;
    EXPECT_EQ(0.5f, m(0, 0));
  }
  // A corrupted binary size fails at the end of the data, not in allocation.
  std::istringstream huge(std::string("FM \x04\xff\xff\xff\x0f\x04\xff\xff\xff\x0f", 13));
  Matrix m;
  EXPECT_NE("", KESTREL_ERROR_TEXT(m.Read(true, &huge)));
  std::istringstream no_columns(std::string("FM \x04\x02\0\0\0\x04\0\0\0\0", 13));
  m.Read(true, &no_columns);
  EXPECT_EQ(2, m.NumRows());
  EXPECT_EQ(0, m.NumCols());
  Matrix copy(m);
  EXPECT_EQ(2, copy.NumRows());
  Matrix small(2, 2);
  std::istringstream wrong(" [ 1 2 3 ]\n");
  EXPECT_EQ("Reading a matrix: expected 2 x 2, got 1 x 3.",
            KESTREL_ERROR_TEXT(static_cast<MatrixBase&>(small).Read(false, &wrong)));
}

TEST(VectorTest, FormsRoundTripAndResize) {
  Vector v(3);
  v(0) = 0.05f;
  v(1) = -2.0f;
  v(2) = 1e-3f;
  std::ostringstream text, bin;
  v.Write(false, &text);
  v.Write(true, &bin);
  EXPECT_EQ(" [ 0.05 -2 0.001 ]\n", text.str());
  EXPECT_EQ(std::string("FV \x04\x03\0\0\0", 8), bin.str().substr(0, 8));
  auto values = [](const Vector& v) { return std::vector<float>(v.Data(), v.Data() + v.Dim()); };
  for (const std::string& form : {text.str(), bin.str(), std::string(" [ 0.05\n -2 0.001 ]")}) {
    std::istringstream is(form);
    Vector back;
    back.Read(form[0] == 'F', &is);
    EXPECT_EQ(values(v), values(back)) << form;
  }
  v.Resize(5, kCopyData);
  EXPECT_EQ((std::vector<float>{0.05f, -2, 1e-3f, 0, 0}), values(v));
  std::istringstream bad(" [ 1 2");
  EXPECT_NE("", KESTREL_ERROR_TEXT(v.Read(false, &bad)));
}

}  // namespace
}  // namespace kestrel
