// Decodes one layer record of the viewer (the layout is described in
// view/encode.h): base64 text to { paths: [{kind, dir, start, count}], xy }
// where xy holds x, y of every point as float32 and path i's points are
// xy[2*start .. 2*(start+count)). A break is a NaN pair.
var LaytranDecode = (function () {
  'use strict';
  var littleEndian = new Uint8Array(new Uint32Array([1]).buffer)[0] === 1;

  function bytesFromBase64(text) {
    var binary = atob(text);
    var n = binary.length;
    var bytes = new Uint8Array(n);
    for (var i = 0; i < n; i++) bytes[i] = binary.charCodeAt(i);
    return bytes;
  }

  function decodeLayer(text) {
    var bytes = bytesFromBase64(text);
    var data = new DataView(bytes.buffer);
    if (bytes.length < 4) throw new Error('layer record too short');
    var n = data.getUint32(0, true);
    var head = 4 + 8 * n;
    if (head > bytes.length) throw new Error('layer record too short for its paths');
    var paths = new Array(n);
    var points = 0;
    for (var i = 0; i < n; i++) {
      var info = data.getUint32(4 + 8 * i, true);
      var count = data.getUint32(8 + 8 * i, true);
      paths[i] = { kind: info & 255, dir: (info >>> 8) & 255, start: points, count: count };
      points += count;
    }
    if (head + 8 * points !== bytes.length) throw new Error('layer record size does not match');
    var xy;
    if (littleEndian) {
      xy = new Float32Array(bytes.buffer, head, 2 * points);
    } else {
      xy = new Float32Array(2 * points);
      for (var k = 0; k < 2 * points; k++) xy[k] = data.getFloat32(head + 4 * k, true);
    }
    return { paths: paths, xy: xy };
  }

  return { decodeLayer: decodeLayer, bytesFromBase64: bytesFromBase64 };
})();
if (typeof module === 'object' && module.exports) module.exports = LaytranDecode;
