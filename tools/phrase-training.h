// `kestrel train --phrase`: a model for the user's own wake word in one run,
// as stages that a stopped run resumes (StageStamps in the work directory):
//
//   synthesizers  training/install-deps.sh (silent when all is installed)
//   phrase check  make-corpus.py --check-phrase: refused, or warnings
//   corpus        make-corpus.py --size quick|custom into WORK/corpus
//   features      every clip's features, cached in WORK/features
//   training      the network, kept as WORK/network.nnet
//   tuning        search settings and sensitivity on dev; the model file,
//                 with the phrase as its hotword name
//
// Each stage shows a progress bar with the time left on standard error; the
// details (epochs, tuning) go to WORK/train.log, and a summary (dev FRR,
// false alarms per hour, sensitivity, each stage's time) to standard output.
// The training scripts are found in $KESTREL_TRAINING_DIR, else in the
// source tree the program was built from.
#ifndef KESTREL_TOOLS_PHRASE_TRAINING_H_
#define KESTREL_TOOLS_PHRASE_TRAINING_H_

#include <string>

#include "model-training.h"

namespace kestrel {

// Epochs of --quick: its smaller corpus is learnt sooner.
constexpr int32 kQuickEpochs = 8;
// Hidden layer width of --phrase runs: the bundled model's wider layers buy
// about a point on its held-out voices but would push a phrase run past its
// 30-minute budget on 2 cores.
constexpr int32 kPhraseHiddenDim = 128;

struct PhraseTrainingOptions {
  std::string phrase;
  bool quick = false;
  // Default: the model's path + ".work".
  std::string work_dir;
};

// Runs the stages and returns the exit status (args.h), having reported any
// failure. `config` holds the model path and the training settings; its
// corpus and cache directories are set here.
int TrainPhrase(const PhraseTrainingOptions& options, TrainConfig config);

// The directory of make-corpus.py and install-deps.sh: $KESTREL_TRAINING_DIR
// or the source tree's training/. Throws KestrelError, saying where it looked
// and how to point at them, when they are not there.
std::string FindTrainingScripts();

// `text` quoted for /bin/sh.
std::string ShellQuote(const std::string& text);

}  // namespace kestrel

#endif  // KESTREL_TOOLS_PHRASE_TRAINING_H_
