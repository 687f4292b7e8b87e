// Decodes the geometry a generated viewer embeds, with the decoder the page
// itself carries, and compares it with the model the C++ side encoded.
//   node decode_test.js FIXTURE_DIR   (sample.html and sample.json)
'use strict';
const assert = require('assert');
const fs = require('fs');
const path = require('path');
const vm = require('vm');

const dir = process.argv[2];
const html = fs.readFileSync(path.join(dir, 'sample.html'), 'utf8');
const model = JSON.parse(fs.readFileSync(path.join(dir, 'sample.json'), 'utf8'));

function scriptText(attributes) {
  const start = html.indexOf('<script ' + attributes + '>');
  assert.ok(start >= 0, 'no <script ' + attributes + '> in the page');
  const from = start + attributes.length + 9;
  return html.slice(from, html.indexOf('</script>', from));
}

// Self-contained: nothing in the page points elsewhere.
assert.doesNotMatch(html, /\b(src|href)\s*=|url\(|@import|https?:/i);

const decoder = vm.runInNewContext(scriptText('id="lt-decode"') + '\nLaytranDecode', { atob });
const meta = JSON.parse(scriptText('type="application/json" id="lt-meta"'));
assert.strictEqual(meta.title, model.title);
assert.deepStrictEqual(meta.header, model.header);
assert.strictEqual(meta.layers.length, model.layers.length);

let points = 0;
model.layers.forEach((layer, i) => {
  assert.strictEqual(meta.layers[i][0], layer.z, `layer ${i} z`);
  const got = decoder.decodeLayer(scriptText(`type="application/octet-stream" id="L${i}"`));
  assert.strictEqual(got.paths.length, layer.paths.length, `layer ${i} path count`);
  layer.paths.forEach((want, j) => {
    const p = got.paths[j];
    const where = `layer ${i} path ${j}`;
    assert.deepStrictEqual([p.kind, p.dir, p.count], [want.kind, want.dir, want.points.length], where);
    want.points.forEach((pt, k) => {
      const x = got.xy[2 * (p.start + k)], y = got.xy[2 * (p.start + k) + 1];
      if (pt === null) assert.ok(Number.isNaN(x) && Number.isNaN(y), `${where} point ${k}: break`);
      else assert.deepStrictEqual([x, y], pt.map(Math.fround), `${where} point ${k}`);
      points++;
    });
  });
});
assert.ok(points > 20, 'the fixture has points');
console.log(`decoded ${model.layers.length} layers, ${points} points: all match`);
