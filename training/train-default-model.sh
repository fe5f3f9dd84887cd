#!/bin/sh
# Retrains the bundled "hey kestrel" model from scratch, with nothing
# downloaded, in two stages:
#   1. synthesizes a corpus of synthetic voices and trains the network on
#      it from random weights;
#   2. synthesizes a second corpus that adds Festival's recorded English
#      speakers, trains the network one more pass on it at a tenth of the
#      step size, chooses the search settings and sensitivity on its
#      held-out split, and writes models/hey-kestrel.kmodel.
#
# About 2 1/2 hours on a 2-core machine, the trainer holding up to 5.3 GB
# of memory: the first stage's corpus 8 min, features 85 s, training 3069 s
# and tuning (the naive search only, as its settings are not kept) about
# 15 min; the second stage's corpus 10 min, features about 100 s, two runs
# of a mining pass and the training pass about 12 min (714 s for the
# second, alone), and tuning the naive and Viterbi searches about 40 min.
# The trainer is deterministic, whatever the number of threads.
# Environment overrides:
#   BUILD           build directory (default: build)
#   CORPUS          first stage's corpus (default: training/corpus; reused if complete)
#   ENGLISH_CORPUS  second stage's corpus (default: training/corpus-english; reused if complete)
#   BASE            a first-stage network to start the second stage from
#                   (default: trained, into CORPUS/first-stage.kmodel)
#   JOBS            worker processes and threads (default: 2)
#   OUT             model file (default: models/hey-kestrel.kmodel)
set -eu
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${BUILD:-$ROOT/build}
CORPUS=${CORPUS:-$ROOT/training/corpus}
ENGLISH_CORPUS=${ENGLISH_CORPUS:-$ROOT/training/corpus-english}
JOBS=${JOBS:-2}
OUT=${OUT:-$ROOT/models/hey-kestrel.kmodel}

start=$(date +%s)
cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$BUILD" -j"$JOBS" --target kestrel-cli

has_english_voices() {
    grep -q '"us2_mbrola"\|"us1_mbrola"' "$1"
}
# A train split of another size than make-corpus.py's default (one made
# before it was doubled) would quietly train another model: it is made again
# (the clips it has come out the same).
train_positives=$(cd "$ROOT/training" &&
    /usr/bin/python3 -c "import kcorpus.build as b; print(b.DEFAULTS['positives']['train'])")
# Makes each split of corpus $1 that is missing or was made with other
# voices; $2 is "--english-voices" or empty.
make_corpus() {
    for split in dev train; do
        manifest="$1/$split.jsonl"
        if [ -f "$manifest" ]; then
            if has_english_voices "$manifest"; then made=--english-voices; else made=; fi
            if [ "$made" = "$2" ] && { [ "$split" = dev ] ||
               [ "$(grep -c '"kind": "positive"' "$manifest")" -eq "$train_positives" ]; }; then
                continue
            fi
        fi
        # The dev split doubles as the tuning set, so it gets eight hours of
        # negative audio (make-corpus.py's default): the false alarm budget is
        # judged on it, and two hours held too few false alarms to tell
        # settings apart.
        "$ROOT/training/make-corpus.py" --out "$1" --splits "$split" --jobs "$JOBS" $2
    done
}

# Stage 1. Two thirds filler in each epoch (the default is half), a
# time-delay network (four hidden layers of 128, each seeing its input at
# growing offsets, about half the multiply-adds of a flat network with the
# same context) and nine passes over the doubled train split (the default
# is twelve): chosen on dev, where the first missed fewer hotwords at every
# false alarm budget, the second fewer than the flat network over two seeds
# each, and nine passes fewer than six or twelve at every budget. Seed 2: of
# three random starts of this recipe it missed the fewest dev hotwords
# (19.65%, against 24.95% and 23.05%), a rule fixed before the third was
# trained.
LAYOUT='--filler-fraction 0.67 --hidden-dim 128'
SPLICES='-1,0,1 -2,0,2 -4,0,4 -8,0'
if [ -z "${BASE:-}" ]; then
    make_corpus "$CORPUS" ""
    BASE=$CORPUS/first-stage.kmodel
    "$BUILD/tools/kestrel" train --corpus "$CORPUS" --out "$BASE" --threads "$JOBS" \
        --seed 2 $LAYOUT --layer-splices "$SPLICES" --epochs 9 --methods 1 \
        --report "$BASE.train.txt"
fi

# Stage 2. Train and dev also hear Festival's recorded English speakers
# (other speakers in each): without them the network had heard no recorded
# human voice but Flite's four and missed most hotwords of dev's. One more
# pass on that corpus, at a tenth of the step size, missed 27.0% of its dev
# split's hotwords, against 31.95% for the first stage's recipe trained
# from random weights on it and 39.4% for the first stage's network as it
# was, a comparison set up before the runs (25.85% since the tuning also
# tries floors of 0.15). Near phrases: at most 5% of
# dev's accepted, the share allowed on test. White noise mixed afresh into
# half the rows at -5 to 15 dB, and two runs (seeds 11 and 12) whose weights
# are averaged: alone, the two seeds missed 23.95% and 26.35% of dev's
# hotwords, their average 23.8% or fewer, under the 23.85% a change had to
# reach by a rule written before the run.
make_corpus "$ENGLISH_CORPUS" --english-voices
"$BUILD/tools/kestrel" train --corpus "$ENGLISH_CORPUS" --out "$OUT" --threads "$JOBS" \
    --init-model "$BASE" --epochs 1 --learning-rate 1e-4 --seed 11 --runs 2 \
    --white-noise-share 0.5 --noise-min-snr -5 --noise-max-snr 15 \
    $LAYOUT --layer-splices "$SPLICES" --max-near-accept 0.05 --report "$OUT.train.txt"
echo "train-default-model: done in $(( $(date +%s) - start )) s; wrote $OUT" >&2
