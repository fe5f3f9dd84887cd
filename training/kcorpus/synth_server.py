"""In-process eSpeak NG and Flite synthesis with phone timings (stdlib only).

Both libraries keep state between calls (libc rand(), pitch/flutter
phase, signal history), so the same request can come out slightly
different depending on what was synthesized before.  To make the corpus
reproducible, this process loads the libraries once and forks a child for
every *batch*; a batch therefore always starts from the same state and
its output depends only on its own requests.  It stays free of numpy so
fork() is cheap.

Protocol: a batch is one JSON line on stdin, a list of requests
{"engine": "espeak-ng"|"flite", "voice", "rate", "pitch", "text"}; an
eSpeak voice may name a made-up speaker, "<language>+random-<seed>".  For each
request the reply is a JSON header line {"ok", "sr", "n", "raw": [[phone,
start_s, word], ...], "end": s} followed by n int16 samples (native order); then
one line {"done": true, "status": exit status of the child}.

Timings: eSpeak reports phoneme events (audio_position in ms); Flite's
Segment relation gives each segment's end time (feature "end"), which is
what `flite -psdur` prints.  Each phone also carries the word it belongs
to (eSpeak: the text of the last word event; Flite: the segment's word in
the SylStructure relation), so a phrase can be found inside a sentence.
"""

import ctypes
import glob
import json
import math
import os
import random
import re
import shutil
import sys
import tempfile

vp = ctypes.c_void_p

# ------------------------------------------------------------------ eSpeak


class EspeakEvent(ctypes.Structure):
    class _Id(ctypes.Union):
        _fields_ = [("number", ctypes.c_int), ("name", ctypes.c_char_p),
                    ("string", ctypes.c_char * 8)]
    _fields_ = [("type", ctypes.c_int), ("unique_identifier", ctypes.c_uint),
                ("text_position", ctypes.c_int), ("length", ctypes.c_int),
                ("audio_position", ctypes.c_int), ("sample", ctypes.c_int),
                ("user_data", vp), ("id", _Id)]


EV_WORD, EV_PHONEME, EV_END, EV_MSG_TERMINATED = 1, 7, 5, 6
CALLBACK = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.POINTER(ctypes.c_short),
                            ctypes.c_int, ctypes.POINTER(EspeakEvent))


# Variants named RANDOM_VARIANT + <seed> are speakers made up on demand:
# every formant's frequency, strength and width, the pitch range, roughness,
# flutter and consonant strength are drawn from the seed.  eSpeak's own variants
# are a few dozen hand-made speakers; training on thousands of random ones
# is what lets the network hear speakers unlike any of them.
RANDOM_VARIANT = "random-"
# Frequency factor range per formant (0 is eSpeak's low-frequency boost):
# the first two, which carry vowel identity, move the most between speakers.
_FORMANT_SPANS = [(0.8, 1.25), (0.55, 1.5), (0.7, 1.4), (0.75, 1.3), (0.8, 1.2),
                  (0.8, 1.2), (0.8, 1.2), (0.8, 1.2), (0.8, 1.2)]


def random_variant(seed):
    """-> the text of the variant file RANDOM_VARIANT + str(seed)."""
    r = random.Random(seed)
    lines = ["language variant", "name %s%d" % (RANDOM_VARIANT, seed)]
    for k, (lo, hi) in enumerate(_FORMANT_SPANS):
        factor = math.exp(r.uniform(math.log(lo), math.log(hi)))
        lines.append("formant %d %d %d %d" % (k, round(100 * factor), r.randint(60, 140),
                                              r.randint(70, 130)))
    base = r.randint(60, 220)
    lines.append("pitch %d %d" % (base, base + r.randint(20, 140)))
    lines.append("roughness %d" % r.randint(0, 5))
    lines.append("flutter %d" % r.randint(0, 20))
    lines.append("consonants %d %d" % (r.randint(60, 120), r.randint(60, 120)))
    return "\n".join(lines) + "\n"


def private_espeak_home():
    """A temporary directory holding an espeak-ng-data of links to the
    system's, with a variants folder of its own to write random speakers
    into."""
    found = sorted(glob.glob("/usr/lib/*/espeak-ng-data") + glob.glob("/usr/share/espeak-ng-data"))
    if not found:
        raise RuntimeError("espeak-ng-data not found (is espeak-ng installed?)")
    system = found[0]
    home = tempfile.mkdtemp(prefix="kcorpus-espeak-")
    data = os.path.join(home, "espeak-ng-data")
    os.makedirs(os.path.join(data, "voices", "!v"))
    for name in os.listdir(system):
        if name != "voices":
            os.symlink(os.path.join(system, name), os.path.join(data, name))
    for name in os.listdir(os.path.join(system, "voices")):
        if name != "!v":
            os.symlink(os.path.join(system, "voices", name), os.path.join(data, "voices", name))
    for name in os.listdir(os.path.join(system, "voices", "!v")):
        os.symlink(os.path.join(system, "voices", "!v", name),
                   os.path.join(data, "voices", "!v", name))
    return home


class Espeak:
    def __init__(self):
        self.lib = ctypes.CDLL("libespeak-ng.so.1")
        self.home = private_espeak_home()
        self.variants = os.path.join(self.home, "espeak-ng-data", "voices", "!v")
        # AUDIO_OUTPUT_SYNCHRONOUS=2; options PHONEME_EVENTS=1 | DONT_EXIT=0x8000
        self.sr = self.lib.espeak_Initialize(2, 0, self.home.encode(), 0x8001)
        if self.sr <= 0:
            raise RuntimeError("espeak-ng initialisation failed")
        self.cb = CALLBACK(self._collect)
        self.lib.espeak_SetSynthCallback(self.cb)
        self.lib.espeak_SetVoiceByName(b"gmw/en")   # load the dictionary once

    def _collect(self, wav, n, ev):
        if n > 0:
            self.pcm.append(ctypes.string_at(wav, 2 * n))
        i = 0
        while ev[i].type != 0:
            e = ev[i]
            if e.type == EV_WORD:
                # The word starting at the event's position; its reported
                # length (and after a full stop its position) can be short
                # by a character.
                word = re.match(r"[^A-Za-z']*([A-Za-z']*)", self.text[e.text_position - 1:])
                self.word = word.group(1)
            elif e.type == EV_PHONEME:
                name = bytes(e.id.string).split(b"\0")[0].decode("latin-1")
                self.raw.append([name, e.audio_position / 1000.0, self.word])
            elif e.type in (EV_END, EV_MSG_TERMINATED):
                self.raw.append(["_end", e.audio_position / 1000.0, ""])
            i += 1
        return 0

    def close(self):
        shutil.rmtree(self.home, ignore_errors=True)

    def synth(self, req):
        self.pcm, self.raw, self.word, self.text = [], [], "", req["text"]
        variant = req["voice"].partition("+")[2]
        made = None
        if variant.startswith(RANDOM_VARIANT):
            # Only while the voice is set: eSpeak lists every variant file
            # on each voice change and stops listing at a few hundred.
            made = os.path.join(self.variants, variant)
            with open(made, "w") as f:
                f.write(random_variant(int(variant[len(RANDOM_VARIANT):])))
        try:
            found = self.lib.espeak_SetVoiceByName(req["voice"].encode()) == 0
        finally:
            if made:
                os.remove(made)
        if not found:
            raise ValueError("espeak-ng voice not found: %s" % req["voice"])
        self.lib.espeak_SetParameter(1, int(req["rate"]), 0)     # espeakRATE
        self.lib.espeak_SetParameter(3, int(req["pitch"]), 0)    # espeakPITCH
        data = req["text"].encode("utf-8")
        # POS_CHARACTER=1, flags espeakCHARS_UTF8=1
        if self.lib.espeak_Synth(data, len(data) + 1, 0, 1, 0, 1, None, None) != 0:
            raise RuntimeError("espeak_Synth failed")
        self.lib.espeak_Synchronize()
        audio = b"".join(self.pcm)
        raw = sorted(self.raw, key=lambda r: r[1])
        return self.sr, audio, raw, len(audio) / 2 / self.sr


# ------------------------------------------------------------------- Flite

class FliteVoice(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char_p), ("features", vp)]


class FliteWave(ctypes.Structure):
    _fields_ = [("type", ctypes.c_char_p), ("sample_rate", ctypes.c_int),
                ("num_samples", ctypes.c_int), ("num_channels", ctypes.c_int),
                ("samples", ctypes.POINTER(ctypes.c_short))]


FLITE_VOICES = ("kal", "kal16", "awb", "rms", "slt")


class Flite:
    def __init__(self):
        g = ctypes.RTLD_GLOBAL
        fl = self.fl = ctypes.CDLL("libflite.so.1", mode=g)
        eng = ctypes.CDLL("libflite_usenglish.so.1", mode=g)
        lex = ctypes.CDLL("libflite_cmulex.so.1", mode=g)
        sig = {"flite_synth_text": (vp, [ctypes.c_char_p, vp]),
               "utt_wave": (ctypes.POINTER(FliteWave), [vp]),
               "utt_relation": (vp, [vp, ctypes.c_char_p]),
               "relation_head": (vp, [vp]), "item_next": (vp, [vp]),
               "item_feat_string": (ctypes.c_char_p, [vp, ctypes.c_char_p]),
               "item_feat_float": (ctypes.c_float, [vp, ctypes.c_char_p]),
               "ffeature_string": (ctypes.c_char_p, [vp, ctypes.c_char_p]),
               "delete_utterance": (None, [vp]),
               "flite_feat_set_float": (None, [vp, ctypes.c_char_p, ctypes.c_float]),
               "flite_add_lang": (ctypes.c_int, [ctypes.c_char_p, vp, vp])}
        for name, (res, args) in sig.items():
            getattr(fl, name).restype = res
            getattr(fl, name).argtypes = args
        fl.flite_init()
        for lang in (b"eng", b"usenglish"):
            fl.flite_add_lang(lang, ctypes.cast(eng.usenglish_init, vp),
                              ctypes.cast(lex.cmu_lex_init, vp))
        self.voices = {}
        for v in FLITE_VOICES:
            lib = ctypes.CDLL("libflite_cmu_us_%s.so.1" % v, mode=g)
            reg = getattr(lib, "register_cmu_us_%s" % v)
            reg.restype, reg.argtypes = ctypes.POINTER(FliteVoice), [ctypes.c_char_p]
            self.voices[v] = reg(None)

    def synth(self, req):
        fl = self.fl
        v = self.voices.get(req["voice"])
        if not v:
            raise ValueError("flite voice not found: %s" % req["voice"])
        fl.flite_feat_set_float(v.contents.features, b"duration_stretch", req["rate"])
        fl.flite_feat_set_float(v.contents.features, b"f0_shift", req["pitch"])
        utt = fl.flite_synth_text(req["text"].encode("utf-8"), ctypes.cast(v, vp))
        if not utt:
            raise RuntimeError("flite_synth_text failed")
        try:
            w = fl.utt_wave(utt).contents
            if w.num_channels != 1 or w.num_samples <= 0:
                raise RuntimeError("unexpected flite wave")
            audio = ctypes.string_at(w.samples, 2 * w.num_samples)
            raw, prev = [], 0.0
            it = fl.relation_head(fl.utt_relation(utt, b"Segment"))
            while it:
                end = fl.item_feat_float(it, b"end")
                word = fl.ffeature_string(it, b"R:SylStructure.parent.parent.name")
                raw.append([fl.item_feat_string(it, b"name").decode(), prev, word.decode()])
                prev = end
                it = fl.item_next(it)
            return w.sample_rate, audio, raw, prev
        finally:
            fl.delete_utterance(utt)


# ------------------------------------------------------------------ server

def run_batch(engines, reqs, out):
    ctypes.CDLL("libc.so.6").srand(1)
    for req in reqs:
        try:
            sr, audio, raw, end = engines[req["engine"]].synth(req)
            head = {"ok": True, "sr": sr, "n": len(audio) // 2, "raw": raw, "end": end}
        except Exception as exc:       # reported to the client, batch goes on
            head, audio = {"ok": False, "n": 0, "error": str(exc)}, b""
        out.write(json.dumps(head).encode() + b"\n" + audio)
    out.flush()


def main():
    espeak = Espeak()
    try:
        serve({"espeak-ng": espeak, "flite": Flite()})
    finally:
        espeak.close()


def serve(engines):
    out = sys.stdout.buffer
    for line in sys.stdin:
        out.flush()
        pid = os.fork()
        if pid == 0:
            status = 1
            try:
                run_batch(engines, json.loads(line), out)
                status = 0
            finally:
                os._exit(status)
        _, status = os.waitpid(pid, 0)
        out.write(json.dumps({"done": True, "status": status}).encode() + b"\n")
        out.flush()


if __name__ == "__main__":
    main()
