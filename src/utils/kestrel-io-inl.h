// Integer encodings of the token format. Binary integers start with a width
// byte (4 for int32, 8 for int64) followed by the value's memory image; text
// integers are decimal followed by one space. Diagnostics carry the label
// "../utils/kestrel-io-inl".
#ifndef KESTREL_UTILS_KESTREL_IO_INL_H_
#define KESTREL_UTILS_KESTREL_IO_INL_H_

#include <algorithm>
#include <istream>
#include <ostream>
#include <type_traits>
#include <vector>

#include "utils/kestrel-log.h"
#include "utils/kestrel-types.h"
#include "utils/kestrel-utils.h"

#define KESTREL_IO_INL_ERR KESTREL_ERR("../utils/kestrel-io-inl")

namespace kestrel {

template <class T>
void WriteBasicType(bool binary, T value, std::ostream* os) {
  static_assert(std::is_integral<T>::value && std::is_signed<T>::value,
                "integer forms are for signed integers");
  if (binary) {
    char width = static_cast<char>(sizeof(T));
    os->put(width);
    os->write(reinterpret_cast<const char*>(&value), sizeof(T));
  } else {
    *os << value << " ";
  }
  if (os->fail()) {
    KESTREL_IO_INL_ERR << "Fail to write integer type in WriteBasicType().";
  }
}

template <class T>
void ReadBasicType(bool binary, T* value, std::istream* is) {
  static_assert(std::is_integral<T>::value && std::is_signed<T>::value,
                "integer forms are for signed integers");
  if (binary) {
    int width = is->get();
    if (width == -1) {
      KESTREL_IO_INL_ERR << "Fail to read integer type in ReadBasicType(): "
                         << "encountered end of stream.";
    }
    if (static_cast<unsigned char>(width) != sizeof(T)) {
      KESTREL_IO_INL_ERR << "Fail to read integer type in ReadBasicType(): "
                         << "did not get expected integer type, "
                         << static_cast<int>(static_cast<unsigned char>(width))
                         << " vs. " << sizeof(T);
    }
    is->read(reinterpret_cast<char*>(value), sizeof(T));
  } else {
    *is >> *value;
  }
  if (is->fail()) {
    KESTREL_IO_INL_ERR << "Fail to read integer type in ReadBasicType(), file "
                       << "position is " << is->tellg() << ", next char is "
                       << CharToString(static_cast<char>(is->peek()));
  }
}

template <class T>
void WriteIntegerVector(bool binary, const std::vector<T>& v, std::ostream* os) {
  static_assert(std::is_integral<T>::value && std::is_signed<T>::value,
                "integer forms are for signed integers");
  if (binary) {
    char width = static_cast<char>(sizeof(T));
    os->put(width);
    int32 n = static_cast<int32>(v.size());
    os->write(reinterpret_cast<const char*>(&n), sizeof(n));
    if (n != 0) {
      os->write(reinterpret_cast<const char*>(v.data()), sizeof(T) * n);
    }
  } else {
    *os << "[ ";
    for (const T& x : v) *os << x << " ";
    *os << "]\n";
  }
  if (os->fail()) {
    KESTREL_IO_INL_ERR << "Fail to write integer vector in WriteIntegerVector().";
  }
}

template <class T>
void ReadIntegerVector(bool binary, std::vector<T>* v, std::istream* is) {
  static_assert(std::is_integral<T>::value && std::is_signed<T>::value,
                "integer forms are for signed integers");
  if (binary) {
    if (is->peek() != static_cast<int>(sizeof(T))) {
      KESTREL_IO_INL_ERR << "Fail to read integer type in ReadIntegerVecotr(): "
                         << "expecting type of size "
                         << static_cast<unsigned int>(sizeof(T))
                         << ", got instead " << static_cast<int>(is->peek());
    }
    is->get();
    int32 n = 0;
    is->read(reinterpret_cast<char*>(&n), sizeof(n));
    if (is->fail() || n < 0) {
      KESTREL_IO_INL_ERR << "Fail to read integer type in ReadIntegerVector(): "
                         << "expecting vector size, got " << n;
    }
    // Read into a temporary grown in bounded chunks: a corrupted count cannot
    // allocate gigabytes before the stream runs out, and a failed read leaves
    // *v as it was.
    std::vector<T> tmp;
    const size_t kChunk = 1 << 16;
    while (tmp.size() < static_cast<size_t>(n)) {
      size_t done = tmp.size();
      size_t take = std::min(kChunk, static_cast<size_t>(n) - done);
      tmp.resize(done + take);
      is->read(reinterpret_cast<char*>(tmp.data() + done), sizeof(T) * take);
      if (is->fail()) break;
    }
    if (is->fail()) {
      KESTREL_IO_INL_ERR << "Fail to ReadIntegerVector.";
    }
    v->swap(tmp);
  } else {
    ExpectToken(false, "[", is);
    *is >> std::ws;
    std::vector<T> tmp;
    while (true) {
      if (is->peek() == ']') {
        is->get();
        break;
      }
      T next;
      *is >> next >> std::ws;
      if (is->fail()) {
        KESTREL_IO_INL_ERR << "Fail to ReadIntegerVector.";
      }
      tmp.push_back(next);
    }
    *v = tmp;
  }
}

}  // namespace kestrel

#undef KESTREL_IO_INL_ERR

#endif  // KESTREL_UTILS_KESTREL_IO_INL_H_
