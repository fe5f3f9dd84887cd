// Training of a hotword network from labelled frames.
//
// The network is the detector's usual shape:
//   <Splice> (left..right context) -> <AddShift>, <Rescale> (global mean and
//   variance normalisation from the training frames) -> hidden layers of
//   <AffineTransform> + <Relu> -> <AffineTransform> -> <Softmax>,
// with one output per label (0 = filler, 1..U = hotword units); or, with
// layer splices, a time-delay network:
//   <AddShift>, <Rescale> -> per hidden layer: <Splice> (that layer's
//   offsets), <AffineTransform> + <Relu> -> <AffineTransform> -> <Softmax>.
//
// The layers after the normalisation are trained with the library's own
// backpropagation and Adam (nnet/nnet-train.h) on class-balanced,
// shuffled minibatches of spliced frames drawn across all clips, so the
// trained layers are exactly those the detector runs. Progress (per epoch:
// training loss, held-out loss and frame accuracy, time) goes to `progress`.
#ifndef KESTREL_TRAINING_TRAINER_HOTWORD_TRAINER_H_
#define KESTREL_TRAINING_TRAINER_HOTWORD_TRAINER_H_

#include <functional>
#include <string>
#include <vector>

#include "nnet/nnet.h"
#include "training-frames.h"
#include "utils/kestrel-types.h"

namespace kestrel {

struct HotwordTrainerOptions {
  // 230 ms of context, about a unit on either side of the frame's own.
  int32 left_context = 15;
  int32 right_context = 7;
  int32 hidden_dim = 192;
  int32 hidden_layers = 3;
  // Time-delay layers: for each hidden layer, the frames (offsets, ascending)
  // of the layer below, or of the features for the first, that it reads.
  // Deep layers then see far at a fraction of a wide first layer's cost: each
  // layer looks a few frames apart at what the layer below has already made
  // of its own context. Empty: one splice of left..right context in front of
  // all layers. Otherwise one entry per hidden layer, and the context is the
  // sum of their reaches (left_context and right_context are not used).
  std::vector<std::vector<int32>> layer_splices;
  int32 epochs = 12;
  int32 batch_size = 256;
  float learning_rate = 0.001f;  // Adam step size; decays over the last epochs
  // Share of filler frames in each epoch (all unit frames are used).
  double filler_fraction = 0.5;
  // Training-time augmentation of each spliced row, so that the network
  // generalises to voices it has not heard: the mel bins of the whole row are
  // shifted by up to this many bins (a crude vocal tract length change) ...
  int32 max_bin_shift = 2;
  // ... a random band of up to this many bins is masked to its mean ...
  int32 max_masked_bins = 4;
  // ... and a run of up to this many context frames drops to the quietest
  // level the row shows in each bin, as a long stop closure or a dropout
  // would make it (voices whose closures are longer than the training
  // voices' otherwise lose the units around them).
  int32 max_masked_frames = 6;
  // A random smooth tilt of the spectrum, the same for every frame of a row:
  // each of the three slowest cosines across the mel bins gets a gain of up
  // to this many dB either way, as another speaker's glottal source or
  // another microphone would shape it. 0: off (no random numbers drawn).
  float max_tilt_db = 0.0f;
  // Noise mixed afresh each epoch: this share of the rows gets a filler row
  // of the same minibatch (speech, noise or quiet) added in the power domain
  // at a signal-to-noise ratio drawn from [noise_min_snr_db,
  // noise_max_snr_db], measured over the whole row. The corpus mixes one
  // noise into each clip once; the network then learns that noise by heart,
  // while held-out misses pile up in babble and low SNR.
  double noise_share = 0.0;
  int32 noise_min_snr_db = 0;
  int32 noise_max_snr_db = 20;
  // White noise mixed afresh each epoch, at an SNR drawn from the same range:
  // this share of all rows, hotword and filler alike, gets a stretch of the
  // front end's own features of white noise added in the power domain. White
  // noise buries the bursts and fricatives that tell the units apart, and a
  // corpus mixes it into only some clips, each once; filler rows (above) are
  // mostly speech, not broadband noise.
  double white_noise_share = 0.0;
  // Hard negative mining: from the first third of the epochs on, every
  // `mining_interval` epochs, the network scores a random pool of clear
  // filler frames (TrainingFrames::ClearFillerFrames) `mining_pool` times
  // the size of the hard set, and this share of each epoch's filler is then
  // the pool's frames it finds most like the hotword's units. Uniformly drawn
  // filler is nearly all easy silence and speech; the false alarms and near
  // phrases that limit the detector are a sliver of it.
  double hard_filler_share = 0.5;
  // Hard positive mining, at the same passes: the hotword frames away from
  // unit edges (TrainingFrames::ClearUnitFrames) that the network finds
  // least like their own unit, this share of all hotword frames, are trained
  // on a second time in each epoch. Filler mining alone makes the network
  // wary of every sound it cannot place, and the hotwords it then misses are
  // the noisy ones and the unusual voices.
  double hard_hotword_share = 0.0;
  int32 mining_interval = 3;
  int32 mining_pool = 10;
  // Share of the hidden layers' outputs dropped at each step
  // (NnetTrainerOptions::dropout); 0: none.
  float dropout = 0.0f;
  // Threads that share each batch and score the mining pool; the trained
  // network is the same whatever the number.
  int32 threads = 1;
  // Held-out frames scored after each epoch (unit and filler frames alike).
  int32 max_dev_frames = 200000;
  uint32 seed = 1;
};

// The splice of the training rows for these options: every frame of the
// network's context, which for the usual shape is its own first <Splice>.
Splice MakeSplice(int feature_dim, const HotwordTrainerOptions& options);

// Why `start` cannot be trained on as TrainHotwordNetwork's `start_from` (the
// first component that differs from the network `options` build on
// `train`'s rows), or "" when it can.
std::string StartingNetworkProblem(const Nnet& start, const TrainingFrames& train,
                                   const HotwordTrainerOptions& options);

// Trains a network on `train` (frames spliced as MakeSplice does), scores it
// on `dev` (may be null) after every epoch, and returns the whole network,
// splice and normalisation included.
//
// With `start_from`, a network this function returned for rows of the same shape
// and options of the same layout (splices, widths, outputs), training goes on
// from its weights and keeps its normalisation, and filler mining starts in
// the first epoch: a change to the data or the augmentation can then be
// judged against the same network trained on as before, without the spread
// between random starts. A network of another layout is an error naming the
// first component that differs.
Nnet TrainHotwordNetwork(const TrainingFrames& train, const TrainingFrames* dev,
                         const HotwordTrainerOptions& options,
                         const std::function<void(const std::string&)>& progress,
                         const Nnet* start_from = nullptr);

}  // namespace kestrel

#endif  // KESTREL_TRAINING_TRAINER_HOTWORD_TRAINER_H_
