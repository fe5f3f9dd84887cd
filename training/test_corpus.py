"""Checks on a tiny generated corpus.  Run: /usr/bin/python3 -m unittest"""

import json
import os
import sys
import tempfile
import unittest
import wave

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from kcorpus import audio, build, synth_server, texts, tts  # noqa: E402


def tiny_cfg(out, jobs):
    return {"phrase": "hey kestrel", "out": out, "splits": list(build.SPLITS),
            "seed": 7, "jobs": jobs, "positives": {"train": 4, "dev": 2, "test": 4},
            "hours": {s: 20 / 3600 for s in build.SPLITS},
            "confusable_ratio": 0.5, "negative_ratio": 0.5, "noise_ratio": 0.25,
            "stream_seconds": 20.0, "test_snr": 10.0, "test_clean": False,
            "flite_voices": {}}


def load(out, split):
    with open(os.path.join(out, split + ".jsonl")) as f:
        return [json.loads(line) for line in f]


class TinyCorpus(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        cls.out = os.path.join(cls.tmp.name, "a")
        cls.cfg = tiny_cfg(cls.out, 1)
        with open(os.devnull, "w") as null:
            build.generate(cls.cfg, log=null)
        cls.m = {s: load(cls.out, s) for s in build.SPLITS}

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def entries(self):
        return [e for s in build.SPLITS for e in self.m[s]]

    def test_wav_format(self):
        for e in self.entries():
            with wave.open(os.path.join(self.out, e["wav"])) as w:
                self.assertEqual((w.getnchannels(), w.getsampwidth(), w.getframerate()),
                                 (1, 2, 16000), e["wav"])
                self.assertAlmostEqual(w.getnframes() / 16000, e["duration"], places=3)

    def test_labels_inside_and_ordered(self):
        pos = [e for e in self.entries() if e["kind"] == "positive"]
        self.assertEqual(len(pos), 10)
        for e in pos:
            a, b = e["hotword"]
            self.assertTrue(0 <= a < b <= e["duration"], e)
            ph = e["phonemes"]
            self.assertGreaterEqual(len(ph), 6)
            self.assertEqual((ph[0][1], ph[-1][2]), (a, b))
            for (_, s0, e0), (_, s1, _) in zip(ph, ph[1:]):
                self.assertLess(s0, e0)
                self.assertLessEqual(e0, s1 + 1e-6)
            self.assertEqual([p[1:] for p in ph], [p[1:] for p in e["phonemes_arpa"]])
            arpa = [p[0] for p in e["phonemes_arpa"]]
            self.assertEqual(arpa[arpa.index("K"):arpa.index("K") + 5],
                             ["K", "EH", "S", "T", "R"], e["voice"])

    def test_snr_measured_from_parts(self):
        e = [x for x in self.m["train"] if x["kind"] == "positive"][1]
        unit = [u for u in build.units_of(self.cfg, "train") if u[2] == "positive"][0]
        parts = {i: (s, n) for i, _, s, n in build.render_unit(*unit)}
        speech, noise = parts[int(os.path.basename(e["wav"])[:-4])]
        x, _ = audio.read_wav(os.path.join(self.out, e["wav"]))
        self.assertLess(np.max(np.abs(x - (speech + noise))), 2 / 32768)
        got = audio.snr_db(speech, x - speech, [e["hotword"]])
        self.assertLess(abs(got - e["snr_db"]), 0.5, (got, e["snr_db"]))

    def test_test_split_snr_fixed(self):
        for e in self.m["test"]:
            if e["kind"] == "positive":
                self.assertEqual(e["snr_db"], 10.0)

    def test_no_phrase_in_negatives(self):
        for e in self.entries():
            if e["kind"] != "positive":
                said = [e["text"] or ""] + e.get("context", []) + [
                    u[5] for u in e.get("utterances", [])]
                for t in said:
                    self.assertFalse(texts.contains_phrase(t, "hey kestrel"), (e["wav"], t))

    def test_festival_only_in_test(self):
        for s in ("train", "dev"):
            for e in self.m[s]:
                self.assertNotIn("festival", e["engine"] or "")
                for u in e.get("utterances", []):
                    self.assertNotEqual(u[3], "festival")
        self.assertIn("festival", {e["engine"] for e in self.m["test"]})

    def test_test_speech_is_left_as_the_engine_made_it(self):
        self.assertFalse([e for e in self.m["test"] if "channel" in e or "warp" in e])
        pos = [e for e in self.m["train"] if e["kind"] == "positive"]
        self.assertTrue(pos and all("channel" in e and "warp" in e for e in pos))

    def test_same_seed_same_bytes(self):
        out = os.path.join(self.tmp.name, "b")
        with open(os.devnull, "w") as null:
            build.generate(tiny_cfg(out, 2), log=null)
        names = [s + ".jsonl" for s in build.SPLITS] + [e["wav"] for e in self.entries()]
        for n in names:
            with open(os.path.join(self.out, n), "rb") as f1, \
                    open(os.path.join(out, n), "rb") as f2:
                self.assertEqual(f1.read(), f2.read(), n)


class Pieces(unittest.TestCase):
    def test_confusables_for_other_phrase(self):
        c = texts.confusables("ok robin", ["robins", "robing", "rosin", "oak", "okay", "ok"])
        self.assertNotIn("ok robin", c)
        self.assertIn("ok robins", c)
        self.assertIn("ok rosin", c)
        self.assertTrue(all(len(x.split()) <= 2 for x in c))

    def test_reverb_keeps_onset(self):
        ir = audio.room_ir(np.random.default_rng(0), 0.6, 3.0)
        x = np.zeros(16000, np.float32)
        x[8000] = 1.0
        y = audio.reverb(x, ir)
        self.assertEqual(int(np.argmax(np.abs(y))), 8000)
        self.assertLess(float(np.max(np.abs(y[:8000]))), 1e-6)

    def test_engine_timings_match_audio(self):
        # Every phone must be reported and the phrase's reported start/end
        # must coincide with the audible signal (no scale or offset error).
        reqs = [(dict(engine="espeak-ng", voice="gmw/en-US", rate=170, pitch=50),
                 "s oU k E s t r @L"),
                (dict(engine="flite", voice="kal16", rate=1.0, pitch=1.0),
                 "s ow k eh s t r ax l")]
        utts = tts.synth_many([dict(r, text="so kestrel") for r, _ in reqs])
        for (r, phones), u in zip(reqs, utts):
            self.assertEqual(" ".join(p[0] for p in u.phones), phones)
            onset, offset = audio.active_span(u.audio, -40)
            self.assertLess(abs(onset - u.span[0]), 0.04, r)
            self.assertLess(abs(offset - u.span[1]), 0.06, r)

    def test_random_speakers_repeat_and_differ(self):
        # A made-up speaker sounds the same whenever it is asked for (each
        # batch starts the engine afresh), and is neither eSpeak's default
        # voice nor another seed's speaker.
        def say(variant):
            voice = "gmw/en" + (("+" + synth_server.RANDOM_VARIANT + variant) if variant else "")
            req = dict(engine="espeak-ng", voice=voice, rate=170, pitch=50, text="so kestrel")
            return tts.synth_many([req])[0].audio
        first = say("5")
        np.testing.assert_array_equal(say("5"), first)
        for other in (say(""), say("6")):
            self.assertFalse(len(other) == len(first) and np.array_equal(other, first))

    def test_speaker_warp_moves_timings_with_audio(self):
        # A burst at 0.5-0.6 s labelled as a phone; after the warp the label
        # must still cover the burst, and a tone's pitch scales by the factor.
        t = np.arange(16000) / 16000
        x = np.where((t >= 0.5) & (t < 0.6), np.sin(2 * np.pi * 1000 * t), 0).astype(np.float32)
        for k in (44, 57):
            u = build.warped(tts.Utt(x, [("a", 0.5, 0.6)]), k)
            onset, offset = audio.active_span(u.audio, -20)
            self.assertLess(abs(onset - u.phones[0][1]), 0.011, k)
            self.assertLess(abs(offset - u.phones[0][2]), 0.011, k)
            spectrum = np.abs(np.fft.rfft(u.audio))
            peak_hz = np.argmax(spectrum) * 16000 / len(u.audio)
            self.assertAlmostEqual(peak_hz / 1000, k / audio.WARP_BASE, delta=0.01)
        self.assertIs(build.warped(tts.Utt(x, []), None).audio, x)


if __name__ == "__main__":
    unittest.main()
