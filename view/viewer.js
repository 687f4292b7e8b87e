// The layer viewer: draws one layer of the embedded model at a time.
//
// The model's metadata (title, header, summary, bounds, per-layer z and
// counts) is a JSON element; each layer's geometry is a base64 element that
// is decoded only when the layer is shown (and its neighbours prefetched),
// so a large model opens as fast as the browser can read the page.
//
// For tests the page reports its state in data attributes on <body>:
// data-ready (1 once the first layer is drawn), data-layer-count,
// data-layer, data-z and data-drawn (the layer index last drawn), and in
// window.laytranViewer (toScreen, currentLayer, setLayer).
(function () {
  'use strict';

  var meta = JSON.parse(document.getElementById('lt-meta').textContent);
  var layers = meta.layers; // [z, contours, polylines, hatches, supports, points, breaks, mismatches, area]
  var kinds = meta.kinds; // [name, colour] by kind number
  var CONTOUR = 0, HATCHES = 2;
  var CLOCKWISE = 1, COUNTER_CLOCKWISE = 2;
  var DRAW_ORDER = [3, 2, 1, 0]; // support, hatches, polylines, part contours on top
  var LINE_WIDTH = [1.6, 1.3, 1, 1.3]; // CSS pixels by kind
  var UNDERLAY_COLOUR = '#b4bac4';
  var MAX_MARKERS = 20000;
  var RULER_LEFT = 44, RULER_BOTTOM = 18; // CSS pixels the rulers take
  var CACHE_SIZE = 8;

  var canvas = document.getElementById('view');
  var stage = document.getElementById('stage');
  var slider = document.getElementById('layer-slider');
  var ctx = canvas.getContext('2d');
  var $ = function (id) { return document.getElementById(id); };

  var state = {
    layer: 0,
    scale: 1, // CSS pixels per millimetre
    cx: 0, // model point at the centre of the canvas
    cy: 0,
    width: 1, // canvas size in CSS pixels
    height: 1,
    visible: [true, true, true, true],
    underlay: false,
    arrows: false,
  };
  var cache = new Map(); // layer index -> decoded layer, least recently used first
  var drawPending = false;
  var timing = { decodeMs: 0, buildMs: 0, drawMs: 0 }; // of the last layer decoded and the last draw

  // ---- geometry --------------------------------------------------------

  function modelBounds() {
    var b = meta.bounds || [-1, -1, 1, 1];
    return { xmin: b[0], ymin: b[1], xmax: b[2], ymax: b[3] };
  }

  function loadLayer(index) {
    var hit = cache.get(index);
    if (hit) {
      cache.delete(index);
      cache.set(index, hit);
      return hit;
    }
    var t0 = performance.now();
    var element = document.getElementById('L' + index);
    var layer = LaytranDecode.decodeLayer(element ? element.textContent : '');
    var t1 = performance.now();
    layer.shapes = buildShapes(layer);
    timing.decodeMs = t1 - t0;
    timing.buildMs = performance.now() - t1;
    cache.set(index, layer);
    if (cache.size > CACHE_SIZE) cache.delete(cache.keys().next().value);
    return layer;
  }

  // One Path2D per kind, in model coordinates.
  function buildShapes(layer) {
    var shapes = [new Path2D(), new Path2D(), new Path2D(), new Path2D()];
    var xy = layer.xy;
    layer.paths.forEach(function (path) {
      var shape = shapes[path.kind];
      if (!shape) return;
      var move = true;
      for (var k = 0; k < path.count; k++) {
        var x = xy[2 * (path.start + k)], y = xy[2 * (path.start + k) + 1];
        if (x !== x) { move = true; continue; } // a break
        if (path.kind === HATCHES) move = k % 2 === 0;
        if (move) shape.moveTo(x, y); else shape.lineTo(x, y);
        move = false;
      }
    });
    return shapes;
  }

  // Shoelace area of a path, breaks skipped; counter-clockwise positive.
  function signedArea(xy, path) {
    var sum = 0, x0 = NaN, y0 = NaN, px = NaN, py = NaN;
    for (var k = 0; k < path.count; k++) {
      var x = xy[2 * (path.start + k)], y = xy[2 * (path.start + k) + 1];
      if (x !== x) continue;
      if (x0 !== x0) { x0 = px = x; y0 = py = y; continue; }
      sum += (px - x0) * (y - y0) - (x - x0) * (py - y0);
      px = x; py = y;
    }
    return sum / 2;
  }

  // ---- view transform --------------------------------------------------

  function toScreen(x, y) {
    return [state.width / 2 + (x - state.cx) * state.scale,
            state.height / 2 - (y - state.cy) * state.scale];
  }
  function toModel(sx, sy) {
    return [state.cx + (sx - state.width / 2) / state.scale,
            state.cy - (sy - state.height / 2) / state.scale];
  }

  // The whole model in the room the rulers leave, with a margin.
  function fit() {
    var b = modelBounds();
    var w = b.xmax - b.xmin, h = b.ymax - b.ymin;
    var pad = 30, left = RULER_LEFT + pad, bottom = RULER_BOTTOM + pad;
    var sx = (state.width - left - pad) / w, sy = (state.height - bottom - pad) / h;
    var s = Math.min(w > 0 ? sx : Infinity, h > 0 ? sy : Infinity);
    state.scale = isFinite(s) && s > 0 ? s : 10;
    state.cx = (b.xmin + b.xmax) / 2 - (left - pad) / 2 / state.scale;
    state.cy = (b.ymin + b.ymax) / 2 - (bottom - pad) / 2 / state.scale;
    requestDraw();
  }

  function resize() {
    var r = stage.getBoundingClientRect();
    var dpr = window.devicePixelRatio || 1;
    state.width = Math.max(1, r.width);
    state.height = Math.max(1, r.height);
    canvas.width = Math.round(state.width * dpr);
    canvas.height = Math.round(state.height * dpr);
  }

  // A round step (1, 2 or 5 times a power of ten) near `target` millimetres.
  function niceStep(target) {
    var p = Math.pow(10, Math.floor(Math.log10(target)));
    var m = target / p;
    return (m < 1.5 ? 1 : m < 3.5 ? 2 : m < 7.5 ? 5 : 10) * p;
  }

  function formatNumber(v) {
    return String(Number(v.toPrecision(7)));
  }

  // ---- drawing ---------------------------------------------------------

  function requestDraw() {
    if (drawPending) return;
    drawPending = true;
    requestAnimationFrame(function () {
      drawPending = false;
      draw();
    });
  }

  function draw() {
    var start = performance.now();
    var dpr = canvas.width / state.width;
    var s = state.scale;
    ctx.setTransform(dpr, 0, 0, dpr, 0, 0);
    ctx.fillStyle = '#fff';
    ctx.fillRect(0, 0, state.width, state.height);
    drawOriginAxes();
    if (layers.length) {
      var layer = loadLayer(state.layer);
      ctx.setTransform(dpr * s, 0, 0, -dpr * s, dpr * (state.width / 2 - state.cx * s),
                       dpr * (state.height / 2 + state.cy * s));
      ctx.lineJoin = 'round';
      ctx.lineCap = 'round';
      if (state.underlay && state.layer > 0) {
        var below = loadLayer(state.layer - 1);
        ctx.strokeStyle = UNDERLAY_COLOUR;
        ctx.lineWidth = 1 / s;
        below.shapes.forEach(function (shape) { ctx.stroke(shape); });
      }
      DRAW_ORDER.forEach(function (kind) {
        if (!state.visible[kind]) return;
        ctx.strokeStyle = kinds[kind][1];
        ctx.lineWidth = LINE_WIDTH[kind] / s;
        ctx.stroke(layer.shapes[kind]);
      });
      ctx.setTransform(dpr, 0, 0, dpr, 0, 0);
      if (state.arrows && state.visible[CONTOUR]) drawDirections(layer);
    }
    drawRulers();
    drawScaleBar();
    timing.drawMs = performance.now() - start;
    document.body.setAttribute('data-drawn', String(state.layer));
    if (document.body.getAttribute('data-ready') !== '1') document.body.setAttribute('data-ready', '1');
    prefetch();
  }

  // A dot where each part contour starts and an arrow along its first
  // stretch; red where the declared direction disagrees with the points.
  function drawDirections(layer) {
    var xy = layer.xy, drawn = 0;
    for (var i = 0; i < layer.paths.length && drawn < MAX_MARKERS; i++) {
      var path = layer.paths[i];
      if (path.kind !== CONTOUR || path.count < 2) continue;
      var k = 0;
      while (k < path.count && xy[2 * (path.start + k)] !== xy[2 * (path.start + k)]) k++;
      if (k >= path.count) continue;
      var a = toScreen(xy[2 * (path.start + k)], xy[2 * (path.start + k) + 1]);
      var b = null;
      for (var j = k + 1; j < path.count; j++) {
        var x = xy[2 * (path.start + j)];
        if (x !== x) break;
        var c = toScreen(x, xy[2 * (path.start + j) + 1]);
        if (Math.hypot(c[0] - a[0], c[1] - a[1]) >= 3) { b = c; break; }
      }
      if (!b) continue;
      var area = signedArea(xy, path);
      var wrong = (path.dir === CLOCKWISE && area > 0) || (path.dir === COUNTER_CLOCKWISE && area < 0);
      var ux = b[0] - a[0], uy = b[1] - a[1], len = Math.hypot(ux, uy);
      ux /= len; uy /= len;
      var tip = [a[0] + ux * 16, a[1] + uy * 16];
      ctx.fillStyle = ctx.strokeStyle = wrong ? '#d01818' : '#111';
      ctx.lineWidth = 1.5;
      ctx.beginPath();
      ctx.arc(a[0], a[1], 3.5, 0, 2 * Math.PI);
      ctx.fill();
      ctx.beginPath();
      ctx.moveTo(a[0], a[1]);
      ctx.lineTo(tip[0], tip[1]);
      ctx.stroke();
      ctx.beginPath();
      ctx.moveTo(tip[0], tip[1]);
      ctx.lineTo(tip[0] - ux * 7 - uy * 4, tip[1] - uy * 7 + ux * 4);
      ctx.lineTo(tip[0] - ux * 7 + uy * 4, tip[1] - uy * 7 - ux * 4);
      ctx.closePath();
      ctx.fill();
      drawn++;
    }
  }

  // Thin lines through the model origin, when it is in view.
  function drawOriginAxes() {
    var o = toScreen(0, 0);
    ctx.strokeStyle = '#d9dde3';
    ctx.lineWidth = 1;
    ctx.beginPath();
    if (o[1] >= 0 && o[1] <= state.height) { ctx.moveTo(0, o[1]); ctx.lineTo(state.width, o[1]); }
    if (o[0] >= 0 && o[0] <= state.width) { ctx.moveTo(o[0], 0); ctx.lineTo(o[0], state.height); }
    ctx.stroke();
  }

  // Millimetre rulers along the left and bottom edges.
  function drawRulers() {
    var step = niceStep(80 / state.scale);
    var bottom = state.height - RULER_BOTTOM, left = RULER_LEFT;
    ctx.fillStyle = 'rgba(255,255,255,0.85)';
    ctx.fillRect(0, bottom, state.width, RULER_BOTTOM);
    ctx.fillRect(0, 0, left, bottom);
    ctx.strokeStyle = '#6b7380';
    ctx.fillStyle = '#3b414b';
    ctx.lineWidth = 1;
    ctx.font = '10px system-ui, sans-serif';
    ctx.beginPath();
    ctx.moveTo(left, bottom + 0.5);
    ctx.lineTo(state.width, bottom + 0.5);
    ctx.moveTo(left - 0.5, 0);
    ctx.lineTo(left - 0.5, bottom);
    var lo = toModel(left, state.height), hi = toModel(state.width, 0);
    ctx.textAlign = 'center';
    ctx.textBaseline = 'top';
    for (var x = Math.ceil(lo[0] / step) * step; x <= hi[0]; x += step) {
      var sx = Math.round(toScreen(x, 0)[0]) + 0.5;
      ctx.moveTo(sx, bottom);
      ctx.lineTo(sx, bottom + 4);
      ctx.fillText(formatNumber(x), sx, bottom + 5);
    }
    ctx.textAlign = 'right';
    ctx.textBaseline = 'middle';
    for (var y = Math.ceil(lo[1] / step) * step; y <= hi[1]; y += step) {
      var sy = Math.round(toScreen(0, y)[1]) + 0.5;
      if (sy > bottom) continue;
      ctx.moveTo(left - 4, sy);
      ctx.lineTo(left, sy);
      ctx.fillText(formatNumber(y), left - 6, sy);
    }
    ctx.stroke();
    ctx.textAlign = 'left';
    ctx.textBaseline = 'top';
    ctx.fillText('mm', 4, bottom + 5);
  }

  function drawScaleBar() {
    var mm = niceStep(120 / state.scale);
    var px = mm * state.scale;
    var x1 = state.width - 20, x0 = x1 - px, y = state.height - 34;
    ctx.strokeStyle = '#1c1f23';
    ctx.fillStyle = '#1c1f23';
    ctx.lineWidth = 2;
    ctx.beginPath();
    ctx.moveTo(x0, y - 5);
    ctx.lineTo(x0, y);
    ctx.lineTo(x1, y);
    ctx.lineTo(x1, y - 5);
    ctx.stroke();
    ctx.font = '11px system-ui, sans-serif';
    ctx.textAlign = 'center';
    ctx.textBaseline = 'bottom';
    ctx.fillText(formatNumber(mm) + ' mm', (x0 + x1) / 2, y - 3);
  }

  function prefetch() {
    setTimeout(function () {
      [state.layer + 1, state.layer - 1].forEach(function (i) {
        if (i >= 0 && i < layers.length && !cache.has(i)) loadLayer(i);
      });
    }, 0);
  }

  // ---- panels ----------------------------------------------------------

  function fillTable(table, rows) {
    table.textContent = '';
    rows.forEach(function (row) {
      var tr = table.insertRow();
      row.forEach(function (cell, i) {
        var td = tr.insertCell();
        td.textContent = cell;
        if (i > 0 && typeof cell === 'number') td.className = 'num';
      });
    });
  }

  function showLayerFacts() {
    var l = layers[state.layer];
    var rows = [
      ['part contours', l[1]], ['open polylines', l[2]], ['hatches', l[3]],
      ['support / web', l[4]], ['points', l[5]], ['gaps', l[6]],
      ['enclosed area (mm²)', Number(l[8].toPrecision(6))],
    ];
    fillTable($('layer-facts'), rows);
    if (l[7] > 0) {
      var tr = $('layer-facts').insertRow();
      tr.className = 'warn';
      tr.insertCell().textContent = 'direction ≠ points';
      var cell = tr.insertCell();
      cell.textContent = String(l[7]);
      cell.className = 'num';
    }
  }

  function setLayer(index) {
    if (!layers.length) return;
    index = Math.max(0, Math.min(layers.length - 1, index | 0));
    state.layer = index;
    slider.value = String(index);
    var z = layers[index][0];
    $('layer-index').textContent = String(index + 1);
    $('layer-z').textContent = formatNumber(z);
    document.body.setAttribute('data-layer', String(index));
    document.body.setAttribute('data-z', String(z));
    showLayerFacts();
    requestDraw();
  }

  function setUp() {
    $('title').textContent = meta.title;
    if (meta.notice) {
      $('notice').textContent = meta.notice;
      $('notice').hidden = false;
    }
    fillTable($('header'), meta.header.length ? meta.header : [['(none)', '']]);
    fillTable($('summary'), meta.summary.length ? meta.summary : [['(none)', '']]);
    DRAW_ORDER.slice().reverse().forEach(function (kind) {
      var label = document.createElement('label');
      var box = document.createElement('input');
      box.type = 'checkbox';
      box.checked = true;
      box.addEventListener('change', function () {
        state.visible[kind] = box.checked;
        requestDraw();
      });
      var swatch = document.createElement('span');
      swatch.className = 'swatch';
      swatch.style.background = kinds[kind][1];
      label.append(box, swatch, kinds[kind][0]);
      $('legend').append(label);
    });
    $('layer-count').textContent = String(layers.length);
    document.body.setAttribute('data-layer-count', String(layers.length));
    slider.max = String(Math.max(0, layers.length - 1));
    slider.disabled = !layers.length;

    slider.addEventListener('input', function () { setLayer(Number(slider.value)); });
    $('prev').addEventListener('click', function () { setLayer(state.layer - 1); });
    $('next').addEventListener('click', function () { setLayer(state.layer + 1); });
    $('reset').addEventListener('click', fit);
    $('underlay').addEventListener('change', function (e) {
      state.underlay = e.target.checked;
      requestDraw();
    });
    $('arrows').addEventListener('change', function (e) {
      state.arrows = e.target.checked;
      requestDraw();
    });

    var steps = { ArrowRight: 1, ArrowUp: 1, ArrowLeft: -1, ArrowDown: -1, PageUp: 10, PageDown: -10 };
    window.addEventListener('keydown', function (e) {
      if (e.altKey || e.ctrlKey || e.metaKey) return;
      if (e.key in steps) setLayer(state.layer + steps[e.key]);
      else if (e.key === 'Home') setLayer(0);
      else if (e.key === 'End') setLayer(layers.length - 1);
      else return;
      e.preventDefault(); // the slider, when focused, would step a second time
    });

    stage.addEventListener('wheel', function (e) {
      e.preventDefault();
      var r = canvas.getBoundingClientRect();
      var sx = e.clientX - r.left, sy = e.clientY - r.top;
      var before = toModel(sx, sy);
      var delta = e.deltaMode === 1 ? e.deltaY * 20 : e.deltaY;
      state.scale *= Math.exp(-delta * 0.0015);
      var after = toModel(sx, sy);
      state.cx += before[0] - after[0];
      state.cy += before[1] - after[1];
      requestDraw();
    }, { passive: false });

    var drag = null;
    stage.addEventListener('pointerdown', function (e) {
      drag = { x: e.clientX, y: e.clientY, cx: state.cx, cy: state.cy };
      stage.setPointerCapture(e.pointerId);
      stage.classList.add('dragging');
    });
    stage.addEventListener('pointermove', function (e) {
      var r = canvas.getBoundingClientRect();
      var m = toModel(e.clientX - r.left, e.clientY - r.top);
      $('readout').textContent = 'x ' + m[0].toFixed(3) + '  y ' + m[1].toFixed(3) + ' mm';
      if (!drag) return;
      state.cx = drag.cx - (e.clientX - drag.x) / state.scale;
      state.cy = drag.cy + (e.clientY - drag.y) / state.scale;
      requestDraw();
    });
    var endDrag = function () {
      drag = null;
      stage.classList.remove('dragging');
    };
    stage.addEventListener('pointerup', endDrag);
    stage.addEventListener('pointercancel', endDrag);

    new ResizeObserver(function () {
      resize();
      requestDraw();
    }).observe(stage);

    resize();
    fit();
    if (layers.length) setLayer(0);
  }

  window.laytranViewer = {
    toScreen: toScreen,
    currentLayer: function () { return state.layer; },
    setLayer: setLayer,
    timing: timing,
  };

  if (document.readyState === 'loading') document.addEventListener('DOMContentLoaded', setUp);
  else setUp();
})();
