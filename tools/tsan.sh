#!/usr/bin/env bash
# Runs a command against the extension built with ThreadSanitizer, under a free-threaded
# CPython that was itself built with ThreadSanitizer (../shared/python/freethreaded.sh with
# TSAN=1, made here if missing: about 5 minutes the first time), with the GIL off.
#
#   tools/tsan.sh                                      # stress, syncs under calls, the re-entrancy fuzzer, briefly
#   tools/tsan.sh benchmarks/stress.py --calls 200000  # any Python command line
#
# A data race that TSan reports in the module fails the run (exit 66). The interpreter's own
# known reports are silenced with CPython's suppression list for the free-threaded build,
# taken from the same source tarball the interpreter was built from.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
shared=${SHARED:-$top/../shared}
python=${TSAN_PYTHON:-$(TSAN=1 "$shared/python/freethreaded.sh" | tail -n 1)}
build="$top/build/tsan-$("$python" -c 'import sys, sysconfig; print(sys.implementation.cache_tag + ("t" if sysconfig.get_config_var("Py_GIL_DISABLED") else ""))')"

cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DHEALTH_SANITIZE=thread -DPython_EXECUTABLE="$python" >/dev/null
cmake --build "$build"
so=$(ls "$build"/health*.so)

tree=$(mktemp -d "${TMPDIR:-/tmp}/health-tsan.XXXXXX")
trap 'rm -rf "$tree"' EXIT
cp -r "$top/src/ordanis_veltrane" "$tree/"
find "$tree" \( -name '*.so' -o -name '__pycache__' \) -prune -exec rm -rf {} +
cp "$so" "$tree/ordanis_veltrane/tool_handlers/"
suppressions="$build/suppressions_free_threading.txt"
if [ ! -f "$suppressions" ]; then
  tar -xOf "$shared/python/python3.13_3.13.15.orig.tar.xz" \
    Python-3.13.15/Tools/tsan/suppressions_free_threading.txt >"$suppressions"
fi

export TSAN_OPTIONS="suppressions=$suppressions halt_on_error=1 exitcode=66 second_deadlock_stack=1"
export PYTHONPATH="$tree" PYTHONDONTWRITEBYTECODE=1
cd "$top"
"$python" -c 'import sys; from ordanis_veltrane.tool_handlers import health; assert not sys._is_gil_enabled(); print("tsan build:", health.__file__)'
if (($#)); then
  exec "$python" "$@"
fi
"$python" benchmarks/stress.py --calls 100000 --threads 4
# Calls on four threads while a fifth syncs with a SQLite store: the change sets taken and applied.
"$python" benchmarks/sync_race.py --threads 4 --calls 5000
# The hostile batches leave out the callbacks that empty, replace or refill the maps from inside
# a key's hash or eq: the 3.13t dict corrupts its heap under that churn alone (benchmarks/dict_churn.py).
for seed in 1 2 3 4; do
  "$python" benchmarks/reentrancy_fuzz.py --seed "$seed" --mode counting --threads 4 --ops 200
  "$python" benchmarks/reentrancy_fuzz.py --seed "$seed" --mode hostile --threads 4 --ops 200 \
    --quiet-actions clear,replace,refill
done
echo "no data race reported"
