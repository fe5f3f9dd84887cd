// The demo in headless Chromium with a fake microphone playing the sample:
// the page must list the detection. Driven through chromedriver's WebDriver
// HTTP interface; everything stays on the loopback address.
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { existsSync, mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { createServer } from 'node:net';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';

import { startServer } from '../serve.mjs';
import { samplePath, skipReason } from './helpers.mjs';

const kChromium = '/usr/bin/chromium';
const kDriver = '/usr/bin/chromedriver';
const skip = skipReason() ?? (existsSync(kChromium) && existsSync(kDriver) ? undefined :
    'chromium and chromium-driver are not installed (.ci/run installs them)');
const outputDir = process.env.KESTREL_TEST_OUTPUT ?? tmpdir();

function freePort() {
  return new Promise((resolve, reject) => {
    const probe = createServer().listen(0, '127.0.0.1', () => {
      const { port } = probe.address();
      probe.close(() => resolve(port));
    }).on('error', reject);
  });
}

// One WebDriver command; returns its value or throws the driver's error.
async function webdriver(base, method, path, body) {
  const response = await fetch(base + path, {
    method, headers: { 'Content-Type': 'application/json' },
    body: body === undefined ? undefined : JSON.stringify(body),
  });
  const { value } = await response.json();
  if (!response.ok) throw new Error(`WebDriver ${method} ${path}: ${value?.message ?? response.status}`);
  return value;
}

async function until(what, seconds, check) {
  for (const end = Date.now() + seconds * 1000; Date.now() < end; await sleep(250)) {
    const result = await check();
    if (result) return result;
  }
  throw new Error(`timed out after ${seconds} s waiting for ${what}`);
}

test('the demo page shows the detection of the fake microphone\'s hotword', { skip, timeout: 120000 }, async () => {
  const { server, url } = await startServer(0);
  const profile = mkdtempSync(join(tmpdir(), 'kestrel-chromium-'));
  const port = await freePort();
  const driver = spawn(kDriver, [`--port=${port}`], { stdio: ['ignore', 'ignore', 'inherit'] });
  const base = `http://127.0.0.1:${port}`;
  let session = null;
  try {
    await until('chromedriver', 20, () => fetch(`${base}/status`).then((r) => r.ok, () => false));
    session = (await webdriver(base, 'POST', '/session', { capabilities: { alwaysMatch: {
      'goog:chromeOptions': { binary: kChromium, args: [
        '--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
        '--disable-background-networking', '--disable-component-update', '--disable-sync',
        `--user-data-dir=${profile}`, '--use-fake-ui-for-media-stream',
        '--use-fake-device-for-media-stream', `--use-file-for-fake-audio-capture=${samplePath}`,
        '--window-size=900,800'] },
      'goog:loggingPrefs': { browser: 'ALL' },
    } } })).sessionId;
    const at = `/session/${session}`;
    const run = (script) => webdriver(base, 'POST', `${at}/execute/sync`, { script, args: [] });
    const statusText = () => run('return document.getElementById("status").textContent');

    await webdriver(base, 'POST', `${at}/url`, { url: `${url}/bindings/web/demo/` });
    await until('the detector to load', 30, async () => /ready/.test(await statusText()));
    const button = await webdriver(base, 'POST', `${at}/element`, { using: 'css selector', value: '#start' });
    await webdriver(base, 'POST', `${at}/element/${Object.values(button)[0]}/click`, {});
    let detections;
    try {
      detections = await until('a detection on the page', 40, async () => {
        const failed = await run('return document.getElementById("status").classList.contains("error")');
        if (failed) throw new Error('the page reports an error');
        const items = await run('return [...document.querySelectorAll("#detections li")].map((li) => li.textContent)');
        return items.length ? items : null;
      });
    } catch (error) {
      const log = await webdriver(base, 'POST', `${at}/se/log`, { type: 'browser' }).catch(() => []);
      throw new Error(`${error.message}; page status "${await statusText()}"; console: ` +
                      JSON.stringify(log.map((entry) => entry.message)));
    }
    const screenshot = join(outputDir, 'kestrel-demo-chromium.png');
    writeFileSync(screenshot, Buffer.from(await webdriver(base, 'GET', `${at}/screenshot`), 'base64'));
    console.log(`screenshot: ${screenshot}`);
    assert.match(await statusText(), /Listening at \d+ Hz/);
    assert.match(detections[0], /^hey kestrel at \d+\.\d\d s \(score 0\.\d\d/);
  } finally {
    if (session) await webdriver(base, 'DELETE', `/session/${session}`).catch(() => {});
    driver.kill();
    server.close();
    rmSync(profile, { recursive: true, force: true });
  }
});
