#!/usr/bin/env bash
# Builds the wheel and runs the whole test suite against every CPython the package
# claims (3.10 to 3.13), each in a fresh virtual environment with the [test] extra.
# The tests run from a copy of tests/ and benchmarks/ outside the source tree, so the
# installed wheel is what they import.
#
#   tools/matrix.sh                       # 3.10 3.11 3.12 3.13
#   tools/matrix.sh 3.12 3.13             # some of them
#   PYTHON3_12=/opt/py/bin/python3.12 tools/matrix.sh   # this interpreter for 3.12
#   MATRIX_KEEP=1 tools/matrix.sh         # keep the work directory (wheels, venvs, logs)
#
# An interpreter is found as $PYTHON3_X, else the newest $PYENV_ROOT/versions/3.X.N,
# else python3.X on PATH. One line per version, then the total:
#   3.12.1   ok       passed 229  failed 0  errors 0  skipped 8    95 s
# Exits non-zero when any version is missing, fails to build or fails a test; the
# tail of a failed version's log is printed.
set -uo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
if (($#)); then versions=("$@"); else versions=(3.10 3.11 3.12 3.13); fi
# Nothing from the caller's environment decides what the venvs import.
unset PYTHONPATH PYTHONHOME PYTHONSTARTUP PYTHONUSERBASE
export PIP_DISABLE_PIP_VERSION_CHECK=1 PIP_NO_INPUT=1 PYTHONDONTWRITEBYTECODE=1
build_timeout=${MATRIX_BUILD_TIMEOUT:-900}
test_timeout=${MATRIX_TEST_TIMEOUT:-1800}

work=$(mktemp -d "${TMPDIR:-/tmp}/health-matrix.XXXXXX")
if [ -n "${MATRIX_KEEP:-}" ]; then
  echo "work directory: $work"
else
  trap 'rm -rf "$work"' EXIT
fi

# The interpreter for version X.Y, checked to be that version.
find_python() {
  local v=$1 var="PYTHON${1/./_}" c
  local candidates=()
  if [ -n "${!var:-}" ]; then
    candidates=("${!var}")  # the one asked for, and nothing else
  else
    local root=${PYENV_ROOT:-$HOME/.pyenv}
    # Release builds only (3.13.0, not 3.13.0t or 3.13-dev), newest first.
    while IFS= read -r c; do
      candidates+=("$c/bin/python$v")
    done < <(ls -d "$root/versions/$v".* 2>/dev/null | grep -E "/$v\.[0-9]+$" | sort -V -r)
    c=$(command -v "python$v" 2>/dev/null) && candidates+=("$c")
  fi
  for c in "${candidates[@]}"; do
    if [ -x "$c" ] && "$c" -c "import sys; sys.exit('%d.%d' % sys.version_info[:2] != '$v')" 2>/dev/null; then
      echo "$c"
      return 0
    fi
  done
  return 1
}

# Counts "passed failed errors skipped" from a JUnit report.
counts() {
  "$1" - "$2" <<'EOF'
import sys
import xml.etree.ElementTree as ET

root = ET.parse(sys.argv[1]).getroot()
suite = root if root.tag == "testsuite" else root.find("testsuite")
tests, failed, errors, skipped = (int(suite.get(k, 0)) for k in ("tests", "failures", "errors", "skipped"))
print(tests - failed - errors - skipped, failed, errors, skipped)
EOF
}

results=()
failed=()
start_all=$SECONDS
for v in "${versions[@]}"; do
  dir="$work/$v"
  log="$dir/log"
  mkdir -p "$dir"
  if ! py=$(find_python "$v"); then
    results+=("$(printf '%-8s %-8s no python%s on this machine%s' "$v" missing "$v" \
      "$(var="PYTHON${v/./_}"; [ -n "${!var:-}" ] && echo " (\$$var is ${!var})")")")
    failed+=("$v (missing)")
    echo "${results[-1]}"
    continue
  fi
  full=$("$py" -c 'import platform; print(platform.python_version())')
  start=$SECONDS
  status=ok
  {
    echo "== $py ($full)"
    "$py" -m venv "$dir/venv" &&
      timeout "$build_timeout" "$dir/venv/bin/python" -m pip wheel "$top" --no-deps -w "$dir/dist" &&
      wheel=$(ls "$dir"/dist/*.whl) &&
      "$dir/venv/bin/python" -m pip install "${wheel}[test]" &&
      cp -r "$top/tests" "$top/benchmarks" "$dir/"
  } >"$log" 2>&1 || status=build
  if [ "$status" = ok ]; then
    (cd "$dir" && timeout "$test_timeout" "$dir/venv/bin/python" -m pytest tests -q -ra \
      -p no:cacheprovider --junitxml="$dir/junit.xml") >>"$log" 2>&1 || status=tests
  fi
  seconds=$((SECONDS - start))
  if [ -f "$dir/junit.xml" ] && read -r n_pass n_fail n_err n_skip < <(counts "$dir/venv/bin/python" "$dir/junit.xml"); then
    line=$(printf '%-8s %-8s passed %3d  failed %d  errors %d  skipped %d  %4d s' \
      "$full" "$([ "$status" = ok ] && echo ok || echo FAILED)" "$n_pass" "$n_fail" "$n_err" "$n_skip" "$seconds")
  else
    line=$(printf '%-8s %-8s %s  %4d s' "$full" FAILED \
      "$([ "$status" = build ] && echo "wheel build or install failed" || echo "no test report")" "$seconds")
  fi
  if [ "$status" != ok ]; then
    failed+=("$full ($status)")
    {
      echo "---- last lines of the $full log"
      tail -n 60 "$log"
      echo "----"
    } >&2
  fi
  results+=("$line")
  echo "$line"
done

echo "== matrix"
printf '%s\n' "${results[@]}"
echo "total $((SECONDS - start_all)) s"
if ((${#failed[@]})); then
  printf 'FAILED: %s\n' "${failed[@]}"
  exit 1
fi
echo "every version passed"
