"""Text material for negatives and context speech, and near phrases.

Sentences come from the fortune databases (Debian `fortunes`), single
words from `wamerican`.  Both are partitioned by a hash of the text into
train/dev/test so test sentences are never spoken in training.
"""

import os
import re
import subprocess
import zlib

import numpy as np

FORTUNE_DIR = "/usr/share/games/fortunes"
WORDS_FILE = "/usr/share/dict/american-english"
_SKIP_FORTUNES = {"art", "ascii-art", "riddles", "linux", "perl"}

LEXICON_FILE = "/usr/share/festival/dicts/cmu/cmudict-0.4.out"

def norm_words(text):
    return re.findall(r"[a-z']+", text.lower())


def contains_phrase(text, phrase):
    w, p = norm_words(text), norm_words(phrase)
    return any(w[i:i + len(p)] == p for i in range(len(w) - len(p) + 1))


def split_of(text):
    """Stable 80/10/10 train/dev/test assignment."""
    h = zlib.crc32(text.encode()) % 10
    return "train" if h < 8 else ("dev" if h == 8 else "test")


def _clean_sentence(s):
    s = re.sub(r"[^A-Za-z0-9,' -]+", " ", s)
    s = re.sub(r"\s+", " ", s).strip(" ,'-")
    return s


def load_sentences(phrase):
    """-> {split: [sentence]} of 3..20-word single sentences."""
    out = {"train": set(), "dev": set(), "test": set()}
    for name in sorted(os.listdir(FORTUNE_DIR)):
        path = os.path.join(FORTUNE_DIR, name)
        if "." in name or name in _SKIP_FORTUNES or not os.path.isfile(path):
            continue
        with open(path, encoding="latin-1") as f:
            body = f.read()
        for entry in body.split("\n%\n"):
            if re.search(r"[|\\/_=<>{}]{3}", entry):     # ASCII art, code
                continue
            for sent in re.split(r"(?<=[.!?;:])\s+", entry.replace("\n", " ")):
                s = _clean_sentence(sent)
                n = len(s.split())
                if 3 <= n <= 20 and not contains_phrase(s, phrase):
                    out[split_of(s)].add(s)
    return {k: sorted(v) for k, v in out.items()}


def load_words(phrase):
    """-> {split: [word]} lower-case alphabetic dictionary words."""
    out = {"train": [], "dev": [], "test": []}
    banned = set(norm_words(phrase))
    with open(WORDS_FILE, encoding="utf-8") as f:
        for w in f:
            w = w.strip()
            if w.isascii() and w.isalpha() and w.islower() and w not in banned:
                out[split_of(w)].append(w)
    return out


# Sound-level equivalences: schwas and syllabic l are spelled differently by
# each engine and lexicon ("ax l", "@L", "ah0 l") but sound alike.
_SOUND = {"AX": "AH", "EL": "L", "AXR": "ER"}


def sounds_each(arpa):
    """One symbol per phone, compared for sameness: stress marks dropped,
    a schwa before l None (it belongs to the l, which engines and lexicons
    write as "ax l", "@L" or "ah0 l")."""
    out = [_SOUND.get(re.sub(r"[0-9]", "", p.upper()), re.sub(r"[0-9]", "", p.upper()))
           for p in arpa]
    return [None if p == "AH" and i + 1 < len(out) and out[i + 1] == "L" else p
            for i, p in enumerate(out)]


def sounds(arpa):
    """ARPAbet-like symbols -> the sound sequence (sounds_each, Nones out)."""
    return [p for p in sounds_each(arpa) if p is not None]


def differing(each, target):
    """For each phone of `each` (sounds_each), True where a minimum-edit
    alignment with `target` substitutes or inserts it: where a near phrase
    sounds unlike the phrase.  Nones never differ."""
    hyp = [(i, p) for i, p in enumerate(each) if p is not None]
    n, m = len(hyp), len(target)
    cost = [[i + j if i == 0 or j == 0 else 0 for j in range(m + 1)] for i in range(n + 1)]
    for i in range(1, n + 1):
        for j in range(1, m + 1):
            cost[i][j] = min(cost[i - 1][j] + 1, cost[i][j - 1] + 1,
                             cost[i - 1][j - 1] + (hyp[i - 1][1] != target[j - 1]))
    out, i, j = [False] * len(each), n, m
    while i > 0:
        if j > 0 and cost[i][j] == cost[i - 1][j - 1] + (hyp[i - 1][1] != target[j - 1]):
            out[hyp[i - 1][0]] = hyp[i - 1][1] != target[j - 1]
            i, j = i - 1, j - 1
        elif j > 0 and cost[i][j] == cost[i][j - 1] + 1:
            j -= 1
        else:
            out[hyp[i - 1][0]] = True
            i -= 1
    return out


def load_lexicon(keep, raw=False):
    """-> {word: sounds} from the CMU lexicon, first pronunciation of each
    word of `keep` (a set of lower-case words; None: every word); `raw`:
    every phone as the lexicon writes it, stress marks dropped (for counting
    syllables)."""
    shape = (lambda ps: [re.sub(r"[0-9]", "", p.upper()) for p in ps]) if raw else sounds
    lex = {}
    with open(LEXICON_FILE, encoding="latin-1") as f:
        for line in f:
            m = re.match(r'\("([a-z]+)" \S+ (.*)\)\s*$', line)
            if not m or (keep is not None and m.group(1) not in keep) or m.group(1) in lex:
                continue
            lex[m.group(1)] = shape(re.findall(r"[a-z]+[0-9]?", m.group(2)))
    return lex


def _seq_distance(a, b):
    prev = list(range(len(b) + 1))
    for i, ca in enumerate(a, 1):
        cur = [i]
        for j, cb in enumerate(b, 1):
            cur.append(min(prev[j] + 1, cur[j - 1] + 1, prev[j - 1] + (ca != cb)))
        prev = cur
    return prev[-1]


class Phonetics:
    """Word pronunciations (the CMU lexicon, and eSpeak NG's rules for
    words it lacks, such as "kestrel") and the sound checks built on them."""

    def __init__(self, phrase, lexicon, speak_missing):
        self.lex = dict(lexicon)
        missing = [w for w in norm_words(phrase) if w not in self.lex]
        self.lex.update(speak_missing(missing) if missing else {})
        self.phrase = norm_words(phrase)
        self.target = [p for w in self.phrase for p in self.lex[w]]

    def of(self, words):
        """Sounds of a word sequence; an unknown word is a sound of its own."""
        return [p for w in words for p in self.lex.get(w, ["?" + w])]

    def times_said(self, text):
        """How often `text` says the phrase's sounds in a row, whatever the
        spelling ("hay kestrel")."""
        s, t = self.of(norm_words(text)), self.target
        return sum(s[i:i + len(t)] == t for i in range(len(s) - len(t) + 1))

    def says_phrase(self, text):
        return self.times_said(text) > 0


def espeak_sounds(words, raw=False):
    """-> {word: sounds} from eSpeak NG's own letter-to-sound rules; `raw`
    as in load_lexicon."""
    from . import tts
    out = subprocess.run(["espeak-ng", "-q", "-x", "-v", "en-us"], input="\n".join(
        w + "." for w in words), capture_output=True, text=True, check=True).stdout
    known = sorted(tts.ESPEAK_TO_ARPA, key=len, reverse=True)
    res = {}
    for w, line in zip(words, out.split("\n")):
        # Phonemes come run together ("k'Estr@L"): longest known symbol
        # first; stress marks and unknown characters are skipped.
        line, syms = line.strip(), []
        while line:
            sym = next((k for k in known if line.startswith(k)), None)
            if sym:
                syms.append(tts.ESPEAK_TO_ARPA[sym])
            line = line[len(sym or " "):]
        res[w] = syms if raw else sounds(syms)
    return res


def near_phrases(phrase, phon, words, per_word=120, unrelated=20):
    """Phrases that share a word or most of the sounds with `phrase`, made
    for any phrase from the lexicon: each word swapped for words that sound
    close (phone edit distance up to ~45% of the word), each word kept with
    the others swapped for unrelated words, and each word alone and plural.
    None of them contains the phrase's sounds.  `words`: candidate words
    (sorted); the result is sorted and split-independent."""
    p = norm_words(phrase)
    cands = [w for w in words if w in phon.lex]
    out = set()
    for i, w in enumerate(p):
        ws = phon.lex[w]
        limit = max(1, int(np.ceil(0.45 * len(ws))))
        scored = []
        for c in cands:
            cs = phon.lex[c]
            if c != w and abs(len(cs) - len(ws)) <= limit:
                d = _seq_distance(cs, ws)
                scored.append((d, zlib.crc32(c.encode()), c))
        near = sorted(x for x in scored if 1 <= x[0] <= limit)[:per_word]
        far = sorted(x for x in scored if x[0] > limit + 1)
        pick = [c for _, _, c in near] + [c for _, _, c in far[:unrelated]]
        for c in pick:
            out.add(" ".join(p[:i] + [c] + p[i + 1:]))
        if len(p) > 1:
            out.add(w)
            out.add(w + "s")
    return sorted(t for t in out if not phon.says_phrase(t) and norm_words(t) != p)


def near_words(phrase, words):
    """-> {split: [word]}: words sharing a three-letter piece of spelling
    with a phrase word ("abstract", "vestry" for "kestrel"), hard negatives
    that say some of the hotword's sounds in other company.  A phrase of
    short words has no such pieces: then every word is "near"."""
    pieces = {w[i:i + 3] for w in norm_words(phrase) for i in range(len(w) - 2)}
    return {s: [w for w in ws if not pieces or any(p in w for p in pieces)]
            for s, ws in words.items()}
