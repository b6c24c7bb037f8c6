#!/usr/bin/env bash
# The reliability checks that CI runs (about 6 minutes on 2 cores):
#   1. the whole test suite against the extension built with AddressSanitizer and
#      UndefinedBehaviorSanitizer (tools/asan.sh), then the re-entrancy fuzzer under the
#      same build for REENTRANCY_SECONDS (default 90);
#   2. on the normal build: the reference-leak check (it counts the interpreter's own
#      allocator's blocks, which the sanitizer run replaces by malloc), the short
#      stress and the fault injection across restarts;
#   3. the full stress (benchmarks/stress.py: 8 threads, 1,000,000 calls; 10 to 30 s).
# Every stage runs; the script exits non-zero when any of them failed.
set -uo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
python=${PYTHON:-python3}
cd "$top"
failed=()

stage() {
  local name=$1
  shift
  echo "== $name"
  "$@" || failed+=("$name")
}

stage "test suite under ASan + UBSan" tools/asan.sh
# The re-entrancy fuzzer for longer than the suite's short run: seeded batches of hostile
# host objects on every path, each in a child process under the sanitizers.
stage "re-entrancy fuzzer under ASan + UBSan (${REENTRANCY_SECONDS:=90} s)" \
  env REENTRANCY_SECONDS="$REENTRANCY_SECONDS" tools/asan.sh tests/test_reentrancy.py -k fuzz -s
if tools/dev-build.sh; then
  stage "leaks, short stress, restarts" env PYTHONPATH=src "$python" -m pytest -p no:cacheprovider -q -s \
    tests/test_leaks.py tests/test_stress.py tests/test_restarts.py
  stage "full stress" env PYTHONPATH=src "$python" benchmarks/stress.py
else
  failed+=("normal build")
fi

if ((${#failed[@]})); then
  printf 'FAILED: %s\n' "${failed[@]}"
  exit 1
fi
echo "all reliability checks passed"
