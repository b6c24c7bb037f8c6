#!/usr/bin/env bash
# Builds the extension in place for development: build/dev (or build/asan with
# HEALTH_SANITIZE=ON) and copies it next to the Python sources, so that
# `PYTHONPATH=src python -m pytest` runs against it.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
sanitize=${HEALTH_SANITIZE:-OFF}
kind=$([ "$sanitize" = ON ] && echo asan || echo dev)
build="$top/build/$kind"
python=${PYTHON:-python3}
cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=${BUILD_TYPE:-RelWithDebInfo} \
  -DHEALTH_SANITIZE="$sanitize" -DPython_EXECUTABLE="$(command -v "$python")" >/dev/null
cmake --build "$build"
so=$(ls "$build"/health*.so)
dest="$top/src/ordanis_veltrane/tool_handlers/$(basename "$so")"
cp "$so" "$dest.tmp" && mv "$dest.tmp" "$dest"
echo "built $dest"
