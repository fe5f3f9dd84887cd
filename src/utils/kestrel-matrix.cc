#include "utils/kestrel-matrix.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "utils/kestrel-io.h"
#include "utils/kestrel-log.h"

namespace kestrel {

namespace {

const char kLogFile[] = "kestrel-matrix";
constexpr size_t kAlign = 32;
constexpr int kAlignFloats = kAlign / sizeof(float);

float* AllocateFloats(size_t n) {
  if (n == 0) return nullptr;
  return static_cast<float*>(::operator new[](n * sizeof(float), std::align_val_t(kAlign)));
}

void FreeFloats(float* p) {
  if (p != nullptr) ::operator delete[](p, std::align_val_t(kAlign));
}

int PaddedStride(int cols) { return (cols + kAlignFloats - 1) / kAlignFloats * kAlignFloats; }

bool IsSpace(int c) { return c != EOF && std::isspace(static_cast<unsigned char>(c)); }

void WriteTextFloat(float value, std::ostream* os) {
  char buf[64];
  auto res = std::to_chars(buf, buf + sizeof(buf), value);
  os->write(buf, res.ptr - buf);
}

// Reads one float of a text vector or matrix: characters up to whitespace or
// the closing bracket.
float ReadTextElement(std::istream* is, const char* what) {
  std::string word;
  while (true) {
    int c = is->peek();
    if (c == EOF || IsSpace(c) || c == ']') break;
    word.push_back(static_cast<char>(is->get()));
  }
  const char* first = word.data();
  const char* last = first + word.size();
  if (first != last && *first == '+') ++first;
  float v = 0.0f;
  auto res = std::from_chars(first, last, v);
  if (word.empty() || res.ec != std::errc() || res.ptr != last) {
    KESTREL_ERR(kLogFile) << "Reading a text " << what << ": expected a number or ']', got \""
                          << word << "\".";
  }
  return v;
}

void ExpectOpenBracket(std::istream* is, const char* what) {
  while (IsSpace(is->peek())) is->get();
  int c = is->get();
  if (c != '[') {
    KESTREL_ERR(kLogFile) << "Reading a text " << what << ": expected '[', got "
                          << (c == EOF ? std::string("end of stream")
                                       : CharToString(static_cast<char>(c)))
                          << ".";
  }
}

int32 ReadDimension(std::istream* is, const char* what) {
  int32 n = 0;
  ReadBasicType(true, &n, is);
  if (n < 0) {
    KESTREL_ERR(kLogFile) << "Reading a binary " << what << ": negative dimension " << n << ".";
  }
  return n;
}

// Reads `count` raw floats, growing the buffer in bounded steps so that a
// corrupted dimension fails at the end of the stream instead of allocating it.
void ReadRawFloats(std::istream* is, size_t count, std::vector<float>* out, const char* what) {
  out->clear();
  const size_t kChunk = 1 << 16;
  while (out->size() < count) {
    size_t done = out->size();
    size_t take = std::min(kChunk, count - done);
    out->resize(done + take);
    is->read(reinterpret_cast<char*>(out->data() + done), take * sizeof(float));
    if (is->fail()) {
      KESTREL_ERR(kLogFile) << "Reading a binary " << what << ": expected " << count
                            << " floats, the stream ended after " << done + is->gcount() / 4
                            << ".";
    }
  }
}

// Parses the text matrix body after '[': one row per line, ']' closes.
void ReadTextMatrix(std::istream* is, std::vector<float>* values, int* rows, int* cols) {
  values->clear();
  *rows = 0;
  *cols = 0;
  int row_len = 0;
  auto end_row = [&]() {
    if (row_len == 0) return;
    if (*rows == 0) {
      *cols = row_len;
    } else if (row_len != *cols) {
      KESTREL_ERR(kLogFile) << "Reading a text matrix: row " << *rows << " has " << row_len
                            << " elements, expected " << *cols << " as in the first row.";
    }
    ++*rows;
    row_len = 0;
  };
  while (true) {
    int c = is->peek();
    if (c == EOF) {
      KESTREL_ERR(kLogFile) << "Reading a text matrix: expected ']', got end of stream.";
    }
    if (c == '\n') {
      is->get();
      end_row();
    } else if (IsSpace(c)) {
      is->get();
    } else if (c == ']') {
      is->get();
      end_row();
      return;
    } else {
      values->push_back(ReadTextElement(is, "matrix"));
      ++row_len;
    }
  }
}

}  // namespace

SubMatrix MatrixBase::RowRange(int first_row, int num_rows) const {
  if (first_row < 0 || num_rows < 0 || first_row + num_rows > num_rows_) {
    KESTREL_ERR(kLogFile) << "RowRange: rows [" << first_row << ", " << first_row + num_rows
                          << ") lie outside a matrix of " << num_rows_ << " rows.";
  }
  return SubMatrix(num_rows == 0 ? nullptr : RowData(first_row), num_rows, num_cols_, stride_);
}

void MatrixBase::Set(float value) {
  for (int r = 0; r < num_rows_; ++r) std::fill(RowData(r), RowData(r) + num_cols_, value);
}

void MatrixBase::CopyFromMat(const MatrixBase& other) {
  if (other.NumRows() != num_rows_ || other.NumCols() != num_cols_) {
    KESTREL_ERR(kLogFile) << "CopyFromMat: cannot copy a " << other.NumRows() << " x "
                          << other.NumCols() << " matrix into a " << num_rows_ << " x "
                          << num_cols_ << " one.";
  }
  if (num_cols_ == 0) return;  // rows of nothing have no storage to copy
  for (int r = 0; r < num_rows_; ++r) {
    std::memmove(RowData(r), other.RowData(r), sizeof(float) * num_cols_);
  }
}

void MatrixBase::Read(bool binary, std::istream* is) {
  Matrix tmp;
  tmp.Read(binary, is);
  if (tmp.NumRows() != num_rows_ || tmp.NumCols() != num_cols_) {
    KESTREL_ERR(kLogFile) << "Reading a matrix: expected " << num_rows_ << " x " << num_cols_
                          << ", got " << tmp.NumRows() << " x " << tmp.NumCols() << ".";
  }
  CopyFromMat(tmp);
}

void MatrixBase::Write(bool binary, std::ostream* os) const {
  if (binary) {
    WriteToken(binary, "FM", os);
    WriteBasicType<int32>(true, num_rows_, os);
    WriteBasicType<int32>(true, num_cols_, os);
    for (int r = 0; r < num_rows_ && num_cols_ > 0; ++r) {
      os->write(reinterpret_cast<const char*>(RowData(r)), sizeof(float) * num_cols_);
    }
  } else if (num_rows_ == 0 || num_cols_ == 0) {
    *os << " [ ]\n";
  } else {
    *os << " [\n";
    for (int r = 0; r < num_rows_; ++r) {
      *os << " ";
      for (int c = 0; c < num_cols_; ++c) {
        *os << " ";
        WriteTextFloat((*this)(r, c), os);
      }
      *os << (r + 1 == num_rows_ ? " ]\n" : "\n");
    }
  }
  if (os->fail()) KESTREL_ERR(kLogFile) << "Failed to write a matrix.";
}

Matrix::Matrix(int rows, int cols, MatrixResizeType type) { Resize(rows, cols, type); }

Matrix::Matrix(const Matrix& other) : MatrixBase() {
  Resize(other.NumRows(), other.NumCols(), kUndefined);
  CopyFromMat(other);
}

Matrix::Matrix(const MatrixBase& other) : MatrixBase() {
  Resize(other.NumRows(), other.NumCols(), kUndefined);
  CopyFromMat(other);
}

Matrix::Matrix(Matrix&& other) noexcept : MatrixBase() { *this = std::move(other); }

Matrix& Matrix::operator=(const Matrix& other) {
  if (this != &other) {
    Resize(other.NumRows(), other.NumCols(), kUndefined);
    CopyFromMat(other);
  }
  return *this;
}

Matrix& Matrix::operator=(Matrix&& other) noexcept {
  if (this != &other) {
    FreeFloats(data_);
    data_ = other.data_;
    num_rows_ = other.num_rows_;
    num_cols_ = other.num_cols_;
    stride_ = other.stride_;
    capacity_ = other.capacity_;
    other.data_ = nullptr;
    other.num_rows_ = other.num_cols_ = other.stride_ = 0;
    other.capacity_ = 0;
  }
  return *this;
}

Matrix::~Matrix() { FreeFloats(data_); }

void Matrix::Resize(int rows, int cols, MatrixResizeType type) {
  if (rows < 0 || cols < 0) {
    KESTREL_ERR(kLogFile) << "Matrix::Resize: negative size " << rows << " x " << cols << ".";
  }
  int stride = PaddedStride(cols);
  size_t needed = static_cast<size_t>(rows) * stride;
  if (type == kCopyData && data_ != nullptr && (rows != num_rows_ || cols != num_cols_)) {
    Matrix copy(rows, cols, kSetZero);
    int keep_rows = std::min(rows, num_rows_);
    int keep_cols = std::min(cols, num_cols_);
    for (int r = 0; r < keep_rows && keep_cols > 0; ++r) {
      std::memcpy(copy.RowData(r), RowData(r), sizeof(float) * keep_cols);
    }
    *this = std::move(copy);
    return;
  }
  if (type == kCopyData && data_ != nullptr) return;  // same shape
  if (needed > capacity_) {
    FreeFloats(data_);
    data_ = nullptr;
    capacity_ = 0;
    data_ = AllocateFloats(needed);
    capacity_ = needed;
  }
  num_rows_ = rows;
  num_cols_ = cols;
  stride_ = stride;
  if (needed == 0) return;
  if (type != kUndefined) std::fill(data_, data_ + needed, 0.0f);
}

void Matrix::ReleaseMatrixMemory() {
  FreeFloats(data_);
  data_ = nullptr;
  num_rows_ = num_cols_ = stride_ = 0;
  capacity_ = 0;
}

void Matrix::Read(bool binary, std::istream* is) {
  std::vector<float> values;
  int rows = 0, cols = 0;
  if (binary) {
    ExpectToken(true, "FM", is);
    rows = ReadDimension(is, "matrix");
    cols = ReadDimension(is, "matrix");
    ReadRawFloats(is, static_cast<size_t>(rows) * cols, &values, "matrix");
  } else {
    ExpectOpenBracket(is, "matrix");
    ReadTextMatrix(is, &values, &rows, &cols);
  }
  Resize(rows, cols, kUndefined);
  for (int r = 0; r < num_rows_ && cols > 0; ++r) {
    std::memcpy(RowData(r), values.data() + static_cast<size_t>(r) * cols, sizeof(float) * cols);
  }
}

void VectorBase::Set(float value) { std::fill(data_, data_ + dim_, value); }

void VectorBase::Write(bool binary, std::ostream* os) const {
  if (binary) {
    WriteToken(binary, "FV", os);
    WriteBasicType<int32>(true, dim_, os);
    os->write(reinterpret_cast<const char*>(data_), sizeof(float) * dim_);
  } else {
    *os << " [ ";
    for (int i = 0; i < dim_; ++i) {
      WriteTextFloat(data_[i], os);
      *os << " ";
    }
    *os << "]\n";
  }
  if (os->fail()) KESTREL_ERR(kLogFile) << "Failed to write a vector.";
}

Vector::Vector(int dim, MatrixResizeType type) { Resize(dim, type); }

Vector::Vector(const Vector& other) : VectorBase() { *this = other; }

Vector::Vector(Vector&& other) noexcept : VectorBase() { *this = std::move(other); }

Vector& Vector::operator=(const Vector& other) {
  if (this != &other) {
    Resize(other.Dim(), kUndefined);
    if (dim_ > 0) std::memcpy(data_, other.data_, sizeof(float) * dim_);
  }
  return *this;
}

Vector& Vector::operator=(Vector&& other) noexcept {
  if (this != &other) {
    FreeFloats(data_);
    data_ = other.data_;
    dim_ = other.dim_;
    capacity_ = other.capacity_;
    other.data_ = nullptr;
    other.dim_ = 0;
    other.capacity_ = 0;
  }
  return *this;
}

Vector::~Vector() { FreeFloats(data_); }

void Vector::Resize(int dim, MatrixResizeType type) {
  if (dim < 0) KESTREL_ERR(kLogFile) << "Vector::Resize: negative dimension " << dim << ".";
  size_t needed = static_cast<size_t>(dim);
  if (needed > capacity_) {
    float* fresh = AllocateFloats(needed);
    if (type == kCopyData && dim_ > 0) std::memcpy(fresh, data_, sizeof(float) * dim_);
    if (type == kCopyData) std::fill(fresh + dim_, fresh + needed, 0.0f);
    FreeFloats(data_);
    data_ = fresh;
    capacity_ = needed;
  } else if (type == kCopyData && dim > dim_) {
    std::fill(data_ + dim_, data_ + dim, 0.0f);
  }
  if (type == kSetZero && needed > 0) std::fill(data_, data_ + needed, 0.0f);
  dim_ = dim;
}

void Vector::ReleaseVectorMemory() {
  FreeFloats(data_);
  data_ = nullptr;
  dim_ = 0;
  capacity_ = 0;
}

void Vector::Read(bool binary, std::istream* is) {
  std::vector<float> values;
  if (binary) {
    ExpectToken(true, "FV", is);
    int32 dim = ReadDimension(is, "vector");
    ReadRawFloats(is, static_cast<size_t>(dim), &values, "vector");
  } else {
    ExpectOpenBracket(is, "vector");
    while (true) {
      while (IsSpace(is->peek())) is->get();
      int c = is->peek();
      if (c == ']') {
        is->get();
        break;
      }
      if (c == EOF) {
        KESTREL_ERR(kLogFile) << "Reading a text vector: expected ']', got end of stream.";
      }
      values.push_back(ReadTextElement(is, "vector"));
    }
  }
  Resize(static_cast<int>(values.size()), kUndefined);
  if (dim_ > 0) std::memcpy(data_, values.data(), sizeof(float) * dim_);
}

}  // namespace kestrel
