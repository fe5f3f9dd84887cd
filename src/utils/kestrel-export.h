// The public C++ API of libkestrel.so. The library is compiled with hidden
// symbols; each public header brackets its declarations with
// KESTREL_PUBLIC_BEGIN and KESTREL_PUBLIC_END, so that what a user may call
// is exported and every internal helper stays inside the library.
#ifndef KESTREL_UTILS_KESTREL_EXPORT_H_
#define KESTREL_UTILS_KESTREL_EXPORT_H_

#define KESTREL_PUBLIC_BEGIN _Pragma("GCC visibility push(default)")
#define KESTREL_PUBLIC_END _Pragma("GCC visibility pop")

#endif  // KESTREL_UTILS_KESTREL_EXPORT_H_
