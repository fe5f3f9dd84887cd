// UniversalDetectStream: the hotword detector stage.
//
// The last stage of a chain of StreamItf stages (audio source, feature front
// end, detector). Each Read pulls a block of feature frames from the upstream
// stage, runs every loaded model's network over them, smooths the per-frame
// posteriors, appends them to per-column sliding windows and, after every
// `slide_step` frames, scores every hotword with its search method. A score
// that passes the hotword's sensitivity is a detection, returned as a 1 x 1
// matrix holding the hotword's number (1-based over all models, in load order).
//
// Models come from universal model files (".kmodel", see HotwordModel),
// binary or text, named in `model_str` and joined by
// global_kestrel_string_delimiter, or are handed over already loaded. Each
// holds the settings of one or more hotwords followed by one network.
//
// Ownership: the stage owns its networks, windows and all per-model state; it
// borrows the upstream stage. Threads: none of its own; one thread at a time
// may use a stage, and the setters must not overlap with Read. Errors (bad
// options, unreadable model files, unknown search methods) are KestrelError
// exceptions; a constructor that throws leaves nothing behind.
#ifndef KESTREL_DETECT_UNIVERSAL_DETECT_STREAM_H_
#define KESTREL_DETECT_UNIVERSAL_DETECT_STREAM_H_

#include <deque>
#include <functional>
#include <utility>
#include <string>
#include <vector>

#include "detect/piece-layouts.h"
#include "model/hotword-model.h"
#include "nnet/frame-info.h"
#include "nnet/nnet.h"
#include "stream/stream-itf.h"
#include "utils/kestrel-matrix.h"
#include "utils/kestrel-types.h"
#include "utils/kestrel-export.h"

KESTREL_PUBLIC_BEGIN

namespace kestrel {

// Options of the detector stage; copied whole at construction. The defaults
// suit 10 ms feature frames and a model file that carries its own
// sensitivities and window lengths.
struct UniversalDetectStreamOptions {
  // Network-output frames consumed per search step; must be positive. Larger
  // steps cost less (searches run once per step) and add latency.
  int32 slide_step = 1;
  // Frames a state must be held by the Viterbi searches before it may be left.
  int32 min_state_frames = 5;
  // Alternative ways of cutting a hotword into pieces (piecewise search).
  int32 num_piece_layouts = 3;
  // A new detection must lie more than this many frames from the last one;
  // also the largest gap between consecutive pieces (piecewise search).
  int32 refractory_frames = 100;
  // Sensitivities, one for all hotwords, one per model or one per hotword.
  // Empty: keep the models' own values.
  std::string sensitivity_str;
  // High sensitivities (used after a near miss). Empty: same as
  // sensitivity_str, which disables the near-miss mode.
  std::string high_sensitivity_str;
  // Model files, joined by global_kestrel_string_delimiter. Required unless
  // the models are handed to the constructor (command-line form: --model-str).
  std::string model_str;
  // Smoothing window lengths, one per model. Empty: the models' own values.
  std::string smooth_window_str;
  // Sliding window lengths, one per model. Empty: the models' own values.
  std::string slide_window_str;
  // Naive search only: skip its floor and order tests.
  bool no_order_check = false;
};

class UniversalDetectStream : public StreamItf {
 public:
  // One piece of a hotword for the piecewise search (piece-layouts.h).
  using PieceInfo = kestrel::PieceInfo;

  // Checks the options, loads every model of options.model_str and applies
  // the option strings. Throws KestrelError on bad options or model files.
  //
  // Besides the token grammar, loading refuses files that would make a later
  // Read index outside its buffers, each with an error naming the file:
  // a negative <NumKws>; a network without outputs or with more than 65536;
  // a <Kw> unit that is not a network output; a <SearchFloor> with fewer
  // values than the keyword has units (a longer one is cut to the keyword);
  // for search methods 2 to 8, an empty keyword; and a <SearchMask> without
  // an entry its search reads (DTW: fewer than units + 1; the span-based
  // searches 3, 5 to 8: empty). A mask is otherwise taken as stored, whatever
  // its length (see HotwordModel::Check). A model may hold no hotwords; it is
  // loaded, run and written like any other, and has no piece layouts.
  explicit UniversalDetectStream(const UniversalDetectStreamOptions& options);
  // As above, with models already loaded (files or memory) in place of the
  // files of options.model_str, which then only names where UpdateModel
  // writes (nothing when empty). Each model is checked as a file would be
  // (HotwordModel::Check); messages name it by its `name`.
  UniversalDetectStream(const UniversalDetectStreamOptions& options,
                        std::vector<HotwordModel> models);
  ~UniversalDetectStream() override;

  // Pulls one block from upstream and processes it (see the class comment).
  // `data` becomes 0 x 0, or 1 x 1 holding the detected hotword's number;
  // `frame_info` (may be null) then holds the record of the first frame of the
  // detecting step. Returns the upstream signal word unchanged. The stage must
  // be connected, and the window setters must have left one length per model
  // (an error otherwise, before any network runs).
  int Read(Matrix* data, std::vector<FrameInfo>* frame_info) override;

  // Resets every network's held-back context and the detection state.
  bool Reset() override;

  // The score that passed for the detection the last Read returned (its
  // hotword's search score); 0 before any detection.
  float LastDetectionScore() const { return last_detection_score_; }

  // Sees every search step of every model, for plotting scores and tuning
  // thresholds: `frame_id` is the step's first frame (as a detection reports
  // it), `scores` one score per hotword of the model, `detected` the index of
  // the hotword detected on this step or -1. While an observer is set, every
  // hotword is searched on every step (none is settled by score bounds),
  // which costs time but changes no decision. Called from Read, on its
  // thread; an empty function removes the observer.
  using StepObserver = std::function<void(int model_id, int32 frame_id,
                                          const std::vector<float>& scores, int detected)>;
  void SetStepObserver(StepObserver observer) { step_observer_ = std::move(observer); }

  // "UniversalDetectStream".
  std::string Name() const override;

  // Loaded model m with the current sensitivities and windows, as
  // WriteHotwordModel writes it.
  HotwordModel Model(int model_id) const;

  // Writes the loaded models back over the files of the model string, binary.
  void UpdateModel() const;

  // Writes model m to the m-th file named in `model_str`, in the given mode,
  // with every optional group of each hotword record. A string that names no
  // file writes nothing; otherwise it must name exactly as many files as there
  // are loaded models (an error otherwise, before any file is written).
  void WriteHotwordModel(bool binary, const std::string& model_str) const;

  // Settings; each takes a list joined by global_kestrel_string_delimiter and
  // applies from the next frame processed.
  // One value (every hotword), one per model, or one per hotword (counted
  // over all models); any other count is an error that changes nothing.
  void SetSensitivity(const std::string& sensitivity_str);
  void SetHighSensitivity(const std::string& high_sensitivity_str);
  // The same rule on values already parsed.
  void SetSensitivity(const std::vector<float>& values);
  void SetHighSensitivity(const std::vector<float>& values);
  // Hotword k of model m alone; out of range is an error.
  void SetSensitivity(int model_id, int hotword, float value);
  void SetHighSensitivity(int model_id, int hotword, float value);
  // The current sensitivities, ", "-separated, model by model.
  std::string GetSensitivity() const;
  // Hotwords of model `model_id`; a warning and 0 when out of range.
  int NumHotwords(int model_id) const;
  // One value per model. Shorter windows take full effect after a reset.
  // The list is taken as given; Read refuses to run while it is short.
  void SetSmoothWindowSize(const std::string& smooth_window_str);
  void SetSlideWindowSize(const std::string& slide_window_str);
  void SetSmoothWindowSize(const std::vector<int32>& lengths) { smooth_window_ = lengths; }
  void SetSlideWindowSize(const std::vector<int32>& lengths) { slide_window_ = lengths; }

  // Read-only views for tools (model inspection and conversion).
  int NumModels() const { return static_cast<int>(nnets_.size()); }
  const Nnet& GetNnet(int model_id) const { return nnets_[model_id]; }
  const std::vector<int32>& Keyword(int model_id, int hotword) const {
    return keywords_[model_id][hotword];
  }
  int32 HotwordId(int model_id, int hotword) const { return hotword_ids_[model_id][hotword]; }
  int32 SearchMethod(int model_id, int hotword) const {
    return search_method_[model_id][hotword];
  }
  float Sensitivity(int model_id, int hotword) const {
    return sensitivities_[model_id][hotword];
  }
  float HighSensitivity(int model_id, int hotword) const {
    return high_sensitivities_[model_id][hotword];
  }
  int32 SmoothWindow(int model_id) const { return smooth_window_[model_id]; }
  int32 SlideWindow(int model_id) const { return slide_window_[model_id]; }
  // Empty for the hotwords of a model that is not piecewise.
  const std::vector<std::vector<PieceInfo>>& PieceLayouts(int model_id, int hotword) const;
  int32 NumPieceLayouts(int model_id, int hotword) const {
    return num_piece_layouts_[model_id][hotword];
  }

  // The frame-processing steps, public so that tools and tests can drive the
  // windows and searches directly. Read calls them in this order.
  // Replaces each value by its moving average over smooth_window_[m] frames.
  void SmoothPosterior(int model_id, Matrix* posteriors);
  // Appends the rows of one step to model m's sliding windows.
  void PushSlideWindow(int model_id, const MatrixBase& rows);
  // The score of hotword k of model m on the current windows, by its search
  // method. `frame_id` is the id of the newest frame (used by code 5 only).
  float GetHotwordPosterior(int32 model_id, int32 hotword_id, int32 frame_id);
  // Empties smoothing, windows and reduplication state of every model.
  bool ResetDetection();

  // The searches (search-method codes in brackets). The naive search scores
  // 0 while a column it reads is empty.
  float HotwordNaiveSearch(int32 model_id, int32 hotword_id) const;  // 1
  float HotwordDtwSearch(int32 model_id, int32 hotword_id) const;    // 2
  // The Viterbi-family searches (universal-detect-stream-search.cc) score the
  // last `span` frames of the window, span being the last search-mask entry,
  // and divide by the span even while the window is shorter. A hotword with
  // no units scores 0 in all of them.
  float HotwordViterbiSearch(int32 model_id, int32 hotword_id) const;  // 3
  // The Viterbi search over the piece's units and the frames
  // [max(0, end_frame - span_frames), end_frame) of the window (frames past
  // the window's end do not exist and are not searched). A piece that does
  // not lie inside the keyword, including one whose end_unit is not above
  // its first_unit (the piece layouts can hold such a last piece), is never
  // found: it scores 0.
  float HotwordViterbiSearch(int32 model_id, int32 hotword_id, int32 end_frame,
                             const PieceInfo& piece) const;
  // 1 when more than half of the hotword's piece layouts are completed, else
  // 0. A layout that is empty or holds a piece that is never found (above)
  // cannot complete; a hotword without layouts scores 0.
  float HotwordPiecewiseSearch(int32 model_id, int32 hotword_id) const;  // 4
  float HotwordViterbiSearchReduplication(int32 model_id, int32 hotword_id,
                                          int32 frame_id);  // 5
  float HotwordViterbiSearchSoftFloor(int32 model_id, int32 hotword_id) const;  // 6
  float HotwordViterbiSearchTraceback(int32 model_id, int32 hotword_id) const;  // 7
  // The log-domain traceback search. Once its traceback reaches the first
  // sub-state, every earlier frame belongs to the first state (frame count,
  // sum and peak), so the first state is tested once, after the last frame.
  // It needs min_state_frames >= 1: with 0 or less there is nothing to align
  // and it scores 0; so does a window with no searched frames.
  float HotwordViterbiSearchTracebackLog(int32 model_id, int32 hotword_id) const;  // 8

 private:
  // Errors unless slide_step is positive; `function` names the constructor.
  void CheckSlideStep(const char* function) const;
  // Starts the decision state and applies the option strings; the
  // constructors' last step.
  void ApplyOptionStrings();
  // Loads every model named in `model_str`; called once, by the constructor.
  void ReadHotwordModel(const std::string& model_str);
  // Checks and loads models handed to the constructor.
  void LoadModels(std::vector<HotwordModel> models);
  // Sizes every per-model container for `num_models` models.
  void SizeModelContainers(size_t num_models);
  // Takes `model` as model m, numbering its hotwords from *next_hotword_id.
  void LoadModel(int model_id, HotwordModel model, int32* next_hotword_id);
  // Errors unless the window setters left one length per model.
  void CheckWindowLengths() const;
  // Scores every hotword of model m after a step ending at `frame_id` and
  // applies the sensitivity, near-miss and refractory rules; returns the
  // detected hotword, or -1.
  int ChooseDetectedHotword(int model_id, int32 frame_id);
  // Derives the piece layouts of every hotword of model m.
  void BuildPieceLayouts(int model_id);
  // Applies a sensitivity list to `target` (shared by the two setters).
  void SetSensitivityList(const std::vector<float>& values,
                          std::vector<std::vector<float>>* target);
  // Sets hotword k of model m in `target`; out of range is an error.
  void SetHotwordValue(int model_id, int hotword, float value,
                       std::vector<std::vector<float>>* target);
  // Appends the score bounds of each row of a step to model m's bound
  // windows (see search_frame_best_); called with every PushSlideWindow.
  void PushSearchBounds(int model_id, const MatrixBase& rows);
  // True when hotword k of model m is scored by a bounded search (Viterbi
  // or soft floor) that provably scores below `threshold` on the current
  // windows, so that running it cannot change any decision.
  bool SearchRuledOut(int model_id, int hotword_id, float threshold) const;

  UniversalDetectStreamOptions options_;
  // Frame id of the last detection; starts at -refractory_frames so that the
  // first detection passes the refractory test.
  int32 last_detection_frame_;
  int32 last_detection_frame_copy_;  // kept equal to last_detection_frame_
  float last_detection_score_ = 0.0f;
  StepObserver step_observer_;
  // The current step's scores, one per hotword of the model, for the observer.
  std::vector<float> step_scores_;
  // Decision state (see Read): the high-sensitivity mode, entered 50 frames
  // after a near miss, and left 3000 frames after its last candidate.
  bool high_sensitivity_mode_;
  int32 high_sensitivity_frame_;
  bool near_miss_pending_;
  int32 near_miss_frame_;
  // [m]: per model; [m][k]: per hotword; [m][c]: per network output column.
  std::vector<Nnet> nnets_;
  std::vector<std::vector<std::vector<int32>>> keywords_;
  std::vector<std::vector<float>> sensitivities_;
  std::vector<std::vector<float>> high_sensitivities_;
  std::vector<std::vector<int32>> hotword_ids_;
  std::vector<std::vector<int32>> search_method_;
  std::vector<std::vector<int32>> search_neighbour_;
  std::vector<std::vector<int32>> duration_pass_;
  std::vector<std::vector<int32>> floor_pass_;
  std::vector<std::vector<std::vector<int32>>> search_mask_;
  std::vector<std::vector<std::vector<float>>> search_floor_;
  std::vector<std::vector<bool>> search_max_;
  std::vector<std::vector<int32>> num_piece_layouts_;
  std::vector<std::vector<int32>> num_pieces_;
  // Kept only to be written back with the model.
  std::vector<std::vector<std::string>> hotword_names_;
  std::vector<std::vector<std::vector<std::vector<PieceInfo>>>> piece_infos_;
  std::vector<int32> smooth_window_;
  std::vector<int32> slide_window_;
  std::vector<std::vector<std::deque<float>>> smooth_buffers_;
  std::vector<std::vector<std::deque<float>>> posterior_windows_;
  // [m][k], for the hotwords of the Viterbi and soft-floor searches (empty
  // for the others), one entry per frame of the sliding window: the largest
  // value the search can add to a path score at that frame, and the sum of
  // the magnitudes of all it can add there. Most steps on audio without the
  // hotword are settled by these bounds, without running the search.
  std::vector<std::vector<std::deque<float>>> search_frame_best_;
  std::vector<std::vector<std::deque<float>>> search_frame_magnitude_;
  std::vector<std::vector<float>> smooth_sums_;
  std::vector<std::vector<bool>> redup_pending_;
  std::vector<std::vector<int32>> redup_frame_;
  std::vector<std::vector<float>> redup_score_;

  // Working memory of the Viterbi-family searches, kept only so that a search
  // step stops allocating once these have grown; no call reads what an
  // earlier one left. Posteriors of the searched states, frame by frame:
  mutable std::vector<float> search_frames_;
  // Per-state scores, peaks, counts and flags, carved up by each search:
  mutable std::vector<float> search_floats_;
  mutable std::vector<int32> search_ints_;
  mutable std::vector<uint8_t> search_flags_;
  // Score bounds that let the piecewise search skip hopeless piece searches:
  mutable std::vector<double> search_sums_;
};

}  // namespace kestrel

KESTREL_PUBLIC_END

#endif  // KESTREL_DETECT_UNIVERSAL_DETECT_STREAM_H_
