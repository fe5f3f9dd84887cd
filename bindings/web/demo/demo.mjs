// The demo page: microphone -> AudioWorklet (capture-worklet.js, which mixes
// to mono) -> detector on this thread, at the AudioContext's rate.
import { loadKestrel } from '../dist/kestrel.mjs';

const kBundledModel = new URL('../../../models/hey-kestrel.kmodel', import.meta.url);
const $ = (id) => document.getElementById(id);

let kestrel = null;
let session = null;  // {stream, context, detector, started} while listening

function showStatus(text, isError = false) {
  $('status').textContent = text;
  $('status').classList.toggle('error', isError);
}

function showMeter(id, fraction, text) {
  $(id).style.width = `${Math.round(100 * Math.min(1, Math.max(0, fraction)))}%`;
  $(`${id}-text`).textContent = text;
}

async function modelBytes() {
  const file = $('model').files[0];
  if (file) return new Uint8Array(await file.arrayBuffer());
  const response = await fetch(kBundledModel);
  if (!response.ok) throw new Error(`could not fetch ${kBundledModel}: HTTP ${response.status}`);
  return new Uint8Array(await response.arrayBuffer());
}

function addDetection(hit) {
  const item = document.createElement('li');
  const clock = new Date().toLocaleTimeString();
  item.textContent = `${hit.name || `hotword ${hit.hotword}`} at ${hit.seconds.toFixed(2)} s ` +
      `(score ${hit.score.toFixed(2)}, ${clock})`;
  $('detections').prepend(item);
}

// Audio from the worklet: the level meter, then the detector.
function onAudio(samples) {
  if (!session?.detector) return;  // a block still in flight after stop()
  let peak = 0;
  for (const s of samples) peak = Math.max(peak, Math.abs(s));
  // dBFS from -60 to 0 across the bar.
  const db = 20 * Math.log10(peak || 1e-6);
  showMeter('level', (db + 60) / 60, `${Math.max(db, -60).toFixed(0)} dB`);
  try {
    for (const hit of session.detector.process(samples)) addDetection(hit);
    let score = 0;
    for (let h = 1; h <= session.detector.numHotwords; ++h) {
      score = Math.max(score, session.detector.peakScore(h));
    }
    showMeter('score', score, score.toFixed(2));
  } catch (error) {
    stop();
    showStatus(`Detector error: ${error.message}`, true);
  }
}

async function start() {
  $('start').disabled = true;
  try {
    const sensitivityText = $('sensitivity').value.trim();
    const options = { names: [$('name').value.trim()] };
    if (sensitivityText) options.sensitivity = Number(sensitivityText);
    const model = await modelBytes();
    const stream = await navigator.mediaDevices.getUserMedia({
      audio: { echoCancellation: false, noiseSuppression: false, autoGainControl: false },
    });
    // The detector takes 8 to 48 kHz; ask a faster device for 48 kHz and let the browser convert.
    let context = new AudioContext();
    if (context.sampleRate > 48000) {
      context.close();
      context = new AudioContext({ sampleRate: 48000 });
    }
    session = { stream, context, detector: null };
    session.detector = new kestrel.Detector([model], { ...options, sampleRate: context.sampleRate });
    session.detector.trackScores(true);
    await context.audioWorklet.addModule(new URL('capture-worklet.js', import.meta.url));
    const capture = new AudioWorkletNode(context, 'kestrel-capture');
    capture.port.onmessage = (event) => onAudio(event.data);
    context.createMediaStreamSource(stream).connect(capture);
    // Its output is silent; connecting it keeps the graph pulling audio through it.
    capture.connect(context.destination);
    await context.resume();
    $('stop').disabled = false;
    showStatus(`Listening at ${context.sampleRate} Hz.`);
  } catch (error) {
    stop();
    showStatus(`Could not start: ${error.message}`, true);
  }
}

function stop() {
  if (session) {
    session.stream.getTracks().forEach((track) => track.stop());
    session.context.close();
    if (session.detector) {
      session.detector.flush().forEach(addDetection);
      session.detector.delete();
    }
    session = null;
    showStatus('Stopped.');
  }
  $('start').disabled = kestrel === null;
  $('stop').disabled = true;
  showMeter('level', 0, '');
}

$('start').addEventListener('click', start);
$('stop').addEventListener('click', stop);
$('start').disabled = true;
try {
  kestrel = await loadKestrel();
  $('start').disabled = false;
  showStatus(`Kestrel ${kestrel.version} is ready. Press "Start listening".`);
} catch (error) {
  showStatus(`Could not load the detector: ${error.message}`, true);
}
