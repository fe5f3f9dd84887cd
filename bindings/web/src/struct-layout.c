/* src/api.js reads and writes these C structs in wasm memory by byte offset;
 * this fails the build if the header's layout ever moves away from it. */
#include <stddef.h>

#include "kestrel/kestrel.h"

_Static_assert(sizeof(void*) == 4, "api.js assumes wasm32 pointers");
_Static_assert(sizeof(size_t) == 4, "api.js assumes 32-bit size_t");

_Static_assert(offsetof(kestrel_detection, hotword) == 0, "api.js: detection.hotword");
_Static_assert(offsetof(kestrel_detection, name) == 4, "api.js: detection.name");
_Static_assert(offsetof(kestrel_detection, sample) == 8, "api.js: detection.sample");
_Static_assert(offsetof(kestrel_detection, score) == 16, "api.js: detection.score");
_Static_assert(sizeof(kestrel_detection) == 24, "api.js: detection size");

_Static_assert(offsetof(kestrel_detector_options, sample_rate) == 0, "api.js: sample_rate");
_Static_assert(offsetof(kestrel_detector_options, sensitivities) == 4, "api.js: sensitivities");
_Static_assert(offsetof(kestrel_detector_options, num_sensitivities) == 8,
               "api.js: num_sensitivities");
_Static_assert(offsetof(kestrel_detector_options, names) == 12, "api.js: names");
_Static_assert(offsetof(kestrel_detector_options, num_names) == 16, "api.js: num_names");
_Static_assert(sizeof(kestrel_detector_options) == 20, "api.js: options size");
