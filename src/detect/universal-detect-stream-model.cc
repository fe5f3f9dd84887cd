// Loading models into the detector's per-model and per-hotword state, writing
// them back, and the piece layouts derived for piecewise models. The file
// format itself is HotwordModel's.
#include <utility>

#include "detect/piece-layouts.h"
#include "detect/universal-detect-stream.h"
#include "utils/kestrel-globals.h"
#include "utils/kestrel-io.h"
#include "utils/kestrel-log.h"
#include "utils/kestrel-utils.h"

namespace kestrel {

namespace {

const char kLogFile[] = "universal-detect-stream";

}  // namespace

void UniversalDetectStream::ReadHotwordModel(const std::string& model_str) {
  std::vector<std::string> filenames;
  SplitStringToVector(model_str, global_kestrel_string_delimiter, &filenames);
  if (filenames.empty()) {
    KESTREL_ERR(kLogFile) << Name() << ": no model can be extracted from --model-str: "
                          << model_str;
  }
  SizeModelContainers(filenames.size());
  // Hotword numbers run on across files, from 1.
  int32 next_hotword_id = 1;
  for (size_t m = 0; m < filenames.size(); ++m) {
    LoadModel(static_cast<int>(m), HotwordModel::ReadFile(filenames[m], Name()),
              &next_hotword_id);
  }
}

void UniversalDetectStream::LoadModels(std::vector<HotwordModel> models) {
  if (models.empty()) {
    KESTREL_ERR(kLogFile) << Name() << ": no models given.";
  }
  // All are checked before any is taken, as a file would be while read.
  for (const HotwordModel& model : models) model.Check(Name());
  SizeModelContainers(models.size());
  int32 next_hotword_id = 1;
  for (size_t m = 0; m < models.size(); ++m) {
    LoadModel(static_cast<int>(m), std::move(models[m]), &next_hotword_id);
  }
}

void UniversalDetectStream::SizeModelContainers(size_t num_models) {
  nnets_.resize(num_models);
  keywords_.resize(num_models);
  sensitivities_.resize(num_models);
  high_sensitivities_.resize(num_models);
  hotword_ids_.resize(num_models);
  search_method_.resize(num_models);
  search_neighbour_.resize(num_models);
  duration_pass_.resize(num_models);
  floor_pass_.resize(num_models);
  search_mask_.resize(num_models);
  search_floor_.resize(num_models);
  search_max_.resize(num_models);
  num_piece_layouts_.resize(num_models);
  num_pieces_.resize(num_models);
  hotword_names_.resize(num_models);
  piece_infos_.resize(num_models);
  smooth_window_.resize(num_models, 0);
  slide_window_.resize(num_models, 0);
  smooth_buffers_.resize(num_models);
  posterior_windows_.resize(num_models);
  search_frame_best_.resize(num_models);
  search_frame_magnitude_.resize(num_models);
  smooth_sums_.resize(num_models);
  redup_pending_.resize(num_models);
  redup_frame_.resize(num_models);
  redup_score_.resize(num_models);
}

void UniversalDetectStream::LoadModel(int model_id, HotwordModel model, int32* next_hotword_id) {
  const int m = model_id;
  const bool piecewise = IsPiecewiseModel(model);
  smooth_window_[m] = model.smooth_window;
  slide_window_[m] = model.slide_window;
  for (HotwordRecord& record : model.hotwords) {
    keywords_[m].push_back(std::move(record.keyword));
    sensitivities_[m].push_back(record.sensitivity);
    high_sensitivities_[m].push_back(0.0f);
    hotword_ids_[m].push_back((*next_hotword_id)++);
    search_method_[m].push_back(record.search_method);
    search_neighbour_[m].push_back(record.search_neighbour);
    duration_pass_[m].push_back(record.duration_pass);
    floor_pass_[m].push_back(record.floor_pass);
    search_mask_[m].push_back(std::move(record.search_mask));
    search_floor_[m].push_back(std::move(record.search_floor));
    search_max_[m].push_back(record.search_max);
    num_piece_layouts_[m].push_back(options_.num_piece_layouts);
    num_pieces_[m].push_back(record.num_pieces);
    hotword_names_[m].push_back(std::move(record.name));
    redup_pending_[m].push_back(false);
    redup_frame_[m].push_back(-1000);
    redup_score_[m].push_back(0.0f);
  }
  nnets_[m] = std::move(model.nnet);

  const int num_outputs = nnets_[m].OutputDim();
  smooth_buffers_[m].assign(num_outputs, std::deque<float>());
  posterior_windows_[m].assign(num_outputs, std::deque<float>());
  search_frame_best_[m].assign(keywords_[m].size(), std::deque<float>());
  search_frame_magnitude_[m].assign(keywords_[m].size(), std::deque<float>());
  smooth_sums_[m].assign(num_outputs, 0.0f);

  piece_infos_[m].clear();
  if (piecewise) BuildPieceLayouts(m);
}

void UniversalDetectStream::BuildPieceLayouts(int model_id) {
  const int m = model_id;
  const size_t num_hotwords = keywords_[m].size();
  piece_infos_[m].clear();
  piece_infos_[m].resize(num_hotwords);
  for (size_t k = 0; k < num_hotwords; ++k) {
    const int32 num_layouts = num_piece_layouts_[m][k];
    if (num_layouts < 0) {
      KESTREL_ERR(kLogFile) << Name() << ": num_piece_layouts is " << num_layouts
                            << ", expected 0 or more.";
    }
    piece_infos_[m][k] = MakePieceLayouts(static_cast<int64>(keywords_[m][k].size()),
                                          num_pieces_[m][k], num_layouts,
                                          &num_piece_layouts_[m][k]);
  }
}

const std::vector<std::vector<UniversalDetectStream::PieceInfo>>&
UniversalDetectStream::PieceLayouts(int model_id, int hotword) const {
  static const std::vector<std::vector<PieceInfo>> kNone;
  return piece_infos_[model_id].empty() ? kNone : piece_infos_[model_id][hotword];
}

HotwordModel UniversalDetectStream::Model(int model_id) const {
  const int m = model_id;
  HotwordModel model;
  model.smooth_window = smooth_window_[m];
  model.slide_window = slide_window_[m];
  for (size_t k = 0; k < keywords_[m].size(); ++k) {
    HotwordRecord record;
    record.keyword = keywords_[m][k];
    record.sensitivity = sensitivities_[m][k];
    record.search_method = search_method_[m][k];
    record.search_neighbour = search_neighbour_[m][k];
    record.search_mask = search_mask_[m][k];
    record.search_floor = search_floor_[m][k];
    record.search_max = search_max_[m][k];
    record.num_pieces = num_pieces_[m][k];
    record.duration_pass = duration_pass_[m][k];
    record.floor_pass = floor_pass_[m][k];
    record.name = hotword_names_[m][k];
    model.hotwords.push_back(std::move(record));
  }
  model.nnet = nnets_[m];
  return model;
}

void UniversalDetectStream::WriteHotwordModel(bool binary, const std::string& model_str) const {
  std::vector<std::string> filenames;
  SplitStringToVector(model_str, global_kestrel_string_delimiter, &filenames);
  if (filenames.empty()) return;
  if (filenames.size() != nnets_.size()) {
    KESTREL_ERR(kLogFile) << Name() << ": cannot write " << nnets_.size() << " models to the "
                          << filenames.size() << " files named in \"" << model_str
                          << "\"; name one file per model.";
  }
  CheckWindowLengths();
  for (size_t m = 0; m < filenames.size(); ++m) {
    Model(static_cast<int>(m)).WriteFile(filenames[m], binary);
  }
}

void UniversalDetectStream::UpdateModel() const { WriteHotwordModel(true, options_.model_str); }

}  // namespace kestrel
