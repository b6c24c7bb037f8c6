"""Instructions per call of the four hot operations, counted by callgrind.

    PYTHONPATH=src python tools/hotpath_instructions.py            # table
    PYTHONPATH=src python tools/hotpath_instructions.py --json     # JSON

Each operation runs N times on a warm tracker under `valgrind --tool=callgrind`;
the same script with N = 0 is subtracted, so the figure is the loop plus the
call, per call. Instruction counts do not depend on the machine's load, so two
builds are compared by them rather than by time.
"""
from __future__ import annotations

import argparse
import json
import os
import re
import subprocess
import sys
import tempfile

CALLS = 100_000

BODY = r"""
import sys, tempfile, os
from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.repository import Repository
from ordanis_veltrane.tool_handlers.health import ToolHealthTracker

path = os.path.join(tempfile.mkdtemp(), "h.db")
t = ToolHealthTracker(Repository(path), ToolsConfig(disable_after_errors=10**9))
t.record_success("search")
t.record_error("search", "boom")
t.record_call("search", "text", "ok", alias_hit=False, duration_ms=1.5)
n = int(sys.argv[2])
op = sys.argv[1]
if op == "is_disabled":
    f = t.is_disabled
    for _ in range(n):
        f("search")
elif op == "record_success":
    f = t.record_success
    for _ in range(n):
        f("search")
elif op == "record_error":
    f = t.record_error
    for _ in range(n):
        f("search", "boom")
elif op == "record_call":
    f = t.record_call
    for _ in range(n):
        f("search", "text", "ok", alias_hit=False, duration_ms=1.5)
"""

OPS = ("is_disabled", "record_success", "record_error", "record_call")


def instructions(script: str, op: str, n: int) -> int:
    with tempfile.TemporaryDirectory() as tmp:
        out = os.path.join(tmp, "cg.out")
        env = dict(os.environ, PYTHONHASHSEED="0")
        proc = subprocess.run(
            ["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}", sys.executable, script, op, str(n)],
            env=env,
            capture_output=True,
            text=True,
        )
        if proc.returncode != 0:
            raise SystemExit(f"callgrind failed for {op}:\n{proc.stderr[-2000:]}")
        match = re.search(r"Collected : (\d+)", proc.stderr)
        if match is None:
            raise SystemExit(f"no instruction count in callgrind's output for {op}")
        return int(match.group(1))


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--calls", type=int, default=CALLS)
    parser.add_argument("--json", action="store_true")
    parser.add_argument("ops", nargs="*", default=list(OPS))
    args = parser.parse_args()
    with tempfile.NamedTemporaryFile("w", suffix=".py", delete=False) as f:
        f.write(BODY)
        script = f.name
    try:
        result = {}
        for op in args.ops:
            total = instructions(script, op, args.calls)
            base = instructions(script, op, 0)
            result[op] = round((total - base) / args.calls)
    finally:
        os.unlink(script)
    if args.json:
        print(json.dumps(result))
    else:
        for op, per_call in result.items():
            print(f"{op:16s} {per_call:6d} instructions per call")


if __name__ == "__main__":
    main()
