#!/usr/bin/python3
"""Generate the synthetic hotword corpus (see training/README.md)."""

import argparse
import json
import os
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)

from kcorpus import build, phrase_check  # noqa: E402


def sized_defaults(argv):
    """build.DEFAULTS, with train and dev sizes from a --size preset."""
    pre = argparse.ArgumentParser(add_help=False)
    pre.add_argument("--size", choices=sorted(build.SIZES))
    size = pre.parse_known_args(argv)[0].size
    d = {k: (dict(v) if isinstance(v, dict) else v) for k, v in build.DEFAULTS.items()}
    for key, values in build.SIZES.get(size, {}).items():
        d[key].update(values)
    return d


def main():
    d = sized_defaults(sys.argv[1:])
    ap = argparse.ArgumentParser(description=__doc__)
    ap.add_argument("--phrase", default="hey kestrel")
    ap.add_argument("--out", default=os.path.join(HERE, "corpus"))
    ap.add_argument("--splits", default="train,dev,test",
                    help="comma separated subset of train,dev,test")
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--jobs", type=int, default=2)
    ap.add_argument("--size", choices=sorted(build.SIZES),
                    help="smaller train and dev splits: " + "; ".join(
                        "%s: %d/%d positives, %.1f/%.1f h" % (
                            k, v["positives"]["train"], v["positives"]["dev"],
                            v["hours"]["train"], v["hours"]["dev"])
                        for k, v in sorted(build.SIZES.items())))
    ap.add_argument("--check-phrase", action="store_true",
                    help="only say whether the phrase makes a reliable wake word "
                         "(exit status 2 when it does not)")
    ap.add_argument("--progress-lines", action="store_true",
                    help='print "progress DONE TOTAL" lines on standard output as items '
                         "finish, for a program to show")
    for s in build.SPLITS:
        ap.add_argument("--%s-positives" % s, type=int, default=d["positives"][s])
        ap.add_argument("--%s-hours" % s, type=float, default=d["hours"][s],
                        help="hours of long continuous negative recordings")
    ap.add_argument("--confusable-ratio", type=float, default=d["confusable_ratio"],
                    help="confusable clips per positive clip")
    ap.add_argument("--negative-ratio", type=float, default=d["negative_ratio"],
                    help="short negative speech clips per positive clip")
    ap.add_argument("--noise-ratio", type=float, default=d["noise_ratio"],
                    help="noise/silence-only clips per positive clip")
    ap.add_argument("--stream-seconds", type=float, default=d["stream_seconds"],
                    help="length of each long negative recording")
    ap.add_argument("--test-snr", type=float, default=d["test_snr"])
    ap.add_argument("--test-clean", action="store_true",
                    help="also write noise-free copies of the test positives")
    ap.add_argument("--train-flite-voices", default="",
                    help="override the Flite voices used in train (comma separated)")
    ap.add_argument("--foreign-voices", action="store_true",
                    help="train and dev also hear Festival's voices of other languages "
                         "saying English respelled (training/README.md)")
    ap.add_argument("--english-voices", action="store_true",
                    help="train and dev also hear recorded English speakers from Debian's "
                         "contrib and non-free sections (install-english-voices.sh)")
    ap.add_argument("--sample", metavar="OUT.wav",
                    help="only write one short demo clip and exit")
    ap.add_argument("--no-install", action="store_true",
                    help="do not run install-deps.sh first")
    a = ap.parse_args()

    if not a.no_install:
        subprocess.run([os.path.join(HERE, "install-deps.sh")], check=True)
        if a.english_voices:
            subprocess.run([os.path.join(HERE, "install-english-voices.sh")], check=True)
    phrase = " ".join(a.phrase.lower().split())
    if a.check_phrase:
        verdict = phrase_check.check_phrase(phrase)
        print("\n".join(verdict.lines()), flush=True)
        sys.exit(2 if verdict.errors else 0)
    cfg = {
        "phrase": phrase, "out": os.path.abspath(a.out),
        "splits": a.splits.split(","), "seed": a.seed, "jobs": max(1, a.jobs),
        "positives": {s: getattr(a, "%s_positives" % s) for s in build.SPLITS},
        "hours": {s: getattr(a, "%s_hours" % s) for s in build.SPLITS},
        "confusable_ratio": a.confusable_ratio, "negative_ratio": a.negative_ratio,
        "noise_ratio": a.noise_ratio, "stream_seconds": a.stream_seconds,
        "test_snr": a.test_snr, "test_clean": a.test_clean,
        "flite_voices": {"train": [v for v in a.train_flite_voices.split(",") if v]},
        "foreign_voices": a.foreign_voices, "english_voices": a.english_voices,
    }
    if a.sample:
        print(json.dumps(build.make_sample(a.sample, cfg)))
        return
    bad = set(cfg["splits"]) - set(build.SPLITS)
    if bad:
        ap.error("unknown split(s): %s" % ",".join(sorted(bad)))
    os.makedirs(cfg["out"], exist_ok=True)
    t0 = time.time()
    progress = None
    if a.progress_lines:
        def progress(done, total):
            print("progress %d %d" % (done, total), flush=True)
    build.generate(cfg, progress=progress)
    print("done in %.1f s -> %s" % (time.time() - t0, cfg["out"]), file=sys.stderr)


if __name__ == "__main__":
    main()
