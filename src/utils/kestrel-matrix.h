// Dense single-precision matrices and vectors.
//
// Row-major storage; every row starts on a 32-byte boundary so vectorised
// kernels can use aligned loads (the stride, in floats, may exceed the column
// count). MatrixBase and VectorBase are views that do not own their storage;
// Matrix and Vector own theirs and copy their contents when copied.
//
// Binary and text forms follow Kaldi's: a matrix is "FM " + rows + cols (int32
// forms) + raw elements, or " [\n  a b\n  c d ]\n" in text; a vector is
// "FV " + dim + raw elements, or " [ a b ]\n".
//
// Not thread-safe; a matrix is used by one thread at a time.
#ifndef KESTREL_UTILS_KESTREL_MATRIX_H_
#define KESTREL_UTILS_KESTREL_MATRIX_H_

#include <istream>
#include <ostream>

#include "utils/kestrel-types.h"
#include "utils/kestrel-export.h"

KESTREL_PUBLIC_BEGIN

namespace kestrel {

enum MatrixResizeType { kSetZero = 0, kUndefined = 1, kCopyData = 2 };

class SubMatrix;

class MatrixBase {
 public:
  int NumRows() const { return num_rows_; }
  int NumCols() const { return num_cols_; }
  int Stride() const { return stride_; }
  float* Data() const { return data_; }
  float* RowData(int r) const { return data_ + static_cast<size_t>(r) * stride_; }
  float& operator()(int r, int c) const { return RowData(r)[c]; }

  // A view of rows [first_row, first_row + num_rows). Must lie inside.
  SubMatrix RowRange(int first_row, int num_rows) const;

  void Set(float value);
  // Copies a matrix of the same size.
  void CopyFromMat(const MatrixBase& other);

  // Reads a matrix of exactly this size (an error otherwise).
  void Read(bool binary, std::istream* is);
  void Write(bool binary, std::ostream* os) const;

 protected:
  MatrixBase() = default;
  MatrixBase(float* data, int rows, int cols, int stride)
      : data_(data), num_rows_(rows), num_cols_(cols), stride_(stride) {}
  ~MatrixBase() = default;

  float* data_ = nullptr;
  int num_rows_ = 0;
  int num_cols_ = 0;
  int stride_ = 0;
};

// Non-owning view of part of a matrix; valid while the matrix is unchanged.
class SubMatrix : public MatrixBase {
 public:
  SubMatrix(float* data, int rows, int cols, int stride)
      : MatrixBase(data, rows, cols, stride) {}
};

class Matrix : public MatrixBase {
 public:
  Matrix() = default;
  Matrix(int rows, int cols, MatrixResizeType type = kSetZero);
  Matrix(const Matrix& other);
  explicit Matrix(const MatrixBase& other);
  Matrix(Matrix&& other) noexcept;
  Matrix& operator=(const Matrix& other);
  Matrix& operator=(Matrix&& other) noexcept;
  ~Matrix();

  // kSetZero zeroes every element, kUndefined leaves them unset, kCopyData
  // keeps the overlapping top-left block and zeroes the rest. Storage is
  // reused when the new size fits the capacity, so a steady-state loop that
  // resizes to the same shape does not allocate.
  void Resize(int rows, int cols, MatrixResizeType type = kSetZero);
  void ReleaseMatrixMemory();

  // Reads a matrix of any size, replacing this one.
  void Read(bool binary, std::istream* is);

 private:
  size_t capacity_ = 0;  // floats allocated at data_
};

class VectorBase {
 public:
  int Dim() const { return dim_; }
  float* Data() const { return data_; }
  float& operator()(int i) const { return data_[i]; }

  void Set(float value);
  void Write(bool binary, std::ostream* os) const;

 protected:
  VectorBase() = default;
  ~VectorBase() = default;

  float* data_ = nullptr;
  int dim_ = 0;
};

class Vector : public VectorBase {
 public:
  Vector() = default;
  explicit Vector(int dim, MatrixResizeType type = kSetZero);
  Vector(const Vector& other);
  Vector(Vector&& other) noexcept;
  Vector& operator=(const Vector& other);
  Vector& operator=(Vector&& other) noexcept;
  ~Vector();

  void Resize(int dim, MatrixResizeType type = kSetZero);
  void ReleaseVectorMemory();
  // Reads a vector of any size, replacing this one.
  void Read(bool binary, std::istream* is);

 private:
  size_t capacity_ = 0;
};

}  // namespace kestrel

KESTREL_PUBLIC_END

#endif  // KESTREL_UTILS_KESTREL_MATRIX_H_
