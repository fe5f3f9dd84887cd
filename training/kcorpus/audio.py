"""Signal helpers: WAV I/O, resampling, generated noise, reverb, mixing."""

from functools import lru_cache
from math import gcd

import numpy as np
from scipy.io import wavfile
from scipy.signal import butter, firwin, lfilter, oaconvolve, resample_poly, sosfilt

SR = 16000
NOISE_KINDS = ("white", "pink", "brown", "babble")


def read_wav(path):
    sr, x = wavfile.read(path)
    if x.ndim > 1:
        x = x.mean(axis=1)
    if x.dtype == np.int16:
        x = x.astype(np.float32) / 32768.0
    return x.astype(np.float32), sr


def write_wav(path, x):
    """Write 16 kHz mono 16-bit PCM; returns the int16 samples written."""
    pcm = np.rint(np.clip(np.asarray(x, np.float32), -1.0, 1.0) * np.float32(32767))
    pcm = pcm.astype(np.int16)
    wavfile.write(path, SR, pcm)
    return pcm


@lru_cache(maxsize=None)
def _aa_filter(up, down):
    # The filter resample_poly would design itself; designing it is the
    # expensive part for 22050 -> 16000, so do it once.
    m = max(up, down)
    return firwin(2 * 10 * m + 1, 1.0 / m, window=("kaiser", 5.0))


def resample(x, sr):
    """Polyphase resampling to 16 kHz (linear phase, so timings are kept)."""
    if sr == SR:
        return np.asarray(x, np.float32)
    g = gcd(SR, sr)
    up, down = SR // g, sr // g
    return resample_poly(x, up, down, window=_aa_filter(up, down)).astype(np.float32)


# Speaker warps are resampling ratios k / WARP_BASE, k in WARP_STEPS: few
# distinct ratios, so each anti-aliasing filter is designed once.
WARP_BASE = 50
WARP_STEPS = tuple(range(44, 58))


def warp(x, k):
    """x played k / WARP_BASE times faster: formants, pitch and tempo all
    scale by that factor, as from a speaker with a shorter vocal tract."""
    return resample_poly(x, WARP_BASE, k, window=_aa_filter(WARP_BASE, k)).astype(np.float32)


def channel(x, tilt=0.0, lowpass_hz=None, highpass_hz=None):
    """A microphone or line: first-order spectral tilt (tilt > 0 lifts the
    highs, < 0 the lows) and optional band limits (6th-order Butterworth)."""
    y = np.asarray(x, np.float64)
    if tilt > 0:
        y = lfilter([1.0, -tilt], [1.0], y)
    elif tilt < 0:
        y = lfilter([1.0], [1.0, tilt], y)
    if lowpass_hz:
        y = sosfilt(butter(6, lowpass_hz, "lowpass", fs=SR, output="sos"), y)
    if highpass_hz:
        y = sosfilt(butter(6, highpass_hz, "highpass", fs=SR, output="sos"), y)
    return y.astype(np.float32)


def fade(x, ms=10.0):
    n = min(len(x) // 2, int(SR * ms / 1000))
    if n > 0:
        ramp = np.linspace(0.0, 1.0, n, dtype=np.float32)
        x[:n] *= ramp
        x[-n:] *= ramp[::-1]
    return x


def active_span(x, rel_db=-35.0):
    """(start, end) seconds of the part louder than rel_db below the peak."""
    hop = SR // 100
    n = len(x) // hop
    if n == 0:
        return 0.0, len(x) / SR
    e = np.sqrt(np.mean(np.square(x[:n * hop].reshape(n, hop)), axis=1)) + 1e-9
    on = np.nonzero(20 * np.log10(e / e.max()) > rel_db)[0]
    return on[0] * hop / SR, (on[-1] + 1) * hop / SR


# IIR approximations: pink is J. O. Smith's 1/f filter, brown a leaky
# integrator (1/f^2 above ~13 Hz).  O(n), unlike spectral shaping.
_PINK = ([0.049922035, -0.095993537, 0.050612699, -0.004408786],
         [1.0, -2.494956002, 2.017265875, -0.522189400])
_BROWN = ([1.0], [1.0, -0.995])


def colored_noise(rng, n, kind):
    """Unit-RMS white/pink/brown noise."""
    settle = 4000 if kind != "white" else 0     # skip the filter start-up
    w = rng.standard_normal(n + settle, dtype=np.float32)
    if kind != "white":
        b, a = _PINK if kind == "pink" else _BROWN
        w = lfilter(b, a, w)[settle:]
    w = w - w.mean()
    return (w / (np.sqrt(np.mean(np.square(w, dtype=np.float64))) + 1e-12)).astype(np.float32)


def babble(rng, n, bank, talkers):
    """Unit-RMS babble: `talkers` overlapping streams of unrelated speech."""
    out = np.zeros(n, np.float32)
    for _ in range(talkers):
        parts, total = [], 0
        while total < n:
            u = bank[rng.integers(len(bank))]
            gap = np.zeros(int(rng.uniform(0.0, 0.3) * SR), np.float32)
            parts += [u, gap]
            total += len(u) + len(gap)
        s = np.concatenate(parts)
        off = rng.integers(0, max(1, len(s) - n + 1))
        s = s[off:off + n]
        out += s / (np.sqrt(np.mean(s ** 2)) + 1e-9) * 10 ** (rng.uniform(-3, 3) / 20)
    return out / (np.sqrt(np.mean(out ** 2)) + 1e-12)


def make_noise(rng, n, kind, bank=None):
    if kind == "babble":
        return babble(rng, n, bank, int(rng.integers(3, 7)))
    return colored_noise(rng, n, kind)


def room_ir(rng, rt60, drr_db):
    """Causal synthetic room response with the direct path at sample 0.

    Because the direct sound is at t=0, convolving never delays the speech,
    so phoneme labels stay valid.  The tail is exponentially decaying noise
    (60 dB down after rt60 seconds), low-passed a little for air absorption,
    plus a few early reflections; its energy is set by the direct-to-
    reverberant ratio drr_db.
    """
    n = int(min(rt60 * 1.1, 1.2) * SR)
    t = np.arange(n) / SR
    tail = rng.standard_normal(n) * np.exp(-6.908 * t / rt60)
    tail[:int(rng.uniform(0.002, 0.012) * SR)] = 0.0
    for _ in range(int(rng.integers(3, 8))):
        k = int(rng.uniform(0.003, 0.04) * SR)
        tail[k] += rng.uniform(-1, 1) * 3.0
    tail = lfilter([1 - 0.4], [1, -0.4], tail)
    tail *= 10 ** (-drr_db / 20) / (np.sqrt(np.sum(tail ** 2)) + 1e-12)
    h = tail
    h[0] = 1.0
    return h.astype(np.float32)


def reverb(x, ir):
    return oaconvolve(x, ir)[:len(x)].astype(np.float32)


def span_mask(n, spans):
    m = np.zeros(n, bool)
    for a, b in spans:
        m[max(0, int(round(a * SR))):min(n, int(round(b * SR)))] = True
    return m


def snr_db(speech, noise, spans):
    """SNR over the given spans (seconds): speech power vs noise power."""
    m = span_mask(len(speech), spans)
    ps = np.mean(np.square(speech[m], dtype=np.float64))
    pn = np.mean(np.square(noise[m], dtype=np.float64))
    return 10 * np.log10(ps / pn)


def scale_noise(speech, noise, snr, spans):
    """Scale noise so that snr_db(speech, noise, spans) == snr."""
    cur = snr_db(speech, noise, spans)
    return (noise * 10 ** ((cur - snr) / 20)).astype(np.float32)


def limit(speech, noise, peak=0.95):
    """Scale both parts together so the mixture does not clip (keeps SNR)."""
    p = float(np.max(np.abs(speech + noise))) if len(speech) else 0.0
    if p > peak:
        g = peak / p
        return speech * g, noise * g
    return speech, noise
