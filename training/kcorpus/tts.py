"""Speech synthesis back-ends that also report per-phoneme timings.

Every back-end returns Utt objects: 16 kHz float32 audio plus the phones
(pauses removed) with start/end in seconds relative to the start of that
audio, and the word each phone belongs to.  The timings always come from
the engine itself:

  espeak-ng  libespeak-ng phoneme events (audio_position, ms), read through
             ctypes in synth_server.py; a phone ends where the next
             phoneme/pause event starts.
  flite      libflite's Segment relation (item feature "end", the value
             `flite -psdur` prints), also in synth_server.py.
  festival   the Segment relation of the synthesized utterance
             (item feature "end"), printed from a Scheme batch script.
"""

import json
import os
import re
import subprocess
import sys
import tempfile
from dataclasses import dataclass, field

import numpy as np

from . import audio, respell, texts

# ---------------------------------------------------------------- phonemes

# Flite and Festival use the CMU "radio" phone set, which is ARPAbet in
# lower case.  eSpeak uses its own mnemonics; map them onto the same
# symbols so a trainer can group phones into units across engines.
ESPEAK_TO_ARPA = {
    "0": "AA", "3": "ER", "3:": "ER", "@": "AX", "@-": "AX", "@2": "AX",
    "@5": "AX", "@L": "EL", "@r": "ER", "A:": "AA", "A@": "AA", "A": "AA",
    "aa": "AE", "a": "AE", "a#": "AX", "aI": "AY", "aI2": "AY", "aI3": "AY",
    "aI@": "AY", "aU": "AW", "b": "B", "d": "D", "D": "DH", "dZ": "JH",
    "e": "EH", "E": "EH", "E2": "EH", "E3": "EH", "e@": "EH", "eI": "EY",
    "f": "F", "g": "G", "h": "HH", "i": "IY", "i:": "IY", "i@": "IY",
    "i@3": "IY", "I": "IH", "I#": "IH", "I2": "IH", "IR": "IH", "j": "Y",
    "k": "K", "l": "L", "m": "M", "n": "N", "n-": "N", "N": "NG", "o": "OW",
    "o@": "AO", "oU": "OW", "O": "AO", "O2": "AO", "O:": "AO",
    "O@": "AO", "OI": "OY", "p": "P", "r": "R", "r-": "R", "s": "S",
    "S": "SH", "t": "T", "t#": "T", "t2": "T", "t[": "T", "?": "T",
    "T": "TH", "tS": "CH", "u": "UW", "u:": "UW", "U": "UH", "U@": "UH",
    "v": "V", "V": "AH", "VR": "ER", "w": "W", "w#": "W", "z": "Z",
    "Z": "ZH",
}


# Festival's voices of other languages have phone sets of their own; the
# English radio set has none of these symbols, so one map serves both.
# Only the sounds that meet the hotword's are mapped, which is what lets
# their phones be aligned with the English ones.
FOREIGN_TO_ARPA = {
    "a": "AA", "a:": "AA", "a1": "AA", "e": "EH", "e:": "EH", "e1": "EH", "E": "EH",
    "E1": "EH", "i": "IH", "i:": "IY", "i1": "IY", "o": "AO", "o:": "AO", "o1": "AO",
    "O": "AO", "O1": "AO", "u": "UH", "u:": "UW", "u1": "UW", "@": "AX", "h": "HH",
    "x": "HH", "j": "Y", "S": "SH", "Z": "ZH", "tS": "CH", "dZ": "JH", "c~": "CH",
    "s~": "SH", "z~": "ZH", "rr": "R",
}


def to_arpa(engine, sym):
    """Engine phone symbol -> ARPAbet-like symbol (upper case)."""
    if engine == "espeak-ng":
        if sym in ESPEAK_TO_ARPA:
            return ESPEAK_TO_ARPA[sym]
        base = re.sub(r"[#;\[\]/0-9-]+$", "", sym)
        return ESPEAK_TO_ARPA.get(base, sym.upper())
    if engine == "festival":
        return FOREIGN_TO_ARPA.get(sym, sym.upper())
    return sym.upper()


def word_key(word):
    """A word as engines and texts both spell it: lower case letters."""
    return re.sub(r"[^a-z]+", "", word.lower())


@dataclass
class Utt:
    audio: np.ndarray                    # float32, 16 kHz
    phones: list = field(default_factory=list)  # [(sym, start, end)], no pauses
    words: list = field(default_factory=list)   # word_key of each phone's word

    def locate(self, words):
        """-> (first, last) phone index of the one place where the run of
        `words` is spoken.  A word is a run of phones of the same word, so
        the text around a phrase must not repeat its first or last word
        next to it.  ValueError if it is not said exactly once."""
        runs, start = [], 0
        for i in range(1, len(self.words) + 1):
            if i == len(self.words) or self.words[i] != self.words[start]:
                runs.append((self.words[start], start, i - 1))
                start = i
        want = [word_key(w) for w in words]
        found = [(runs[k][1], runs[k + len(want) - 1][2])
                 for k in range(len(runs) - len(want) + 1)
                 if [r[0] for r in runs[k:k + len(want)]] == want]
        if len(found) != 1:
            raise ValueError("%r spoken %d times among %s" % (" ".join(words), len(found),
                                                             [r[0] for r in runs]))
        return found[0]

    @property
    def span(self):
        """(start, end) of the spoken part in seconds."""
        if self.phones:
            return self.phones[0][1], self.phones[-1][2]
        return audio.active_span(self.audio)

    def trimmed(self, margin=0.08):
        """Cut leading/trailing engine silence, keeping `margin` seconds."""
        a, b = self.span
        dur = len(self.audio) / audio.SR
        t0 = max(0.0, a - margin)
        t1 = min(dur, b + margin)
        i0, i1 = int(round(t0 * audio.SR)), int(round(t1 * audio.SR))
        x = audio.fade(self.audio[i0:i1].copy())
        ph = [(s, max(0.0, st - t0), min(t1 - t0, en - t0))
              for s, st, en in self.phones]
        return Utt(x, ph, self.words)


def _clean_phones(raw, dur):
    """raw: [(sym, start, word)] incl. pauses + final end -> (phones without
    pauses, word_key of each)."""
    out, words = [], []
    for (sym, st, word), nxt in zip(raw, raw[1:] + [(None, dur, "")]):
        en = min(nxt[1], dur)
        if sym.startswith("_") or sym in ("pau", "h#", "sil", "#"):
            continue
        if sym == ";" and out:          # eSpeak palatal marker: part of previous phone
            out[-1] = (out[-1][0], out[-1][1], en)
            continue
        if en > st:
            out.append((sym, st, en))
            words.append(word_key(word))
    return out, words


# ---------------------------------------------------------- eSpeak, Flite

class SynthServer:
    """Client of synth_server.py, which runs libespeak-ng and libflite."""

    def __init__(self):
        server = os.path.join(os.path.dirname(os.path.abspath(__file__)),
                              "synth_server.py")
        self.proc = subprocess.Popen([sys.executable, server], stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE)

    def close(self):
        self.proc.stdin.close()
        self.proc.wait()
        self.proc.stdout.close()

    def batch(self, reqs):
        """Synthesize reqs in one fresh library state -> [Utt]."""
        keys = ("engine", "voice", "rate", "pitch", "text")
        self.proc.stdin.write(json.dumps([{k: r[k] for k in keys} for r in reqs]).encode()
                              + b"\n")
        self.proc.stdin.flush()
        res = []
        while True:
            line = self.proc.stdout.readline()
            if not line:
                raise RuntimeError("synthesis server died")
            head = json.loads(line)
            if head.get("done"):
                break
            pcm = np.frombuffer(self.proc.stdout.read(2 * head["n"]), np.int16)
            res.append((head, pcm))
        if len(res) != len(reqs):
            raise RuntimeError("synthesis server crashed (status %s)" % head["status"])
        utts = []
        for req, (head, pcm) in zip(reqs, res):
            if not head["ok"]:
                raise RuntimeError("%s failed on %r: %s"
                                   % (req["engine"], req["text"], head["error"]))
            x = pcm.astype(np.float32) / 32768.0
            dur = len(x) / head["sr"]
            phones, words = _clean_phones([tuple(r) for r in head["raw"]], min(head["end"], dur))
            utts.append(Utt(audio.resample(x, head["sr"]), phones, words))
        return utts


_servers = {}


def server():
    """One server per process: a forked worker must not talk to its
    parent's (the inherited entry stays referenced so it is not closed)."""
    pid = os.getpid()
    if pid not in _servers:
        _servers[pid] = SynthServer()
    return _servers[pid]


# --------------------------------------------------------------- Festival

FESTIVAL_VOICES = ("kal_diphone", "ked_diphone", "cmu_us_slt_arctic_hts")
# Recorded English speakers that none of the voices above is built from,
# from Debian's contrib and non-free sections (install-english-voices.sh).
ENGLISH_VOICES = ("en1_mbrola", "rab_diphone", "us1_mbrola", "us2_mbrola", "us3_mbrola")
# Of those, the British ones report phones in the MRPA set; mapped here onto
# the radio set the other English voices use, so that the hotword's phones
# line up across voices.
MRPA_VOICES = ("en1_mbrola", "rab_diphone")
MRPA_TO_RADIO = {
    "uh": "ah", "e": "eh", "a": "ae", "o": "aa", "i": "ih", "u": "uh", "ii": "iy",
    "uu": "uw", "oo": "ao", "aa": "aa", "@@": "er", "ai": "ay", "ei": "ey", "oi": "oy",
    "au": "aw", "ou": "ow", "e@": "eh", "i@": "iy", "u@": "uh", "@": "ax", "h": "hh",
}
# Voices of other languages say the English text respelled (respell.py);
# their phones are reported in their own phone sets (upper-cased).
FOREIGN_VOICES = tuple(sorted(respell.VOICE_LANGUAGE))


def _scheme_str(text):
    return '"%s"' % text.replace("\\", " ").replace('"', " ")


def _festival_many(reqs):
    """reqs: [dict(voice, rate, pitch, text)] -> [Utt], one festival process.

    For diphone voices rate is Duration_Stretch and pitch the target F0 mean
    in Hz; for the HTS voice rate is the hts_engine speed (-r) and pitch is
    unused (Festival's hts_engine wrapper has no pitch option).  Requests
    are grouped by voice so each voice is loaded once.
    """
    reqs = [(r["voice"], r["rate"], r["pitch"], r["text"]) for r in reqs]
    order = sorted(range(len(reqs)), key=lambda i: (reqs[i][0], i))
    # Festival reads and prints bytes: each line goes in its voice's
    # encoding, and the output is read back byte for byte (latin-1).
    back = [{} for _ in reqs]
    respell.prepare(w for v, _, _, text in reqs if v in FOREIGN_VOICES
                    for w in texts.norm_words(text))
    with tempfile.TemporaryDirectory(prefix="kfest") as tmp:
        lines, cur = [], None
        for i in order:
            voice, rate, pitch, text = reqs[i]
            if voice not in FESTIVAL_VOICES + FOREIGN_VOICES + ENGLISH_VOICES:
                raise ValueError("unknown festival voice %s" % voice)
            encoding = "ascii"
            if voice in FOREIGN_VOICES:
                language = respell.VOICE_LANGUAGE[voice]
                encoding = respell.ENCODING[language]
                text, words = respell.respell(text, language)
                back[i] = {w.encode(encoding).decode("latin-1"): e for w, e in words.items()}
            if not text.strip():
                raise ValueError("empty text")      # festival segfaults on it
            if voice != cur:
                lines.append(b"(voice_%s)" % voice.encode())
                cur = voice
            if voice.endswith("_hts"):
                lines.append(
                    b"(set! hts_engine_params (append %s::hts_engine_params "
                    b"(list (list \"-r\" %.4f))))" % (voice.encode(), rate))
            else:
                lines.append(b"(Parameter.set 'Duration_Stretch %.4f)" % rate)
                lines.append(
                    b"(set! int_lr_params '((target_f0_mean %.2f) (target_f0_std 14)"
                    b" (model_f0_mean 170) (model_f0_std 34)))" % pitch)
            lines.append(b"(set! utt (SynthText %s))"
                         % _scheme_str(text).encode(encoding, errors="replace"))
            lines.append(b"(utt.save.wave utt \"%s/%d.wav\" 'riff)" % (tmp.encode(), i))
            lines.append(b"(format t \"UTT %d\\n\")" % i)
            lines.append(b"(mapcar (lambda (s) (format t \"%s %f %s\\n\" (item.name s)"
                         b" (item.feat s \"end\")"
                         b" (item.feat s \"R:SylStructure.parent.parent.name\")))"
                         b" (utt.relation.items utt 'Segment))")
        script = os.path.join(tmp, "run.scm")
        with open(script, "wb") as f:
            f.write(b"\n".join(lines) + b"\n")
        out = subprocess.run(["festival", "--batch", script], check=True,
                             capture_output=True).stdout.decode("latin-1")
        segs, cur = {}, None
        for line in out.splitlines():
            parts = line.split()
            if len(parts) == 2 and parts[0] == "UTT":
                cur = int(parts[1])
                segs[cur] = []
            elif len(parts) == 3 and cur is not None:
                sym = parts[0]
                if reqs[cur][0] in MRPA_VOICES:
                    sym = MRPA_TO_RADIO.get(sym, sym)
                segs[cur].append((sym, float(parts[1]), back[cur].get(parts[2], parts[2])))
        res = []
        for i in range(len(reqs)):
            x, sr = audio.read_wav(os.path.join(tmp, "%d.wav" % i))
            raw, prev = [], 0.0
            for sym, end, word in segs[i]:
                raw.append((sym, prev, word))
                prev = end
            phones, words = _clean_phones(raw, min(prev, len(x) / sr))
            res.append(Utt(audio.resample(x, sr), phones, words))
    return res


# ---------------------------------------------------------------- dispatch

def synth_many(reqs):
    """reqs: [dict(engine, voice, rate, pitch, text)] -> [Utt] (same order).

    The result depends only on `reqs` (each call starts the engines from
    the same state), which keeps generation reproducible.
    """
    res = [None] * len(reqs)
    for engines, fn in ((("festival",), _festival_many),
                        (("espeak-ng", "flite"), lambda r: server().batch(r))):
        idx = [i for i, r in enumerate(reqs) if r["engine"] in engines]
        if idx:
            for i, u in zip(idx, fn([reqs[i] for i in idx])):
                res[i] = u
    bad = [r["engine"] for r, u in zip(reqs, res) if u is None]
    if bad:
        raise ValueError("unknown engine(s): %s" % ", ".join(sorted(set(bad))))
    return res
