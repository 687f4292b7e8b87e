// Opens generated viewers in headless Chromium and checks what a user sees.
// Talks to the browser over the DevTools protocol on a pipe, so it needs
// nothing but node and the browser.
//   node browser_test.js CHROMIUM FIXTURE_DIR ARTIFACT_DIR LAYTRAN SAMPLE
//       checks sample.html (the view module's fixture), then the pages
//       `LAYTRAN view` writes for a small model in every input format and
//       for SAMPLE (the bundled samples/plate.cli); keeps screenshots in
//       ARTIFACT_DIR (viewer-plate.png is the README's picture)
//   node browser_test.js CHROMIUM --measure PAGE.html
//       prints how long PAGE.html takes to show its first layer and to step
'use strict';
const assert = require('assert');
const { spawn } = require('child_process');
const { execFileSync } = require('child_process');
const fs = require('fs');
const os = require('os');
const path = require('path');

class Browser {
  constructor(exe) {
    this.profile = fs.mkdtempSync(path.join(os.tmpdir(), 'laytran-chromium-'));
    const flags = ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync',
      '--disable-extensions', '--disable-default-apps', '--mute-audio', '--hide-scrollbars',
      '--user-data-dir=' + this.profile, '--remote-debugging-pipe', 'about:blank'];
    this.proc = spawn(exe, flags, { stdio: ['ignore', 'ignore', 'pipe', 'pipe', 'pipe'] });
    this.log = '';
    this.proc.stderr.on('data', (d) => { this.log = (this.log + d).slice(-4000); });
    this.proc.on('exit', (code) => { this.exited = code; });
    this.nextId = 1;
    this.pending = new Map();
    this.handlers = [];
    let buffer = '';
    this.proc.stdio[4].on('data', (chunk) => {
      buffer += chunk;
      let end;
      while ((end = buffer.indexOf('\0')) >= 0) {
        const message = JSON.parse(buffer.slice(0, end));
        buffer = buffer.slice(end + 1);
        if (message.id && this.pending.has(message.id)) {
          const { resolve, reject, method } = this.pending.get(message.id);
          this.pending.delete(message.id);
          if (message.error) reject(new Error(method + ': ' + message.error.message));
          else resolve(message.result);
        } else if (message.method) {
          this.handlers.forEach((h) => h(message.method, message.params));
        }
      }
    });
  }

  send(method, params = {}, sessionId = this.session) {
    const id = this.nextId++;
    const message = { id, method, params };
    if (sessionId) message.sessionId = sessionId;
    this.proc.stdio[3].write(JSON.stringify(message) + '\0');
    return new Promise((resolve, reject) => this.pending.set(id, { resolve, reject, method }));
  }

  async openPage(width, height) {
    const { targetId } = await this.send('Target.createTarget', { url: 'about:blank' }, null);
    ({ sessionId: this.session } = await this.send('Target.attachToTarget',
      { targetId, flatten: true }, null));
    await Promise.all(['Page.enable', 'Runtime.enable', 'Log.enable', 'Network.enable']
      .map((m) => this.send(m)));
    await this.send('Emulation.setDeviceMetricsOverride',
      { width, height, deviceScaleFactor: 1, mobile: false });
  }

  async eval(expression) {
    const r = await this.send('Runtime.evaluate', { expression, returnByValue: true, awaitPromise: true });
    if (r.exceptionDetails) throw new Error('in page: ' + JSON.stringify(r.exceptionDetails));
    return r.result.value;
  }

  async waitFor(expression, what, timeoutMs = 30000) {
    const start = Date.now();
    while (!(await this.eval(expression))) {
      if (Date.now() - start > timeoutMs) throw new Error('timed out waiting for ' + what);
      await new Promise((r) => setTimeout(r, 20));
    }
  }

  async key(key, code, keyCode) {
    for (const type of ['rawKeyDown', 'keyUp'])
      await this.send('Input.dispatchKeyEvent', { type, key, code, windowsVirtualKeyCode: keyCode });
  }

  async screenshot(file) {
    const { data } = await this.send('Page.captureScreenshot', { format: 'png' });
    fs.writeFileSync(file, Buffer.from(data, 'base64'));
  }

  async close() {
    const exited = new Promise((r) => (this.exited !== undefined ? r() : this.proc.once('exit', r)));
    this.send('Browser.close', {}, null).catch(() => {});
    const timer = setTimeout(() => this.proc.kill('SIGKILL'), 5000);
    await exited;
    clearTimeout(timer);
    fs.rmSync(this.profile, { recursive: true, force: true, maxRetries: 5 });
  }
}

// Colours of the canvas around model points: for each [x, y], the pixels
// of the 5 x 5 square there, as [r, g, b] triples.
const PIXELS_AT = `(points) => {
  const canvas = document.getElementById('view');
  const dpr = canvas.width / canvas.getBoundingClientRect().width;
  const data = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data;
  return points.map(([x, y]) => {
    const s = laytranViewer.toScreen(x, y), out = [];
    const cx = Math.round(s[0] * dpr), cy = Math.round(s[1] * dpr);
    for (let py = cy - 2; py <= cy + 2; py++)
      for (let px = cx - 2; px <= cx + 2; px++) {
        const i = 4 * (py * canvas.width + px);
        out.push([data[i], data[i + 1], data[i + 2]]);
      }
    return out;
  });
}`;

function hex(colour) {
  return [1, 3, 5].map((i) => parseInt(colour.slice(i, i + 2), 16));
}
// Whether pixel is rgb blended over white (antialiasing) with at least 30%
// coverage: every channel must have moved from white by the same share.
function near(pixel, rgb) {
  const shares = [0, 1, 2].filter((i) => 255 - rgb[i] > 40).map((i) => (255 - pixel[i]) / (255 - rgb[i]));
  const flat = [0, 1, 2].filter((i) => 255 - rgb[i] <= 40).every((i) => Math.abs(pixel[i] - rgb[i]) <= 40);
  return flat && Math.min(...shares) >= 0.3 && Math.max(...shares) - Math.min(...shares) <= 0.15;
}

// Resolves after the next two frames: any redraw asked for has happened.
const FRAMES = `new Promise((r) => requestAnimationFrame(() => requestAnimationFrame(() => r(true))))`;

async function checkPixels(browser, expectations, label) {
  await browser.eval(FRAMES); // a resize clears the canvas until its redraw
  const found = await browser.eval(`(${PIXELS_AT})(${JSON.stringify(expectations.map((e) => e[0]))})`);
  expectations.forEach(([point, want], i) => {
    const pixels = found[i];
    const what = `${label}: at (${point}) expected ${want}`;
    if (want === 'blank') assert.ok(pixels.every((p) => p.every((v) => v >= 235)), what + ', got ' + JSON.stringify(pixels));
    else if (want.startsWith('not ')) assert.ok(!pixels.some((p) => near(p, hex(want.slice(4)))), what);
    else assert.ok(pixels.some((p) => near(p, hex(want))), what + ', got ' + JSON.stringify(pixels));
  });
}

async function state(browser) {
  return browser.eval(`({
    count: document.body.dataset.layerCount, layer: document.body.dataset.layer,
    z: document.body.dataset.z, drawn: document.body.dataset.drawn,
    shownIndex: document.getElementById('layer-index').textContent,
    shownZ: document.getElementById('layer-z').textContent,
    shownCount: document.getElementById('layer-count').textContent,
    errors: window.laytranErrors })`);
}

async function stepTo(browser, key, code, keyCode, layer) {
  await browser.key(key, code, keyCode);
  await browser.waitFor(`document.body.dataset.drawn === '${layer}'`, `layer ${layer} after ${key}`);
}

// Navigates to a page and waits for its first layer.
async function load(browser, url) {
  await browser.send('Page.navigate', { url });
  await browser.waitFor(`document.URL === ${JSON.stringify(url)} && document.body &&
    document.body.dataset.ready === '1'`, 'the first layer of ' + url);
}

// A model in millimetres with the path kinds each format holds: an outer
// contour with a hole and hatches, a triangle, a rectangle.
const MODEL = `$$HEADERSTART\n$$ASCII\n$$UNITS/1\n$$LAYERS/3\n$$HEADEREND\n$$GEOMETRYSTART
$$LAYER/0.1\n$$POLYLINE/1,1,5,10,10,90,10,90,50,10,50,10,10\n$$POLYLINE/1,0,5,40,20,40,40,60,40,60,20,40,20
$$HATCHES/1,2,12,15,38,15,12,45,88,45\n$$LAYER/0.2\n$$POLYLINE/1,1,4,10,10,50,10,30,40,10,10
$$LAYER/0.3\n$$POLYLINE/1,1,5,20,20,80,20,80,40,20,40,20,20\n$$GEOMETRYEND\n`;
const FORMS = ['cli', 'cli-binary', 'cli-short', 'cli-aligned', 'cli-aligned-short', 'slc', 'ssl'];

// `laytran view` on the model in every form (SLC and FDM hold no hatches):
// the layer count, each layer's z on the arrow key, the contours' pixels.
async function checkFormats(browser, laytran, dir, artifactDir, setUrl) {
  const source = path.join(dir, 'model.cli');
  fs.writeFileSync(source, MODEL);
  for (const form of FORMS) {
    const file = path.join(dir, 'model-' + form), page = file + '.html';
    execFileSync(laytran, ['convert', source, file, '--to', form, '--force', '--quiet']);
    execFileSync(laytran, ['view', file, '-o', page, '--force']);
    await load(browser, setUrl('file://' + page));
    const [contour, , hatches] = (await browser.eval(
      `JSON.parse(document.getElementById('lt-meta').textContent).kinds`)).map((k) => k[1]);
    const label = form + ' layer 1';
    await checkPixels(browser, [[[50, 10], contour], [[90, 30], contour], [[50, 40], contour],
      [[50, 30], 'blank'], [[25, 30], 'blank'],
      [[25, 15], form.startsWith('cli') ? hatches : 'blank']], label);
    await browser.screenshot(path.join(artifactDir, 'viewer-' + form + '.png'));
    for (let i = 0; i < 3; i++) {
      if (i > 0) await stepTo(browser, 'ArrowRight', 'ArrowRight', 39, i);
      const s = await state(browser);
      assert.deepStrictEqual([s.count, s.shownCount, s.layer, s.shownIndex], ['3', '3', String(i), String(i + 1)], label);
      for (const z of [s.z, s.shownZ]) assert.ok(Math.abs(Number(z) - 0.1 * (i + 1)) < 1e-4, `${form}: z ${z}`);
      if (i === 1) await checkPixels(browser, [[[30, 10], contour], [[50, 40], 'blank']], form + ' layer 2');
    }
  }
}

async function test(exe, fixtureDir, artifactDir, laytran, sample) {
  const page = path.resolve(fixtureDir, 'sample.html');
  const browser = new Browser(exe);
  const problems = [];
  let pageUrl = 'file://' + page;
  browser.handlers.push((method, p) => {
    if (method === 'Runtime.exceptionThrown') problems.push('exception: ' + p.exceptionDetails.text);
    if (method === 'Runtime.consoleAPICalled' && (p.type === 'error' || p.type === 'assert'))
      problems.push('console.' + p.type + ': ' + JSON.stringify(p.args.map((a) => a.value)));
    if (method === 'Log.entryAdded' && p.entry.level === 'error') problems.push('log: ' + p.entry.text);
    if (method === 'Network.requestWillBeSent' && p.request.url !== pageUrl)
      problems.push('request: ' + p.request.url);
  });
  try {
    await browser.openPage(1200, 800);
    await load(browser, pageUrl);
    const kinds = (await browser.eval(`JSON.parse(document.getElementById('lt-meta').textContent).kinds`))
      .map((k) => k[1]);
    const [contour, polyline, hatches, support] = kinds;

    let s = await state(browser);
    assert.deepStrictEqual([s.count, s.layer, s.z, s.shownIndex, s.shownZ, s.shownCount],
      ['4', '0', '0.05', '1', '0.05', '4']);
    assert.strictEqual(await browser.eval(`document.title`), 'plaque-\u00e9 <demo> & "sample".cli \u00b7 laytran viewer');
    assert.strictEqual(await browser.eval(`document.getElementById('header').rows[2].cells[1].textContent`),
      'caf\u00e9 </script><b>x</b>');
    await checkPixels(browser, [
      [[50, 10], contour], [[90, 30], contour], [[50, 40], contour], // outer edge, hole edge
      [[25, 15], hatches], [[50, 45], hatches],
      [[17.5, 56], polyline], [[82.5, 56], polyline], [[50, 57], 'not ' + polyline], // the gap
      [[77.5, 25], support],
      [[50, 30], 'blank'], [[25, 30], 'blank'], [[95, 5], 'blank'],
    ], 'layer 0');
    await browser.screenshot(path.join(artifactDir, 'viewer-layer0.png'));

    await stepTo(browser, 'ArrowRight', 'ArrowRight', 39, 1);
    s = await state(browser);
    assert.deepStrictEqual([s.layer, s.z, s.shownIndex, s.shownZ], ['1', '0.1', '2', '0.1']);
    await checkPixels(browser, [
      [[50, 10], contour], [[25, 20], contour], [[30, 25], 'blank'], // the contour's gap
      [[50, 40], 'blank'], [[25, 15], 'blank'], [[17.5, 56], 'blank'],
    ], 'layer 1');
    await stepTo(browser, 'End', 'End', 35, 3);
    assert.strictEqual((await state(browser)).z, '0.2');
    await stepTo(browser, 'PageDown', 'PageDown', 34, 0);
    await stepTo(browser, 'ArrowUp', 'ArrowUp', 38, 1);

    // The layer below underneath and the direction markers: layer 1's outer
    // contour is declared clockwise but runs counter-clockwise, so its
    // start gets a red marker; layer 0's hole shows faintly.
    await browser.eval(`document.getElementById('underlay').click(); document.getElementById('arrows').click()`);
    await browser.eval(FRAMES);
    await checkPixels(browser, [[[10, 10], '#d01818'], [[50, 40], '#b4bac4'], [[30, 25], 'blank']],
      'layer 1 with underlay and direction');
    await browser.screenshot(path.join(artifactDir, 'viewer-layer1-direction.png'));

    // Wheel zoom about the pointer, then the reset button.
    const before = await browser.eval(`laytranViewer.toScreen(10, 10)`);
    await browser.send('Input.dispatchMouseEvent', { type: 'mouseWheel', x: 400, y: 400, deltaX: 0, deltaY: -400 });
    await browser.waitFor(`laytranViewer.toScreen(10, 10)[0] !== ${before[0]}`, 'the wheel zoom');
    const zoomed = await browser.eval(`laytranViewer.toScreen(90, 10)[0] - laytranViewer.toScreen(10, 10)[0]`);
    await browser.eval(`document.getElementById('reset').click()`);
    await browser.waitFor(`laytranViewer.toScreen(10, 10)[0] === ${before[0]}`, 'the reset');
    assert.ok(zoomed > 1.5 * (await browser.eval(`laytranViewer.toScreen(90, 10)[0] - laytranViewer.toScreen(10, 10)[0]`)));

    s = await state(browser);
    assert.deepStrictEqual(s.errors, []);

    const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'laytran-view-'));
    try {
      await checkFormats(browser, laytran, dir, artifactDir, (url) => (pageUrl = url));
      // The README's picture: the bundled sample with the direction markers.
      const plate = path.join(dir, 'plate.html');
      execFileSync(laytran, ['view', sample, '-o', plate]);
      await browser.send('Emulation.setDeviceMetricsOverride',
        { width: 1000, height: 660, deviceScaleFactor: 1, mobile: false });
      await load(browser, (pageUrl = 'file://' + plate));
      assert.strictEqual((await state(browser)).count, '4');
      await browser.eval(`document.getElementById('arrows').click()`);
      await browser.eval(FRAMES);
      await browser.screenshot(path.join(artifactDir, 'viewer-plate.png'));
      assert.deepStrictEqual((await state(browser)).errors, []);
    } finally {
      fs.rmSync(dir, { recursive: true, force: true });
    }
    assert.deepStrictEqual(problems, []);
    console.log('viewer checks passed; screenshots in ' + artifactDir);
  } catch (e) {
    e.message += '\npage problems: ' + JSON.stringify(problems) + '\nbrowser log: ' + browser.log;
    throw e;
  } finally {
    await browser.close();
  }
}

async function measure(exe, file) {
  const browser = new Browser(exe);
  try {
    await browser.openPage(1200, 800);
    const t0 = Date.now();
    await browser.send('Page.navigate', { url: 'file://' + path.resolve(file) });
    await browser.waitFor(`document.body && document.body.dataset.ready === '1'`, 'the first layer', 120000);
    const first = Date.now() - t0;
    const steps = [], timings = []; // the page's decode/build/draw ms of the last layer
    const count = Number((await state(browser)).count);
    for (let i = 1; i <= Math.min(10, count - 1); i++) {
      const t = Date.now();
      await stepTo(browser, 'ArrowRight', 'ArrowRight', 39, i);
      steps.push(Date.now() - t);
      const page = await browser.eval(`laytranViewer.timing`);
      timings.push(Object.values(page).map(Math.round).join('/'));
    }
    const t = Date.now();
    await stepTo(browser, 'End', 'End', 35, count - 1);
    const jump = Date.now() - t;
    const heap = await browser.eval(`performance.memory ? performance.memory.usedJSHeapSize : 0`);
    console.log(JSON.stringify({ firstLayerMs: first, stepMs: steps, timings, jumpToEndMs: jump,
      jsHeapMB: Math.round(heap / 1048576), errors: (await state(browser)).errors }));
  } finally {
    await browser.close();
  }
}

const [exe, ...rest] = process.argv.slice(2);
const watchdog = setTimeout(() => { console.error('browser test: no result after 150 s'); process.exit(1); }, 150000);
(rest[0] === '--measure' ? measure(exe, rest[1]) : (fs.mkdirSync(rest[1], { recursive: true }), test(exe, ...rest)))
  .then(() => { clearTimeout(watchdog); }, (e) => { console.error(e.stack || e); process.exit(1); });
