#!/usr/bin/env bash
# Builds the extension in place for development: build/dev-<interpreter> (or
# build/asan-<interpreter> with HEALTH_SANITIZE=ON) and copies it next to the Python
# sources, so that `PYTHONPATH=src python -m pytest` runs against it. One build tree per
# interpreter, so that switching PYTHON never mixes two versions' objects in one tree.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
sanitize=${HEALTH_SANITIZE:-OFF}
kind=$([ "$sanitize" = ON ] && echo asan || echo dev)
python=${PYTHON:-python3}
tag=$("$python" -c 'import sys, sysconfig; print(sys.implementation.cache_tag + ("t" if sysconfig.get_config_var("Py_GIL_DISABLED") else ""))')
build="$top/build/$kind-$tag"
cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=${BUILD_TYPE:-RelWithDebInfo} \
  -DHEALTH_SANITIZE="$sanitize" -DPython_EXECUTABLE="$(command -v "$python")" >/dev/null
cmake --build "$build"
so=$(ls "$build"/health*.so)
dest="$top/src/ordanis_veltrane/tool_handlers/$(basename "$so")"
cp "$so" "$dest.tmp" && mv "$dest.tmp" "$dest"
echo "built $dest"
