// Microphone audio to the detector's 16 kHz, run in the AudioWorklet: the
// C API takes only 16 kHz audio so far, and the page's audio runs at the
// device's rate (44.1 or 48 kHz).
//
// A windowed-sinc low-pass (cutoff 7.2 kHz, Blackman window, 16 zero
// crossings each side) is evaluated at each output instant, so any input
// rate works, 44.1 kHz's fractional step included. The filter is tabulated
// at kPhases fractional offsets; rounding an instant to the nearest one moves
// it by at most 1/(2 kPhases) of an input sample.
export const kOutputRate = 16000;
const kCutoffHz = 0.45 * kOutputRate;
const kZeroCrossings = 16;
const kPhases = 256;

export class Resampler {
  constructor(inputRate) {
    if (!(inputRate >= kOutputRate)) {
      throw new RangeError(`Resampler: input rate ${inputRate} Hz is below ${kOutputRate} Hz`);
    }
    this.step = inputRate / kOutputRate;  // input samples per output sample
    const r = 2 * kCutoffHz / inputRate;   // cutoff as a fraction of the input rate's Nyquist
    this.half = Math.ceil(kZeroCrossings / r);
    const taps = 2 * this.half;
    // Row p: the weights of inputs center - half + 1 ... center + half for an
    // output instant center + p / kPhases.
    this.table = new Float32Array((kPhases + 1) * taps);
    for (let p = 0; p <= kPhases; ++p) {
      for (let i = 0; i < taps; ++i) {
        const d = p / kPhases + this.half - 1 - i;  // distance from the instant
        const x = Math.PI * r * d;
        const sinc = x === 0 ? 1 : Math.sin(x) / x;
        const w = 0.42 + 0.5 * Math.cos(Math.PI * d / this.half) +
            0.08 * Math.cos(2 * Math.PI * d / this.half);
        this.table[p * taps + i] = Math.abs(d) < this.half ? r * sinc * w : 0;
      }
    }
    // Input the next outputs still need, beginning with silence before the stream.
    this.pending = new Float32Array(this.half);
    this.t = this.half;  // the next output instant, as an index into pending
  }

  // Returns the 16 kHz samples that `input` completes.
  push(input) {
    const joined = new Float32Array(this.pending.length + input.length);
    joined.set(this.pending);
    joined.set(input, this.pending.length);
    const taps = 2 * this.half;
    const out = new Float32Array(Math.max(0, Math.ceil((joined.length - this.half - this.t) / this.step)));
    let n = 0;
    for (; this.t + this.half < joined.length; this.t += this.step) {
      const center = Math.floor(this.t);
      const row = Math.round((this.t - center) * kPhases) * taps;
      const first = center - this.half + 1;
      let sum = 0;
      for (let i = 0; i < taps; ++i) sum += joined[first + i] * this.table[row + i];
      out[n++] = sum;
    }
    const drop = Math.max(0, Math.floor(this.t) - this.half);
    this.pending = joined.slice(drop);
    this.t -= drop;
    return out.subarray(0, n);
  }
}
