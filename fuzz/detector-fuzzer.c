/* libFuzzer target for the C API: a detector from arbitrary model bytes in
 * memory, then arbitrary audio streamed through it.
 *
 * Input: byte 0 picks the input form and the chunk size, bytes 1-2 are the
 * model's length L (little-endian), the next L bytes the model and the rest
 * the audio (int16, or float when byte 0 is odd). Any status is an answer; a
 * crash, a sanitizer report, a leak or a detection that cannot be (an unknown
 * hotword, a position outside the stream) is a finding. */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "kestrel/kestrel.h"

static void CheckDetections(const kestrel_detection* found, size_t count, size_t num_hotwords,
                            int64_t stream_samples) {
  for (size_t i = 0; i < count; ++i) {
    if (found[i].hotword < 1 || (size_t)found[i].hotword > num_hotwords ||
        found[i].name == NULL || found[i].sample < 0 || found[i].sample > stream_samples) {
      abort();
    }
  }
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const int floats = data[0] & 1;
  const size_t chunk = 1 + ((size_t)(data[0] >> 1) * 37);
  size_t model_size = (size_t)data[1] | ((size_t)data[2] << 8);
  if (model_size > size - 3) model_size = size - 3;
  const void* model = data + 3;
  kestrel_detector* d = NULL;
  if (kestrel_detector_create_from_memory(&model, &model_size, 1, &d) != KESTREL_OK) {
    if (d != NULL || kestrel_last_error()[0] == '\0') abort();
    return 0;
  }
  size_t num_hotwords = 0;
  if (kestrel_detector_num_hotwords(d, &num_hotwords) != KESTREL_OK) abort();

  /* The audio, copied so that it is aligned for its type. */
  const uint8_t* audio = data + 3 + model_size;
  const size_t width = floats ? sizeof(float) : sizeof(int16_t);
  const size_t n = (size - 3 - model_size) / width;
  void* samples = malloc(n * width + 1);
  memcpy(samples, audio, n * width);

  const kestrel_detection* found;
  size_t count;
  int64_t stream_samples = 0;
  for (size_t at = 0; at < n; at += chunk) {
    const size_t m = n - at < chunk ? n - at : chunk;
    kestrel_status s = floats ? kestrel_detector_process_float(d, (const float*)samples + at, m,
                                                               &found, &count)
                              : kestrel_detector_process(d, (const int16_t*)samples + at, m,
                                                         &found, &count);
    stream_samples += (int64_t)m;
    if (s == KESTREL_OK) {
      CheckDetections(found, count, num_hotwords, stream_samples);
    } else if (s == KESTREL_ERROR_ARGUMENT) {
      stream_samples -= (int64_t)m; /* refused (a float that is not finite) */
    } else {
      stream_samples = 0; /* a failed analysis resets the stream */
    }
    /* Now and then what a host does between chunks. */
    if (num_hotwords > 0 && at % 5 == 1) {
      float sensitivity;
      if (kestrel_detector_get_sensitivity(d, 1, &sensitivity) != KESTREL_OK) abort();
      kestrel_detector_set_sensitivity(d, 1, sensitivity * 0.5f);
    }
  }
  if (kestrel_detector_flush(d, &found, &count) == KESTREL_OK) {
    CheckDetections(found, count, num_hotwords, stream_samples);
  }
  kestrel_detector_reset(d);
  free(samples);
  kestrel_detector_destroy(d);
  return 0;
}
