"""Corpus planning, rendering and parallel generation.

Every clip gets its own random generator seeded from (seed, split, kind,
index), so the output does not depend on the number of worker processes
and the test split never shares a noise/reverb/voice draw with train.
"""

import json
import multiprocessing
import os
import sys
import time

import numpy as np

from . import audio, texts, tts
from .synth_server import RANDOM_VARIANT

SPLITS = ("train", "dev", "test")
_SPLIT_ID = {"train": 1, "dev": 2, "test": 3, "sample": 9}
_KIND_ID = {"positive": 1, "confusable": 2, "negative": 3, "noise": 4,
            "stream": 5, "bank": 6}
_SUBDIR = {"positive": "pos", "confusable": "conf", "negative": "neg",
           "noise": "noise", "stream": "stream"}

# eSpeak voices are "<language file>+<variant>".  Variants and speaking
# rates are disjoint between splits so dev/test voices are never trained on.
# Dev's variants are whole families that train lacks (no m7 next to
# m1..m6), so that settings chosen on dev carry over to unheard voices.
_LANGS = ["gmw/en", "gmw/en-US", "gmw/en-GB-scotland", "gmw/en-GB-x-rp",
          "gmw/en-GB-x-gbclan", "gmw/en-GB-x-gbcwmd", "gmw/en-029"]
ESPEAK_LANGS = {"train": _LANGS, "dev": _LANGS, "test": _LANGS + ["gmw/en-US-nyc"]}
ESPEAK_VARIANTS = {
    "train": ["", "m1", "m2", "m3", "m4", "m5", "m6", "m7", "f1", "f2", "f3", "f4",
              "f5", "croak", "whisper", "whisperf", "klatt", "klatt2", "klatt3", "klatt4",
              "Alex", "Andy", "AnxiousAndy", "Denis", "Diogo", "Gene", "Gene2",
              "Henrique", "Hugo", "Jacky", "Lee", "Marco", "Mario", "Michael", "Mike",
              "adam", "anika", "announcer", "antonio", "belinda", "boris", "caleb",
              "ed", "edward", "gustave", "iven", "iven2", "iven3", "john", "linda", "max",
              "michel", "miguel", "pablo", "rob", "robert", "steph", "steph2", "steph3"],
    "dev": ["Alicia", "Andrea", "Annie", "david", "paul", "quincy",
            "marcelo", "pedro", "zac"],
    "test": ["m8", "klatt5", "klatt6", "grandma", "grandpa", "aunty", "benjamin",
             "edward2", "iven4", "kaukovalta", "norbert", "sandro", "shelby",
             "travis", "victor", "Nguyen"],
}
# Share of training eSpeak voices that are random made-up speakers
# (synth_server.random_variant) rather than eSpeak's own variants; dev and
# test keep eSpeak's held-out variants only.
RANDOM_SPEAKER_SHARE = 0.5
# Share of training word lists drawn from texts.near_words (hard negatives);
# dev and test keep plain dictionary words (and their random draws).
NEAR_WORD_SHARE = 0.5
# Words per minute, eSpeak's normal being 175: from slow to fast talkers
# (0.6x to 1.6x the usual duration).
ESPEAK_RATES = {"train": list(range(100, 281, 10)),
                "dev": list(range(115, 276, 20)),
                "test": list(range(125, 286, 20))}
ESPEAK_NORMAL_RATE = 175.0
# Flite's and Festival's duration stretch (1 = normal, < 1 faster).
STRETCH = {"train": (0.7, 1.35), "dev": (0.7, 1.35), "test": (0.72, 1.3)}
# Flite's awb is dev's: a speaker train never hears.  Festival's kal and
# slt voices are built from the same recordings as Flite's kal/kal16/slt,
# so of the test voices only Festival's ked is a speaker never heard in
# training; the evaluation reports it on its own.
FLITE_VOICES = {"train": ["rms", "slt", "kal16", "kal"], "dev": ["awb"], "test": []}
# Festival's English voices are test's.  With `foreign_voices`, train and
# dev also get its voices of other languages saying English respelled
# (respell.py): recorded speakers with accents, the kind of voice test's
# ked stands for.  Dev's languages are ones train lacks, so that dev judges
# speakers unlike any trained one.  Off by default: the bundled model was
# trained without them, and a model trained with them missed only 2.45
# points fewer of such a dev's hotwords (docs/training.md).
FESTIVAL_VOICES = {"train": ["czech_dita", "czech_krb", "czech_machac", "czech_ph",
                             "upc_ca_ona_hts"],
                   "dev": ["hy_fi_mv_diphone", "lp_diphone", "pc_diphone",
                           "suo_fi_lj_diphone"],
                   "test": list(tts.FESTIVAL_VOICES), "sample": list(tts.FESTIVAL_VOICES)}
# With `english_voices`, train and dev also get Festival's recorded English
# speakers that test's voices are not built from (tts.ENGLISH_VOICES), in
# the same shares as the foreign voices; dev's are other speakers than
# train's. These say the near phrases too, their phones being English.
ENGLISH_FESTIVAL_VOICES = {"train": ["rab_diphone", "us2_mbrola", "us3_mbrola"],
                           "dev": ["en1_mbrola", "us1_mbrola"]}
ENGINE_MIX = {"train": {"espeak-ng": 0.6, "flite": 0.4},
              "dev": {"espeak-ng": 0.6, "flite": 0.4},
              "test": {"espeak-ng": 0.5, "festival": 0.5},
              "sample": {"festival": 1.0}}
FOREIGN_ENGINE_MIX = {"train": {"espeak-ng": 0.5, "flite": 0.35, "festival": 0.15},
                      "dev": {"espeak-ng": 0.45, "flite": 0.3, "festival": 0.25}}
# Flite's clustergen voices run at only ~15x real time on one core, so the
# hours of long negative recordings lean on eSpeak.
STREAM_MIX = {"train": {"espeak-ng": 0.85, "flite": 0.15},
              "dev": {"espeak-ng": 0.8, "flite": 0.2},
              "test": {"espeak-ng": 0.5, "festival": 0.5}}
FOREIGN_STREAM_MIX = {"train": {"espeak-ng": 0.75, "flite": 0.15, "festival": 0.1},
                      "dev": {"espeak-ng": 0.65, "flite": 0.2, "festival": 0.15}}


def engine_mix(cfg, split, kind):
    """-> {engine: share} for a clip of `kind` (or a long recording's
    talkers, kind "stream")."""
    plain, more = (STREAM_MIX, FOREIGN_STREAM_MIX) if kind == "stream" else (
        ENGINE_MIX, FOREIGN_ENGINE_MIX)
    if festival_pool(cfg, split, kind) and split in more:
        return more[split]
    return plain[split]


def festival_pool(cfg, split, kind):
    """-> the voices of train's or dev's extra Festival speakers that may say
    a clip of `kind` ([] when the options add none)."""
    # Near phrases are said in English only: where one sounds unlike the
    # hotword is found by comparing its phones with the hotword's, and a
    # foreign phone set meets English only roughly.
    pool = []
    if split not in ENGLISH_FESTIVAL_VOICES:
        return pool
    if cfg.get("foreign_voices") and kind != "confusable":
        pool += FESTIVAL_VOICES[split]
    if cfg.get("english_voices"):
        pool += ENGLISH_FESTIVAL_VOICES[split]
    return pool

# Train doubled from 10000 positives and 6 h: nine passes over it missed
# fewer dev hotwords at every false alarm budget than twelve over the
# smaller split, where more passes had missed more (docs/training.md).
DEFAULTS = {
    "positives": {"train": 20000, "dev": 2000, "test": 2000},
    "hours": {"train": 12.0, "dev": 8.0, "test": 10.0},
    "confusable_ratio": 0.4, "negative_ratio": 0.25, "noise_ratio": 0.05,
    "stream_seconds": 600.0, "test_snr": 10.0,
}
# Smaller corpora for `kestrel train --phrase` (positives and hours of
# train and dev): "quick" synthesizes in about 2 minutes on 2 cores, "custom"
# in under 10, leaving the rest of a 30-minute budget to training.
SIZES = {
    "quick": {"positives": {"train": 1500, "dev": 200}, "hours": {"train": 0.5, "dev": 0.5}},
    "custom": {"positives": {"train": 5000, "dev": 400}, "hours": {"train": 2.5, "dev": 1.5}},
}

# Where positives and near phrases are said: alone (other speech, if any,
# synthesized apart and pasted with silence around it), opening a sentence,
# run on after a word in the same breath, or after a pause inside one
# utterance.  Shares of the clips.
PLACEMENTS = (("alone", 0.3), ("start", 0.2), ("run-on", 0.3), ("pause", 0.2))
# Short openers said before a phrase, as well as pieces of sentences.
OPENERS = ["oh", "and", "so", "okay", "well", "um", "yeah", "please", "now", "but",
           "right", "alright", "then", "ah", "uh", "hmm", "look", "wait", "thanks"]

# Filled in the parent before forking workers.
_TEXT = {}
_BANK = {}


def rng_for(seed, split, kind, idx):
    return np.random.default_rng([seed, _SPLIT_ID[split], _KIND_ID[kind], idx])


def load_text(phrase):
    if _TEXT.get("phrase") != phrase:
        words = texts.load_words(phrase)
        allw = sorted(w for v in words.values() for w in v)
        phon = texts.Phonetics(phrase, texts.load_lexicon(set(allw) | set(OPENERS)),
                               texts.espeak_sounds)
        near = {s: [] for s in SPLITS}
        for t in texts.near_phrases(phrase, phon, allw):
            near[texts.split_of(t)].append(t)
        _TEXT.update(phrase=phrase, sentences=texts.load_sentences(phrase),
                     words=words, near_words=texts.near_words(phrase, words),
                     near_phrases=near, phonetics=phon)


# ------------------------------------------------------------- sampling

def sample_voice(rng, split, cfg, kind="positive"):
    mix = engine_mix(cfg, split, kind)
    engines = sorted(mix)
    eng = engines[rng.choice(len(engines), p=[mix[e] for e in engines])]
    if eng == "espeak-ng":
        lang = ESPEAK_LANGS[split][rng.integers(len(ESPEAK_LANGS[split]))]
        var = ESPEAK_VARIANTS[split][rng.integers(len(ESPEAK_VARIANTS[split]))]
        if split == "train" and rng.random() < RANDOM_SPEAKER_SHARE:
            var = "%s%d" % (RANDOM_VARIANT, rng.integers(1000000))
        return dict(engine=eng, voice=lang + ("+" + var if var else ""),
                    rate=int(rng.choice(ESPEAK_RATES[split])),
                    pitch=int(rng.integers(20, 81)))
    if eng == "flite":
        pool = cfg["flite_voices"].get(split) or FLITE_VOICES[split]
        return dict(engine=eng, voice=pool[rng.integers(len(pool))],
                    rate=round(float(rng.uniform(*STRETCH[split])), 2),  # duration stretch
                    pitch=round(float(rng.uniform(0.8, 1.25)), 2))  # f0 shift factor
    pool = festival_pool(cfg, split, kind) or FESTIVAL_VOICES[split]
    voice = pool[rng.integers(len(pool))]
    lo, hi = STRETCH["test" if split == "sample" else split]
    if voice.endswith("_hts"):
        # Festival's hts_engine wrapper takes a speed (> 1 faster) but no
        # pitch shift.
        return dict(engine=eng, voice=voice, rate=round(float(1 / rng.uniform(lo, hi)), 2),
                    pitch=None)
    # Target F0 in Hz: the English voices are men's but us1; the others
    # include women and a child.
    men = set(tts.FESTIVAL_VOICES + tts.ENGLISH_VOICES) - {"us1_mbrola"}
    top = 151 if voice in men else 241
    return dict(engine=eng, voice=voice, rate=round(float(rng.uniform(lo, hi)), 2),
                pitch=float(rng.integers(80, top)))


def speed_of(v, warp=None):
    """Speaking rate relative to the engine's normal (> 1 faster), with the
    speaker warp's tempo change."""
    if v["engine"] == "espeak-ng":
        speed = v["rate"] / ESPEAK_NORMAL_RATE
    elif v["voice"].endswith("_hts"):
        speed = v["rate"]
    else:
        speed = 1.0 / v["rate"]
    return round(speed * (warp / audio.WARP_BASE if warp else 1.0), 3)


def phrase_text(rng, phrase):
    """The same words with different punctuation, for prosody variety."""
    w = phrase.split()
    r = rng.random()
    if r < 0.4 or len(w) < 2:
        return phrase
    if r < 0.6:
        return " ".join(x.capitalize() for x in w) + "."
    if r < 0.8:
        return phrase + "!"
    return w[0] + ", " + " ".join(w[1:])


def context_text(rng, split, max_words=7):
    if rng.random() < 0.6:
        sents = _TEXT["sentences"][split]
        ws = sents[rng.integers(len(sents))].split()
        n = int(rng.integers(2, max_words + 1))
        i = int(rng.integers(0, max(1, len(ws) - n + 1)))
        return " ".join(ws[i:i + n])
    words = _TEXT["words"][split]
    if split == "train" and rng.random() < NEAR_WORD_SHARE:
        words = _TEXT["near_words"][split]
    return " ".join(words[rng.integers(len(words))] for _ in range(rng.integers(1, 5)))


def placed_text(rng, split, said, avoid):
    """-> (placement, text, prefix, suffix): `said` (the phrase or a near
    phrase) with words around it in one utterance, or alone.  The words next
    to it never repeat its own first or last word (a word's phones are found
    by their word), and `avoid(text)` must be false for the whole text
    (e.g. it must not say the phrase)."""
    names = [n for n, _ in PLACEMENTS]
    placement = names[rng.choice(len(names), p=[w for _, w in PLACEMENTS])]
    words = texts.norm_words(said)
    for _ in range(20):
        prefix = suffix = ""
        if placement in ("run-on", "pause"):
            prefix = (OPENERS[rng.integers(len(OPENERS))] if rng.random() < 0.4
                      else context_text(rng, split, 6)).rstrip(" ,.;:'-")
        if placement == "start" or (placement != "alone" and rng.random() < 0.6):
            suffix = context_text(rng, split, 7)
        pw, sw = texts.norm_words(prefix), texts.norm_words(suffix)
        if (pw and pw[-1] == words[0]) or (sw and sw[0] == words[-1]):
            continue
        if placement == "pause":
            text = prefix + (", " if rng.random() < 0.6 else ". ") + said
        else:
            text = (prefix + " " + said).strip()
        if suffix:
            text += (", " if rng.random() < 0.3 else " ") + suffix
        if not avoid(text):
            return placement, text, prefix, suffix
    return "alone", said, "", ""


def sentence(rng, split):
    sents = _TEXT["sentences"][split]
    return sents[rng.integers(len(sents))]


def aug_params(rng, split, cfg):
    if split == "test":
        snr = cfg["test_snr"]
    elif rng.random() < 0.9:
        snr = round(float(rng.uniform(0, 20)), 2)
    else:
        snr = round(float(rng.uniform(30, 40)), 2)   # near-clean examples
    rev = None
    if rng.random() < (0.25 if split == "test" else 0.35):
        rev = {"rt60": round(float(rng.uniform(0.15, 0.8)), 3),
               "drr_db": round(float(rng.uniform(0, 12)), 2)}
    return {"snr_db": snr, "noise": audio.NOISE_KINDS[rng.integers(len(audio.NOISE_KINDS))],
            "reverb": rev, "level_db": round(float(rng.uniform(-38, -16)), 2)}


def speaker_params(rng, split):
    """Train and dev speech is made to sound like more speakers and
    microphones than the engines have: a resampling factor (vocal tract
    length, pitch and tempo together; None keeps the voice) and a channel
    (spectral tilt, band limits). Test speech is left as the engine made it,
    and its random draws are untouched."""
    if split == "test":
        return None, None
    warp = None
    if rng.random() < 0.6:
        warp = int(rng.choice([k for k in audio.WARP_STEPS if k != audio.WARP_BASE]))
    channel = {"tilt": round(float(rng.uniform(-0.7, 0.7)), 3) if rng.random() < 0.5 else 0.0,
               "lowpass_hz": int(rng.uniform(3000, 7000)) if rng.random() < 0.15 else None,
               "highpass_hz": int(rng.uniform(100, 400)) if rng.random() < 0.15 else None}
    return warp, channel


def warped(u, warp):
    """Utt u resampled by `warp` (see audio.warp), phone times with it."""
    if warp is None:
        return u
    f = audio.WARP_BASE / warp
    return tts.Utt(audio.warp(u.audio, warp), [(s, a * f, b * f) for s, a, b in u.phones],
                   u.words)


# ------------------------------------------------------------ rendering

def mix_parts(rng, speech, spans, aug, split):
    """Reverb, level and noise.  Returns (speech, noise) float32 parts whose
    sum is the clip; SNR is measured over `spans` (seconds)."""
    if aug["reverb"]:
        ir = audio.room_ir(rng, aug["reverb"]["rt60"], aug["reverb"]["drr_db"])
        speech = audio.reverb(speech, ir)
    m = audio.span_mask(len(speech), spans)
    rms = np.sqrt(np.mean(np.square(speech[m], dtype=np.float64))) + 1e-12
    speech = (speech * (10 ** (aug["level_db"] / 20) / rms)).astype(np.float32)
    noise = audio.make_noise(rng, len(speech), aug["noise"], _BANK.get(split))
    noise = audio.scale_noise(speech, noise, aug["snr_db"], spans)
    return audio.limit(speech, noise)


def assemble(pieces):
    """pieces: [Utt or seconds of silence] -> (audio, [offset per piece])."""
    parts, offs, t = [], [], 0
    for p in pieces:
        offs.append(t / audio.SR)
        x = np.zeros(int(round(p * audio.SR)), np.float32) if isinstance(p, float) else p.audio
        parts.append(x)
        t += len(x)
    return np.concatenate(parts), offs


def _r(x):
    return round(float(x), 4)


# ---------------------------------------------------------------- items

def plan_clip(cfg, split, kind, idx):
    """Decide everything about one clip; synthesis requests in plan['reqs']."""
    rng = rng_for(cfg["seed"], split, kind, idx)
    plan = {"rng": rng, "split": split, "kind": kind, "idx": idx, "reqs": []}
    if kind == "noise":
        plan["dur"] = float(rng.uniform(5, 30))
        return plan
    v = sample_voice(rng, split, cfg, kind)
    plan["voice"] = v
    if kind == "negative":
        n = int(rng.integers(1, 3))
        for _ in range(n):
            t = sentence(rng, split) if rng.random() < 0.7 else context_text(rng, split, 10)
            plan["reqs"].append(dict(v, text=t))
    else:
        phon = _TEXT["phonetics"]
        if kind == "positive":
            said = cfg["phrase"]
            # The context must not say the phrase again, or its sounds.
            avoid = lambda t: phon.times_said(t) != 1
        else:
            near = _TEXT["near_phrases"][split]
            said = near[rng.integers(len(near))]
            avoid = phon.says_phrase
        placement, text, prefix, suffix = placed_text(rng, split, said, avoid)
        plan["placement"], plan["said"] = placement, said
        if placement == "alone":
            text = phrase_text(rng, said)
        plan["reqs"].append(dict(v, text=text))
        if placement != "alone":
            # Said alone as well, for when the engine's word events blur the
            # phrase into its neighbour (a dialect that drops the h of "hey"
            # merges it with the vowel before): then the clip is this.
            plan["reqs"].append(dict(v, text=said))
        plan["context"] = [c for c in (prefix, suffix) if c]
        plan["before"] = placement == "alone" and rng.random() < 0.35
        plan["after"] = placement == "alone" and rng.random() < 0.35
        for flag in ("before", "after"):
            if plan[flag]:
                plan["reqs"].append(dict(v, text=context_text(rng, split)))
    plan["aug"] = aug_params(rng, split, cfg)
    plan["warp"], plan["channel"] = speaker_params(rng, split)
    return plan


def render_clip(cfg, plan, utts):
    """-> (entry, speech, noise, spans)"""
    rng, split, kind = plan["rng"], plan["split"], plan["kind"]
    entry = {"split": split, "kind": kind}
    if kind == "noise":
        n = int(plan["dur"] * audio.SR)
        nk = ("silence",) + audio.NOISE_KINDS
        k = nk[rng.integers(len(nk))]
        lvl = float(rng.uniform(-90, -70) if k == "silence" else rng.uniform(-60, -20))
        noise = audio.make_noise(rng, n, "white" if k == "silence" else k, _BANK.get(split))
        noise = noise * np.float32(10 ** (lvl / 20))
        entry.update(text=None, engine=None, voice=None, rate=None, pitch=None,
                     snr_db=None, noise=k, reverb=None, level_db=round(lvl, 2))
        return entry, np.zeros(n, np.float32), noise, []
    utts = [warped(u, plan["warp"]).trimmed() for u in utts]
    v = plan["voice"]
    if kind == "negative":
        pieces = [float(rng.uniform(0.2, 1.0))]
        for u in utts:
            pieces += [u, float(rng.uniform(0.2, 0.8))]
        x, offs = assemble(pieces)
        spans = [(o + u.span[0], o + u.span[1]) for o, u in zip(offs[1::2], utts)]
        text = " / ".join(r["text"] for r in plan["reqs"])
    else:
        main, rest = utts[0], utts[1:]
        words = texts.norm_words(plan["said"])
        placement, context = plan["placement"], plan["context"]
        if placement != "alone":
            alone = rest.pop(0)
            try:
                main.locate(words)
            except ValueError:
                main, placement, context = alone, "alone", []
        pasted = [r["text"] for r in plan["reqs"][len(plan["reqs"]) - len(rest):]]
        pieces = [float(rng.uniform(0.2, 1.0))]
        if plan["before"]:
            pieces += [rest.pop(0), float(rng.uniform(0.1, 0.7))]
        k = len(pieces)
        pieces.append(main)
        if plan["after"]:
            pieces += [float(rng.uniform(0.1, 0.7)), rest.pop(0)]
        pieces.append(float(rng.uniform(0.2, 1.0)))
        x, offs = assemble(pieces)
        o = offs[k]
        if placement == "alone" and not context:
            # Said by itself: every phone is the phrase's, however the
            # engine's word events fell.
            first, last = 0, len(main.phones) - 1
        else:
            first, last = main.locate(words)
        phones = main.phones[first:last + 1]
        spans = [(o + phones[0][1], o + phones[-1][2])]
        text = plan["said"]
        entry["context"] = context + pasted
        entry["utterance"] = plan["reqs"][0]["text"] if context else plan["said"]
        entry["placement"] = placement
        entry["speed"] = speed_of(v, plan["warp"])
        key = "hotword" if kind == "positive" else "span"
        entry[key] = [_r(spans[0][0]), _r(spans[0][1])]
        arpa = [tts.to_arpa(v["engine"], s) for s, _, _ in phones]
        if kind == "positive":
            entry["phonemes"] = [[s, _r(o + a), _r(o + b)] for s, a, b in phones]
        else:
            # Where the near phrase sounds unlike the phrase: the frames a
            # trainer can call filler without contradicting the positives.
            differs = texts.differing(texts.sounds_each(arpa), _TEXT["phonetics"].target)
            entry["differs"] = [[_r(o + a), _r(o + b)]
                                for (_, a, b), d in zip(phones, differs) if d]
        entry["phonemes_arpa"] = [[p, _r(o + a), _r(o + b)] for p, (_, a, b) in zip(arpa, phones)]
    aug = plan["aug"]
    if plan["channel"]:
        x = audio.channel(x, **plan["channel"])
        entry.update(warp=plan["warp"] and plan["warp"] / audio.WARP_BASE,
                     channel=plan["channel"])
    speech, noise = mix_parts(rng, x, spans, aug, split)
    entry.update(text=text, engine=v["engine"], voice=v["voice"], rate=v["rate"],
                 pitch=v["pitch"], snr_db=aug["snr_db"], noise=aug["noise"],
                 reverb=aug["reverb"], level_db=aug["level_db"])
    return entry, speech, noise, spans


def plan_stream(cfg, split, idx):
    """A long continuous negative recording: many talkers, gaps, pauses."""
    rng = rng_for(cfg["seed"], split, "stream", idx)
    length = cfg["stream_seconds"]
    items, t = [], float(rng.uniform(0.2, 2.0))
    while t < length:
        r = rng.random()
        v = sample_voice(rng, split, cfg, "stream")
        if r < 0.03 and v["voice"] not in tts.FOREIGN_VOICES:
            conf = _TEXT["near_phrases"][split]
            kind, text = "confusable", conf[rng.integers(len(conf))]
        elif r < 0.75:
            kind, text = "sentence", sentence(rng, split)
        else:
            kind, text = "words", context_text(rng, split, 10)
        gain = float(rng.uniform(-6, 6))
        gap = float(rng.uniform(8, 25)) if rng.random() < 0.04 else float(
            np.clip(rng.exponential(0.8), 0.1, 5.0))
        warp, _ = speaker_params(rng, split)
        items.append(dict(kind=kind, req=dict(v, text=text), gain=gain, gap=gap, warp=warp))
        # Under-estimate the spoken length so the stream gets filled; items
        # that do not fit are skipped after synthesis.
        t += 0.25 * len(text.split()) + 0.2 + gap
    plan = {"rng": rng, "split": split, "kind": "stream", "idx": idx, "items": items,
            "reqs": [it["req"] for it in items], "aug": aug_params(rng, split, cfg),
            "length": length}
    plan["channel"] = speaker_params(rng, split)[1]
    return plan


def render_stream(cfg, plan, utts):
    rng, split = plan["rng"], plan["split"]
    n = int(plan["length"] * audio.SR)
    x = np.zeros(n, np.float32)
    t = int(rng.uniform(0.2, 2.0) * audio.SR)
    spans, utt_info = [], []
    for it, u in zip(plan["items"], utts):
        u = warped(u, it.get("warp")).trimmed()
        if t + len(u.audio) > n:
            continue
        x[t:t + len(u.audio)] += u.audio * np.float32(10 ** (it["gain"] / 20))
        a, b = t / audio.SR + u.span[0], t / audio.SR + u.span[1]
        spans.append((a, b))
        r = it["req"]
        utt_info.append([_r(a), _r(b), it["kind"], r["engine"], r["voice"], r["text"]])
        t += len(u.audio) + int(it["gap"] * audio.SR)
    aug = plan["aug"]
    if plan["channel"]:
        x = audio.channel(x, **plan["channel"])
    speech, noise = mix_parts(rng, x, spans, aug, split)
    engines = sorted({u[3] for u in utt_info})
    entry = {"split": split, "kind": "negative", "text": None, "engine": "+".join(engines),
             "voice": "mixed", "rate": None, "pitch": None, "snr_db": aug["snr_db"],
             "noise": aug["noise"], "reverb": aug["reverb"], "level_db": aug["level_db"],
             "utterances": utt_info}
    return entry, speech, noise, spans


# --------------------------------------------------------------- workers

def build_bank(args):
    """Babble source: unrelated sentences from several talkers of the split."""
    cfg, split, n = args
    rng = rng_for(cfg["seed"], split, "bank", 0)
    bsplit = "test" if split == "sample" else split
    reqs = [dict(sample_voice(rng, bsplit, cfg), text=sentence(rng, bsplit)) for _ in range(n)]
    return split, [u.trimmed(0.0).audio for u in tts.synth_many(reqs)]


def _write(cfg, entry, speech, noise, rel):
    path = os.path.join(cfg["out"], rel)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    pcm = audio.write_wav(path, speech + noise)
    entry["wav"] = rel
    entry["duration"] = _r(len(pcm) / audio.SR)
    return entry


def render_unit(cfg, split, kind, idxs):
    """Yield (idx, entry, speech, noise) for one work unit.  Synthesis is
    batched per unit, so re-rendering the same unit gives the same audio."""
    if kind == "stream":
        plans = [plan_stream(cfg, split, i) for i in idxs]
    else:
        plans = [plan_clip(cfg, split, kind, i) for i in idxs]
    utts = tts.synth_many([r for p in plans for r in p["reqs"]])
    k = 0
    for p in plans:
        u = utts[k:k + len(p["reqs"])]
        k += len(p["reqs"])
        render = render_stream if kind == "stream" else render_clip
        entry, speech, noise, _ = render(cfg, p, u)
        yield p["idx"], entry, speech, noise


def run_unit(unit):
    """unit: (cfg, split, kind, [indices]) -> [(sort key, entry, clean entry)]"""
    cfg, split, kind, idxs = unit
    out = []
    for idx, entry, speech, noise in render_unit(cfg, split, kind, idxs):
        entry = _write(cfg, entry, speech, noise, "%s/%s/%06d.wav" % (split, _SUBDIR[kind], idx))
        clean = None
        if cfg.get("test_clean") and split == "test" and kind == "positive":
            clean = _write(cfg, dict(entry, snr_db=None, noise=None), speech,
                           np.zeros_like(noise), "test-clean/pos/%06d.wav" % idx)
        out.append(((_KIND_ID[kind], idx), entry, clean))
    return out


def units_of(cfg, split):
    npos = cfg["positives"][split]
    counts = {"positive": npos,
              "confusable": int(round(npos * cfg["confusable_ratio"])),
              "negative": int(round(npos * cfg["negative_ratio"])),
              "noise": int(round(npos * cfg["noise_ratio"]))}
    units = []
    nstream = int(np.ceil(cfg["hours"][split] * 3600 / cfg["stream_seconds"] - 1e-9))
    units += [(cfg, split, "stream", [i]) for i in range(nstream)]
    chunk = 40 if split == "test" else 25     # festival start-up is per unit
    for kind, n in counts.items():
        units += [(cfg, split, kind, list(range(i, min(n, i + chunk))))
                  for i in range(0, n, chunk)]
    return units


def _pool(jobs):
    return multiprocessing.get_context("fork").Pool(jobs) if jobs > 1 else None


def _map(pool, fn, items):
    return pool.imap_unordered(fn, items) if pool else map(fn, items)


def generate(cfg, log=sys.stderr, progress=None):
    """Generate the requested splits; returns {split: [manifest entries]}.
    `progress(done, total)` is called as items of all splits finish."""
    t0 = time.time()
    load_text(cfg["phrase"])
    splits = [s for s in SPLITS if s in cfg["splits"]]
    pool = _pool(cfg["jobs"])
    try:
        for split, bank in _map(pool, build_bank, [(cfg, s, 40) for s in splits]):
            _BANK[split] = bank
    finally:
        if pool:
            pool.close()
            pool.join()
    print("[%6.1fs] babble banks ready" % (time.time() - t0), file=log, flush=True)
    # New pool so the workers inherit the banks.
    pool = _pool(cfg["jobs"])
    result = {}
    grand_total = sum(len(u[3]) for s in splits for u in units_of(cfg, s))
    grand_done = 0
    try:
        for split in splits:
            units = units_of(cfg, split)
            total = sum(len(u[3]) for u in units)
            rows, done, last = [], 0, 0.0
            for res in _map(pool, run_unit, units):
                rows += res
                done += len(res)
                grand_done += len(res)
                if progress:
                    progress(grand_done, grand_total)
                if time.time() - last > 5 or done == total:
                    last = time.time()
                    print("[%6.1fs] %-5s %d/%d items" % (last - t0, split, done, total),
                          file=log, flush=True)
            rows.sort(key=lambda r: r[0])
            result[split] = [r[1] for r in rows]
            _write_manifest(cfg, split, result[split], log)
            clean = [r[2] for r in rows if r[2]]
            if clean:
                _write_manifest(cfg, "test_clean", clean, log)
    except BaseException:
        # Do not wait for the queued work of a run that has failed.
        if pool:
            pool.terminate()
        raise
    finally:
        if pool:
            pool.close()
            pool.join()
    return result


def _write_manifest(cfg, name, entries, log):
    path = os.path.join(cfg["out"], name + ".jsonl")
    with open(path, "w") as f:
        for e in entries:
            f.write(json.dumps(e, sort_keys=True) + "\n")
    hours = sum(e["duration"] for e in entries) / 3600
    print("wrote %s: %d clips, %.2f h" % (path, len(entries), hours), file=log, flush=True)


# ---------------------------------------------------------------- sample

def make_sample(path, cfg):
    """Short demo clip: speech, the phrase, speech; a test-only voice."""
    load_text(cfg["phrase"])
    v = dict(engine="festival", voice="cmu_us_slt_arctic_hts", rate=1.0, pitch=None)
    reqs = [dict(v, text="I just got back from the store"),
            dict(v, text=cfg["phrase"]),
            dict(v, text="what is the weather like tomorrow")]
    before, main, after = [u.trimmed() for u in tts.synth_many(reqs)]
    x, offs = assemble([0.4, before, 0.5, main, 0.5, after, 0.4])
    o = offs[3]
    spans = [(o + main.span[0], o + main.span[1])]
    rng = rng_for(cfg["seed"], "sample", "positive", 0)
    _, bank = build_bank((cfg, "sample", 8))
    _BANK["sample"] = bank
    aug = {"snr_db": 25.0, "noise": "pink", "reverb": None, "level_db": -22.0}
    speech, noise = mix_parts(rng, x, spans, aug, "sample")
    os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
    audio.write_wav(path, speech + noise)
    return {"wav": path, "text": cfg["phrase"], "engine": v["engine"], "voice": v["voice"],
            "snr_db": aug["snr_db"], "duration": _r(len(x) / audio.SR),
            "hotword": [_r(spans[0][0]), _r(spans[0][1])],
            "phonemes": [[s, _r(o + a), _r(o + b)] for s, a, b in main.phones]}
