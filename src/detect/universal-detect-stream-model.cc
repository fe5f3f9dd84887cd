// Universal model files: reading them into the detector's per-model and
// per-hotword state, writing them back, and the piece layouts derived for
// piecewise models.
//
// One file:
//   <UniversalModel> <KwInfo> <SmoothWindow> int <SlideWindow> int <NumKws> n
//   n records: <Kw> [ units ] <Sensitivity> float
//              [<SearchMethod> int <SearchNeighbour> int <SearchMask> [ ints ]
//               <SearchFloor> float-vector]   (search group)
//              [<SearchMax> bool] [<NumPieces> int]
//              [<DurationPass> int <FloorPass> int]
//   </KwInfo> network
// Optional groups are told apart by the first letter of their first token.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

#include "detect/universal-detect-stream.h"
#include "utils/kestrel-globals.h"
#include "utils/kestrel-io.h"
#include "utils/kestrel-log.h"
#include "utils/kestrel-utils.h"

namespace kestrel {

namespace {

const char kLogFile[] = "universal-detect-stream";

// Every network output costs two buffers per model; hotword networks have a
// few dozen outputs, and a corrupted dimension must not exhaust memory.
constexpr int kMaxNetworkOutputs = 1 << 16;

const int32 kDefaultSearchMethod = 1;
const float kDefaultSearchFloor = 0.05f;
const int32 kNaiveSearchMethod = 1;
const int32 kPiecewiseSearchMethod = 4;
const int32 kLastSearchMethod = 8;
// Frames per unit of a piece's search span.
const int32 kFramesPerPieceUnit = 10;

// One hotword record as the file holds it, with the defaults of absent groups.
struct HotwordRecord {
  std::vector<int32> keyword;
  float sensitivity = 0.0f;
  bool has_search_group = false;
  int32 search_method = kDefaultSearchMethod;
  int32 search_neighbour = 0;
  std::vector<int32> search_mask;
  std::vector<float> search_floor;
  bool search_max = false;
  int32 num_pieces = 1;
  int32 duration_pass = 0;
  int32 floor_pass = 0;
};

void ReadHotwordRecord(bool binary, std::istream* is, HotwordRecord* record) {
  ExpectToken(binary, "<Kw>", is);
  ReadIntegerVector(binary, &record->keyword, is);
  ExpectToken(binary, "<Sensitivity>", is);
  ReadBasicType(binary, &record->sensitivity, is);
  if (PeekToken(binary, is) == 'S') {
    record->has_search_group = true;
    ExpectToken(binary, "<SearchMethod>", is);
    ReadBasicType(binary, &record->search_method, is);
    ExpectToken(binary, "<SearchNeighbour>", is);
    ReadBasicType(binary, &record->search_neighbour, is);
    ExpectToken(binary, "<SearchMask>", is);
    ReadIntegerVector(binary, &record->search_mask, is);
    ExpectToken(binary, "<SearchFloor>", is);
    Vector floor;
    floor.Read(binary, is);
    record->search_floor.assign(floor.Data(), floor.Data() + floor.Dim());
  }
  if (PeekToken(binary, is) == 'S') {
    ExpectToken(binary, "<SearchMax>", is);
    ReadBasicType(binary, &record->search_max, is);
  }
  if (PeekToken(binary, is) == 'N') {
    ExpectToken(binary, "<NumPieces>", is);
    ReadBasicType(binary, &record->num_pieces, is);
  }
  if (PeekToken(binary, is) == 'D') {
    ExpectToken(binary, "<DurationPass>", is);
    ReadBasicType(binary, &record->duration_pass, is);
    ExpectToken(binary, "<FloorPass>", is);
    ReadBasicType(binary, &record->floor_pass, is);
  }
}

// Truncates toward zero like a cast, saturating where a cast is undefined.
int32 TruncateToInt32(float x) {
  if (x >= 2147483648.0f) return std::numeric_limits<int32>::max();
  if (x < -2147483648.0f) return std::numeric_limits<int32>::min();
  return static_cast<int32>(x);
}

// Unit boundaries spread evenly over the slide window: 0, ..., slide_window.
// The first is 0 also for an empty keyword, where the division has no value.
std::vector<int32> EvenSearchMask(size_t num_units, int32 slide_window) {
  std::vector<int32> mask(num_units + 1, 0);
  for (size_t i = 1; i <= num_units; ++i) {
    mask[i] = TruncateToInt32(static_cast<float>(i) / static_cast<float>(num_units) *
                              static_cast<float>(slide_window));
  }
  return mask;
}

}  // namespace

void UniversalDetectStream::ReadHotwordModel(const std::string& model_str) {
  std::vector<std::string> filenames;
  SplitStringToVector(model_str, global_kestrel_string_delimiter, &filenames);
  if (filenames.empty()) {
    KESTREL_ERR(kLogFile) << Name() << ": no model can be extracted from --model-str: "
                          << model_str;
  }
  const size_t num_models = filenames.size();
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

  // Hotword numbers run on across files, from 1.
  int32 next_hotword_id = 1;
  for (size_t m = 0; m < num_models; ++m) {
    ReadModelFile(static_cast<int>(m), filenames[m], &next_hotword_id);
  }
}

void UniversalDetectStream::ReadModelFile(int model_id, const std::string& filename,
                                          int32* next_hotword_id) {
  const int m = model_id;
  Input input(filename);
  const bool binary = input.Binary();
  std::istream* is = input.Stream();
  ExpectToken(binary, "<UniversalModel>", is);
  ExpectToken(binary, "<KwInfo>", is);
  ExpectToken(binary, "<SmoothWindow>", is);
  ReadBasicType(binary, &smooth_window_[m], is);
  ExpectToken(binary, "<SlideWindow>", is);
  ReadBasicType(binary, &slide_window_[m], is);
  ExpectToken(binary, "<NumKws>", is);
  int32 num_hotwords = 0;
  ReadBasicType(binary, &num_hotwords, is);
  if (num_hotwords < 0) {
    KESTREL_ERR(kLogFile) << Name() << ": model file \"" << filename << "\": <NumKws> is "
                          << num_hotwords << ", expected 0 or more hotwords.";
  }

  // The per-hotword containers grow record by record rather than being sized
  // from <NumKws> up front, so a corrupted count fails at its first missing
  // record instead of allocating for hotwords that are not there.
  for (int32 k = 0; k < num_hotwords; ++k) {
    HotwordRecord record;
    ReadHotwordRecord(binary, is, &record);
    const size_t num_units = record.keyword.size();
    // Named as a reader counts them: from 1, in file order.
    const std::string where = "model file \"" + filename + "\", hotword " +
                              std::to_string(k + 1) + ": ";
    std::vector<float> floor(num_units, kDefaultSearchFloor);
    if (record.has_search_group) {
      if (record.search_floor.size() < num_units) {
        KESTREL_ERR(kLogFile) << Name() << ": " << where << "<SearchFloor> has "
                              << record.search_floor.size() << " values, expected one for "
                              << "each of the " << num_units << " units of <Kw>.";
      }
      std::copy(record.search_floor.begin(), record.search_floor.begin() + num_units,
                floor.begin());
    } else {
      record.search_mask = EvenSearchMask(num_units, slide_window_[m]);
    }
    // Every search but the naive one reads the mask up to entry `units`
    // (the span) and needs at least one state.
    const int32 method = record.search_method;
    if (method != kNaiveSearchMethod && method > 0 && method <= kLastSearchMethod) {
      if (num_units == 0) {
        KESTREL_ERR(kLogFile) << Name() << ": " << where << "<Kw> is empty; only search "
                              << "method " << kNaiveSearchMethod << " accepts an empty "
                              << "keyword, got method " << method << ".";
      }
      if (record.search_mask.size() < num_units + 1) {
        KESTREL_ERR(kLogFile) << Name() << ": " << where << "<SearchMask> has "
                              << record.search_mask.size() << " entries, expected "
                              << num_units + 1 << " (one per unit boundary of <Kw>).";
      }
    }

    keywords_[m].push_back(std::move(record.keyword));
    sensitivities_[m].push_back(record.sensitivity);
    high_sensitivities_[m].push_back(0.0f);
    hotword_ids_[m].push_back((*next_hotword_id)++);
    search_method_[m].push_back(method);
    search_neighbour_[m].push_back(record.search_neighbour);
    duration_pass_[m].push_back(record.duration_pass);
    floor_pass_[m].push_back(record.floor_pass);
    search_mask_[m].push_back(std::move(record.search_mask));
    search_floor_[m].push_back(std::move(floor));
    search_max_[m].push_back(record.search_max);
    num_piece_layouts_[m].push_back(options_.num_piece_layouts);
    num_pieces_[m].push_back(record.num_pieces);
    redup_pending_[m].push_back(false);
    redup_frame_[m].push_back(-1000);
    redup_score_[m].push_back(0.0f);
  }
  ExpectToken(binary, "</KwInfo>", is);
  nnets_[m].Read(binary, is);

  const int num_outputs = nnets_[m].OutputDim();
  if (num_outputs < 1 || num_outputs > kMaxNetworkOutputs) {
    KESTREL_ERR(kLogFile) << Name() << ": model file \"" << filename << "\": the network has "
                          << num_outputs << " outputs, expected 1 to " << kMaxNetworkOutputs
                          << ".";
  }
  for (size_t k = 0; k < keywords_[m].size(); ++k) {
    for (int32 unit : keywords_[m][k]) {
      if (unit < 0 || unit >= num_outputs) {
        KESTREL_ERR(kLogFile) << Name() << ": model file \"" << filename << "\", hotword "
                              << k + 1 << ": <Kw> unit " << unit << " is not an output of "
                              << "the network, expected 0 to " << num_outputs - 1 << ".";
      }
    }
  }
  smooth_buffers_[m].assign(num_outputs, std::deque<float>());
  posterior_windows_[m].assign(num_outputs, std::deque<float>());
  search_frame_best_[m].assign(keywords_[m].size(), std::deque<float>());
  search_frame_magnitude_[m].assign(keywords_[m].size(), std::deque<float>());
  smooth_sums_[m].assign(num_outputs, 0.0f);

  // A model is piecewise as a whole or not at all, as its first hotword says.
  piece_infos_[m].clear();
  if (!search_method_[m].empty() && search_method_[m][0] == kPiecewiseSearchMethod) {
    BuildPieceLayouts(m);
  }
}

void UniversalDetectStream::BuildPieceLayouts(int model_id) {
  const int m = model_id;
  const size_t num_hotwords = keywords_[m].size();
  piece_infos_[m].clear();
  piece_infos_[m].resize(num_hotwords);
  for (size_t k = 0; k < num_hotwords; ++k) {
    const int64_t num_units = static_cast<int64_t>(keywords_[m][k].size());
    const int32 num_pieces = num_pieces_[m][k];
    const int32 num_layouts = num_piece_layouts_[m][k];
    if (num_layouts < 0) {
      KESTREL_ERR(kLogFile) << Name() << ": num_piece_layouts is " << num_layouts
                            << ", expected 0 or more.";
    }
    std::vector<std::vector<PieceInfo>>& layouts = piece_infos_[m][k];
    layouts.assign(num_layouts, std::vector<PieceInfo>());

    if (num_units <= num_pieces) {
      // No more units than pieces: one unit per piece, and one layout is
      // enough since all would be alike.
      for (std::vector<PieceInfo>& layout : layouts) {
        for (int32 i = 0; i < num_units; ++i) layout.push_back(PieceInfo{1, i, i + 1});
      }
      num_piece_layouts_[m][k] = 1;
      continue;
    }
    if (num_pieces <= 0) continue;

    const int32 units = static_cast<int32>(num_units);
    // Equal pieces of `equal` units; growing and shrinking pieces in steps of
    // `step` units (P pieces of step, 2 step, ..., P step fill at most L).
    int32 equal = static_cast<int32>(
        std::ceil(static_cast<float>(units) / static_cast<float>(num_pieces)));
    const int64_t triangle = static_cast<int64_t>(num_pieces) * (num_pieces + 1);
    int32 step = static_cast<int32>(
        std::floor(static_cast<float>(2 * num_units) / static_cast<float>(triangle)));
    if (equal == 0) equal = 1;
    if (step == 0) step = 1;

    for (int32 r = 0; r < num_layouts; ++r) {
      int32 begin = 0;
      for (int32 p = 1; p <= num_pieces; ++p) {
        int32 length = r == 0 ? p * step : r == 1 ? equal : (num_pieces - p + 1) * step;
        int32 first = begin;
        int32 end = begin + length;
        if (p == num_pieces) {
          // The last piece always ends the keyword, and is never empty when
          // it would start at the end. Earlier pieces that overshoot leave it
          // reversed (first > end); the piecewise search copes with that.
          end = units;
          if (first == units) first = units - 1;
        }
        const int32 span = r == 1 ? kFramesPerPieceUnit * equal
                                  : kFramesPerPieceUnit * (end - first);
        layouts[r].push_back(PieceInfo{span, first, end});
        begin = end;
      }
    }
  }
}

const std::vector<std::vector<UniversalDetectStream::PieceInfo>>&
UniversalDetectStream::PieceLayouts(int model_id, int hotword) const {
  static const std::vector<std::vector<PieceInfo>> kNone;
  return piece_infos_[model_id].empty() ? kNone : piece_infos_[model_id][hotword];
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
    Output output(filenames[m], binary);
    std::ostream* os = output.Stream();
    WriteToken(binary, "<UniversalModel>", os);
    WriteToken(binary, "<KwInfo>", os);
    WriteToken(binary, "<SmoothWindow>", os);
    WriteBasicType(binary, smooth_window_[m], os);
    WriteToken(binary, "<SlideWindow>", os);
    WriteBasicType(binary, slide_window_[m], os);
    WriteToken(binary, "<NumKws>", os);
    WriteBasicType(binary, static_cast<int32>(keywords_[m].size()), os);
    if (!binary) *os << "\n";
    for (size_t k = 0; k < keywords_[m].size(); ++k) {
      WriteToken(binary, "<Kw>", os);
      WriteIntegerVector(binary, keywords_[m][k], os);
      WriteToken(binary, "<Sensitivity>", os);
      WriteBasicType(binary, sensitivities_[m][k], os);
      WriteToken(binary, "<SearchMethod>", os);
      WriteBasicType(binary, search_method_[m][k], os);
      WriteToken(binary, "<SearchNeighbour>", os);
      WriteBasicType(binary, search_neighbour_[m][k], os);
      WriteToken(binary, "<SearchMask>", os);
      WriteIntegerVector(binary, search_mask_[m][k], os);
      WriteToken(binary, "<SearchFloor>", os);
      const std::vector<float>& floors = search_floor_[m][k];
      Vector floor(static_cast<int>(floors.size()));
      std::copy(floors.begin(), floors.end(), floor.Data());
      floor.Write(binary, os);
      WriteToken(binary, "<SearchMax>", os);
      WriteBasicType(binary, static_cast<bool>(search_max_[m][k]), os);
      WriteToken(binary, "<NumPieces>", os);
      WriteBasicType(binary, num_pieces_[m][k], os);
      WriteToken(binary, "<DurationPass>", os);
      WriteBasicType(binary, duration_pass_[m][k], os);
      WriteToken(binary, "<FloorPass>", os);
      WriteBasicType(binary, floor_pass_[m][k], os);
      if (!binary) *os << "\n";
    }
    WriteToken(binary, "</KwInfo>", os);
    if (!binary) *os << "\n";
    nnets_[m].Write(binary, os);
    output.Close();
  }
}

void UniversalDetectStream::UpdateModel() const { WriteHotwordModel(true, options_.model_str); }

}  // namespace kestrel
