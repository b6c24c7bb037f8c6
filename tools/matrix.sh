#!/usr/bin/env bash
# Builds the wheel and runs the whole test suite against every CPython the package
# claims (3.10 to 3.14, and the free-threaded 3.13t), each in a fresh virtual environment
# with the [test,mcp] extras. The tests run from a copy of tests/ and benchmarks/ outside
# the source tree, so the installed wheel is what they import.
#
#   tools/matrix.sh                       # 3.10 3.11 3.12 3.13 3.14 3.13t
#   tools/matrix.sh 3.12 3.13t            # some of them
#   PYTHON3_12=/opt/py/bin/python3.12 tools/matrix.sh   # this interpreter for 3.12
#   MATRIX_KEEP=1 tools/matrix.sh         # keep the work directory (wheels, venvs, logs)
#   MATRIX_WHEELS=dist tools/matrix.sh    # test the wheels of tools/build-wheels.sh instead
#
# With MATRIX_WHEELS nothing is built: each version's manylinux wheel for this machine's
# architecture is installed with --only-binary :all: (and so are the extras), and pip and the
# suite run with a PATH on which no C or C++ compiler can be found (checked with
# `command -v cc c++ gcc g++`, which must find nothing): the install needs no compiler.
#
# An interpreter is found as $PYTHON3_X, else the newest $PYENV_ROOT/versions/3.X.N,
# else python3.X on PATH. Two come from ../shared/python (SHARED overrides the folder):
#   3.14   Debian's CPython 3.14 in a root of its own (py314.sh; ROOT314, default
#          /opt/sid-py314): the build and the suite run inside that root;
#   3.13t  CPython 3.13 built with --disable-gil (freethreaded.sh), with the GIL off: nothing
#          sets PYTHON_GIL. Its test tools are binary wheels only (--only-binary :all:), and
#          without the mcp extra, whose dependencies have no such wheels.
# One line per version, then the total:
#   3.12.1   ok       passed 229  failed 0  errors 0  skipped 8    95 s
# Exits non-zero when any version is missing, fails to build or fails a test; the
# tail of a failed version's log is printed.
set -uo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
if (($#)); then versions=("$@"); else versions=(3.10 3.11 3.12 3.13 3.14 3.13t); fi
shared=${SHARED:-$top/../shared}
# Nothing from the caller's environment decides what the venvs import, nor turns the GIL on.
unset PYTHONPATH PYTHONHOME PYTHONSTARTUP PYTHONUSERBASE PYTHON_GIL
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
  if [ "$1" = 3.13t ]; then
    "$shared/python/freethreaded.sh" 2>>"$work/freethreaded.log" | tail -n 1
    return "${PIPESTATUS[0]}"
  fi
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

# A folder of links to every program on the usual PATH but the C and C++ compilers and linkers;
# $1/bin is what PATH holds in wheel mode. The same text runs inside the 3.14 root.
no_compiler_fn='no_compiler_path() {
  local d f n
  mkdir -p "$1/bin"
  for d in /usr/local/bin /usr/bin /bin /usr/local/sbin /usr/sbin /sbin; do
    for f in "$d"/*; do
      [ -e "$f" ] || continue
      n=${f##*/}
      case $n in
        cc|c++|gcc|g++|cpp|c89|c99|tcc|zig|ld|ld.*|clang*|*-cc|*-c++|*-gcc|*-g++|*-gcc-[0-9]*|*-g++-[0-9]*|gcc-[0-9]*|g++-[0-9]*|*-cpp|*-cpp-[0-9]*|cpp-[0-9]*|*-ld|*-ld.*) continue;;
      esac
      [ -e "$1/bin/$n" ] || ln -s "$f" "$1/bin/$n"
    done
  done
  if found=$(PATH="$1/bin" command -v cc c++ gcc g++); then echo "a compiler is on PATH: $found"; return 1; fi
  echo "no compiler on PATH: command -v cc c++ gcc g++ finds nothing"
}'
eval "$no_compiler_fn"
wheels=${MATRIX_WHEELS:+$(cd "$MATRIX_WHEELS" && pwd)}
# The wheel of version $1 for this machine.
pick_wheel() {
  local t=${1/./} abi
  t=${t%t}; abi="cp$t$([[ $1 == *t ]] && echo t)"
  ls "$wheels"/*-"cp$t-$abi"-*manylinux*"$(uname -m)".whl 2>/dev/null | head -n 1
}

results=()
failed=()
start_all=$SECONDS
for v in "${versions[@]}"; do
  dir="$work/$v"
  log="$dir/log"
  mkdir -p "$dir"
  start=$SECONDS
  status=ok
  if [ "$v" = 3.14 ]; then
    # Inside the root: a copy of the tree, its own venv, wheel and suite; the report comes back.
    root=${ROOT314:-/opt/sid-py314}
    if ! "$shared/python/py314.sh" setup "$root" >"$log" 2>&1; then
      results+=("$(printf '%-8s %-8s the CPython 3.14 root could not be made (%s)' "$v" missing "$root")")
      failed+=("$v (missing)")
      echo "${results[-1]}"
      tail -n 20 "$log" >&2
      continue
    fi
    full=$(chroot "$root" python3.14 -c 'import platform; print(platform.python_version())')
    if [ -n "$wheels" ]; then
      # The wheel goes in beside the tree; pip and the suite see no compiler.
      rm -rf "$root/tmp/dist" && mkdir -p "$root/tmp/dist"
      w=$(pick_wheel 3.14) && [ -n "$w" ] && cp "$w" "$root/tmp/dist/" || echo "no 3.14 wheel in $wheels" >"$log"
      get='no_compiler_path /tmp/nocc && export PATH=/tmp/venv/bin:/tmp/nocc/bin
      /tmp/venv/bin/python -m pip install --only-binary :all: "$(ls /tmp/dist/*.whl)[test,mcp]"'
    else
      get='/tmp/venv/bin/python -m pip wheel . --no-deps -w /tmp/dist
      /tmp/venv/bin/python -m pip install "$(ls /tmp/dist/*.whl)[test,mcp]"'
    fi
    "$shared/python/py314.sh" run "$root" "$top" "$no_compiler_fn"'
      set -e
      rm -rf /tmp/venv /tmp/suite /tmp/nocc
      '"$([ -n "$wheels" ] || echo 'rm -rf /tmp/dist')"'
      python3.14 -m venv /tmp/venv
      '"$get"'
      mkdir -p /tmp/suite && cp -r tests benchmarks /tmp/suite/
      touch /work/project/.built
      cd /tmp/suite && timeout '"$test_timeout"' /tmp/venv/bin/python -m pytest tests -q -ra \
        -p no:cacheprovider --junitxml=/work/project/junit.xml' >>"$log" 2>&1 || status=tests
    [ -f "$root/work/project/.built" ] || status=build
    [ -f "$root/work/project/junit.xml" ] && cp "$root/work/project/junit.xml" "$dir/junit.xml"
    reporter=$(command -v python3)
  else
    if ! py=$(find_python "$v") || [ -z "$py" ]; then
      results+=("$(printf '%-8s %-8s no python%s on this machine%s' "$v" missing "$v" \
        "$(var="PYTHON${v/./_}"; [ -n "${!var:-}" ] && echo " (\$$var is ${!var})")")")
      failed+=("$v (missing)")
      echo "${results[-1]}"
      continue
    fi
    full=$("$py" -c 'import platform, sys; print(platform.python_version() + ("t" if not getattr(sys, "_is_gil_enabled", lambda: True)() else ""))')
    if [ "$v" = 3.13t ]; then extras="[test]"; only=(--only-binary :all:); else extras="[test,mcp]"; only=(); fi
    path=$PATH
    {
      echo "== $py ($full)"
      "$py" -m venv "$dir/venv" &&
        if [ -n "$wheels" ]; then
          wheel=$(pick_wheel "$v") && [ -n "$wheel" ] && only=(--only-binary :all:) &&
            no_compiler_path "$dir/nocc" && path="$dir/venv/bin:$dir/nocc/bin"
        else
          timeout "$build_timeout" "$dir/venv/bin/python" -m pip wheel "$top" --no-deps -w "$dir/dist" &&
            wheel=$(ls "$dir"/dist/*.whl)
        fi &&
        echo "== installing $wheel" &&
        PATH=$path "$dir/venv/bin/python" -m pip install "${only[@]}" "${wheel}${extras}" &&
        cp -r "$top/tests" "$top/benchmarks" "$dir/"
    } >"$log" 2>&1 || status=build
    if [ "$status" = ok ]; then
      (cd "$dir" && PATH=$path timeout "$test_timeout" "$dir/venv/bin/python" -m pytest tests -q -ra \
        -p no:cacheprovider --junitxml="$dir/junit.xml") >>"$log" 2>&1 || status=tests
    fi
    reporter="$dir/venv/bin/python"
  fi
  seconds=$((SECONDS - start))
  if [ -f "$dir/junit.xml" ] && read -r n_pass n_fail n_err n_skip < <(counts "$reporter" "$dir/junit.xml"); then
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
