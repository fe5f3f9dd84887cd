// Types of dist/kestrel.mjs, the Kestrel hotword detector for browsers and Node.
//
//   import { loadKestrel } from 'kestrel-web';
//   const k = await loadKestrel();
//   const d = new k.Detector([modelBytes], { sampleRate: 16000, names: ['hey kestrel'] });
//   for (const hit of d.process(float32Samples)) console.log(hit.name, hit.seconds);
//   d.delete();

/** One hotword found in the audio. */
export interface Detection {
  /** 1-based over all models, in the order they were given. */
  hotword: number;
  /** The hotword's name from `DetectorOptions.names`, else the name its model stores, else "". */
  name: string;
  /** Position in the stream, in input samples since it began (or since the last reset/flush). */
  sample: number;
  /** `sample / sampleRate`. */
  seconds: number;
  /** The search score that passed the hotword's sensitivity. */
  score: number;
}

export interface DetectorOptions {
  /** Rate of the audio passed to `process`, in Hz (8000 to 48000; the library resamples
   *  other rates than 16000); default 16000. Another rate gives an Error. */
  sampleRate?: number;
  /** Sensitivity in [0, 1] (higher detects more): one for all hotwords, or one per hotword.
   *  Default: each model's own. */
  sensitivity?: number | number[];
  /** One name per hotword, in hotword-number order. */
  names?: string[];
}

/** A hotword detector on one audio stream, made by `new kestrel.Detector(...)`. */
export interface Detector {
  readonly sampleRate: number;
  readonly numHotwords: number;
  /** The hotwords' names, by hotword number - 1 (as `Detection.name`). */
  readonly names: string[];
  /** Analyses more mono samples at `sampleRate` (int16, or float in [-1, 1]; any length)
   *  and returns the detections they completed. */
  process(samples: Int16Array | Float32Array): Detection[];
  /** Ends the stream: analyses what is left and returns its detections; the next sample
   *  starts a new stream at position 0. */
  flush(): Detection[];
  /** Drops pending audio; the next sample starts a new stream at position 0. */
  reset(): void;
  /** Turns live score tracking on or off (off by default; costs CPU while on). */
  trackScores(enable: boolean): void;
  /** With tracking on: hotword `hotword`'s highest score since the last call (1-based). */
  peakScore(hotword: number): number;
  /** The sensitivity of hotword `hotword` (1-based). */
  sensitivity(hotword: number): number;
  /** Changes it from the next search step on. */
  setSensitivity(hotword: number, value: number): void;
  /** Frees the detector's WebAssembly memory (also done when it is garbage collected).
   *  Safe to call twice; any other call afterwards throws. */
  delete(): void;
}

export interface DetectorConstructor {
  /** Loads the models (the bytes of .kmodel files). Throws an `Error` carrying the
   *  library's message (and `code`, e.g. "KESTREL_ERROR_MODEL") for a bad model or option. */
  new (models: Uint8Array[], options?: DetectorOptions): Detector;
}

/** One instance of the WebAssembly module; its detectors share its memory. */
export interface Kestrel {
  /** The library's version, "MAJOR.MINOR.PATCH". */
  readonly version: string;
  readonly Detector: DetectorConstructor;
}

export interface LoadOptions {
  /** The module's bytes, if the caller already has them. */
  wasmBinary?: ArrayBuffer | Uint8Array;
  /** Where to get them otherwise, relative to kestrel.mjs. Default "./kestrel.wasm". */
  wasmUrl?: string | URL;
}

/** Instantiates the WebAssembly module (read from disk in Node, fetched in browsers). */
export declare function loadKestrel(options?: LoadOptions): Promise<Kestrel>;
