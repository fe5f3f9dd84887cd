"""Text material for negatives and context speech, and confusable phrases.

Sentences come from the fortune databases (Debian `fortunes`), single
words from `wamerican`.  Both are partitioned by a hash of the text into
train/dev/test so test sentences are never spoken in training.
"""

import os
import re
import zlib

FORTUNE_DIR = "/usr/share/games/fortunes"
WORDS_FILE = "/usr/share/dict/american-english"
_SKIP_FORTUNES = {"art", "ascii-art", "riddles", "linux", "perl"}

# Hand-picked near misses for the default phrase.
KESTREL_CONFUSABLES = [
    "hey kevin", "hey nestle", "best roll", "kestrels are birds",
    "hey kestrels", "hey chester", "vest roll", "hey", "kestrel",
    "hey estrel", "hey celeste", "hay pastel", "a kestrel", "the kestrel flew",
    "they kissed real", "okay chest roll", "hey western", "key stroll",
    "hey orchestra", "hey mistral", "hey kettle", "hey castle", "hey esther",
    "hey cheryl", "hey wastrel", "pay kestner", "say kestrel", "hey pastry",
]


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


def _edit_distance(a, b):
    prev = list(range(len(b) + 1))
    for i, ca in enumerate(a, 1):
        cur = [i]
        for j, cb in enumerate(b, 1):
            cur.append(min(prev[j] + 1, cur[j - 1] + 1, prev[j - 1] + (ca != cb)))
        prev = cur
    return prev[-1]


def confusables(phrase, words, limit=30):
    """Near-miss phrases: the hand list for the default phrase, plus
    phrases with one word swapped for a similar-spelled dictionary word,
    each word alone, and a plural form."""
    p = norm_words(phrase)
    out = list(KESTREL_CONFUSABLES) if p == ["hey", "kestrel"] else []
    if len(p) > 1:
        out += p
    out.append(" ".join(p[:-1] + [p[-1] + "s"]))
    for i, w in enumerate(p):
        near = [c for c in words
                if abs(len(c) - len(w)) <= 1 and c[:1] == w[:1] and c != w
                and 1 <= _edit_distance(c, w) <= 2]
        near.sort(key=lambda c: (_edit_distance(c, w), c))
        for c in near[:max(2, limit // (2 * len(p)))]:
            out.append(" ".join(p[:i] + [c] + p[i + 1:]))
    seen, res = set(), []
    for c in out:
        if c not in seen and norm_words(c) != p:
            seen.add(c)
            res.append(c)
    return res[:limit + len(KESTREL_CONFUSABLES)]


def near_words(phrase, words):
    """-> {split: [word]}: words sharing a three-letter piece of spelling
    with a phrase word ("abstract", "vestry" for "kestrel"), hard negatives
    that say some of the hotword's sounds in other company.  A phrase of
    short words has no such pieces: then every word is "near"."""
    pieces = {w[i:i + 3] for w in norm_words(phrase) for i in range(len(w) - 2)}
    return {s: [w for w in ws if not pieces or any(p in w for p in pieces)]
            for s, ws in words.items()}
