"""Finds hotwords in a 16-bit mono WAV file with the kestrel Python package.
usage: python3 detect.py MODEL.kmodel FILE.wav"""
import sys
import wave

import numpy as np

import kestrel

model, path = sys.argv[1:3]
with wave.open(path, "rb") as w:
    rate = w.getframerate()
    samples = np.frombuffer(w.readframes(w.getnframes()), dtype="<i2")

detector = kestrel.Detector([model], sample_rate=rate)
found = []
for start in range(0, len(samples), rate // 10):  # as if live, 0.1 s at a time
    found += detector.process(samples[start:start + rate // 10])
found += detector.flush()
for d in found:
    print(f"hotword {d.hotword} at {d.seconds:.2f} s (score {d.score:.3f})")
sys.exit(0 if found else 1)
