#include "sensitivity-sweep.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <filesystem>
#include <iomanip>
#include <mutex>
#include <sstream>
#include <thread>

#include "frontend/audio-format.h"
#include "frontend/wave-reader.h"
#include "utils/kestrel-log.h"
#include "utils/kestrel-utils.h"

namespace kestrel {

namespace fs = std::filesystem;

namespace {

const char kLogFile[] = "sensitivity-sweep";

std::vector<std::string> WavesIn(const std::string& dir) {
  std::vector<std::string> waves;
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(dir, error)) {
    std::string extension = entry.path().extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(), ::tolower);
    if (extension == ".wav" && entry.is_regular_file()) waves.push_back(entry.path().string());
  }
  if (error) KESTREL_ERR(kLogFile) << dir << ": cannot read the directory: " << error.message();
  if (waves.empty()) KESTREL_ERR(kLogFile) << dir << ": the directory has no .wav files";
  std::sort(waves.begin(), waves.end());
  return waves;
}

// Detections of a fresh detector over the whole recording: a new detector
// for each, so that no state (refractory span, sensitivity mode) of one
// recording reaches into the next.
int CountDetections(const HotwordDetectorOptions& options, const Recording& recording) {
  HotwordDetector detector(options);
  size_t count = detector.Process(recording.samples.data(), recording.samples.size()).size();
  count += detector.Flush().size();
  return static_cast<int>(count);
}

}  // namespace

std::vector<Recording> ReadRecordings(const std::string& list, const std::string& what) {
  std::vector<std::string> items;
  SplitStringToVector(list, ",", &items);
  if (items.empty()) KESTREL_ERR(kLogFile) << what << " names no .wav file or directory";
  std::vector<Recording> recordings;
  for (const std::string& item : items) {
    const std::vector<std::string> files = fs::is_directory(item) ? WavesIn(item)
                                                                  : std::vector<std::string>{item};
    for (const std::string& file : files) {
      Recording recording{file, ReadWaveFile(file)};
      if (recording.samples.empty()) KESTREL_ERR(kLogFile) << file << ": the file has no audio";
      recordings.push_back(std::move(recording));
    }
  }
  return recordings;
}

std::vector<SweepPoint> SweepSensitivity(const HotwordDetectorOptions& options,
                                         const std::vector<Recording>& positives,
                                         const std::vector<Recording>& negatives,
                                         const std::vector<float>& sensitivities, int threads) {
  std::vector<SweepPoint> points(sensitivities.size());
  double seconds = 0.0;
  for (const Recording& r : negatives) seconds += static_cast<double>(r.samples.size()) / kSampleRate;
  // Every (sensitivity, recording) pair is one task; results land in their
  // own slots, so the workers share nothing but the task counter.
  const size_t per_point = positives.size() + negatives.size();
  std::vector<int> detections(sensitivities.size() * per_point, 0);
  std::vector<HotwordDetectorOptions> point_options(sensitivities.size(), options);
  for (size_t p = 0; p < sensitivities.size(); ++p) {
    point_options[p].sample_rate = kSampleRate;
    point_options[p].sensitivities = {sensitivities[p]};
    point_options[p].high_sensitivities.clear();
  }
  std::atomic<size_t> next{0};
  std::mutex error_mutex;
  std::exception_ptr error;
  auto work = [&]() {
    for (size_t task; (task = next++) < detections.size();) {
      const size_t p = task / per_point, r = task % per_point;
      const Recording& recording =
          r < positives.size() ? positives[r] : negatives[r - positives.size()];
      try {
        detections[task] = CountDetections(point_options[p], recording);
      } catch (...) {
        std::lock_guard<std::mutex> lock(error_mutex);
        if (!error) error = std::current_exception();
        next = detections.size();
      }
    }
  };
  std::vector<std::thread> workers;
  for (int t = 1; t < threads; ++t) workers.emplace_back(work);
  work();
  for (std::thread& worker : workers) worker.join();
  if (error) std::rethrow_exception(error);

  for (size_t p = 0; p < sensitivities.size(); ++p) {
    SweepPoint& point = points[p];
    point.sensitivity = sensitivities[p];
    point.negative_hours = seconds / 3600.0;
    for (size_t r = 0; r < per_point; ++r) {
      const int n = detections[p * per_point + r];
      if (r < positives.size()) {
        point.misses += n == 0;
      } else {
        point.false_alarms += n;
      }
    }
  }
  return points;
}

size_t RecommendSensitivity(const std::vector<SweepPoint>& points,
                            double max_false_alarms_per_hour, float trained, std::string* rule) {
  std::vector<size_t> within;
  for (size_t i = 0; i < points.size(); ++i) {
    if (points[i].FalseAlarmsPerHour() <= max_false_alarms_per_hour) within.push_back(i);
  }
  std::ostringstream why;
  why << std::setprecision(3);
  if (within.empty()) {
    why << "no sensitivity keeps false alarms within " << max_false_alarms_per_hour
        << " per hour; this is the least sensitive tried";
    if (rule != nullptr) *rule = why.str();
    return 0;
  }
  int fewest = points[within[0]].misses;
  for (size_t i : within) fewest = std::min(fewest, points[i].misses);
  std::vector<size_t> best;
  for (size_t i : within) {
    if (points[i].misses == fewest) best.push_back(i);
  }
  size_t middle = best.size() / 2;
  why << "sensitivities " << points[best.front()].sensitivity << " to "
      << points[best.back()].sensitivity << " miss the fewest recordings (" << fewest
      << ") with false alarms within " << max_false_alarms_per_hour << " per hour; ";
  if (points[best[middle]].sensitivity > trained && points[best.front()].sensitivity <= trained) {
    while (points[best[middle]].sensitivity > trained) --middle;
    why << "the most sensitive of them at or below the model's own " << trained;
  } else {
    why << "the middle of them";
  }
  if (rule != nullptr) *rule = why.str();
  return best[middle];
}

}  // namespace kestrel
