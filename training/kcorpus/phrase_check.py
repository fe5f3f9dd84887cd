"""Whether a phrase can make a reliable wake word.

A phrase is refused when it is not 1-4 words of letters, or too short:
few sounds leave the detector little to tell the phrase from other speech,
so everyday talk would wake it.  It is accepted with a warning when people
say it, or something that sounds almost the same, in ordinary sentences.
"""

import collections
import re

from . import texts

MAX_WORDS = 4
MIN_SYLLABLES = 3
MIN_PHONEMES = 6
# Words this common count as everyday speech.
COMMON_WORDS = 3000
# Syllable nuclei, as the lexicon and eSpeak write them (schwas and
# syllabic consonants included).
_VOWELS = {"AA", "AE", "AH", "AO", "AW", "AY", "EH", "ER", "EY", "IH", "IY",
           "OW", "OY", "UH", "UW", "AX", "AXR", "EL", "EM", "EN"}
_WORD = re.compile(r"^[a-z]+('[a-z]+)?$")


class Verdict:
    def __init__(self, phrase):
        self.phrase = phrase
        self.sounds = []
        self.syllables = 0
        self.errors = []
        self.warnings = []

    def lines(self):
        """The verdict as `kestrel train` shows it: one finding a line."""
        out = []
        if self.sounds:
            out.append("phrase: \"%s\" is %s (%d syllables, %d phonemes)" % (
                self.phrase, " ".join(self.sounds), self.syllables, len(self.sounds)))
        out += ["error: " + e for e in self.errors]
        out += ["warning: " + w for w in self.warnings]
        return out


def check_words(phrase):
    """Errors of the spelling alone (no lexicon needed)."""
    words = phrase.split()
    if not words:
        return ["the phrase is empty"]
    errors = []
    if len(words) > MAX_WORDS:
        errors.append("\"%s\" has %d words; a wake word has 1 to %d" % (
            phrase, len(words), MAX_WORDS))
    bad = [w for w in words if not _WORD.match(w)]
    if bad:
        errors.append("%s: use English words of letters only (an apostrophe inside a word "
                      "is fine), no digits or punctuation" % ", ".join('"%s"' % w for w in bad))
    return errors


def _common_words(sentences):
    counts = collections.Counter(w for s in sentences for w in texts.norm_words(s))
    return {w for w, _ in counts.most_common(COMMON_WORDS)}


def pronounce(words):
    """-> {word: phones} of the CMU lexicon, eSpeak NG's rules for the
    words it lacks; every phone kept (texts.load_lexicon's `raw`)."""
    lex = texts.load_lexicon(set(words), raw=True)
    missing = [w for w in words if w not in lex]
    lex.update(texts.espeak_sounds(missing, raw=True) if missing else {})
    return lex


def everyday_sentences():
    # A phrase no sentence contains, so that none is left out.
    return [s for part in texts.load_sentences("qqqzzz").values() for s in part]


def everyday_lexicon(sentences):
    """-> {word: sounds} (texts.load_lexicon) of the sentences' words."""
    return texts.load_lexicon({w for s in sentences for w in texts.norm_words(s)})


def check_phrase(phrase, pronounce=pronounce, sentences=None, lexicon=None):
    """-> Verdict for `phrase` (lower case, words separated by one space).
    `pronounce` gives each word's phones; `sentences` (everyday text)
    default to the fortune sentences, `lexicon` to everyday_lexicon of
    them."""
    v = Verdict(phrase)
    v.errors = check_words(phrase)
    if v.errors:
        return v
    if sentences is None:
        sentences = everyday_sentences()
    common = _common_words(sentences)
    words = phrase.split()
    own = pronounce(words)
    v.sounds = [p for w in words for p in own[w]]
    v.syllables = sum(p in _VOWELS for p in v.sounds)
    if lexicon is None:
        lexicon = everyday_lexicon(sentences)
    phon = texts.Phonetics(phrase, lexicon, lambda ws: {w: texts.sounds(own[w]) for w in ws})
    if v.syllables < MIN_SYLLABLES or len(v.sounds) < MIN_PHONEMES:
        v.errors.append(
            "\"%s\" is too short to be reliable: %d syllables and %d phonemes, and a wake word "
            "needs at least %d syllables and %d phonemes, or everyday speech will match it "
            "often; add a word or choose a longer one" % (
                phrase, v.syllables, len(v.sounds), MIN_SYLLABLES, MIN_PHONEMES))
    said = sum(texts.contains_phrase(s, phrase) for s in sentences)
    if said:
        v.warnings.append("\"%s\" is said in %d of %d everyday sentences; ordinary talk "
                          "may wake the detector" % (phrase, said, len(sentences)))
    elif " " not in phrase and phrase in common:
        v.warnings.append("\"%s\" is one of the %d most common words; ordinary talk may wake "
                          "the detector" % (phrase, COMMON_WORDS))
    close = _sounds_close(phon, sentences, common, lexicon)
    if close:
        v.warnings.append("\"%s\" sounds almost like %s, common in everyday speech; expect "
                          "false alarms on it" % (phrase, ", ".join('"%s"' % c for c in close)))
    return v


def _sounds_close(phon, sentences, common, lexicon):
    """Common words, and word pairs of everyday sentences, one sound away
    from the phrase."""
    target, phrase = phon.target, " ".join(phon.phrase)
    found = []
    for w in sorted(common):
        s = lexicon.get(w)
        if s and abs(len(s) - len(target)) <= 1 and texts._seq_distance(s, target) == 1:
            found.append(w)
    pairs = set()
    for sent in sentences:
        ws = texts.norm_words(sent)
        pairs.update(zip(ws, ws[1:]))
    for a, b in sorted(pairs):
        if a in lexicon and b in lexicon and abs(len(lexicon[a]) + len(lexicon[b]) - len(target)) <= 1:
            if a + " " + b != phrase and texts._seq_distance(lexicon[a] + lexicon[b], target) <= 1:
                found.append(a + " " + b)
    return found[:5]
