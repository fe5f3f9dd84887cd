#include "hotword-trainer.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <memory>
#include <numeric>
#include <random>
#include <sstream>

#include "frontend/filterbank-stream.h"
#include "nnet/nnet-activation.h"
#include "nnet/nnet-add-shift.h"
#include "nnet/nnet-affine-transform.h"
#include "nnet/nnet-rescale.h"
#include "nnet/nnet-splice.h"
#include "component-layout.h"
#include "feature-set.h"
#include "nnet-train.h"
#include "parallel-ranges.h"
#include "utils/kestrel-log.h"

namespace kestrel {
namespace {

// He initialisation for layers followed by a ReLU, Glorot for the output.
std::unique_ptr<Component> RandomAffine(int input_dim, int output_dim, bool relu,
                                        std::mt19937* rng) {
  double stddev = relu ? std::sqrt(2.0 / input_dim) : std::sqrt(2.0 / (input_dim + output_dim));
  std::normal_distribution<float> normal(0.0f, static_cast<float>(stddev));
  Matrix weights(output_dim, input_dim);
  for (int r = 0; r < output_dim; ++r) {
    for (int c = 0; c < input_dim; ++c) weights(r, c) = normal(*rng);
  }
  Vector bias(output_dim);
  return std::make_unique<AffineTransform>(weights, bias);
}

// The normalisation of the spliced features: x -> (x - mean) / stddev, as
// an <AddShift> and a <Rescale>, from the raw features' statistics.
void NormalisationOf(const TrainingFrames& train, Vector* shift, Vector* scale) {
  std::vector<double> mean, stddev;
  train.FeatureStats(&mean, &stddev);
  const int dim = train.InputDim();
  const int feature_dim = static_cast<int>(mean.size());
  shift->Resize(dim);
  scale->Resize(dim);
  for (int i = 0; i < dim; ++i) {
    (*shift)(i) = static_cast<float>(-mean[i % feature_dim]);
    (*scale)(i) = static_cast<float>(1.0 / stddev[i % feature_dim]);
  }
}

// The trained layers: hidden ReLU layers, each after its splice if it has
// one, and the softmax output. `input_dim` is a spliced row's for the usual
// shape, a feature frame's for a time-delay network.
Nnet InitialLayers(int input_dim, int num_outputs, const HotwordTrainerOptions& options,
                   std::mt19937* rng) {
  Nnet nnet;
  int in = input_dim;
  for (int layer = 0; layer < options.hidden_layers; ++layer) {
    if (!options.layer_splices.empty() && options.layer_splices[layer] != std::vector<int32>{0}) {
      nnet.AppendComponent(std::make_unique<Splice>(in, options.layer_splices[layer]));
      in = nnet.OutputDim();
    }
    nnet.AppendComponent(RandomAffine(in, options.hidden_dim, true, rng));
    nnet.AppendComponent(std::make_unique<Relu>(options.hidden_dim));
    in = options.hidden_dim;
  }
  nnet.AppendComponent(RandomAffine(in, num_outputs, false, rng));
  nnet.AppendComponent(std::make_unique<Softmax>(num_outputs));
  return nnet;
}

// The whole network these options build on `train`'s rows, with no weights
// to speak of: what a network to start from must match.
Nnet ExpectedNetwork(const TrainingFrames& train, const HotwordTrainerOptions& options) {
  const bool time_delay = !options.layer_splices.empty();
  const int dim = time_delay ? train.FeatureDim() : train.InputDim();
  std::mt19937 unused(0);
  Nnet expected;
  if (!time_delay) expected.AppendComponent(train.GetSplice().Copy());
  expected.AppendComponent(std::make_unique<AddShift>(Vector(dim)));
  expected.AppendComponent(std::make_unique<Rescale>(Vector(dim)));
  const Nnet layers = InitialLayers(dim, train.NumLabels(), options, &unused);
  for (int i = 0; i < layers.NumComponents(); ++i) expected.AppendComponent(layers.GetComponent(i).Copy());
  return expected;
}

// The trained layers of `start`, which StartingNetworkProblem accepts, and
// its normalisation spread over a training row as NormalisationOf spreads
// the training frames' own.
Nnet StartingLayers(const Nnet& start, const TrainingFrames& train,
                    const HotwordTrainerOptions& options, Vector* shift, Vector* scale) {
  const std::string problem = StartingNetworkProblem(start, train, options);
  if (!problem.empty()) KESTREL_ERR("hotword-trainer") << problem;
  const int first_layer = options.layer_splices.empty() ? 3 : 2;
  const Component& start_shift = start.GetComponent(first_layer - 2);
  const Component& start_scale = start.GetComponent(first_layer - 1);
  const int dim = start_shift.NumParams();
  std::vector<float> shift_values(dim), scale_values(dim);
  start_shift.GetParams(shift_values.data());
  start_scale.GetParams(scale_values.data());
  shift->Resize(train.InputDim());
  scale->Resize(train.InputDim());
  for (int i = 0; i < train.InputDim(); ++i) {
    (*shift)(i) = shift_values[i % dim];
    (*scale)(i) = scale_values[i % dim];
  }
  Nnet layers;
  for (int i = first_layer; i < start.NumComponents(); ++i) layers.AppendComponent(start.GetComponent(i).Copy());
  return layers;
}

// Normalises minibatch rows in place, as the network's <AddShift> and
// <Rescale> will.
void Normalise(const Vector& shift, const Vector& scale, Matrix* rows) {
  for (int r = 0; r < rows->NumRows(); ++r) {
    float* x = rows->RowData(r);
    for (int c = 0; c < rows->NumCols(); ++c) x[c] = (x[c] + shift(c)) * scale(c);
  }
}

// The total power of `count` log-mel values, as a log.
float LogPower(const float* x, int count) {
  const float peak = *std::max_element(x, x + count);
  double sum = 0.0;
  for (int c = 0; c < count; ++c) sum += std::exp(x[c] - peak);
  return peak + static_cast<float>(std::log(sum));
}

// Adds `noise` to `x` (both `count` log-mel values) in the power domain,
// scaled so that x's power is `snr_db` above the noise's.
void MixAtSnr(const float* noise, int count, double snr_db, float* x) {
  const float gain =
      LogPower(x, count) - LogPower(noise, count) - static_cast<float>(snr_db * std::log(10.0) / 10.0);
  for (int c = 0; c < count; ++c) {
    const float a = x[c], b = noise[c] + gain;
    x[c] = std::max(a, b) + std::log1p(std::exp(-std::fabs(a - b)));
  }
}

// Mixes filler rows into raw (log-mel) training rows in place, as
// HotwordTrainerOptions::noise_share describes. Each row's partner and
// level are drawn in order from `rng`, so the result does not depend on
// the thread count.
void MixNoiseRows(const std::vector<int32>& labels, const HotwordTrainerOptions& options,
                  std::mt19937* rng, Matrix* rows) {
  if (options.noise_share <= 0.0) return;
  std::vector<int> filler;
  for (size_t r = 0; r < labels.size(); ++r) {
    if (labels[r] == 0) filler.push_back(static_cast<int>(r));
  }
  if (filler.empty()) return;
  const int num_rows = rows->NumRows(), num_cols = rows->NumCols();
  std::uniform_real_distribution<double> chance(0.0, 1.0);
  std::uniform_int_distribution<size_t> partner_of(0, filler.size() - 1);
  std::uniform_real_distribution<double> snr_of(options.noise_min_snr_db, options.noise_max_snr_db);
  std::vector<int> partner(num_rows, -1);
  std::vector<double> snr_db(num_rows);
  for (int r = 0; r < num_rows; ++r) {
    if (chance(*rng) >= options.noise_share) continue;
    const int p = filler[partner_of(*rng)];
    snr_db[r] = snr_of(*rng);
    if (p != r) partner[r] = p;
  }
  const Matrix raw = *rows;  // partners are mixed from their own unmixed rows
  ParallelRanges(num_rows, options.threads, [&](int first, int end) {
    for (int r = first; r < end; ++r) {
      if (partner[r] < 0) continue;
      MixAtSnr(raw.RowData(partner[r]), num_cols, snr_db[r], rows->RowData(r));
    }
  });
}

// Features of white noise through the front end, enough frames that the
// stretches drawn for the rows of an epoch seldom repeat.
Matrix WhiteNoiseFeatures() {
  std::mt19937 rng(4242);
  std::normal_distribution<float> sample(0.0f, 1000.0f);
  std::vector<int16_t> samples(16000 * 30);
  for (int16_t& s : samples) s = static_cast<int16_t>(std::clamp(sample(rng), -32767.0f, 32767.0f));
  return ComputeSampleFeatures(samples);
}

// Mixes stretches of `noise` (white noise features) into raw (log-mel)
// training rows in place, as HotwordTrainerOptions::white_noise_share
// describes: a row's context frames get consecutive noise frames, so the
// noise has the frame-to-frame spread of the real thing. Draws are made in
// order from `rng`, so the result does not depend on the thread count.
void MixWhiteNoiseRows(const Splice& splice, const Matrix& noise,
                       const HotwordTrainerOptions& options, std::mt19937* rng, Matrix* rows) {
  if (options.white_noise_share <= 0.0) return;
  const std::vector<int32>& offsets = splice.Offsets();
  const int feature_dim = splice.InputDim();
  const int num_frames = static_cast<int>(offsets.size());
  const int reach = offsets.back() - offsets.front();
  const int num_rows = rows->NumRows();
  std::uniform_real_distribution<double> chance(0.0, 1.0);
  std::uniform_int_distribution<int> start_of(0, noise.NumRows() - reach - 1);
  std::uniform_real_distribution<double> snr_of(options.noise_min_snr_db, options.noise_max_snr_db);
  std::vector<int> start(num_rows, -1);
  std::vector<double> snr_db(num_rows);
  for (int r = 0; r < num_rows; ++r) {
    if (chance(*rng) >= options.white_noise_share) continue;
    start[r] = start_of(*rng);
    snr_db[r] = snr_of(*rng);
  }
  ParallelRanges(num_rows, options.threads, [&](int first, int end) {
    std::vector<float> stretch(static_cast<size_t>(num_frames) * feature_dim);
    for (int r = first; r < end; ++r) {
      if (start[r] < 0) continue;
      for (int k = 0; k < num_frames; ++k) {
        const float* frame = noise.RowData(start[r] + offsets[k] - offsets.front());
        std::copy(frame, frame + feature_dim, stretch.begin() + k * feature_dim);
      }
      MixAtSnr(stretch.data(), static_cast<int>(stretch.size()), snr_db[r], rows->RowData(r));
    }
  });
}

// Augments normalised training rows in place (see HotwordTrainerOptions):
// per row, one shift of the mel axis and one masked band, the same for every
// spliced frame of the row, as a different speaker or a narrowband channel
// would change them; then a run of quiet context frames, as a long stop
// closure or a dropout would make it.
void AugmentRows(const Splice& splice, const HotwordTrainerOptions& options, std::mt19937* rng,
                 Matrix* rows) {
  const int feature_dim = splice.InputDim();
  const int num_frames = static_cast<int>(splice.Offsets().size());
  std::uniform_int_distribution<int> shift_of(-options.max_bin_shift, options.max_bin_shift);
  std::uniform_int_distribution<int> width_of(0, std::max(0, options.max_masked_bins));
  std::uniform_int_distribution<int> start_of(0, feature_dim - 1);
  std::uniform_int_distribution<int> run_of(0, std::clamp(options.max_masked_frames, 0, num_frames));
  std::vector<float> frame(feature_dim), quietest(feature_dim);
  for (int r = 0; r < rows->NumRows(); ++r) {
    const int shift = shift_of(*rng);
    const int width = width_of(*rng);
    const int start = start_of(*rng);
    float* row = rows->RowData(r);
    for (int base = 0; base + feature_dim <= rows->NumCols(); base += feature_dim) {
      float* x = row + base;
      std::copy(x, x + feature_dim, frame.begin());
      for (int b = 0; b < feature_dim; ++b) {
        x[b] = frame[std::clamp(b - shift, 0, feature_dim - 1)];
      }
      // Normalised features have mean 0.
      for (int b = start; b < std::min(feature_dim, start + width); ++b) x[b] = 0.0f;
    }
    const int run = run_of(*rng);
    if (run > 0) {
      std::fill(quietest.begin(), quietest.end(), std::numeric_limits<float>::infinity());
      for (int k = 0; k < num_frames; ++k) {
        for (int b = 0; b < feature_dim; ++b) {
          quietest[b] = std::min(quietest[b], row[k * feature_dim + b]);
        }
      }
      const int first = std::uniform_int_distribution<int>(0, num_frames - run)(*rng);
      for (int k = first; k < first + run; ++k) {
        std::copy(quietest.begin(), quietest.end(), row + k * feature_dim);
      }
    }
  }
}

// Tilts raw (log-mel) training rows in place, as
// HotwordTrainerOptions::max_tilt_db describes, before normalisation, where
// a gain in dB is the same for every bin.
void TiltRows(const Splice& splice, const HotwordTrainerOptions& options, std::mt19937* rng,
              Matrix* rows) {
  if (options.max_tilt_db <= 0.0f) return;
  constexpr int kCosines = 3;
  const int feature_dim = splice.InputDim();
  const float nats_per_db = static_cast<float>(std::log(10.0) / 10.0);  // of power
  const double pi = std::acos(-1.0);
  std::uniform_real_distribution<float> gain_of(-options.max_tilt_db, options.max_tilt_db);
  std::vector<float> curve(feature_dim);
  for (int r = 0; r < rows->NumRows(); ++r) {
    std::fill(curve.begin(), curve.end(), 0.0f);
    for (int k = 1; k <= kCosines; ++k) {
      const float gain = gain_of(*rng) * nats_per_db;
      for (int b = 0; b < feature_dim; ++b) {
        curve[b] += gain * static_cast<float>(std::cos(pi * k * (b + 0.5) / feature_dim));
      }
    }
    float* row = rows->RowData(r);
    for (int base = 0; base + feature_dim <= rows->NumCols(); base += feature_dim) {
      for (int b = 0; b < feature_dim; ++b) row[base + b] += curve[b];
    }
  }
}

// Loss and accuracy over at most `max_frames` held-out frames, unit and
// filler frames in their natural proportion, plus the accuracy on the unit
// frames alone (which the overall figure hides: filler dominates).
std::string DevScore(const NnetTrainer& trainer, const TrainingFrames& dev, const Vector& shift,
                     const Vector& scale, int max_frames, int batch_size) {
  std::mt19937 rng(7);  // the same frames after every epoch
  std::vector<FrameRef> frames = dev.EpochFrames(1.0, &rng);
  if (frames.size() > static_cast<size_t>(max_frames)) frames.resize(max_frames);
  double loss = 0.0, correct = 0.0, unit_correct = 0.0;
  size_t unit_total = 0;
  Matrix rows, posteriors;
  std::vector<int32> labels;
  for (size_t first = 0; first < frames.size(); first += batch_size) {
    size_t n = std::min(frames.size() - first, static_cast<size_t>(batch_size));
    dev.MakeBatch(frames, first, n, &rows, &labels);
    Normalise(shift, scale, &rows);
    float accuracy = 0.0f;
    loss += trainer.ComputeLoss(rows, labels, &accuracy) * n;
    correct += accuracy * n;
    trainer.Forward(rows, &posteriors);
    for (size_t i = 0; i < n; ++i) {
      if (labels[i] == 0) continue;
      ++unit_total;
      const float* p = posteriors.RowData(static_cast<int>(i));
      int best = static_cast<int>(std::max_element(p, p + posteriors.NumCols()) - p);
      unit_correct += best == labels[i];
    }
  }
  std::ostringstream line;
  line.setf(std::ios::fixed);
  line.precision(3);
  line << "dev loss " << loss / std::max<size_t>(1, frames.size());
  line.precision(1);
  line << ", frame accuracy " << 100.0 * correct / std::max<size_t>(1, frames.size())
       << "% (hotword frames " << 100.0 * unit_correct / std::max<size_t>(1, unit_total) << "%)";
  return line.str();
}

// Filler frames this close to a unit or an untrained frame are not mined
// (see TrainingFrames::ClearFillerFrames).
constexpr int kMiningGuardFrames = 5;
// Hotword frames this close to another unit's are not mined (see
// TrainingFrames::ClearUnitFrames).
constexpr int kUnitMiningGuardFrames = 2;

// The `count` frames of a random pool of `pool_size` frames of `candidates`
// that the network gets most wrong: the largest 1 - P(own label), for filler
// the frames most like a hotword unit, for a unit's frames those least like
// it. Their mean of that figure goes to `mean_score`.
std::vector<FrameRef> MineHardFrames(const NnetTrainer& trainer, const TrainingFrames& train,
                                     const std::vector<FrameRef>& candidates, const Vector& shift,
                                     const Vector& scale, size_t pool_size, size_t count,
                                     int num_threads, std::mt19937* rng, double* mean_score) {
  const std::vector<FrameRef> pool = RandomFrames(candidates, pool_size, rng);
  pool_size = pool.size();
  count = std::min(count, pool_size);
  constexpr size_t kBatch = 1024;
  std::vector<float> score(pool_size);
  const int num_batches = static_cast<int>((pool_size + kBatch - 1) / kBatch);
  ParallelRanges(num_batches, num_threads, [&](int first, int end) {
    Matrix rows, posteriors;
    std::vector<int32> labels;
    for (int b = first; b < end; ++b) {
      const size_t begin = b * kBatch;
      const size_t n = std::min(kBatch, pool_size - begin);
      train.MakeBatch(pool, begin, n, &rows, &labels);
      Normalise(shift, scale, &rows);
      trainer.Forward(rows, &posteriors);
      for (size_t i = 0; i < n; ++i) {
        score[begin + i] = 1.0f - posteriors(static_cast<int>(i), labels[i]);
      }
    }
  });
  std::vector<size_t> order(pool_size);
  std::iota(order.begin(), order.end(), 0);
  std::nth_element(order.begin(), order.begin() + count, order.end(),
                   [&](size_t a, size_t b) { return score[a] > score[b]; });
  std::vector<FrameRef> hard;
  double sum = 0.0;
  for (size_t i = 0; i < count; ++i) {
    hard.push_back(pool[order[i]]);
    sum += score[order[i]];
  }
  *mean_score = count > 0 ? sum / count : 0.0;
  return hard;
}

}  // namespace

Splice MakeSplice(int feature_dim, const HotwordTrainerOptions& options) {
  int32 left = options.left_context, right = options.right_context;
  if (!options.layer_splices.empty()) {
    // The layers' furthest reaches add up; the window always holds the
    // frame itself.
    int32 first = 0, last = 0;
    for (const std::vector<int32>& offsets : options.layer_splices) {
      if (offsets.empty()) KESTREL_ERR("hotword-trainer") << "a layer splice without offsets.";
      first += offsets.front();
      last += offsets.back();
    }
    left = std::max(0, -first);
    right = std::max(0, last);
  }
  std::vector<int32> offsets;
  for (int32 o = -left; o <= right; ++o) offsets.push_back(o);
  return Splice(feature_dim, offsets);
}

std::string StartingNetworkProblem(const Nnet& start, const TrainingFrames& train,
                                   const HotwordTrainerOptions& options) {
  const Nnet expected = ExpectedNetwork(train, options);
  for (int i = 0; i < std::max(start.NumComponents(), expected.NumComponents()); ++i) {
    const std::string want = i < expected.NumComponents() ? ComponentLayout(expected.GetComponent(i)) : "nothing";
    const std::string got = i < start.NumComponents() ? ComponentLayout(start.GetComponent(i)) : "nothing";
    if (want != got) {
      return "the network to start from has " + got + " as component " + std::to_string(i + 1) +
             ", where these options make " + want;
    }
  }
  return "";
}

Nnet TrainHotwordNetwork(const TrainingFrames& train, const TrainingFrames* dev,
                         const HotwordTrainerOptions& options,
                         const std::function<void(const std::string&)>& progress,
                         const Nnet* start_from) {
  if (options.white_noise_share > 0.0 && train.FeatureDim() != FilterbankStream::kNumBins) {
    KESTREL_ERR("hotword-trainer") << "white noise mixing needs the front end's "
                                   << FilterbankStream::kNumBins << " mel bins, but the features have "
                                   << train.FeatureDim();
  }
  std::mt19937 rng(options.seed);
  // The layers are trained on normalised rows, without the splice and
  // normalisation in front: the trainer then has no input gradient to
  // propagate below the first layer. They are joined after training.
  const bool time_delay = !options.layer_splices.empty();
  if (time_delay && static_cast<int>(options.layer_splices.size()) != options.hidden_layers) {
    KESTREL_ERR("hotword-trainer") << "layer splices for " << options.layer_splices.size()
                                   << " layers, but " << options.hidden_layers
                                   << " hidden layers.";
  }
  Vector shift, scale;
  Nnet layers;
  if (start_from != nullptr) {
    layers = StartingLayers(*start_from, train, options, &shift, &scale);
  } else {
    NormalisationOf(train, &shift, &scale);
    layers = InitialLayers(time_delay ? train.FeatureDim() : train.InputDim(), train.NumLabels(),
                           options, &rng);
  }
  Matrix rows;
  std::vector<int32> labels;
  const Matrix white_noise = options.white_noise_share > 0.0 ? WhiteNoiseFeatures() : Matrix();
  std::unique_ptr<NnetTrainer> trainer;
  float rate = -1.0f;
  // Mining starts once the network tells speech from silence.
  const int first_mining_epoch = start_from != nullptr ? 1 : std::max(2, options.epochs / 3 + 1);
  std::vector<FrameRef> clear, hard, clear_units, hard_units;
  auto report_mining = [&progress](size_t kept, size_t scored, const char* what, double mean,
                                   std::chrono::steady_clock::time_point start) {
    if (!progress) return;
    std::ostringstream line;
    line.setf(std::ios::fixed);
    line.precision(3);
    line << "mining: the " << kept << " hardest of " << scored << " " << what << mean;
    line.precision(0);
    line << " (" << std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count()
         << " s)";
    progress(line.str());
  };
  for (int epoch = 1; epoch <= options.epochs; ++epoch) {
    auto start = std::chrono::steady_clock::now();
    // Full step size, then a tenth of it for the last quarter of the epochs:
    // a fresh optimiser at the smaller step settles the weights.
    float epoch_rate = (epoch > options.epochs - options.epochs / 4) && options.epochs >= 4
                           ? options.learning_rate * 0.1f
                           : options.learning_rate;
    if (epoch_rate != rate) {
      rate = epoch_rate;
      NnetTrainerOptions trainer_options;
      trainer_options.adam.learning_rate = rate;
      trainer_options.dropout = options.dropout;
      trainer_options.dropout_seed = options.seed * 1000u + static_cast<uint32>(epoch);
      trainer_options.threads = options.threads;
      trainer = std::make_unique<NnetTrainer>(&layers, trainer_options);
    }
    const bool mining_pass =
        epoch >= first_mining_epoch &&
        (epoch - first_mining_epoch) % std::max(1, options.mining_interval) == 0;
    if (mining_pass && options.hard_filler_share > 0.0) {
      auto mining_start = std::chrono::steady_clock::now();
      if (clear.empty()) clear = train.ClearFillerFrames(kMiningGuardFrames);
      const size_t count = static_cast<size_t>(
          std::min(1.0, options.hard_filler_share) * train.EpochFillerCount(options.filler_fraction));
      const size_t pool_size =
          std::min(clear.size(), count * static_cast<size_t>(std::max(1, options.mining_pool)));
      double mean_score = 0.0;
      hard = MineHardFrames(*trainer, train, clear, shift, scale, pool_size, count, options.threads,
                            &rng, &mean_score);
      report_mining(hard.size(), pool_size, "filler frames, mean hotword posterior ", mean_score,
                    mining_start);
    }
    if (mining_pass && options.hard_hotword_share > 0.0) {
      auto mining_start = std::chrono::steady_clock::now();
      if (clear_units.empty()) clear_units = train.ClearUnitFrames(kUnitMiningGuardFrames);
      const size_t count = static_cast<size_t>(std::min(1.0, options.hard_hotword_share) *
                                               train.UnitFrames().size());
      double mean_score = 0.0;
      hard_units = MineHardFrames(*trainer, train, clear_units, shift, scale, clear_units.size(),
                                  count, options.threads, &rng, &mean_score);
      report_mining(hard_units.size(), clear_units.size(),
                    "hotword frames, mean posterior of their unit ", 1.0 - mean_score, mining_start);
    }
    std::vector<FrameRef> frames =
        train.EpochFrames(options.filler_fraction, &rng, hard, hard_units);
    double loss = 0.0;
    size_t done = 0;
    for (size_t first = 0; first < frames.size(); first += options.batch_size) {
      size_t n = std::min(frames.size() - first, static_cast<size_t>(options.batch_size));
      train.MakeBatch(frames, first, n, &rows, &labels);
      MixNoiseRows(labels, options, &rng, &rows);
      MixWhiteNoiseRows(train.GetSplice(), white_noise, options, &rng, &rows);
      TiltRows(train.GetSplice(), options, &rng, &rows);
      Normalise(shift, scale, &rows);
      AugmentRows(train.GetSplice(), options, &rng, &rows);
      loss += trainer->TrainOnBatch(rows, labels) * n;
      done += n;
    }
    if (progress) {
      std::ostringstream line;
      line.setf(std::ios::fixed);
      line.precision(3);
      line << "epoch " << epoch << "/" << options.epochs << ": " << done << " frames, train loss "
           << loss / std::max<size_t>(1, done);
      if (dev != nullptr) line << ", " << DevScore(*trainer, *dev, shift, scale, options.max_dev_frames, 1024);
      double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      line.precision(0);
      line << " (" << seconds << " s)";
      progress(line.str());
    }
  }
  Nnet nnet;
  if (time_delay) {
    // Every frame of a row has the same statistics: normalise frames before
    // the layers' own splices.
    const int dim = train.FeatureDim();
    shift.Resize(dim, kCopyData);
    scale.Resize(dim, kCopyData);
  } else {
    nnet.AppendComponent(train.GetSplice().Copy());
  }
  nnet.AppendComponent(std::make_unique<AddShift>(shift));
  nnet.AppendComponent(std::make_unique<Rescale>(scale));
  for (int i = 0; i < layers.NumComponents(); ++i) nnet.AppendComponent(layers.GetComponent(i).Copy());
  return nnet;
}

}  // namespace kestrel
