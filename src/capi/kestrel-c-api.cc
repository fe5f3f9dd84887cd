// The C interface: a thin layer over HotwordDetector that turns every
// exception into a status and a thread-local message, and keeps what the
// returned pointers point to (detections, names) alive in the handle.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <exception>
#include <fstream>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "facade/hotword-detector.h"
#include "model/hotword-model.h"
#include "kestrel/kestrel.h"
#include "kestrel/kestrel-version.h"
#include "utils/kestrel-log.h"

struct kestrel_detector {
  std::unique_ptr<kestrel::HotwordDetector> detector;
  int32_t sample_rate = 16000;
  // The detections of the last process or flush call; their names point
  // into the detector's names.
  std::vector<kestrel_detection> detections;
  // Each hotword's highest score since its last peak_score call; empty while
  // score tracking is off.
  std::vector<float> peak_scores;
};

namespace {

thread_local std::string last_error;

kestrel_status Fail(kestrel_status status, const std::string& message) {
  last_error = message;
  return status;
}

// Runs `body`, which returns a status, and turns any exception it throws into
// one: library errors into `library_status`, everything else into
// KESTREL_ERROR_INTERNAL.
template <typename Body>
kestrel_status Guard(const char* function, kestrel_status library_status, Body body) {
  try {
    return body();
  } catch (const kestrel::KestrelError& e) {
    return Fail(library_status, e.what());
  } catch (const std::bad_alloc&) {
    return Fail(KESTREL_ERROR_INTERNAL, std::string(function) + ": out of memory");
  } catch (const std::exception& e) {
    return Fail(KESTREL_ERROR_INTERNAL, std::string(function) + ": " + e.what());
  } catch (...) {
    return Fail(KESTREL_ERROR_INTERNAL, std::string(function) + ": unknown error");
  }
}

kestrel_status CheckHandle(const kestrel_detector* d, const char* function) {
  if (d == nullptr) return Fail(KESTREL_ERROR_ARGUMENT, std::string(function) + ": detector is NULL");
  return KESTREL_OK;
}

kestrel_status CheckHotword(const kestrel_detector* d, int32_t hotword, const char* function) {
  if (kestrel_status s = CheckHandle(d, function)) return s;
  const int32_t num = d->detector->NumHotwords();
  if (hotword < 1 || hotword > num) {
    std::ostringstream os;
    os << function << ": hotword " << hotword << " is out of range; the detector has " << num
       << " hotword" << (num == 1 ? "" : "s") << ", numbered from 1";
    return Fail(KESTREL_ERROR_ARGUMENT, os.str());
  }
  return KESTREL_OK;
}

kestrel_status CheckOutputs(const kestrel_detection** detections, size_t* count,
                            const char* function) {
  if (detections == nullptr || count == nullptr) {
    return Fail(KESTREL_ERROR_ARGUMENT,
                std::string(function) + ": detections and count must not be NULL");
  }
  *detections = nullptr;
  *count = 0;
  return KESTREL_OK;
}

// Moves the checked options into the facade's, given the loaded models.
kestrel_status FacadeOptions(const kestrel_detector_options& options,
                             std::vector<kestrel::HotwordModel> models, const char* function,
                             kestrel::HotwordDetectorOptions* out) {
  size_t num_hotwords = 0;
  for (const kestrel::HotwordModel& model : models) num_hotwords += model.hotwords.size();
  if (options.names != nullptr) {
    if (options.num_names != num_hotwords) {
      std::ostringstream os;
      os << function << ": " << options.num_names << " names given for " << num_hotwords
         << " hotwords";
      return Fail(KESTREL_ERROR_ARGUMENT, os.str());
    }
    for (size_t i = 0; i < num_hotwords; ++i) {
      if (options.names[i] == nullptr) {
        return Fail(KESTREL_ERROR_ARGUMENT,
                    std::string(function) + ": name " + std::to_string(i + 1) + " is NULL");
      }
      out->hotword_names.push_back(options.names[i]);
    }
  }
  if (options.sensitivities != nullptr) {
    if (options.num_sensitivities != 1 && options.num_sensitivities != num_hotwords) {
      std::ostringstream os;
      os << function << ": " << options.num_sensitivities << " sensitivities given for "
         << num_hotwords << " hotwords; give one for all or one per hotword";
      return Fail(KESTREL_ERROR_ARGUMENT, os.str());
    }
    for (size_t i = 0; i < options.num_sensitivities; ++i) {
      if (!std::isfinite(options.sensitivities[i])) {
        return Fail(KESTREL_ERROR_ARGUMENT, std::string(function) + ": sensitivity " +
                                                std::to_string(i + 1) + " is not finite");
      }
      out->sensitivities.push_back(options.sensitivities[i]);
    }
  }
  out->sample_rate = options.sample_rate;
  out->models = std::move(models);
  return KESTREL_OK;
}

kestrel_status CheckOptions(const kestrel_detector_options& options, const char* function) {
  if (options.sample_rate < 8000 || options.sample_rate > 48000) {
    return Fail(KESTREL_ERROR_ARGUMENT, std::string(function) + ": sample rate " +
                                            std::to_string(options.sample_rate) +
                                            " Hz is outside 8000 to 48000 Hz");
  }
  if (options.num_names > 0 && options.names == nullptr) {
    return Fail(KESTREL_ERROR_ARGUMENT, std::string(function) + ": num_names is " +
                                            std::to_string(options.num_names) +
                                            " but names is NULL");
  }
  if (options.num_sensitivities > 0 && options.sensitivities == nullptr) {
    return Fail(KESTREL_ERROR_ARGUMENT, std::string(function) + ": num_sensitivities is " +
                                            std::to_string(options.num_sensitivities) +
                                            " but sensitivities is NULL");
  }
  return KESTREL_OK;
}

// Creates a detector of the models `load` reads (a library error there is a
// model error).
template <typename Load>
kestrel_status Create(const kestrel_detector_options* options, kestrel_detector** out,
                      const char* function, Load load) {
  kestrel_detector_options defaults;
  kestrel_detector_options_init(&defaults);
  const kestrel_detector_options& opts = options != nullptr ? *options : defaults;
  if (kestrel_status s = CheckOptions(opts, function)) return s;
  return Guard(function, KESTREL_ERROR_MODEL, [&]() {
    kestrel::HotwordDetectorOptions facade_options;
    if (kestrel_status s = FacadeOptions(opts, load(), function, &facade_options)) return s;
    auto d = std::make_unique<kestrel_detector>();
    d->detector = std::make_unique<kestrel::HotwordDetector>(facade_options);
    d->sample_rate = opts.sample_rate;
    *out = d.release();
    return KESTREL_OK;
  });
}

// Hands the facade's detections to the caller through the handle.
void Publish(const std::vector<kestrel::Detection>& found, kestrel_detector* d,
             const kestrel_detection** detections, size_t* count) {
  d->detections.clear();
  for (const kestrel::Detection& f : found) {
    kestrel_detection c;
    c.hotword = f.hotword;
    c.name = d->detector->HotwordName(f.hotword).c_str();
    c.sample = f.sample;
    c.score = f.score;
    d->detections.push_back(c);
  }
  *detections = d->detections.empty() ? nullptr : d->detections.data();
  *count = d->detections.size();
}

// Runs `step` (a facade call returning detections); on any failure resets the
// stream, as the facade leaves it to be reset after an error.
template <typename Step>
kestrel_status RunStream(kestrel_detector* d, const kestrel_detection** detections, size_t* count,
                         const char* function, Step step) {
  d->detections.clear();
  const kestrel_status status = Guard(function, KESTREL_ERROR_MODEL, [&]() {
    Publish(step(), d, detections, count);
    return KESTREL_OK;
  });
  if (status != KESTREL_OK) {
    Guard(function, KESTREL_ERROR_INTERNAL, [&]() {
      d->detector->Reset();
      return KESTREL_OK;
    });
  }
  return status;
}

}  // namespace

extern "C" {

const char* kestrel_version(void) { return KESTREL_VERSION_STRING; }

const char* kestrel_last_error(void) { return last_error.c_str(); }

void kestrel_detector_options_init(kestrel_detector_options* options) {
  if (options == nullptr) return;
  std::memset(options, 0, sizeof(*options));
  options->sample_rate = 16000;
}

kestrel_status kestrel_detector_create(const char* const* model_paths, size_t num_models,
                                       kestrel_detector** out) {
  return kestrel_detector_create_ex(model_paths, num_models, nullptr, out);
}

kestrel_status kestrel_detector_create_ex(const char* const* model_paths, size_t num_models,
                                          const kestrel_detector_options* options,
                                          kestrel_detector** out) {
  const char* function = "kestrel_detector_create";
  if (out == nullptr) return Fail(KESTREL_ERROR_ARGUMENT, std::string(function) + ": out is NULL");
  *out = nullptr;
  if (model_paths == nullptr || num_models == 0) {
    return Fail(KESTREL_ERROR_ARGUMENT,
                std::string(function) + ": no model files given (model_paths is NULL or empty)");
  }
  for (size_t i = 0; i < num_models; ++i) {
    if (model_paths[i] == nullptr) {
      return Fail(KESTREL_ERROR_ARGUMENT,
                  std::string(function) + ": model path " + std::to_string(i + 1) + " is NULL");
    }
    // Told apart here, as a missing file is the caller's to fix, not the model's.
    std::ifstream probe(model_paths[i], std::ios::binary);
    if (!probe) {
      return Fail(KESTREL_ERROR_IO, std::string(function) + ": cannot open model file " +
                                        model_paths[i] + ": " + std::strerror(errno));
    }
  }
  return Create(options, out, function, [&]() {
    std::vector<kestrel::HotwordModel> models;
    for (size_t i = 0; i < num_models; ++i) {
      models.push_back(kestrel::HotwordModel::ReadFile(model_paths[i]));
    }
    return models;
  });
}

kestrel_status kestrel_detector_create_from_memory(const void* const* models, const size_t* sizes,
                                                   size_t num_models, kestrel_detector** out) {
  return kestrel_detector_create_from_memory_ex(models, sizes, num_models, nullptr, out);
}

kestrel_status kestrel_detector_create_from_memory_ex(const void* const* models,
                                                      const size_t* sizes, size_t num_models,
                                                      const kestrel_detector_options* options,
                                                      kestrel_detector** out) {
  const char* function = "kestrel_detector_create_from_memory";
  if (out == nullptr) return Fail(KESTREL_ERROR_ARGUMENT, std::string(function) + ": out is NULL");
  *out = nullptr;
  if (models == nullptr || sizes == nullptr || num_models == 0) {
    return Fail(KESTREL_ERROR_ARGUMENT, std::string(function) +
                                            ": no models given (models or sizes is NULL, or "
                                            "num_models is 0)");
  }
  for (size_t i = 0; i < num_models; ++i) {
    if (models[i] == nullptr && sizes[i] > 0) {
      return Fail(KESTREL_ERROR_ARGUMENT, std::string(function) + ": model " +
                                              std::to_string(i + 1) + " is NULL but its size is " +
                                              std::to_string(sizes[i]));
    }
  }
  return Create(options, out, function, [&]() {
    std::vector<kestrel::HotwordModel> loaded;
    for (size_t i = 0; i < num_models; ++i) {
      loaded.push_back(kestrel::HotwordModel::ReadMemory(
          models[i], sizes[i], "model buffer " + std::to_string(i + 1)));
    }
    return loaded;
  });
}

kestrel_status kestrel_detector_process(kestrel_detector* d, const int16_t* samples, size_t n,
                                        const kestrel_detection** detections, size_t* count) {
  const char* function = "kestrel_detector_process";
  if (kestrel_status s = CheckHandle(d, function)) return s;
  if (kestrel_status s = CheckOutputs(detections, count, function)) return s;
  if (samples == nullptr && n > 0) {
    return Fail(KESTREL_ERROR_ARGUMENT, std::string(function) + ": samples is NULL but n is " +
                                            std::to_string(n));
  }
  return RunStream(d, detections, count, function,
                   [&]() { return d->detector->Process(samples, n); });
}

kestrel_status kestrel_detector_process_float(kestrel_detector* d, const float* samples, size_t n,
                                              const kestrel_detection** detections,
                                              size_t* count) {
  const char* function = "kestrel_detector_process_float";
  if (kestrel_status s = CheckHandle(d, function)) return s;
  if (kestrel_status s = CheckOutputs(detections, count, function)) return s;
  if (samples == nullptr && n > 0) {
    return Fail(KESTREL_ERROR_ARGUMENT, std::string(function) + ": samples is NULL but n is " +
                                            std::to_string(n));
  }
  for (size_t i = 0; i < n; ++i) {
    if (!std::isfinite(samples[i])) {
      return Fail(KESTREL_ERROR_ARGUMENT,
                  std::string(function) + ": sample " + std::to_string(i) + " is not finite");
    }
  }
  return RunStream(d, detections, count, function,
                   [&]() { return d->detector->Process(samples, n); });
}

kestrel_status kestrel_detector_flush(kestrel_detector* d, const kestrel_detection** detections,
                                      size_t* count) {
  const char* function = "kestrel_detector_flush";
  if (kestrel_status s = CheckHandle(d, function)) return s;
  if (kestrel_status s = CheckOutputs(detections, count, function)) return s;
  return RunStream(d, detections, count, function, [&]() { return d->detector->Flush(); });
}

kestrel_status kestrel_detector_reset(kestrel_detector* d) {
  const char* function = "kestrel_detector_reset";
  if (kestrel_status s = CheckHandle(d, function)) return s;
  return Guard(function, KESTREL_ERROR_INTERNAL, [&]() {
    d->detections.clear();
    d->detector->Reset();
    return KESTREL_OK;
  });
}

void kestrel_detector_destroy(kestrel_detector* d) { delete d; }

kestrel_status kestrel_detector_num_hotwords(const kestrel_detector* d, size_t* count) {
  const char* function = "kestrel_detector_num_hotwords";
  if (kestrel_status s = CheckHandle(d, function)) return s;
  if (count == nullptr) return Fail(KESTREL_ERROR_ARGUMENT, std::string(function) + ": count is NULL");
  *count = static_cast<size_t>(d->detector->NumHotwords());
  return KESTREL_OK;
}

kestrel_status kestrel_detector_hotword_name(const kestrel_detector* d, int32_t hotword,
                                             const char** name) {
  const char* function = "kestrel_detector_hotword_name";
  if (kestrel_status s = CheckHotword(d, hotword, function)) return s;
  if (name == nullptr) return Fail(KESTREL_ERROR_ARGUMENT, std::string(function) + ": name is NULL");
  *name = d->detector->HotwordName(hotword).c_str();
  return KESTREL_OK;
}

kestrel_status kestrel_detector_get_sensitivity(const kestrel_detector* d, int32_t hotword,
                                                float* sensitivity) {
  const char* function = "kestrel_detector_get_sensitivity";
  if (kestrel_status s = CheckHotword(d, hotword, function)) return s;
  if (sensitivity == nullptr) {
    return Fail(KESTREL_ERROR_ARGUMENT, std::string(function) + ": sensitivity is NULL");
  }
  return Guard(function, KESTREL_ERROR_INTERNAL, [&]() {
    *sensitivity = d->detector->Sensitivity(hotword);
    return KESTREL_OK;
  });
}

kestrel_status kestrel_detector_set_sensitivity(kestrel_detector* d, int32_t hotword,
                                                float sensitivity) {
  const char* function = "kestrel_detector_set_sensitivity";
  if (kestrel_status s = CheckHotword(d, hotword, function)) return s;
  if (!std::isfinite(sensitivity)) {
    return Fail(KESTREL_ERROR_ARGUMENT, std::string(function) + ": sensitivity is not finite");
  }
  return Guard(function, KESTREL_ERROR_INTERNAL, [&]() {
    d->detector->SetSensitivity(hotword, sensitivity);
    return KESTREL_OK;
  });
}

kestrel_status kestrel_detector_track_scores(kestrel_detector* d, int enable) {
  const char* function = "kestrel_detector_track_scores";
  if (kestrel_status s = CheckHandle(d, function)) return s;
  return Guard(function, KESTREL_ERROR_INTERNAL, [&]() {
    if (!enable) {
      d->detector->SetScoreListener(nullptr);
      d->peak_scores.clear();
      return KESTREL_OK;
    }
    d->peak_scores.assign(static_cast<size_t>(d->detector->NumHotwords()), 0.0f);
    d->detector->SetScoreListener([d](const kestrel::HotwordScore& step) {
      float& peak = d->peak_scores[static_cast<size_t>(step.hotword - 1)];
      peak = std::max(peak, step.score);
    });
    return KESTREL_OK;
  });
}

kestrel_status kestrel_detector_peak_score(kestrel_detector* d, int32_t hotword, float* score) {
  const char* function = "kestrel_detector_peak_score";
  if (kestrel_status s = CheckHotword(d, hotword, function)) return s;
  if (score == nullptr) return Fail(KESTREL_ERROR_ARGUMENT, std::string(function) + ": score is NULL");
  if (d->peak_scores.empty()) {
    return Fail(KESTREL_ERROR_ARGUMENT,
                std::string(function) + ": score tracking is off (kestrel_detector_track_scores)");
  }
  float& peak = d->peak_scores[static_cast<size_t>(hotword - 1)];
  *score = peak;
  peak = 0.0f;
  return KESTREL_OK;
}

kestrel_status kestrel_detector_sample_rate(const kestrel_detector* d, int32_t* sample_rate) {
  const char* function = "kestrel_detector_sample_rate";
  if (kestrel_status s = CheckHandle(d, function)) return s;
  if (sample_rate == nullptr) {
    return Fail(KESTREL_ERROR_ARGUMENT, std::string(function) + ": sample_rate is NULL");
  }
  *sample_rate = d->sample_rate;
  return KESTREL_OK;
}

}  // extern "C"
