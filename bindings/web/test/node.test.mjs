// The module in Node, against the native command on the same audio.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { test } from 'node:test';

import { cliPath, modelPath, modulePath, nativeDetections, readWav, samplePath, skipReason } from './helpers.mjs';

const skip = skipReason();
const k = skip ? null : await (await import(modulePath)).loadKestrel();
const model = readFileSync(modelPath);
const { rate, samples } = readWav(samplePath);

// Feeds the audio in uneven chunks and ends the stream.
function detectAll(detector, audio, chunk = 4321) {
  const found = [];
  for (let i = 0; i < audio.length; i += chunk) found.push(...detector.process(audio.subarray(i, i + chunk)));
  return found.concat(detector.flush());
}
const positions = (found) => found.map(({ hotword, name, sample }) => ({ hotword, name, sample }));

test('detections are the native command\'s, for int16 and float audio', { skip }, () => {
  const expected = nativeDetections(samplePath, 'hey kestrel');
  assert.ok(expected.length > 0, 'the native command finds the hotword in the sample');
  const d = new k.Detector([model], { sampleRate: rate, names: ['hey kestrel'] });
  assert.deepEqual([d.numHotwords, d.names, d.sampleRate], [1, ['hey kestrel'], rate]);
  const found = detectAll(d, samples);
  assert.deepEqual(positions(found), expected);
  for (const f of found) {
    assert.equal(f.seconds, f.sample / rate);
    assert.ok(f.score > 0 && f.score <= 1, `score ${f.score}`);
  }
  // flush() started a new stream: the same audio again, as floats, lands at the same positions.
  const floats = Float32Array.from(samples, (s) => s / 32768);
  assert.deepEqual(positions(detectAll(d, floats, 16000)), expected);
  d.delete();
});

test('the model in text form reads the same numbers', { skip }, () => {
  const dir = mkdtempSync(join(tmpdir(), 'kestrel-web-'));
  try {
    execFileSync(cliPath, ['convert', modelPath, join(dir, 'text.kmodel'), '--text']);
    const text = readFileSync(join(dir, 'text.kmodel'));
    const d = new k.Detector([text], { names: ['hey kestrel'] });
    assert.deepEqual(positions(detectAll(d, samples)), nativeDetections(samplePath, 'hey kestrel'));
    d.delete();
  } finally {
    rmSync(dir, { recursive: true });
  }
});

test('audio at 48 and 44.1 kHz lands where the native command finds it at 16 kHz', { skip }, () => {
  const expected = nativeDetections(samplePath, 'hey kestrel');
  for (const to of [48000, 44100]) {
    // Linear interpolation: enough for a test signal, the detector low-passes it anyway.
    const converted = new Float32Array(Math.floor(samples.length * to / rate));
    for (let i = 0; i < converted.length; ++i) {
      const at = i * rate / to, j = Math.floor(at), next = samples[Math.min(j + 1, samples.length - 1)];
      converted[i] = (samples[j] + (next - samples[j]) * (at - j)) / 32768;
    }
    const d = new k.Detector([model], { sampleRate: to });
    assert.equal(d.sampleRate, to);
    const found = detectAll(d, converted, 2048);
    d.delete();
    assert.equal(found.length, expected.length, `${found.length} detections at ${to} Hz`);
    found.forEach((f, i) => {
      assert.equal(f.seconds, f.sample / to);
      const want = expected[i].sample / rate;
      // Within one 10 ms frame; the margin keeps a whole frame from failing on rounding.
      assert.ok(Math.abs(f.seconds - want) <= 0.0101, `${f.seconds} s against ${want} s at ${to} Hz`);
    });
  }
});

test('reset, sensitivity and delete', { skip }, () => {
  const fresh = new k.Detector([model], { sensitivity: 0.7 });
  const expected = positions(detectAll(fresh, samples));
  fresh.delete();
  const d = new k.Detector([model], { sensitivity: 0.3 });
  assert.ok(Math.abs(d.sensitivity(1) - 0.3) < 1e-6);
  d.setSensitivity(1, 0.7);
  assert.ok(Math.abs(d.sensitivity(1) - 0.7) < 1e-6);
  d.process(samples.subarray(0, 30000));
  d.reset();  // the half-heard stream is dropped; positions start again at 0
  assert.throws(() => d.peakScore(1), /tracking is off/);
  d.trackScores(true);
  const found = detectAll(d, samples);
  assert.deepEqual(positions(found), expected);  // tracking changes no detection
  assert.ok(d.peakScore(1) >= found[0].score);
  assert.equal(d.peakScore(1), 0);  // each read starts the peak over
  d.trackScores(false);
  d.delete();
  d.delete();
  assert.throws(() => d.process(samples), /deleted/);
});

test('bad models, options and input give Errors with the library\'s message', { skip }, () => {
  const garbage = new TextEncoder().encode('this is not a model');
  assert.throws(() => new k.Detector([garbage]),
                (e) => e instanceof Error && e.code === 'KESTREL_ERROR_MODEL' && e.message.length > 10);
  assert.throws(() => new k.Detector([model.subarray(0, 1000)]), { code: 'KESTREL_ERROR_MODEL' });
  assert.throws(() => new k.Detector([model], { names: ['a', 'b'] }), { code: 'KESTREL_ERROR_ARGUMENT' });
  assert.throws(() => new k.Detector([model], { sampleRate: 1000 }), /1000/);
  assert.throws(() => new k.Detector([model], { sampleRate: 96000 }), /96000/);
  assert.throws(() => new k.Detector([model], { sampleRate: 44100.5 }), TypeError);
  assert.throws(() => new k.Detector([model], { sensitivity: [0.5, 0.5, 0.5] }), Error);
  assert.throws(() => new k.Detector([]), TypeError);
  assert.throws(() => new k.Detector(['model.kmodel']), /models\[0\]/);
  const d = new k.Detector([model]);
  assert.throws(() => d.process([1, 2, 3]), TypeError);
  assert.throws(() => d.sensitivity(2), { code: 'KESTREL_ERROR_ARGUMENT' });
  assert.deepEqual(d.process(samples.subarray(0, 100)), [], 'the detector still works');
  d.delete();
});
