#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>

#include "test-log-capture.h"
#include "utils/kestrel-matrix.h"

namespace kestrel {
namespace {

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
  for (bool binary : {false, true}) {
    std::istringstream is(binary ? bin.str() : text.str());
    Matrix back;
    back.Read(binary, &is);
    EXPECT_EQ(Values(m), Values(back));
  }
  std::istringstream lenient(" [ 1  2\t\n 3 4 \n ]\n");
  Matrix back;
  back.Read(false, &lenient);
  EXPECT_EQ(Values(back), (std::vector<std::vector<float>>{{1, 2}, {3, 4}}));
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
