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

from kcorpus import build  # noqa: E402


def main():
    d = build.DEFAULTS
    ap = argparse.ArgumentParser(description=__doc__)
    ap.add_argument("--phrase", default="hey kestrel")
    ap.add_argument("--out", default=os.path.join(HERE, "corpus"))
    ap.add_argument("--splits", default="train,dev,test",
                    help="comma separated subset of train,dev,test")
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--jobs", type=int, default=2)
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
    ap.add_argument("--sample", metavar="OUT.wav",
                    help="only write one short demo clip and exit")
    ap.add_argument("--no-install", action="store_true",
                    help="do not run install-deps.sh first")
    a = ap.parse_args()

    if not a.no_install:
        subprocess.run([os.path.join(HERE, "install-deps.sh")], check=True)
    cfg = {
        "phrase": a.phrase.strip().lower(), "out": os.path.abspath(a.out),
        "splits": a.splits.split(","), "seed": a.seed, "jobs": max(1, a.jobs),
        "positives": {s: getattr(a, "%s_positives" % s) for s in build.SPLITS},
        "hours": {s: getattr(a, "%s_hours" % s) for s in build.SPLITS},
        "confusable_ratio": a.confusable_ratio, "negative_ratio": a.negative_ratio,
        "noise_ratio": a.noise_ratio, "stream_seconds": a.stream_seconds,
        "test_snr": a.test_snr, "test_clean": a.test_clean,
        "flite_voices": {"train": [v for v in a.train_flite_voices.split(",") if v]},
    }
    if a.sample:
        print(json.dumps(build.make_sample(a.sample, cfg)))
        return
    bad = set(cfg["splits"]) - set(build.SPLITS)
    if bad:
        ap.error("unknown split(s): %s" % ",".join(sorted(bad)))
    os.makedirs(cfg["out"], exist_ok=True)
    t0 = time.time()
    build.generate(cfg)
    print("done in %.1f s -> %s" % (time.time() - t0, cfg["out"]), file=sys.stderr)


if __name__ == "__main__":
    main()
