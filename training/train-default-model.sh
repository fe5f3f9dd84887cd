#!/bin/sh
# Retrains the bundled "hey kestrel" model from scratch, with nothing
# downloaded: synthesizes the training and held-out corpus, computes the
# features, trains the network, chooses the search settings and sensitivity
# on the held-out split, and writes models/hey-kestrel.kmodel.
#
# About 1 h 15 min on a 2-core machine, the trainer holding up to 5.3 GB of
# memory (with the corpus already made: features 15 s, training 3069 s,
# tuning 1271 s over the naive and Viterbi searches); making the train and
# dev corpus adds about 8 minutes. The trainer is deterministic: a second
# run gave the same held-out loss after every pass and the same dev figures.
# Environment overrides:
#   BUILD   build directory (default: build)
#   CORPUS  corpus directory (default: training/corpus; reused if complete)
#   JOBS    worker processes and threads (default: 2)
#   OUT     model file (default: models/hey-kestrel.kmodel)
set -eu
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${BUILD:-$ROOT/build}
CORPUS=${CORPUS:-$ROOT/training/corpus}
JOBS=${JOBS:-2}
OUT=${OUT:-$ROOT/models/hey-kestrel.kmodel}

start=$(date +%s)
cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$BUILD" -j"$JOBS" --target kestrel-cli

# The dev split doubles as the tuning set, so it gets eight hours of negative
# audio (make-corpus.py's default): the false alarm budget is judged on it,
# and two hours held too few false alarms to tell settings apart.
if [ ! -f "$CORPUS/dev.jsonl" ]; then
    "$ROOT/training/make-corpus.py" --out "$CORPUS" --splits dev --jobs "$JOBS"
fi
# A train split of another size than make-corpus.py's default (one made
# before it was doubled) would quietly train another model: it is made again
# (the clips it has come out the same).
train_positives=$(cd "$ROOT/training" &&
    /usr/bin/python3 -c "import kcorpus.build as b; print(b.DEFAULTS['positives']['train'])")
if [ ! -f "$CORPUS/train.jsonl" ] ||
   [ "$(grep -c '"kind": "positive"' "$CORPUS/train.jsonl")" -ne "$train_positives" ]; then
    "$ROOT/training/make-corpus.py" --out "$CORPUS" --splits train --jobs "$JOBS"
fi

# Two thirds filler in each epoch (the default is half), a time-delay network
# (four hidden layers of 128, each seeing its input at growing offsets, about
# half the multiply-adds of a flat network with the same context) and nine
# passes over the doubled train split (the default is twelve): chosen on dev,
# where the first missed fewer hotwords at every false alarm budget, the
# second fewer than the flat network over two seeds each, and nine passes
# fewer than six or twelve at every budget. Seed 2: of three random starts
# of this recipe it missed the fewest dev hotwords (19.65%, against 24.95%
# and 23.05%), a rule fixed before the third was trained.
"$BUILD/tools/kestrel" train --corpus "$CORPUS" --out "$OUT" --threads "$JOBS" \
    --seed 2 --filler-fraction 0.67 --layer-splices "-1,0,1 -2,0,2 -4,0,4 -8,0" \
    --hidden-dim 128 --epochs 9 --report "$OUT.train.txt"
echo "train-default-model: done in $(( $(date +%s) - start )) s; wrote $OUT" >&2
