// The two library-wide settings. Read without locking: set them before any
// detector runs and leave them alone while detectors run.
#ifndef KESTREL_UTILS_KESTREL_GLOBALS_H_
#define KESTREL_UTILS_KESTREL_GLOBALS_H_

#include <string>

#include "utils/kestrel-export.h"

KESTREL_PUBLIC_BEGIN

namespace kestrel {

// Separates the entries of every list-valued option (model files,
// sensitivities, window lengths). Default ",".
extern std::string global_kestrel_string_delimiter;

// Higher values enable more diagnostics. Default 0.
extern int global_kestrel_verbose_level;

}  // namespace kestrel

KESTREL_PUBLIC_END

#endif  // KESTREL_UTILS_KESTREL_GLOBALS_H_
