// Sensitivity and window settings of the detector stage, applied by the
// constructor from the option strings and callable between reads.
#include <sstream>

#include "detect/universal-detect-stream.h"
#include "utils/kestrel-globals.h"
#include "utils/kestrel-log.h"
#include "utils/kestrel-utils.h"

namespace kestrel {

namespace {

const char kLogFile[] = "universal-detect-stream";

}  // namespace

void UniversalDetectStream::SetSensitivity(const std::string& sensitivity_str) {
  std::vector<float> values;
  SplitStringToFloats(sensitivity_str, global_kestrel_string_delimiter, &values);
  SetSensitivityList(values, &sensitivities_);
}

void UniversalDetectStream::SetHighSensitivity(const std::string& high_sensitivity_str) {
  std::vector<float> values;
  SplitStringToFloats(high_sensitivity_str, global_kestrel_string_delimiter, &values);
  SetSensitivityList(values, &high_sensitivities_);
}

void UniversalDetectStream::SetSensitivity(const std::vector<float>& values) {
  SetSensitivityList(values, &sensitivities_);
}

void UniversalDetectStream::SetHighSensitivity(const std::vector<float>& values) {
  SetSensitivityList(values, &high_sensitivities_);
}

void UniversalDetectStream::SetSensitivity(int model_id, int hotword, float value) {
  SetHotwordValue(model_id, hotword, value, &sensitivities_);
}

void UniversalDetectStream::SetHighSensitivity(int model_id, int hotword, float value) {
  SetHotwordValue(model_id, hotword, value, &high_sensitivities_);
}

void UniversalDetectStream::SetHotwordValue(int model_id, int hotword, float value,
                                            std::vector<std::vector<float>>* target) {
  if (model_id < 0 || model_id >= NumModels() || hotword < 0 ||
      hotword >= static_cast<int>((*target)[model_id].size())) {
    KESTREL_ERR(kLogFile) << Name() << ": there is no hotword " << hotword << " of model "
                          << model_id << " (both counted from 0).";
  }
  (*target)[model_id][hotword] = value;
}

void UniversalDetectStream::SetSensitivityList(const std::vector<float>& values,
                                               std::vector<std::vector<float>>* target) {
  const size_t num_models = target->size();
  // Counted rather than read off the last hotword number, so that a last
  // model without hotwords counts too.
  size_t num_hotwords = 0;
  for (const std::vector<float>& model : *target) num_hotwords += model.size();

  // One value per model wins over one per hotword when the counts agree; with
  // one hotword per model both give the same result.
  if (values.size() == 1) {
    for (std::vector<float>& model : *target) model.assign(model.size(), values[0]);
  } else if (values.size() == num_models) {
    for (size_t m = 0; m < num_models; ++m) {
      (*target)[m].assign((*target)[m].size(), values[m]);
    }
  } else if (values.size() == num_hotwords) {
    size_t next = 0;
    for (std::vector<float>& model : *target) {
      for (float& value : model) value = values[next++];
    }
  } else {
    KESTREL_ERR(kLogFile) << "Number of sensitivities does not match number of "
                          << "hotwords (" << values.size() << " v.s. " << num_hotwords
                          << "). " << "Note that each universal model may has multiple "
                          << "hotwords.";
  }
}

std::string UniversalDetectStream::GetSensitivity() const {
  std::ostringstream os;
  const char* separator = "";
  for (const std::vector<float>& model : sensitivities_) {
    for (float value : model) {
      os << separator << value;
      separator = ", ";
    }
  }
  return os.str();
}

int UniversalDetectStream::NumHotwords(int model_id) const {
  const int num_models = static_cast<int>(keywords_.size());
  if (model_id < 0 || model_id >= num_models) {
    KESTREL_WARN(kLogFile) << Name() << ": model id runs out of range, expecting a value "
                           << "between [0, " << num_models << "), got " << model_id
                           << " instead.";
    return 0;
  }
  return static_cast<int>(keywords_[model_id].size());
}

void UniversalDetectStream::SetSmoothWindowSize(const std::string& smooth_window_str) {
  SplitStringToIntegers<int32>(smooth_window_str, global_kestrel_string_delimiter,
                               &smooth_window_);
}

void UniversalDetectStream::SetSlideWindowSize(const std::string& slide_window_str) {
  SplitStringToIntegers<int32>(slide_window_str, global_kestrel_string_delimiter,
                               &slide_window_);
}

}  // namespace kestrel
