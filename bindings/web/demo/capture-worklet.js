// Runs on the audio rendering thread: mixes the microphone to mono,
// resamples it to 16 kHz and posts it to the page in blocks, where the
// detector runs (a detector call could miss the render thread's 128-sample
// deadline on slow machines).
import { kOutputRate, Resampler } from './resampler.js';

const kBlockSamples = kOutputRate / 20;  // 50 ms

class KestrelCapture extends AudioWorkletProcessor {
  constructor() {
    super();
    this.resampler = new Resampler(sampleRate);  // the context's rate, a worklet global
    this.mono = new Float32Array(128);
    this.block = new Float32Array(kBlockSamples);
    this.filled = 0;
  }

  process(inputs) {
    const channels = inputs[0];
    if (channels.length === 0) return true;  // no input connected yet
    const n = channels[0].length;
    if (this.mono.length !== n) this.mono = new Float32Array(n);
    for (let i = 0; i < n; ++i) {
      let sum = 0;
      for (const channel of channels) sum += channel[i];
      this.mono[i] = sum / channels.length;
    }
    for (const s of this.resampler.push(this.mono)) {
      this.block[this.filled++] = s;
      if (this.filled === kBlockSamples) {
        this.port.postMessage(this.block, [this.block.buffer]);
        this.block = new Float32Array(kBlockSamples);
        this.filled = 0;
      }
    }
    return true;
  }
}

registerProcessor('kestrel-capture', KestrelCapture);
