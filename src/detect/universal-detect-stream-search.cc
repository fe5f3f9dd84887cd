// The Viterbi-family hotword searches of UniversalDetectStream: the locked
// Viterbi search (whole hotword and piece), reduplication, soft floor,
// traceback (linear and log domain) and the piecewise vote.
//
// Every search first copies the posteriors it reads out of the per-column
// window deques into one frame-major block (search_frames_), so that the
// recurrences run over contiguous memory. Scores are single precision and
// every sum is formed in the order the recurrences define, so results do not
// depend on that copy.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <deque>
#include <limits>
#include <vector>

#include "detect/universal-detect-stream.h"

namespace kestrel {

namespace {

// Score of a search state that no path has reached: the lowest finite float,
// so that a single posterior added to it leaves it there.
constexpr float kUnreached = -3.40282347e+38f;

// Stands in for a zero posterior in the log domain.
constexpr float kLogFloorPosterior = 1e-10f;

// Window positions [first, first + count) searched by a Viterbi-family search.
struct Stretch {
  int first;
  int count;
};

// The last `span` positions of a window of `length`, or all of them while it
// is shorter. 64-bit so that no span overflows the subtraction.
Stretch LastFrames(int length, int32 span) {
  const int64 first = std::max<int64>(0, static_cast<int64>(length) - span);
  if (first >= length) return {length, 0};
  return {static_cast<int>(first), static_cast<int>(length - first)};
}

// Frames in a model's windows; every column holds the same number.
int WindowLength(const std::vector<std::deque<float>>& windows) {
  return windows.empty() ? 0 : static_cast<int>(windows[0].size());
}

// Grows a working buffer to hold at least `size` elements; never shrinks, so
// the steady state does not allocate.
template <typename T>
T* Reserve(std::vector<T>* buffer, size_t size) {
  if (buffer->size() < size) buffer->resize(size);
  return buffer->data();
}

// Copies positions [stretch.first, stretch.first + stretch.count) of the
// columns named by `labels` into a frame-major block: row f, column j holds
// state j's posterior at the f-th searched position.
const float* GatherFrames(const std::vector<std::deque<float>>& columns, const int32* labels,
                          int num_states, Stretch stretch, std::vector<float>* block) {
  // At least one element, so that an empty stretch still yields a real
  // pointer for the offsets below.
  float* out = Reserve(block, std::max<size_t>(1, static_cast<size_t>(stretch.count) * num_states));
  for (int j = 0; j < num_states; ++j) {
    auto it = columns[labels[j]].begin() + stretch.first;
    float* dst = out + j;
    for (int f = 0; f < stretch.count; ++f, ++it, dst += num_states) *dst = *it;
  }
  return out;
}

// What a whole-hotword search reads: the keyword's posteriors over the last
// `span` frames of the window (span: the last search-mask entry), gathered.
struct HotwordFrames {
  const float* data;  // `rows` rows of one posterior per unit
  int rows;
  int32 span;
};

HotwordFrames GatherHotwordFrames(const std::vector<std::deque<float>>& windows,
                                  const std::vector<int32>& keyword, const std::vector<int32>& mask,
                                  std::vector<float>* block) {
  const int32 span = mask.empty() ? 0 : mask.back();
  const Stretch stretch = LastFrames(WindowLength(windows), span);
  const int n = static_cast<int>(keyword.size());
  return {GatherFrames(windows, keyword.data(), n, stretch, block), stretch.count, span};
}

// Read-only view of gathered posteriors: `num_frames` rows of `num_states`
// values, `stride` floats apart.
struct FrameBlock {
  const float* data;
  int stride;
  int num_frames;
  int num_states;
};

// Per-state working arrays of the locked Viterbi recurrence.
struct LockedStates {
  float* score;
  float* peak;
  int32* stay;
  uint8_t* locked;
};

// The Viterbi recurrence with minimum stays and floors: a state may be left
// only once it has stayed `min_state_frames` frames and its peak has reached
// its floor. States are updated from the last down so that each one sees its
// predecessor's value of the previous frame.
void RunLockedViterbi(const FrameBlock& frames, const float* floors, int32 min_state_frames,
                      const LockedStates& st) {
  // Local copies: the flag stores could alias `st` itself, which would make
  // the compiler reload every pointer on every state.
  float* const score = st.score;
  float* const peak = st.peak;
  int32* const stay = st.stay;
  uint8_t* const locked = st.locked;
  const int n = frames.num_states;
  std::fill(locked, locked + n, 1);
  std::fill(peak, peak + n, 0.0f);
  std::fill(stay, stay + n, 0);
  score[0] = 0.0f;
  std::fill(score + 1, score + n, kUnreached);
  for (int f = 0; f < frames.num_frames; ++f) {
    const float* row = frames.data + static_cast<size_t>(f) * frames.stride;
    for (int j = n - 1; j >= 0; --j) {
      const float v = row[j];
      if (v > peak[j]) peak[j] = v;
      if (j >= 1 && !locked[j - 1] && score[j] <= score[j - 1]) {
        // Entering a state locks it for its entry frame at least.
        score[j] = v + score[j - 1];
        stay[j] = 0;
        peak[j] = v;
        locked[j] = 1;
        continue;
      }
      score[j] = v + score[j];
      if (stay[j] < min_state_frames) ++stay[j];
      if (stay[j] >= min_state_frames && floors[j] <= peak[j]) locked[j] = 0;
    }
  }
}

// The last state's score, or the best state's when `search_max` is set.
float BestScore(const float* score, int num_states, bool search_max) {
  if (!search_max) return score[num_states - 1];
  return *std::max_element(score, score + num_states);
}

LockedStates CarveLockedStates(int num_states, std::vector<float>* floats, std::vector<int32>* ints,
                               std::vector<uint8_t>* flags) {
  float* f = Reserve(floats, 2 * static_cast<size_t>(num_states));
  return {f, f + num_states, Reserve(ints, num_states), Reserve(flags, num_states)};
}

// A piece can be searched only when it names a non-empty run of the keyword.
bool PieceInsideKeyword(const UniversalDetectStream::PieceInfo& piece, size_t num_units) {
  return piece.first_unit >= 0 && piece.first_unit < piece.end_unit &&
         static_cast<size_t>(piece.end_unit) <= num_units;
}

// First window position of a piece search ending at `end_frame`. A negative
// span searches nothing rather than frames after end_frame.
int PieceFirstFrame(int32 end_frame, const UniversalDetectStream::PieceInfo& piece) {
  return static_cast<int>(
      std::clamp<int64>(static_cast<int64>(end_frame) - piece.span_frames, 0, end_frame));
}

// The piece-constrained search on gathered frames: `keyword_frames` holds all
// units of the hotword (one column per unit) from window position 0 on. The
// piece's floors are taken from the start of the hotword's floor list.
float ScorePiece(const float* keyword_frames, int num_units, int32 end_frame,
                 const UniversalDetectStream::PieceInfo& piece, const float* floors,
                 int32 min_state_frames, bool search_max, const LockedStates& st) {
  const int first = PieceFirstFrame(end_frame, piece);
  const int num_states = piece.end_unit - piece.first_unit;
  FrameBlock frames{keyword_frames + static_cast<size_t>(first) * num_units + piece.first_unit,
                    num_units, end_frame - first, num_states};
  RunLockedViterbi(frames, floors, min_state_frames, st);
  return BestScore(st.score, num_states, search_max) / static_cast<float>(piece.span_frames);
}

// The piecewise search skips positions where a piece provably cannot pass,
// by an upper bound on its score: every score the piece search keeps adds
// exactly one posterior per frame, so none exceeds the sum of the frames'
// largest posteriors among the piece's units. Prefix sums make each test
// constant-time.
//
// Fills sums[f] (f = 0..length) with the sum of those largest posteriors over
// positions < f, and sums[length + 1 + f] with the sum of all |posteriors|
// of the piece's units there (bounding any path's magnitude).
void FillPieceBoundSums(const float* keyword_frames, int num_units, int length,
                        const UniversalDetectStream::PieceInfo& piece, double* sums) {
  double* best_sum = sums;
  double* magnitude_sum = sums + length + 1;
  best_sum[0] = magnitude_sum[0] = 0.0;
  const int num_states = piece.end_unit - piece.first_unit;
  for (int f = 0; f < length; ++f) {
    const float* units = keyword_frames + static_cast<size_t>(f) * num_units + piece.first_unit;
    float best = units[0];
    double magnitude = 0.0;
    for (int j = 0; j < num_states; ++j) {
      best = std::max(best, units[j]);
      magnitude += std::fabs(units[j]);
    }
    best_sum[f + 1] = best_sum[f] + best;
    magnitude_sum[f + 1] = magnitude_sum[f] + magnitude;
  }
}

// True when the piece search ending at `end_frame` provably scores no more
// than `threshold`. The margin covers the rounding of the double prefix sums
// and of the search's single-precision sums and division; NaNs, infinities
// and huge posteriors are never ruled out.
bool PieceRuledOut(const double* sums, int length, int32 end_frame,
                   const UniversalDetectStream::PieceInfo& piece, float threshold) {
  const double* best_sum = sums;
  const double* magnitude_sum = sums + length + 1;
  if (piece.span_frames <= 0 || !(magnitude_sum[length] < 1e30)) return false;
  const double sum_error = 2.3e-16 * (length + 1) * magnitude_sum[length];
  const int first = PieceFirstFrame(end_frame, piece);
  const double magnitude = magnitude_sum[end_frame] - magnitude_sum[first] + sum_error;
  const double rounding = 2.4e-7 * (end_frame - first + 2) * magnitude + sum_error;
  const double bound = (best_sum[end_frame] - best_sum[first] + rounding) / piece.span_frames;
  return bound + 4.8e-7 * std::fabs(bound) < threshold;
}

// The searches whose score SearchRuledOut bounds: each reached state's score
// adds exactly one value per searched frame (the unit's posterior, or for the
// soft floor the floor's negative in its place), and the result is the last
// or best state's score divided by the span, or 0.
constexpr int32 kViterbiSearchMethod = 3;
constexpr int32 kSoftFloorSearchMethod = 6;

}  // namespace

void UniversalDetectStream::PushSearchBounds(int model_id, const MatrixBase& rows) {
  const size_t max_size = static_cast<size_t>(slide_window_[model_id]);
  for (size_t k = 0; k < keywords_[model_id].size(); ++k) {
    const int32 method = search_method_[model_id][k];
    if (method != kViterbiSearchMethod && method != kSoftFloorSearchMethod) continue;
    const std::vector<int32>& keyword = keywords_[model_id][k];
    const float* floors = search_floor_[model_id][k].data();
    std::deque<float>& best = search_frame_best_[model_id][k];
    std::deque<float>& magnitude = search_frame_magnitude_[model_id][k];
    for (int r = 0; r < rows.NumRows(); ++r) {
      const float* row = rows.RowData(r);
      float frame_best = -std::numeric_limits<float>::infinity();
      float frame_magnitude = 0.0f;  // a NaN posterior stays in this sum
      for (size_t j = 0; j < keyword.size(); ++j) {
        float v = row[keyword[j]];
        if (method == kSoftFloorSearchMethod && !(v >= floors[j])) v = -floors[j];
        frame_best = std::max(frame_best, v);
        frame_magnitude += std::fabs(v);
      }
      best.push_back(frame_best);
      magnitude.push_back(frame_magnitude);
      // Trimmed as the posterior windows are, so both hold the same frames.
      if (best.size() > max_size) {
        best.pop_front();
        magnitude.pop_front();
      }
    }
  }
}

bool UniversalDetectStream::SearchRuledOut(int model_id, int hotword_id, float threshold) const {
  const std::deque<float>& best = search_frame_best_[model_id][hotword_id];
  const std::deque<float>& magnitude = search_frame_magnitude_[model_id][hotword_id];
  const std::vector<int32>& mask = search_mask_[model_id][hotword_id];
  const int32 span = mask.empty() ? 0 : mask.back();
  // Searches that find nothing score 0, which must lie below the threshold too.
  if (best.empty() || keywords_[model_id][hotword_id].empty() || span <= 0 ||
      !(0.0f < threshold)) {
    return false;
  }
  const Stretch stretch = LastFrames(static_cast<int>(best.size()), span);
  double best_sum = 0.0, magnitude_sum = 0.0;
  for (int f = stretch.first; f < stretch.first + stretch.count; ++f) {
    best_sum += best[f];
    magnitude_sum += magnitude[f];
  }
  // NaNs, infinities and huge values are never ruled out.
  if (!(magnitude_sum < 1e30)) return false;
  // A path score is a single-precision sum of one value per frame, each at
  // most that frame's best: it exceeds best_sum by no more than its rounding,
  // bounded (twice over) by count * 2^-24 * magnitude_sum. The margin on the
  // quotient covers the search's division and the double sums here.
  const double rounding = 1.2e-7 * (stretch.count + 2) * magnitude_sum;
  const double bound = (best_sum + rounding) / static_cast<float>(span);
  return bound + 4.8e-7 * std::fabs(bound) < threshold;
}

float UniversalDetectStream::HotwordViterbiSearch(int32 model_id, int32 hotword_id) const {
  const std::vector<int32>& keyword = keywords_[model_id][hotword_id];
  const int n = static_cast<int>(keyword.size());
  if (n == 0) return 0.0f;
  const HotwordFrames frames = GatherHotwordFrames(
      posterior_windows_[model_id], keyword, search_mask_[model_id][hotword_id], &search_frames_);
  const float* block = frames.data;

  const float* floors = search_floor_[model_id][hotword_id].data();
  const LockedStates st = CarveLockedStates(n, &search_floats_, &search_ints_, &search_flags_);
  RunLockedViterbi({block, n, frames.rows, n}, floors, options_.min_state_frames, st);
  // Only the last state's floor is tested here; the others acted through
  // their locks.
  if (st.peak[n - 1] < floors[n - 1]) return 0.0f;
  return BestScore(st.score, n, search_max_[model_id][hotword_id]) /
         static_cast<float>(frames.span);
}

float UniversalDetectStream::HotwordViterbiSearch(int32 model_id, int32 hotword_id, int32 end_frame,
                                                  const PieceInfo& piece) const {
  const std::vector<int32>& keyword = keywords_[model_id][hotword_id];
  if (!PieceInsideKeyword(piece, keyword.size())) return 0.0f;
  const std::vector<std::deque<float>>& windows = posterior_windows_[model_id];
  const int length = WindowLength(windows);
  const int32 end = std::clamp(end_frame, 0, length);
  const int n = static_cast<int>(keyword.size());
  const float* block = GatherFrames(windows, keyword.data(), n, {0, end}, &search_frames_);
  const LockedStates st = CarveLockedStates(piece.end_unit - piece.first_unit, &search_floats_,
                                            &search_ints_, &search_flags_);
  return ScorePiece(block, n, end, piece, search_floor_[model_id][hotword_id].data(),
                    options_.min_state_frames, search_max_[model_id][hotword_id], st);
}

float UniversalDetectStream::HotwordViterbiSearchReduplication(int32 model_id, int32 hotword_id,
                                                               int32 frame_id) {
  const float score = HotwordViterbiSearch(model_id, hotword_id);
  if (!(score > 1 - sensitivities_[model_id][hotword_id])) return 0.0f;
  const std::vector<int32>& mask = search_mask_[model_id][hotword_id];
  const int32 span = mask.empty() ? 0 : mask.back();
  const int32 pending_frame = redup_frame_[model_id][hotword_id];
  // An instance within one span of the remembered one is the same utterance.
  if (!(static_cast<float>(span) <
        std::fabs(static_cast<float>(frame_id) - static_cast<float>(pending_frame)))) {
    return 0.0f;
  }
  // Frame ids wrap around; the distance is taken in 32 bits as they do.
  const int32 distance =
      static_cast<int32>(static_cast<uint32>(frame_id) - static_cast<uint32>(pending_frame));
  if (redup_pending_[model_id][hotword_id] &&
      static_cast<double>(distance) < 1.5 * static_cast<double>(span)) {
    redup_pending_[model_id][hotword_id] = false;
    return (score + redup_score_[model_id][hotword_id]) * 0.5f;
  }
  redup_frame_[model_id][hotword_id] = frame_id;
  redup_pending_[model_id][hotword_id] = true;
  redup_score_[model_id][hotword_id] = score;
  return 0.0f;
}

float UniversalDetectStream::HotwordViterbiSearchSoftFloor(int32 model_id, int32 hotword_id) const {
  const std::vector<int32>& keyword = keywords_[model_id][hotword_id];
  const int n = static_cast<int>(keyword.size());
  if (n == 0) return 0.0f;
  const HotwordFrames frames = GatherHotwordFrames(
      posterior_windows_[model_id], keyword, search_mask_[model_id][hotword_id], &search_frames_);
  const float* block = frames.data;
  const float* floors = search_floor_[model_id][hotword_id].data();
  const int32 min_stay = options_.min_state_frames;

  float* score = Reserve(&search_floats_, n);
  int32* stay = Reserve(&search_ints_, n);
  uint8_t* locked = Reserve(&search_flags_, n);
  std::fill(locked, locked + n, 1);
  std::fill(stay, stay + n, 0);
  score[0] = 0.0f;
  std::fill(score + 1, score + n, kUnreached);
  for (int f = 0; f < frames.rows; ++f) {
    const float* row = block + static_cast<size_t>(f) * n;
    for (int j = n - 1; j >= 0; --j) {
      // A frame below the floor costs the floor instead of vetoing the state.
      const float v = row[j] >= floors[j] ? row[j] : -floors[j];
      if (j >= 1 && !locked[j - 1] && score[j] <= score[j - 1]) {
        score[j] = v + score[j - 1];
        stay[j] = 0;
        locked[j] = 1;
        continue;
      }
      score[j] = v + score[j];
      if (stay[j] < min_stay) ++stay[j];
      if (stay[j] >= min_stay) locked[j] = 0;
    }
  }
  return BestScore(score, n, search_max_[model_id][hotword_id]) / static_cast<float>(frames.span);
}

float UniversalDetectStream::HotwordViterbiSearchTraceback(int32 model_id, int32 hotword_id) const {
  const std::vector<int32>& keyword = keywords_[model_id][hotword_id];
  const int n = static_cast<int>(keyword.size());
  if (n == 0) return 0.0f;
  const HotwordFrames frames = GatherHotwordFrames(
      posterior_windows_[model_id], keyword, search_mask_[model_id][hotword_id], &search_frames_);
  const float* block = frames.data;
  const int rows = frames.rows;

  // Forward pass, unconstrained. A state is reached either from itself or from
  // its predecessor, so one flag per frame and state is the whole back-pointer.
  float* score = Reserve(&search_floats_, n);
  uint8_t* entered = Reserve(&search_flags_, static_cast<size_t>(rows) * n);
  score[0] = 0.0f;
  std::fill(score + 1, score + n, kUnreached);
  for (int f = 0; f < rows; ++f) {
    const float* row = block + static_cast<size_t>(f) * n;
    uint8_t* from_previous = entered + static_cast<size_t>(f) * n;
    for (int j = n - 1; j >= 1; --j) {
      // Ties go to the transition.
      if (score[j] <= score[j - 1]) {
        score[j] = row[j] + score[j - 1];
        from_previous[j] = 1;
      } else {
        score[j] = row[j] + score[j];
        from_previous[j] = 0;
      }
    }
    score[0] = score[0] + row[0];
    from_previous[0] = 0;
  }
  if (score[n - 1] < 0) return 0.0f;  // the path never reached the last state

  // Traceback: a state's entry frame counts towards its own stay and peak.
  const float* floors = search_floor_[model_id][hotword_id].data();
  const int32 min_stay = options_.min_state_frames;
  int cur = n - 1;
  int32 stay = 0;
  float peak = 0.0f;
  int32 durations_met = 0;
  int32 floors_met = 0;
  for (int f = rows - 1; f >= 0; --f) {
    ++stay;
    peak = std::max(peak, block[static_cast<size_t>(f) * n + cur]);
    if (entered[static_cast<size_t>(f) * n + cur]) {
      if (stay >= min_stay) ++durations_met;
      if (peak > floors[cur]) ++floors_met;
      stay = 0;
      peak = 0.0f;
      --cur;
    }
  }
  // The first state is judged on whatever it held; a path that entered the
  // second state on the first frame left it none.
  if ((cur == 0 ? stay : 0) >= min_stay) ++durations_met;
  if (peak > floors[0]) ++floors_met;
  if (durations_met < duration_pass_[model_id][hotword_id]) return 0.0f;
  if (floor_pass_[model_id][hotword_id] > floors_met) return 0.0f;
  return BestScore(score, n, search_max_[model_id][hotword_id]) / static_cast<float>(frames.span);
}

float UniversalDetectStream::HotwordViterbiSearchTracebackLog(int32 model_id,
                                                              int32 hotword_id) const {
  const std::vector<int32>& keyword = keywords_[model_id][hotword_id];
  const int n = static_cast<int>(keyword.size());
  const int32 sub_states = options_.min_state_frames;  // per state
  if (n == 0 || sub_states < 1) return 0.0f;
  const HotwordFrames frames = GatherHotwordFrames(
      posterior_windows_[model_id], keyword, search_mask_[model_id][hotword_id], &search_frames_);
  const float* block = frames.data;
  const int rows = frames.rows;
  // Sub-state e cannot be reached before row e, so a chain longer than the
  // searched rows never reaches its end.
  const int64 chain = static_cast<int64>(n) * sub_states;
  if (chain > rows) return 0.0f;
  const int num_sub = static_cast<int>(chain);

  float* lin = Reserve(&search_floats_, 2 * static_cast<size_t>(num_sub) + 2 * n);
  float* logsum = lin + num_sub;
  float* log_row = logsum + num_sub;  // log posteriors of the current frame
  float* sums = log_row + n;          // per state, then its mean
  int32* counts = Reserve(&search_ints_, n);
  uint8_t* entered = Reserve(&search_flags_, static_cast<size_t>(rows) * num_sub);
  lin[0] = 0.0f;
  logsum[0] = 0.0f;
  std::fill(lin + 1, lin + num_sub, kUnreached);
  std::fill(logsum + 1, logsum + num_sub, kUnreached);

  // Forward pass: the path is chosen on log sums, the score kept on linear ones.
  for (int f = 0; f < rows; ++f) {
    const float* row = block + static_cast<size_t>(f) * n;
    uint8_t* from_previous = entered + static_cast<size_t>(f) * num_sub;
    for (int j = 0; j < n; ++j) log_row[j] = logf(std::max(row[j], kLogFloorPosterior));
    const int top = std::min(num_sub - 1, f);
    for (int j = top / sub_states; j >= 0; --j) {
      const float v = row[j];
      const float w = log_row[j];
      const int lowest = std::max(1, j * sub_states);
      for (int e = std::min(top, j * sub_states + sub_states - 1); e >= lowest; --e) {
        if (logsum[e] > logsum[e - 1]) {
          lin[e] += v;
          logsum[e] += w;
          from_previous[e] = 0;
        } else {  // ties enter
          lin[e] = v + lin[e - 1];
          logsum[e] = w + logsum[e - 1];
          from_previous[e] = 1;
        }
      }
    }
    lin[0] += row[0];
    logsum[0] += log_row[0];
  }
  if (lin[num_sub - 1] < 0) return 0.0f;

  // Traceback. Rows before the chain's first sub-state was reached belong to
  // the first state too.
  const float* floors = search_floor_[model_id][hotword_id].data();
  std::fill(counts, counts + n, 0);
  std::fill(sums, sums + n, 0.0f);
  int e = num_sub - 1;
  float peak = 0.0f;
  int32 durations_met = 0;
  int32 floors_met = 0;
  for (int f = rows - 1; f >= 0; --f) {
    const int j = e / sub_states;
    const float v = block[static_cast<size_t>(f) * n + j];
    ++counts[j];
    sums[j] += v;
    peak = std::max(peak, v);
    if (e == 0 || !entered[static_cast<size_t>(f) * num_sub + e]) continue;
    if (e % sub_states == 0) {  // entry frame of state j
      if (counts[j] >= sub_states) ++durations_met;
      if (peak > floors[j]) ++floors_met;
      peak = 0.0f;
    }
    --e;
  }
  if (counts[0] >= sub_states) ++durations_met;
  if (peak > floors[0]) ++floors_met;
  if (durations_met < duration_pass_[model_id][hotword_id] ||
      floors_met < floor_pass_[model_id][hotword_id]) {
    return 0.0f;
  }

  // Cap the path score by the mean posterior of the states, the weakest left
  // out, so that one long strong state cannot carry the hotword.
  float total = 0.0f;
  float low = 1.0f;
  for (int j = 0; j < n; ++j) {
    const float mean = sums[j] / static_cast<float>(counts[j]);
    total += mean;
    if (mean < low) low = mean;
  }
  const float avg = n > 1 ? (total - low) / static_cast<float>(n - 1) : total;
  const float path =
      BestScore(lin, num_sub, search_max_[model_id][hotword_id]) / static_cast<float>(frames.span);
  return path < avg ? path : avg;
}

float UniversalDetectStream::HotwordPiecewiseSearch(int32 model_id, int32 hotword_id) const {
  const int32 num_layouts = num_piece_layouts_[model_id][hotword_id];
  if (num_layouts < 1) return 0.0f;
  // Only a model whose first hotword is piecewise has layouts at all.
  if (static_cast<size_t>(hotword_id) >= piece_infos_[model_id].size()) return 0.0f;
  const std::vector<std::vector<PieceInfo>>& layouts = piece_infos_[model_id][hotword_id];
  const std::vector<int32>& keyword = keywords_[model_id][hotword_id];
  const int n = static_cast<int>(keyword.size());
  const std::vector<std::deque<float>>& windows = posterior_windows_[model_id];
  const int length = WindowLength(windows);
  // Every piece search reads a stretch of this one copy of the window.
  const float* block = GatherFrames(windows, keyword.data(), n, {0, length}, &search_frames_);
  const float* floors = search_floor_[model_id][hotword_id].data();
  const bool search_max = search_max_[model_id][hotword_id];
  const LockedStates st = CarveLockedStates(n, &search_floats_, &search_ints_, &search_flags_);

  const float threshold = 1 - sensitivities_[model_id][hotword_id];
  // Consecutive pieces must lie more than a fifth of the refractory distance
  // and less than all of it apart.
  const uint32 refractory = static_cast<uint32>(options_.refractory_frames);
  const float max_gap = static_cast<float>(refractory);
  const double min_gap = static_cast<double>(refractory) * 0.2;

  int32 completed = 0;
  const int tried = static_cast<int>(std::min<size_t>(num_layouts, layouts.size()));
  for (int r = 0; r < tried; ++r) {
    const std::vector<PieceInfo>& layout = layouts[r];
    const bool searchable =
        !layout.empty() && std::all_of(layout.begin(), layout.end(), [n](const PieceInfo& p) {
          return PieceInsideKeyword(p, n);
        });
    if (!searchable) continue;
    // Bound sums of every piece of the layout, (length + 1) * 2 per piece.
    const size_t piece_sums = 2 * (static_cast<size_t>(length) + 1);
    double* sums = Reserve(&search_sums_, piece_sums * layout.size());
    for (size_t p = 0; p < layout.size(); ++p) {
      FillPieceBoundSums(block, n, length, layout[p], sums + piece_sums * p);
    }
    // Pieces are matched strictly in order, so the matched flags are always
    // a prefix of the layout: the count of matched pieces is all it takes.
    size_t next_piece = 0;
    int32 last_frame = -1;
    for (int t = 0; t < length; ++t) {
      const PieceInfo& piece = layout[next_piece];
      if (PieceRuledOut(sums + piece_sums * next_piece, length, t, piece, threshold)) continue;
      const float s =
          ScorePiece(block, n, t, piece, floors, options_.min_state_frames, search_max, st);
      if (!(s > threshold)) continue;
      if (next_piece > 0) {
        const float d = std::fabs(static_cast<float>(t) - static_cast<float>(last_frame));
        if (!(max_gap > d && static_cast<double>(d) > min_gap)) continue;
      }
      last_frame = t;
      if (++next_piece == layout.size()) {
        // A layout may complete more than once in one window.
        ++completed;
        last_frame = -1;
        next_piece = 0;
      }
    }
  }
  return static_cast<float>(num_layouts) * 0.5f < static_cast<float>(completed) ? 1.0f : 0.0f;
}

}  // namespace kestrel
