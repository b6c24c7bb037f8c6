"""Does this interpreter's dict survive keys whose __hash__ and __eq__ empty and refill it from several threads?

Plain Python, without the health module: four threads look up, insert and walk two shared dicts with str and
tuple subclasses as keys, and those keys' __hash__ and __eq__ sometimes clear a dict, replace it by a new one
or refill it, as a hostile host's keys may do to the tracker's maps while it looks them up. Each run is a
child process; a run that dies by a signal is an interpreter fault. On a free-threaded CPython 3.13.15 most runs die, with or without
PYTHON_GIL=1 (the heap's free lists are found corrupt in mimalloc); on the builds with the GIL none does.
The re-entrancy tests leave the fuzzer's callbacks that do this ("clear", "replace", "refill") out on an
interpreter where it faults.

  python benchmarks/dict_churn.py [--runs 20] [--first-fault]     exit status 1 when any run faulted
"""
from __future__ import annotations

import argparse
import gc
import random
import subprocess
import sys
import threading
from typing import Any

MAPS: list[dict[Any, Any]] = [{}, {}]
MARKED: set[Any] = set()
NAMES = "abcdefgh"
local = threading.local()


def churn() -> None:
    """From inside a key's hash or eq: sometimes empty a shared dict, replace it by a new one or refill it
    (whose keys' hash and eq may churn again, three deep), and now and then collect."""
    rng: random.Random = local.rng
    depth = getattr(local, "depth", 0)
    if depth > 3 or rng.random() > 0.3:
        return
    local.depth = depth + 1
    try:
        slot = rng.randrange(len(MAPS))
        step = rng.random()
        if step < 0.3:
            MAPS[slot].clear()
        elif step < 0.5:
            MAPS[slot] = {}
        else:
            target = MAPS[slot]
            for _ in range(rng.randint(1, 5)):
                target[key(rng)] = [1, 2]
        if rng.random() < 0.02:
            gc.collect(0)
    finally:
        local.depth = depth


class Churning:
    """A key type's hash and eq, which churn the shared dicts before answering as the base type does."""

    def __hash__(self) -> int:
        churn()
        return super().__hash__()

    def __eq__(self, other: object) -> bool:
        churn()
        return super().__eq__(other)


class HookedStr(Churning, str):
    pass


class HookedTuple(Churning, tuple):  # type: ignore[type-arg]
    pass


def key(rng: random.Random) -> Any:
    name = rng.choice(NAMES)
    return HookedStr(name) if rng.random() < 0.4 else name


def worker(seed: int, operations: int) -> None:
    """Looks keys up, inserts them, marks them in a set and walks the marks, as the tracker does."""
    local.rng = rng = random.Random(seed)
    for _ in range(operations):
        target = rng.choice(MAPS)
        k = key(rng) if rng.random() < 0.7 else HookedTuple((key(rng), "x"))
        step = rng.random()
        if step < 0.4:
            if target.get(k) is None:
                target.setdefault(k, [0, 0])
        elif step < 0.6:
            MARKED.add(k)
        elif step < 0.8:
            list(target.items())
            names = list(MARKED)
            MARKED.clear()
            for name in names:
                target.get(name)
        else:
            target[k] = [1]


def churn_once(seed: int, operations: int) -> None:
    threads = [threading.Thread(target=worker, args=(seed * 10 + i, operations)) for i in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(description=(__doc__ or "").split("\n\n")[0])
    parser.add_argument("--runs", type=int, default=20)
    parser.add_argument("--operations", type=int, default=3000, help="per thread and run")
    parser.add_argument("--first-fault", action="store_true", help="stop at the first run that faults")
    parser.add_argument("--child", type=int, help=argparse.SUPPRESS)
    args = parser.parse_args(argv)
    if args.child is not None:
        sys.setswitchinterval(1e-6)
        churn_once(args.child, args.operations)
        return 0
    faults = runs = 0
    for seed in range(1, args.runs + 1):
        runs += 1
        try:
            done = subprocess.run([sys.executable, __file__, "--child", str(seed), "--operations",
                                   str(args.operations)], capture_output=True, timeout=120)
            faulted = done.returncode < 0
        except subprocess.TimeoutExpired:  # a corrupt free list can also loop forever
            faulted = True
        faults += faulted
        if faulted and args.first_fault:
            break
    print(f"dict churn: {faults} of {runs} runs faulted on {sys.version.split()[0]}"
          f"{' (free-threaded)' if not getattr(sys, '_is_gil_enabled', lambda: True)() else ''}")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
