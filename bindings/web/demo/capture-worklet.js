// Runs on the audio rendering thread: mixes the microphone to mono and posts
// it to the page in blocks, where the detector runs at the context's rate (a
// detector call could miss the render thread's 128-sample deadline on slow
// machines).
const kBlockSamples = Math.round(sampleRate / 20);  // 50 ms; sampleRate is a worklet global

class KestrelCapture extends AudioWorkletProcessor {
  constructor() {
    super();
    this.block = new Float32Array(kBlockSamples);
    this.filled = 0;
  }

  process(inputs) {
    const channels = inputs[0];
    if (channels.length === 0) return true;  // no input connected yet
    const n = channels[0].length;
    for (let i = 0; i < n; ++i) {
      let sum = 0;
      for (const channel of channels) sum += channel[i];
      this.block[this.filled++] = sum / channels.length;
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
