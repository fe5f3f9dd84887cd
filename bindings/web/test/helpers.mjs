// Shared by the tests and bench.mjs: paths, the WAV reader, the native
// command, and whether the module could be built at all.
import { execFileSync } from 'node:child_process';
import { existsSync, readFileSync } from 'node:fs';
import { fileURLToPath } from 'node:url';

export const webDir = fileURLToPath(new URL('..', import.meta.url));
export const rootDir = fileURLToPath(new URL('../../..', import.meta.url));
export const modulePath = `${webDir}dist/kestrel.mjs`;
export const modelPath = `${rootDir}models/hey-kestrel.kmodel`;
export const samplePath = `${rootDir}samples/hey-kestrel.wav`;
export const cliPath = process.env.KESTREL_CLI ?? `${rootDir}build/tools/kestrel`;

// The reason to skip when the module is missing because build.sh could not
// install emscripten; undefined when the module exists (or is missing for
// any other reason, which must fail).
export function skipReason() {
  if (existsSync(modulePath)) return undefined;
  try {
    execFileSync('sh', ['-c', 'command -v em++'], { stdio: 'ignore' });
    return undefined;
  } catch {
    return 'web module not built: emscripten could not be installed (see build.sh)';
  }
}

// 16-bit PCM mono samples of a WAV file and its rate.
export function readWav(path) {
  const b = readFileSync(path);
  if (b.toString('ascii', 0, 4) !== 'RIFF' || b.toString('ascii', 8, 12) !== 'WAVE') {
    throw new Error(`${path}: not a WAV file`);
  }
  let rate = 0;
  for (let at = 12; at + 8 <= b.length; at += 8 + b.readUInt32LE(at + 4) + (b.readUInt32LE(at + 4) & 1)) {
    const id = b.toString('ascii', at, at + 4);
    if (id === 'fmt ') {
      if (b.readUInt16LE(at + 8) !== 1 || b.readUInt16LE(at + 10) !== 1 || b.readUInt16LE(at + 22) !== 16) {
        throw new Error(`${path}: not 16-bit mono PCM`);
      }
      rate = b.readUInt32LE(at + 12);
    } else if (id === 'data') {
      const bytes = b.subarray(at + 8, at + 8 + b.readUInt32LE(at + 4));
      const samples = new Int16Array(bytes.length >> 1);
      for (let i = 0; i < samples.length; ++i) samples[i] = bytes.readInt16LE(2 * i);
      return { rate, samples };
    }
  }
  throw new Error(`${path}: no data chunk`);
}

// The native command's detections: [{hotword, name, sample}].
export function nativeDetections(wavPath, names) {
  const out = execFileSync(cliPath, ['detect', `--model-str=${modelPath}`,
    `--hotword-names=${names}`, '--json', wavPath], { encoding: 'utf8' });
  return out.trim().split('\n').filter(Boolean).map((line) => {
    const { hotword, name, sample } = JSON.parse(line);
    return { hotword, name, sample };
  });
}
