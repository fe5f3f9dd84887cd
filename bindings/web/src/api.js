// End of kestrel.mjs: the JavaScript API over the C API in the module above
// (createKestrelCore is the emscripten factory). Declared in kestrel.d.ts.
//
// Each loadKestrel() call instantiates its own WebAssembly module. A Detector
// owns a C detector and a few buffers in that module's memory; delete() frees
// them, and a detector that is dropped without delete() is freed when it is
// garbage collected. Everything runs on the calling thread.

// Audio is copied into wasm memory in slices of at most this many samples, so
// a long recording does not grow the module's memory by its whole size.
const kMaxSliceSamples = 1 << 16;
// Byte sizes of the C structs; struct-layout.c holds the build to them.
const kDetectionBytes = 24;
const kOptionsBytes = 20;

const kStatusCodes = [
  'KESTREL_OK', 'KESTREL_ERROR_ARGUMENT', 'KESTREL_ERROR_MODEL', 'KESTREL_ERROR_IO',
  'KESTREL_ERROR_INTERNAL',
];

async function readKestrelWasm(url) {
  if (kestrelInNode && url.protocol === 'file:') {
    const { readFile } = await import('node:fs/promises');
    return readFile(url);
  }
  const response = await fetch(url);
  if (!response.ok) {
    throw new Error(`loadKestrel: could not fetch ${url}: HTTP ${response.status}`);
  }
  return new Uint8Array(await response.arrayBuffer());
}

function bindDetector(core) {
  const lastError = () => core.UTF8ToString(core._kestrel_last_error());

  function check(status) {
    if (status === 0) return;
    const error = new Error(lastError() || `Kestrel call failed with status ${status}`);
    error.code = kStatusCodes[status] ?? 'KESTREL_ERROR_INTERNAL';
    throw error;
  }

  function malloc(bytes) {
    const p = core._malloc(Math.max(bytes, 1));
    if (!p) throw new Error(`Kestrel: out of WebAssembly memory (${bytes} bytes wanted)`);
    return p;
  }

  function modelBytes(model, i) {
    if (model instanceof Uint8Array) return model;
    if (model instanceof ArrayBuffer) return new Uint8Array(model);
    if (ArrayBuffer.isView(model)) {
      return new Uint8Array(model.buffer, model.byteOffset, model.byteLength);
    }
    throw new TypeError(`Detector: models[${i}] is not a Uint8Array (the bytes of a .kmodel file)`);
  }

  function listOption(value, name, type) {
    if (value === undefined || value === null) return [];
    const list = Array.isArray(value) ? value : [value];
    list.forEach((v, i) => {
      if (typeof v !== type) throw new TypeError(`Detector: options.${name}[${i}] is not a ${type}`);
    });
    return list;
  }

  // Frees a detector's C side; shared by delete() and the garbage collector.
  function release(owned) {
    core._kestrel_detector_destroy(owned.handle);
    core._free(owned.input);
    core._free(owned.out);
    owned.handle = 0;
  }
  const collector = typeof FinalizationRegistry === 'function' ?
      new FinalizationRegistry(release) : null;

  class Detector {
    #owned;       // {handle, input (sample buffer), inputBytes, out (two out-parameters)}
    #sampleRate;
    #names = [];  // by hotword number - 1

    constructor(models, options = {}) {
      if (!Array.isArray(models) || models.length === 0) {
        throw new TypeError('Detector: models must be a non-empty array of Uint8Array ' +
                            '(the bytes of .kmodel files)');
      }
      const bytes = models.map(modelBytes);
      const sampleRate = options.sampleRate ?? 16000;
      if (!Number.isInteger(sampleRate)) {
        throw new TypeError(`Detector: options.sampleRate must be an integer, got ${sampleRate}`);
      }
      const sensitivities = listOption(options.sensitivity, 'sensitivity', 'number');
      const names = listOption(options.names, 'names', 'string');

      // Everything the C call reads is freed right after it; the library copies it.
      const temporary = [];
      const alloc = (n) => {
        const p = malloc(n);
        temporary.push(p);
        return p;
      };
      const owned = { handle: 0, input: 0, inputBytes: 0, out: 0 };
      try {
        const modelPointers = alloc(4 * bytes.length);
        const sizes = alloc(4 * bytes.length);
        bytes.forEach((b, i) => {
          const p = alloc(b.length);
          core.HEAPU8.set(b, p);
          core.HEAPU32[(modelPointers >> 2) + i] = p;
          core.HEAPU32[(sizes >> 2) + i] = b.length;
        });
        const opts = alloc(kOptionsBytes);
        core._kestrel_detector_options_init(opts);
        core.HEAP32[opts >> 2] = sampleRate;
        if (sensitivities.length) {
          const p = alloc(4 * sensitivities.length);
          core.HEAPF32.set(sensitivities, p >> 2);
          core.HEAPU32[(opts + 4) >> 2] = p;
          core.HEAPU32[(opts + 8) >> 2] = sensitivities.length;
        }
        if (names.length) {
          const p = alloc(4 * names.length);
          names.forEach((name, i) => {
            const size = core.lengthBytesUTF8(name) + 1;
            const s = alloc(size);
            core.stringToUTF8(name, s, size);
            core.HEAPU32[(p >> 2) + i] = s;
          });
          core.HEAPU32[(opts + 12) >> 2] = p;
          core.HEAPU32[(opts + 16) >> 2] = names.length;
        }
        owned.out = malloc(8);
        check(core._kestrel_detector_create_from_memory_ex(modelPointers, sizes, bytes.length,
                                                           opts, owned.out));
        owned.handle = core.HEAPU32[owned.out >> 2];
        check(core._kestrel_detector_num_hotwords(owned.handle, owned.out));
        const count = core.HEAPU32[owned.out >> 2];
        for (let h = 1; h <= count; ++h) {
          check(core._kestrel_detector_hotword_name(owned.handle, h, owned.out));
          this.#names.push(core.UTF8ToString(core.HEAPU32[owned.out >> 2]));
        }
      } catch (error) {
        release(owned);
        throw error;
      } finally {
        temporary.forEach((p) => core._free(p));
      }
      this.#owned = owned;
      this.#sampleRate = sampleRate;
      collector?.register(this, owned, this);
    }

    get sampleRate() { return this.#sampleRate; }
    get numHotwords() { return this.#names.length; }
    // Names by hotword number - 1 ("" for a hotword without one).
    get names() { return this.#names.slice(); }

    process(samples) {
      const owned = this.#live('process');
      let fn;
      if (samples instanceof Int16Array) fn = core._kestrel_detector_process;
      else if (samples instanceof Float32Array) fn = core._kestrel_detector_process_float;
      else throw new TypeError('Detector.process: samples must be an Int16Array or a Float32Array');

      const width = samples.BYTES_PER_ELEMENT;
      const found = [];
      for (let start = 0; start < samples.length; start += kMaxSliceSamples) {
        const slice = samples.subarray(start, start + kMaxSliceSamples);
        const bytes = slice.length * width;
        if (bytes > owned.inputBytes) {
          core._free(owned.input);
          owned.input = 0;  // never left dangling if the allocation below throws
          owned.inputBytes = 0;
          owned.input = malloc(bytes);
          owned.inputBytes = bytes;
        }
        new Uint8Array(core.HEAPU8.buffer, owned.input, bytes)
            .set(new Uint8Array(slice.buffer, slice.byteOffset, bytes));
        this.#collect(fn(owned.handle, owned.input, slice.length, owned.out, owned.out + 4),
                      found);
      }
      return found;
    }

    flush() {
      const owned = this.#live('flush');
      const found = [];
      this.#collect(core._kestrel_detector_flush(owned.handle, owned.out, owned.out + 4), found);
      return found;
    }

    reset() {
      check(core._kestrel_detector_reset(this.#live('reset').handle));
    }

    sensitivity(hotword) {
      const owned = this.#live('sensitivity');
      check(core._kestrel_detector_get_sensitivity(owned.handle, hotword, owned.out));
      return core.HEAPF32[owned.out >> 2];
    }

    setSensitivity(hotword, value) {
      if (typeof value !== 'number') {
        throw new TypeError('Detector.setSensitivity: value must be a number');
      }
      check(core._kestrel_detector_set_sensitivity(this.#live('setSensitivity').handle, hotword,
                                                   value));
    }

    // Live scores (for a meter): with tracking on, peakScore(hotword) is the
    // hotword's highest search score since its last call. Tracking runs every
    // search on every step, so it costs CPU; detections stay the same.
    trackScores(enable) {
      check(core._kestrel_detector_track_scores(this.#live('trackScores').handle, enable ? 1 : 0));
    }

    peakScore(hotword) {
      const owned = this.#live('peakScore');
      check(core._kestrel_detector_peak_score(owned.handle, hotword, owned.out));
      return core.HEAPF32[owned.out >> 2];
    }

    // Frees the detector; safe to call twice. Any later call throws.
    delete() {
      if (!this.#owned) return;
      collector?.unregister(this);
      release(this.#owned);
      this.#owned = null;
    }

    #live(method) {
      if (!this.#owned) throw new Error(`Detector.${method}: the detector was deleted`);
      return this.#owned;
    }

    // Copies the detections a call returned out of wasm memory: they are only
    // valid until the next call.
    #collect(status, found) {
      check(status);
      const out = this.#owned.out;
      const first = core.HEAPU32[out >> 2];
      const count = core.HEAPU32[(out + 4) >> 2];
      for (let i = 0; i < count; ++i) {
        const p = first + i * kDetectionBytes;
        // int64 from two 32-bit halves (positions stay far below 2^53).
        const sample = core.HEAP32[(p + 12) >> 2] * 4294967296 + core.HEAPU32[(p + 8) >> 2];
        found.push({
          hotword: core.HEAP32[p >> 2],
          name: core.UTF8ToString(core.HEAPU32[(p + 4) >> 2]),
          sample,
          seconds: sample / this.#sampleRate,
          score: core.HEAPF32[(p + 16) >> 2],
        });
      }
    }
  }
  return Detector;
}

export async function loadKestrel(options = {}) {
  const wasmBinary = options.wasmBinary ??
      await readKestrelWasm(new URL(options.wasmUrl ?? './kestrel.wasm', import.meta.url));
  const core = await createKestrelCore({ wasmBinary });
  return Object.freeze({
    version: core.UTF8ToString(core._kestrel_version()),
    Detector: bindDetector(core),
  });
}
