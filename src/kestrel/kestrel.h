/* kestrel.h: the C interface of the Kestrel hotword detector.
 *
 *   const char* models[] = {"hey-kestrel.kmodel"};
 *   kestrel_detector* d = NULL;
 *   if (kestrel_detector_create(models, 1, &d) != KESTREL_OK) {
 *     fprintf(stderr, "%s\n", kestrel_last_error());
 *     return 1;
 *   }
 *   const kestrel_detection* found; size_t count;
 *   while (read_audio(buffer, &n))            // 16 kHz mono int16, any chunk size
 *     if (kestrel_detector_process(d, buffer, n, &found, &count) == KESTREL_OK)
 *       for (size_t i = 0; i < count; ++i) printf("%s\n", found[i].name);
 *   kestrel_detector_flush(d, &found, &count);  // end of stream
 *   kestrel_detector_destroy(d);
 *
 * This is the one stable interface for other languages (C99; no C++ type and
 * no exception crosses it). A detector is an opaque handle that owns its
 * models, its audio chain and the detections it last returned.
 *
 * Errors: every function that can fail returns a kestrel_status; on failure
 * kestrel_last_error() gives a message naming the problem (the file, the
 * argument or the value). The message is per thread and stays until the
 * thread's next failed call; successful calls leave it alone. Misuse (a NULL
 * handle or output pointer, NULL samples with n > 0, a hotword number out of
 * range, a model buffer that is not a model) is reported the same way and
 * never crashes. After a failure inside process or flush the stream is reset.
 *
 * Threads: one thread at a time may use a detector; separate detectors may
 * run in parallel on different threads.
 *
 * Hotwords are numbered from 1 over all models, in the order the models were
 * given, the way kestrel_detection.hotword numbers them.
 */
#ifndef KESTREL_KESTREL_H_
#define KESTREL_KESTREL_H_

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__) || defined(__clang__)
#define KESTREL_API __attribute__((visibility("default")))
#else
#define KESTREL_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kestrel_detector kestrel_detector;

typedef enum {
  KESTREL_OK = 0,
  KESTREL_ERROR_ARGUMENT = 1, /* a bad argument: NULL, out of range, not finite */
  KESTREL_ERROR_MODEL = 2,    /* a model that could not be read or used */
  KESTREL_ERROR_IO = 3,       /* a model file that could not be opened */
  KESTREL_ERROR_INTERNAL = 4  /* anything else (out of memory, a library fault) */
} kestrel_status;

typedef struct {
  int32_t hotword;  /* 1-based over all models, load order */
  const char* name; /* the hotword's name, "" when none */
  int64_t sample;   /* position in the stream, in input samples since the stream began */
  float score;      /* the search score that passed the threshold */
} kestrel_detection;

/* Settings fixed at creation. Start from kestrel_detector_options_init, which
 * sets every field to its default, then change what you need; the library
 * copies everything it keeps, so the arrays may be freed after creation. */
typedef struct {
  /* Rate of the audio that will be passed in, in Hz (8000 to 48000); other
   * rates than 16000 are resampled inside. Default 16000. */
  int32_t sample_rate;
  /* NULL (default): each hotword keeps its model's sensitivity. Otherwise
   * num_sensitivities values: one for all hotwords, or one per hotword. */
  const float* sensitivities;
  size_t num_sensitivities;
  /* NULL (default): each hotword is named by its model: the name the file
   * stores, else the file's name as words ("hey-computer.kmodel": "hey
   * computer"); models from memory without a stored name give "".
   * Otherwise num_names strings, one per hotword. */
  const char* const* names;
  size_t num_names;
} kestrel_detector_options;

/* The library's version, "MAJOR.MINOR.PATCH". */
KESTREL_API const char* kestrel_version(void);

/* The message of this thread's last failed call, "" if none has failed. */
KESTREL_API const char* kestrel_last_error(void);

/* Fills *options with the defaults. */
KESTREL_API void kestrel_detector_options_init(kestrel_detector_options* options);

/* Creates a detector of num_models (at least one) model files. On success
 * *out is the new detector; on failure *out is NULL. */
KESTREL_API kestrel_status kestrel_detector_create(const char* const* model_paths,
                                                   size_t num_models, kestrel_detector** out);

/* The same from models already in memory: models[i] holds sizes[i] bytes of a
 * .kmodel file (binary or text). The buffers may be freed after the call. */
KESTREL_API kestrel_status kestrel_detector_create_from_memory(const void* const* models,
                                                               const size_t* sizes,
                                                               size_t num_models,
                                                               kestrel_detector** out);

/* The two above with options (NULL options means the defaults). */
KESTREL_API kestrel_status kestrel_detector_create_ex(const char* const* model_paths,
                                                      size_t num_models,
                                                      const kestrel_detector_options* options,
                                                      kestrel_detector** out);
KESTREL_API kestrel_status kestrel_detector_create_from_memory_ex(
    const void* const* models, const size_t* sizes, size_t num_models,
    const kestrel_detector_options* options, kestrel_detector** out);

/* Analyses n more samples (mono, at the creation sample rate, any chunk size)
 * and returns the detections they completed in *detections (*count of them).
 * Detections stay valid until the next call on the same detector. */
KESTREL_API kestrel_status kestrel_detector_process(kestrel_detector* d, const int16_t* samples,
                                                    size_t n,
                                                    const kestrel_detection** detections,
                                                    size_t* count);

/* The same for float samples, full scale -1 to 1; a sample that is not finite
 * (NaN, infinite) is an argument error. */
KESTREL_API kestrel_status kestrel_detector_process_float(kestrel_detector* d,
                                                          const float* samples, size_t n,
                                                          const kestrel_detection** detections,
                                                          size_t* count);

/* Ends the stream: analyses the audio still pending and returns its
 * detections, then resets, so the next sample starts a new stream at 0. */
KESTREL_API kestrel_status kestrel_detector_flush(kestrel_detector* d,
                                                  const kestrel_detection** detections,
                                                  size_t* count);

/* Drops pending audio and the held context; the next sample starts a new
 * stream at position 0. */
KESTREL_API kestrel_status kestrel_detector_reset(kestrel_detector* d);

/* Frees the detector and its detections. NULL is fine. */
KESTREL_API void kestrel_detector_destroy(kestrel_detector* d);

/* Number of hotwords over all models. */
KESTREL_API kestrel_status kestrel_detector_num_hotwords(const kestrel_detector* d,
                                                         size_t* count);

/* The name of hotword `hotword` (1-based), "" when it has none; valid for the
 * detector's lifetime. */
KESTREL_API kestrel_status kestrel_detector_hotword_name(const kestrel_detector* d,
                                                         int32_t hotword, const char** name);

/* The sensitivity of hotword `hotword` (1-based): the threshold its search
 * score must pass. Setting it takes effect from the next search step. */
KESTREL_API kestrel_status kestrel_detector_get_sensitivity(const kestrel_detector* d,
                                                            int32_t hotword, float* sensitivity);
KESTREL_API kestrel_status kestrel_detector_set_sensitivity(kestrel_detector* d, int32_t hotword,
                                                            float sensitivity);

/* Live scores, for a score meter or for choosing a sensitivity. While
 * tracking is on (enable non-zero), the detector keeps each hotword's highest
 * search score, and kestrel_detector_peak_score returns it and starts over, so
 * that polling it after each process call gives the peak of that stretch of
 * audio (0 when no search step ran). Tracking runs every search on every
 * step, including those normally skipped because they cannot reach their
 * threshold, so it costs CPU; detections are the same either way. Off by
 * default; peak_score with tracking off is an argument error. */
KESTREL_API kestrel_status kestrel_detector_track_scores(kestrel_detector* d, int enable);
KESTREL_API kestrel_status kestrel_detector_peak_score(kestrel_detector* d, int32_t hotword,
                                                       float* score);

/* The input sample rate the detector was created with, in Hz. */
KESTREL_API kestrel_status kestrel_detector_sample_rate(const kestrel_detector* d,
                                                        int32_t* sample_rate);

#ifdef __cplusplus
}
#endif

#endif /* KESTREL_KESTREL_H_ */
