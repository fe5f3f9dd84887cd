"""English text in another language's spelling, for Festival's voices of
other languages.

Those voices read only their own orthography.  Given the English sounds
spelled the way their letter-to-sound rules read them ("hey kestrel" is
Czech "hej kestrel", Italian "ei chestrel"), they say English with their
own accent: natural recorded speakers the English engines do not have,
which is what the corpus lacks most for voices it has never heard.
"""

import re

from . import texts

# Voice -> language of its letter-to-sound rules.
VOICE_LANGUAGE = {
    "czech_dita": "cs", "czech_krb": "cs", "czech_machac": "cs", "czech_ph": "cs",
    "upc_ca_ona_hts": "ca", "lp_diphone": "it", "pc_diphone": "it",
    "hy_fi_mv_diphone": "fi", "suo_fi_lj_diphone": "fi",
}
# The byte encoding each language's text must be given in (Festival reads
# bytes; the Czech voices misread UTF-8).
ENCODING = {"cs": "iso-8859-2", "fi": "latin-1", "it": "latin-1", "ca": "latin-1"}

_COMMON = {"AA": "a", "AE": "e", "AH": "a", "AO": "o", "AW": "au", "AX": "e", "AXR": "er",
           "AY": "ai", "B": "b", "D": "d", "DH": "d", "EH": "e", "EL": "el", "EM": "em",
           "EN": "en", "ER": "er", "EY": "ei", "F": "f", "G": "g", "HH": "h", "IH": "i",
           "IY": "i", "K": "k", "L": "l", "M": "m", "N": "n", "NG": "ng", "OW": "ou",
           "OY": "oi", "P": "p", "R": "r", "S": "s", "T": "t", "TH": "t", "UH": "u",
           "UW": "u", "V": "v", "W": "v", "Y": "j", "Z": "z"}
# Italian spells k, g, ch, j and sh by the vowel after them; the upper-case
# placeholders are resolved once the next letter is known.
LETTERS = {
    "cs": dict(_COMMON, AY="aj", CH="\u010d", EY="ej", IY="\u00ed", JH="d\u017e", OY="oj",
               SH="\u0161", UW="\u00fa", ZH="\u017e"),
    "fi": dict(_COMMON, AE="\u00e4", CH="ts", ER="\u00f6r", IY="ii", JH="dj", SH="s",
               UW="uu", Z="s", ZH="s"),
    "it": dict(_COMMON, CH="C", G="G", HH="", JH="J", K="K", OW="o", SH="S", W="u", Y="i",
               Z="s", ZH="J"),
    "ca": dict(_COMMON, CH="tx", G="G", HH="", JH="tj", OW="ou", SH="x", W="u", Y="i",
               ZH="j"),
}
_SOFT = {"K": ("ch", "c"), "G": ("gh", "g"), "C": ("c", "ci"), "J": ("g", "gi"),
         "S": ("sc", "sci")}
_CA_SOFT = {"G": ("gu", "g")}

_pronunciations = {}


def prepare(words=()):
    """Make sure the pronunciations of `words` are known: the CMU lexicon
    is read whole on a process's first call (a fraction of a second), and
    eSpeak NG is asked once for the words it lacks."""
    if not _pronunciations:
        _pronunciations.update(texts.load_lexicon(None, raw=True))
    missing = sorted({w for w in words if w not in _pronunciations})
    if missing:
        _pronunciations.update(texts.espeak_sounds(missing, raw=True))


def _spell(phones, language):
    letters = LETTERS[language]
    out = "".join(letters.get(p, p.lower()) for p in phones)
    soft = _SOFT if language == "it" else _CA_SOFT if language == "ca" else {}
    if not soft:
        return out

    def pick(m):
        before_front, otherwise = soft[m.group(0)]
        return before_front if out[m.end():m.end() + 1] in ("e", "i") else otherwise
    return re.sub("[%s]" % "".join(soft), pick, out)


def respell(text, language):
    """-> (respelled text, {respelled word: English word}).  Punctuation is
    kept for the voice's phrasing; a word with no known sounds is left out.
    Pronunciations come from prepare(), which is called for what is missing."""
    prepare(texts.norm_words(text))
    out, back = [], {}
    for tok in re.findall(r"[A-Za-z']+|[,.!?;:]", text):
        if not tok[0].isalpha() and tok[0] != "'":
            if out:
                out[-1] += tok
            continue
        word = tok.lower()
        spelled = _spell(_pronunciations.get(word, []), language)
        if spelled:
            out.append(spelled)
            back.setdefault(spelled, word)
    return " ".join(out), back
