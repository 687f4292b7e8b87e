#!/usr/bin/env bash
# How fast the layer viewer is written and opens, on generated models of
# MB megabytes of binary-CLI points (8 bytes a point): one with many small
# layers, one with few large ones. Needs node and chromium.
#   bench/view.sh [megabytes]      (default 100)
set -euo pipefail
cd "$(dirname "$0")/.."
mb=${1:-100}
cmake -S . -B build-bench-view -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build-bench-view --target view_fixture >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
browser=$(command -v chromium || command -v chromium-browser)
for layers in 1000 20; do
  echo "== $mb MB of points in $layers layers"
  /usr/bin/time -f "writer peak RSS: %M KiB" \
    ./build-bench-view/tests/viewer/view_fixture --big "$mb" "$layers" "$work/view.html"
  # firstLayerMs: navigation to the first layer drawn; stepMs: each arrow
  # key to the next layer drawn; timings: the page's own decode/build/draw.
  node tests/viewer/browser_test.js "$browser" --measure "$work/view.html"
done
