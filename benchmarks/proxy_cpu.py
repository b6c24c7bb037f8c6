"""CPU time the proxy's own process spends per tool call, against a downstream that answers at once
(``tests/raw_downstream.py``): the relay's cost without the waiting that dominates latencies on a busy machine.

    python benchmarks/proxy_cpu.py [--calls 3000] [--rounds 3] [--profile FILE]
    python benchmarks/proxy_cpu.py --callgrind [--calls 500]

Linux only (reads /proc). Each round starts a proxy, makes ``--calls`` calls one by one over its stdio and
prints the proxy's user+system CPU microseconds per call and the wall microseconds per call.

``--callgrind`` counts instructions instead, which the machine's other work does not move: the proxy runs under
valgrind's callgrind twice, for 50 calls and for 50 + ``--calls``, and the difference of the two totals, divided
by ``--calls``, is what one more call costs (start-up and shutdown cancel out). Needs valgrind.
"""
from __future__ import annotations

import argparse
import json
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import Sequence

ROOT = Path(__file__).resolve().parents[1]


def cpu_seconds(pid: int) -> float:
    fields = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def one_round(calls: int, profile: str | None, warmup: int = 200, wrapper: Sequence[str] = (),
              flags: Sequence[str] = ()) -> tuple[float, float]:
    db = Path(tempfile.mkdtemp(prefix="proxy-cpu-")) / "health.db"
    profiling = ["-m", "cProfile", "-o", profile] if profile else []
    proc = subprocess.Popen(
        [*wrapper, sys.executable, *profiling, "-m", "ordanis_veltrane.mcp_proxy", "--db", str(db),
         "--init-timeout", "60", *flags, "--", sys.executable, str(ROOT / "tests" / "raw_downstream.py")],
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0)
    assert proc.stdin is not None and proc.stdout is not None
    out = proc.stdout

    def ask(message: dict[str, object]) -> None:
        assert proc.stdin is not None
        proc.stdin.write(json.dumps(message).encode() + b"\n")

    def answer(request_id: int) -> None:
        while True:
            line = out.readline()
            if not line:
                raise RuntimeError("the proxy ended")
            if json.loads(line).get("id") == request_id:
                return

    ask({"jsonrpc": "2.0", "id": 0, "method": "initialize", "params": {
        "protocolVersion": "2025-06-18", "capabilities": {}, "clientInfo": {"name": "cpu", "version": "1"}}})
    answer(0)
    ask({"jsonrpc": "2.0", "method": "notifications/initialized"})
    ask({"jsonrpc": "2.0", "id": 1, "method": "tools/list"})
    answer(1)
    call = {"jsonrpc": "2.0", "method": "tools/call", "params": {"name": "echo", "arguments": {"x": 1}}}
    for n in range(2, 2 + warmup):  # warm-up
        ask({**call, "id": n})
        answer(n)
    used, started = cpu_seconds(proc.pid), time.perf_counter()
    for n in range(1000, 1000 + calls):
        ask({**call, "id": n})
        answer(n)
    wall, cpu = time.perf_counter() - started, cpu_seconds(proc.pid) - used
    proc.stdin.close()
    proc.wait(300)
    return cpu / calls * 1e6, wall / calls * 1e6


def instructions(calls: int) -> float:
    """Instructions the proxy's process executes for ``calls`` calls (callgrind's total, every thread)."""
    out = Path(tempfile.mkdtemp(prefix="proxy-callgrind-"))
    # Health written at the end only: a periodic write would count once per so many seconds, not per call.
    one_round(calls, None, warmup=0, flags=["--flush-interval", "0"], wrapper=[
        "valgrind", "--tool=callgrind", f"--callgrind-out-file={out}/callgrind.out", "-q"])
    for line in (out / "callgrind.out").read_text().splitlines():
        if line.startswith("totals:") or line.startswith("summary:"):
            return float(line.split()[1])
    raise RuntimeError("callgrind wrote no totals")


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--calls", type=int, default=3000)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--profile", metavar="FILE", help="run the proxy under cProfile, its stats written to FILE")
    parser.add_argument("--callgrind", action="store_true", help="count the proxy's instructions per call")
    args = parser.parse_args()
    if args.callgrind:
        base = instructions(50)
        print(f"proxy instructions per call: {(instructions(50 + args.calls) - base) / args.calls:,.0f}")
        return
    for _ in range(args.rounds):
        cpu, wall = one_round(args.calls, args.profile)
        print(f"proxy CPU {cpu:7.0f} us/call   wall {wall:7.0f} us/call   load {os.getloadavg()[0]:.2f}")


if __name__ == "__main__":
    main()
