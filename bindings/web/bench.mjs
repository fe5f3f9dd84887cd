// Load time and real-time factor of the module in Node, against the native
// command on the same audio (the sample repeated to a few minutes).
//
//   node bindings/web/bench.mjs [REPEATS]      # needs build.sh and the native build
import { execFileSync } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { performance } from 'node:perf_hooks';

import { cliPath, modelPath, modulePath, readWav, samplePath } from './test/helpers.mjs';

const repeats = Number(process.argv[2] ?? 60);
const { rate, samples } = readWav(samplePath);
const audio = new Int16Array(samples.length * repeats);
for (let i = 0; i < repeats; ++i) audio.set(samples, i * samples.length);
const audioSeconds = audio.length / rate;

let start = performance.now();
const { loadKestrel } = await import(modulePath);
const k = await loadKestrel();
const loadMs = performance.now() - start;
start = performance.now();
const d = new k.Detector([readFileSync(modelPath)], { sampleRate: rate });
const createMs = performance.now() - start;

start = performance.now();
let found = 0;
for (let i = 0; i < audio.length; i += rate) found += d.process(audio.subarray(i, i + rate)).length;
found += d.flush().length;
const wasmSeconds = (performance.now() - start) / 1000;
d.delete();

// The native command on the same audio, as a WAV file; its time includes
// starting the process and loading the model (a few milliseconds).
const dir = mkdtempSync(join(tmpdir(), 'kestrel-bench-'));
const wav = join(dir, 'long.wav');
const header = Buffer.alloc(44);
header.write('RIFF', 0);
header.writeUInt32LE(36 + audio.byteLength, 4);
header.write('WAVEfmt ', 8);
header.writeUInt32LE(16, 16);
header.writeUInt16LE(1, 20);
header.writeUInt16LE(1, 22);
header.writeUInt32LE(rate, 24);
header.writeUInt32LE(rate * 2, 28);
header.writeUInt16LE(2, 32);
header.writeUInt16LE(16, 34);
header.write('data', 36);
header.writeUInt32LE(audio.byteLength, 40);
writeFileSync(wav, Buffer.concat([header, Buffer.from(audio.buffer)]));
start = performance.now();
const nativeFound = execFileSync(cliPath, ['detect', `--model-str=${modelPath}`, wav],
                                 { encoding: 'utf8' }).trim().split('\n').filter(Boolean).length;
const nativeSeconds = (performance.now() - start) / 1000;
rmSync(dir, { recursive: true });

console.log(`module: kestrel.wasm ${readFileSync(modulePath.replace(/mjs$/, 'wasm')).length} bytes, ` +
            `kestrel.mjs ${readFileSync(modulePath).length} bytes`);
console.log(`load (import + instantiate): ${loadMs.toFixed(1)} ms; detector creation: ${createMs.toFixed(1)} ms`);
console.log(`${audioSeconds.toFixed(0)} s of audio: wasm ${wasmSeconds.toFixed(3)} s ` +
            `(real-time factor ${(wasmSeconds / audioSeconds).toFixed(5)}, ${found} detections), ` +
            `native ${nativeSeconds.toFixed(3)} s (${(nativeSeconds / audioSeconds).toFixed(5)}, ` +
            `${nativeFound} detections): wasm/native ${(wasmSeconds / nativeSeconds).toFixed(2)}`);
