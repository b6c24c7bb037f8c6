#!/usr/bin/env bash
# Runs the test suite against the extension built with AddressSanitizer and
# UndefinedBehaviorSanitizer, under the stock interpreter with the ASan runtime
# preloaded.
#
#   tools/asan.sh                          # the whole suite
#   tools/asan.sh tests/test_hostile.py -x # any pytest arguments
#
# The sanitized build goes to build/asan-<interpreter> and never into src/: the script copies the
# Python package into a temporary tree, puts the sanitized .so there and runs with
# only that tree on PYTHONPATH. A `PYTHONPATH=src pytest` running meanwhile keeps
# loading the normal build (which would fail to load the sanitized one without the
# preloaded runtime).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
# The real interpreter, not a wrapper script such as a pyenv shim: the preloaded
# runtime belongs in the Python process, not in a shell in front of it.
python=$("${PYTHON:-python3}" -c 'import sys; print(sys.executable)')
# One build tree per interpreter: the .so names differ by version, and a tree shared
# between versions would hold two of them.
build="$top/build/asan-$("$python" -c 'import sys, sysconfig; print(sys.implementation.cache_tag + ("t" if sysconfig.get_config_var("Py_GIL_DISABLED") else ""))')"

# The same configuration as `HEALTH_SANITIZE=ON tools/dev-build.sh`, without its copy into src/.
cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=${BUILD_TYPE:-RelWithDebInfo} \
  -DHEALTH_SANITIZE=ON -DPython_EXECUTABLE="$(command -v "${PYTHON:-python3}")" >/dev/null
cmake --build "$build"
so=$(ls "$build"/health*.so)
# The sanitizer runtimes of the compiler that built it.
cxx=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$build/CMakeCache.txt")

tree=$(mktemp -d "${TMPDIR:-/tmp}/health-asan.XXXXXX")
trap 'rm -rf "$tree"' EXIT
cp -r "$top/src/ordanis_veltrane" "$tree/"
find "$tree" \( -name '*.so' -o -name '__pycache__' \) -prune -exec rm -rf {} +
cp "$so" "$tree/ordanis_veltrane/tool_handlers/"

# Hypothesis' per-example deadline measures the sanitizer's overhead, not the
# code: lift it (examples and everything else stay as the tests set them).
cat >"$tree/health_asan_profile.py" <<'EOF'
from hypothesis import settings

settings.register_profile("asan", deadline=None)
settings.load_profile("asan")
EOF

runtime() {
  local lib
  lib=$("$cxx" -print-file-name="$1")
  [ -e "$lib" ] || { echo "asan.sh: $1 not found for $cxx" >&2; exit 2; }
  readlink -f "$lib"
}
# libasan must be the first library of the process. libstdc++ is preloaded too so
# that ASan's interceptor of __cxa_throw finds the real one when the process starts
# (a C++ exception thrown in the module would otherwise hit a failed CHECK).
export LD_PRELOAD="$(runtime libasan.so) $(runtime libstdc++.so)"
# Every Python object from malloc: the interpreter's small-object allocator would
# hide an overflow or a use after free of a Python object inside its own arenas. A
# free-threaded build allocates objects with mimalloc only; its debug hooks (guard bytes,
# freed memory overwritten) are the nearest it offers.
if PYTHONMALLOC=malloc "$python" -c '' 2>/dev/null; then
  export PYTHONMALLOC=malloc
else
  export PYTHONMALLOC=mimalloc_debug
fi
# detect_leaks=0: the interpreter deliberately does not free its modules, types and
# interned objects at exit, so LeakSanitizer would report thousands of blocks that
# are not ours. The module's reference leaks are checked by tests/test_leaks.py
# (on the normal build, see tools/reliability.sh) instead.
export ASAN_OPTIONS="detect_leaks=0:halt_on_error=1:abort_on_error=1:check_initialization_order=1:strict_init_order=1:detect_stack_use_after_return=1:print_summary=1"
# The build already stops at the first finding (-fno-sanitize-recover=undefined);
# this prints where it was.
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
export PYTHONPATH="$tree"
export PYTHONDONTWRITEBYTECODE=1

cd "$top"
"$python" - "$tree" <<'EOF'
import sys
from ordanis_veltrane.tool_handlers import health
assert health.__file__.startswith(sys.argv[1]), f"not the sanitized build: {health.__file__}"
print(f"sanitized build: {health.__file__}")
EOF
status=0
"$python" -m pytest -p health_asan_profile -p no:cacheprovider -q "${@:-tests}" || status=$?
exit $status
