/* The C API from C: detection on the sample through every input path, the
 * options and setters, and every kind of misuse. Linked against libkestrel.so,
 * so it also checks that the library exports what the header declares. */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kestrel/kestrel.h"

static int failures = 0;

#define CHECK(cond)                                                         \
  do {                                                                      \
    if (!(cond)) {                                                          \
      fprintf(stderr, "%s:%d: failed: %s (last error: %s)\n", __FILE__,     \
              __LINE__, #cond, kestrel_last_error());                       \
      ++failures;                                                           \
    }                                                                       \
  } while (0)

static const char* kModel = KESTREL_SOURCE_DIR "/models/hey-kestrel.kmodel";

static char* ReadFile(const char* path, size_t* size) {
  FILE* f = fopen(path, "rb");
  if (f == NULL) return NULL;
  fseek(f, 0, SEEK_END);
  *size = (size_t)ftell(f);
  fseek(f, 0, SEEK_SET);
  char* bytes = malloc(*size);
  if (fread(bytes, 1, *size, f) != *size) *size = 0;
  fclose(f);
  return bytes;
}

/* The sample's samples: a plain 44-byte-header 16 kHz mono 16-bit WAV. */
static int16_t* ReadSample(size_t* n) {
  size_t size = 0;
  char* bytes = ReadFile(KESTREL_SOURCE_DIR "/samples/hey-kestrel.wav", &size);
  if (bytes == NULL || size < 44 || memcmp(bytes + 36, "data", 4) != 0) exit(2);
  *n = (size - 44) / 2;
  int16_t* samples = malloc(*n * sizeof(int16_t));
  memcpy(samples, bytes + 44, *n * sizeof(int16_t));
  free(bytes);
  return samples;
}

typedef struct {
  size_t count;
  kestrel_detection first;
} Found;

/* Streams the samples (as floats when `floats` is given) in chunks of 777,
 * then flushes; returns what was detected. */
static Found Run(kestrel_detector* d, const int16_t* samples, const float* floats, size_t n) {
  Found found = {0, {0, NULL, 0, 0.0f}};
  const kestrel_detection* detections;
  size_t count;
  for (size_t at = 0; at <= n; at += 777) {
    const size_t chunk = n - at < 777 ? n - at : 777;
    kestrel_status s =
        floats ? kestrel_detector_process_float(d, floats + at, chunk, &detections, &count)
               : kestrel_detector_process(d, samples + at, chunk, &detections, &count);
    if (s == KESTREL_OK && at + 777 > n) {
      if (count > 0 && found.count == 0) found.first = detections[0];
      found.count += count;
      s = kestrel_detector_flush(d, &detections, &count);
    }
    CHECK(s == KESTREL_OK);
    if (count > 0 && found.count == 0) found.first = detections[0];
    found.count += count;
  }
  return found;
}

static void TestDetection(const int16_t* samples, size_t n) {
  char version[32];
  snprintf(version, sizeof version, "%s", kestrel_version());
  CHECK(strcmp(version, KESTREL_EXPECTED_VERSION) == 0);

  const char* names[] = {"hey kestrel"};
  kestrel_detector_options options;
  kestrel_detector_options_init(&options);
  options.names = names;
  options.num_names = 1;
  kestrel_detector* d = NULL;
  CHECK(kestrel_detector_create_ex(&kModel, 1, &options, &d) == KESTREL_OK);
  if (d == NULL) return;
  size_t num_hotwords = 0;
  const char* name = NULL;
  int32_t rate = 0;
  CHECK(kestrel_detector_num_hotwords(d, &num_hotwords) == KESTREL_OK && num_hotwords == 1);
  CHECK(kestrel_detector_hotword_name(d, 1, &name) == KESTREL_OK && strcmp(name, "hey kestrel") == 0);
  CHECK(kestrel_detector_sample_rate(d, &rate) == KESTREL_OK && rate == 16000);

  Found found = Run(d, samples, NULL, n);
  CHECK(found.count == 1);
  CHECK(found.first.hotword == 1 && strcmp(found.first.name, "hey kestrel") == 0);
  CHECK(found.first.sample > 16000 && found.first.sample < (int64_t)n);
  float sensitivity = 0.0f;
  CHECK(kestrel_detector_get_sensitivity(d, 1, &sensitivity) == KESTREL_OK);
  CHECK(found.first.score >= 1.0f - sensitivity && found.first.score <= 1.0f);

  /* Flush started a new stream: the same audio again, the same position. */
  CHECK(Run(d, samples, NULL, n).first.sample == found.first.sample);
  /* Float input at full scale gives the same detection. */
  float* floats = malloc(n * sizeof(float));
  for (size_t i = 0; i < n; ++i) floats[i] = samples[i] / 32768.0f;
  Found from_floats = Run(d, NULL, floats, n);
  CHECK(from_floats.count == 1 && from_floats.first.sample == found.first.sample);
  free(floats);

  /* The same audio at 48 kHz (each sample three times), found at three
   * times the position, within a block. */
  int16_t* tripled = malloc(3 * n * sizeof(int16_t));
  for (size_t i = 0; i < 3 * n; ++i) tripled[i] = samples[i / 3];
  kestrel_detector_options at48k;
  kestrel_detector_options_init(&at48k);
  at48k.sample_rate = 48000;
  kestrel_detector* d48 = NULL;
  CHECK(kestrel_detector_create_ex(&kModel, 1, &at48k, &d48) == KESTREL_OK);
  if (d48 != NULL) {
    Found resampled = Run(d48, tripled, NULL, 3 * n);
    CHECK(resampled.count == 1 && llabs(resampled.first.sample - 3 * found.first.sample) <= 4800);
  }
  kestrel_detector_destroy(d48);
  free(tripled);

  /* A threshold of 2 cannot be passed; the setting holds until changed. */
  CHECK(kestrel_detector_set_sensitivity(d, 1, -1.0f) == KESTREL_OK);
  float now = 0.0f;
  CHECK(kestrel_detector_get_sensitivity(d, 1, &now) == KESTREL_OK && now == -1.0f);
  CHECK(Run(d, samples, NULL, n).count == 0);
  /* Live scores still see the hotword there, and each read starts over. */
  float peak = 0.0f;
  CHECK(kestrel_detector_peak_score(d, 1, &peak) == KESTREL_ERROR_ARGUMENT);
  CHECK(strstr(kestrel_last_error(), "tracking is off") != NULL);
  CHECK(kestrel_detector_track_scores(d, 1) == KESTREL_OK);
  CHECK(Run(d, samples, NULL, n).count == 0);
  CHECK(kestrel_detector_peak_score(d, 1, &peak) == KESTREL_OK && peak >= found.first.score);
  CHECK(kestrel_detector_peak_score(d, 1, &peak) == KESTREL_OK && peak == 0.0f);
  CHECK(kestrel_detector_track_scores(d, 0) == KESTREL_OK);
  CHECK(kestrel_detector_peak_score(d, 1, &peak) == KESTREL_ERROR_ARGUMENT);
  CHECK(kestrel_detector_set_sensitivity(d, 1, sensitivity) == KESTREL_OK);
  CHECK(Run(d, samples, NULL, n).count == 1);
  kestrel_detector_destroy(d);

  /* The model from memory, with the unpassable sensitivity as an option. */
  size_t size = 0;
  char* bytes = ReadFile(kModel, &size);
  const void* buffers[] = {bytes};
  const float never = -1.0f;
  options.sensitivities = &never;
  options.num_sensitivities = 1;
  d = NULL;
  CHECK(kestrel_detector_create_from_memory_ex(buffers, &size, 1, &options, &d) == KESTREL_OK);
  free(bytes);
  if (d != NULL) CHECK(Run(d, samples, NULL, n).count == 0);
  kestrel_detector_destroy(d);
  CHECK(kestrel_detector_create_from_memory(buffers, &size, 0, &d) == KESTREL_ERROR_ARGUMENT);
}

static void TestMisuse(const int16_t* samples) {
  kestrel_detector* d = (kestrel_detector*)1;
  const kestrel_detection* detections;
  size_t count;
  float value;
  const char* name;
  int32_t rate;

  /* Bad models: the status says which kind, the message names the culprit. */
  const char* missing = "/nonexistent/none.kmodel";
  CHECK(kestrel_detector_create(&missing, 1, &d) == KESTREL_ERROR_IO && d == NULL);
  CHECK(strstr(kestrel_last_error(), missing) != NULL);
  const char garbage[] = "<UniversalModel> <KwInfo> nonsense";
  const void* buffers[] = {garbage};
  const size_t sizes[] = {sizeof garbage};
  CHECK(kestrel_detector_create_from_memory(buffers, sizes, 1, &d) == KESTREL_ERROR_MODEL);
  CHECK(d == NULL && kestrel_last_error()[0] != '\0');
  CHECK(kestrel_detector_create(NULL, 1, &d) == KESTREL_ERROR_ARGUMENT);
  CHECK(kestrel_detector_create(&kModel, 1, NULL) == KESTREL_ERROR_ARGUMENT);

  /* Options that do not fit the model. */
  kestrel_detector_options options;
  kestrel_detector_options_init(&options);
  const char* two_names[] = {"a", "b"};
  options.names = two_names;
  options.num_names = 2;
  CHECK(kestrel_detector_create_ex(&kModel, 1, &options, &d) == KESTREL_ERROR_ARGUMENT);
  CHECK(strstr(kestrel_last_error(), "2 names") != NULL);
  kestrel_detector_options_init(&options);
  options.sample_rate = 1000;
  CHECK(kestrel_detector_create_ex(&kModel, 1, &options, &d) == KESTREL_ERROR_ARGUMENT);
  CHECK(strstr(kestrel_last_error(), "1000") != NULL);

  /* A NULL detector everywhere. */
  CHECK(kestrel_detector_process(NULL, samples, 10, &detections, &count) == KESTREL_ERROR_ARGUMENT);
  CHECK(kestrel_detector_process_float(NULL, NULL, 0, &detections, &count) == KESTREL_ERROR_ARGUMENT);
  CHECK(kestrel_detector_flush(NULL, &detections, &count) == KESTREL_ERROR_ARGUMENT);
  CHECK(kestrel_detector_reset(NULL) == KESTREL_ERROR_ARGUMENT);
  CHECK(kestrel_detector_num_hotwords(NULL, &count) == KESTREL_ERROR_ARGUMENT);
  CHECK(kestrel_detector_hotword_name(NULL, 1, &name) == KESTREL_ERROR_ARGUMENT);
  CHECK(kestrel_detector_get_sensitivity(NULL, 1, &value) == KESTREL_ERROR_ARGUMENT);
  CHECK(kestrel_detector_set_sensitivity(NULL, 1, 0.5f) == KESTREL_ERROR_ARGUMENT);
  CHECK(kestrel_detector_sample_rate(NULL, &rate) == KESTREL_ERROR_ARGUMENT);
  CHECK(kestrel_detector_track_scores(NULL, 1) == KESTREL_ERROR_ARGUMENT);
  CHECK(kestrel_detector_peak_score(NULL, 1, &value) == KESTREL_ERROR_ARGUMENT);
  CHECK(strstr(kestrel_last_error(), "NULL") != NULL);
  kestrel_detector_destroy(NULL);

  /* A real detector, wrong arguments; it stays usable after each. */
  CHECK(kestrel_detector_create(&kModel, 1, &d) == KESTREL_OK);
  CHECK(kestrel_detector_process(d, NULL, 5, &detections, &count) == KESTREL_ERROR_ARGUMENT);
  CHECK(kestrel_detector_process(d, samples, 5, NULL, &count) == KESTREL_ERROR_ARGUMENT);
  const float bad[] = {0.0f, NAN};
  CHECK(kestrel_detector_process_float(d, bad, 2, &detections, &count) == KESTREL_ERROR_ARGUMENT);
  CHECK(strstr(kestrel_last_error(), "sample 1") != NULL);
  CHECK(kestrel_detector_get_sensitivity(d, 0, &value) == KESTREL_ERROR_ARGUMENT);
  CHECK(kestrel_detector_set_sensitivity(d, 2, 0.5f) == KESTREL_ERROR_ARGUMENT);
  CHECK(strstr(kestrel_last_error(), "hotword 2") != NULL);
  CHECK(kestrel_detector_set_sensitivity(d, 1, NAN) == KESTREL_ERROR_ARGUMENT);
  CHECK(kestrel_detector_hotword_name(d, -3, &name) == KESTREL_ERROR_ARGUMENT);
  CHECK(kestrel_detector_hotword_name(d, 1, NULL) == KESTREL_ERROR_ARGUMENT);
  CHECK(kestrel_detector_process(d, NULL, 0, &detections, &count) == KESTREL_OK && count == 0);
  /* Unnamed by the caller: named after the model file. */
  CHECK(kestrel_detector_hotword_name(d, 1, &name) == KESTREL_OK &&
        strcmp(name, "hey kestrel") == 0);
  kestrel_detector_destroy(d);
}

int main(void) {
  size_t n = 0;
  int16_t* samples = ReadSample(&n);
  TestDetection(samples, n);
  TestMisuse(samples);
  free(samples);
  if (failures > 0) fprintf(stderr, "%d checks failed\n", failures);
  return failures == 0 ? 0 : 1;
}
