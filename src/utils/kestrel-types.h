// Fixed-width integer names used throughout the library and its file formats.
#ifndef KESTREL_UTILS_KESTREL_TYPES_H_
#define KESTREL_UTILS_KESTREL_TYPES_H_

#include <cstdint>

namespace kestrel {

typedef int32_t int32;
typedef int64_t int64;
typedef uint32_t uint32;

}  // namespace kestrel

#endif  // KESTREL_UTILS_KESTREL_TYPES_H_
