"""Isolated subinterpreters (CPython 3.12+): each interpreter has a module of its own, sessions in several of them
run at once under their own GILs, and the process still exits cleanly once they are destroyed."""

import json
import os
import subprocess
import sys
from pathlib import Path
from typing import Any

import pytest

pytestmark = pytest.mark.skipif(sys.version_info < (3, 12), reason="a GIL per interpreter needs CPython 3.12")

ROUNDS = 3000

# One interpreter's session. phase1 gives the module a registry of its own (the default tools plus one named after
# the interpreter), records, flushes and answers; phase2, once every interpreter has done so, reads what the
# module's registry holds and reloads a tracker from the file alone.
SESSION = r'''
from ordanis_veltrane.repository import Repository
from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.tool_registry import ToolRegistry, ToolSpec

def answer(tracker):
    return {r["tool_name"]: [r["call_count"], r["error_count"], r["last_error"],
                             sorted([u["action"], u["outcome"], u["alias_hit"], u["calls"]] for u in r["usage"])]
            for r in tracker.get_health_summary()}

def phase1(name, rounds, path):
    global repo
    own = "only_in_" + name
    health.TOOLS = ToolRegistry({**health.TOOLS.specs, own: ToolSpec(own)})
    repo = Repository(path)
    tracker = health.ToolHealthTracker(repo)
    for i in range(rounds):
        tool, failed = ("search", "read_file", own)[i % 3], i % 7 == 0
        assert tracker.is_disabled(tool) == (False, None)
        if failed:
            tracker.record_error(tool, f"{name} failure {i}")
        else:
            tracker.record_success(tool)
        tracker.record_call(tool, "text" if tool == "search" else None, "error" if failed else "ok",
                            alias_hit=i % 5 == 0, duration_ms=1.0)
        if i % 500 == 499:
            tracker.flush()
    tracker.flush()
    reports = [list(health.handle_get_tool_performance_stats()), list(health.thread_census_report(64))[-1]]
    return {"summary": answer(tracker), "reports": reports, "unsaved": tracker.has_unsaved_changes,
            "ids": [id(health), id(health.ToolHealthTracker), id(health._ToolState)]}

def phase2():
    return {"tools": sorted(t for t in health.TOOLS if t.startswith("only_in_")),
            "reloaded": answer(health.ToolHealthTracker(repo))}
'''

# The child process: the main interpreter runs its own session while two isolated subinterpreters run theirs on
# two threads; after both are destroyed a third loads the module afresh. Prints every answer as JSON.
CHILD = r'''
import json, os, sqlite3, sys, threading
out, rounds, session = sys.argv[1], int(sys.argv[2]), sys.argv[3]
try:
    import _interpreters as xi  # 3.13+

    def create():
        interp = xi.create("isolated")
        config = xi.get_config(interp)
        assert config.gil == "own" and config.check_multi_interp_extensions and not config.use_main_obmalloc
        return interp

    def run(interp, code):
        failure = xi.exec(interp, code)
        if failure is not None:
            raise RuntimeError(getattr(failure, "formatted", failure))
except ImportError:
    import _xxsubinterpreters as xi  # 3.12

    def create():
        return xi.create(isolated=True)  # own GIL, own allocator, single-phase modules refused

    run = xi.run_string

if sys.version_info < (3, 12, 4):
    # CPython before 3.12.4 (gh-119213) keeps the keyword tuple of an extension function's argument parser in a
    # static, made by whichever interpreter first passes keywords and freed by the main one at exit. A
    # subinterpreter that calls sqlite3.connect(..., check_same_thread=False) first leaves it dangling and the
    # process aborts at exit. A first keyword call here makes the main interpreter its owner.
    sqlite3.connect(":memory:", check_same_thread=False).close()

answers, errors, barrier = {}, [], threading.Barrier(3)  # main, a and b meet between the phases


def run_phase(interp, name, phase):
    path = os.path.join(out, f"{name}-{phase}.json")
    call = f"phase1({name!r}, {rounds}, {os.path.join(out, name + '.db')!r})" if phase == 1 else "phase2()"
    run(interp, f"{session}\nimport json\nwith open({path!r}, 'w') as f:\n    json.dump({call}, f)\n")
    with open(path) as f:
        answers.setdefault(name, {})[f"phase{phase}"] = json.load(f)


def in_sub(name, meet):
    # One thread creates, runs and destroys its interpreter: on 3.12 destroying it from another thread than the
    # one that imported threading in it hangs in threading._shutdown.
    interp = None
    try:
        interp = create()
        for phase in (1, 2):
            if phase == 2 and meet:
                barrier.wait(120)
            run_phase(interp, name, phase)
    except BaseException as error:
        errors.append(f"{name}: {error}")
        barrier.abort()
    finally:
        if interp is not None:
            xi.destroy(interp)


main = {}
exec(session, main)
threads = [threading.Thread(target=in_sub, args=(name, True)) for name in ("a", "b")]
for thread in threads:
    thread.start()
answers["main"] = {"phase1": main["phase1"]("main", rounds, os.path.join(out, "main.db"))}
try:
    barrier.wait(120)
except threading.BrokenBarrierError:
    errors.append("main: a subinterpreter did not reach phase 2")
answers["main"]["phase2"] = main["phase2"]()
for thread in threads:
    thread.join()
in_sub("late", False)  # after those are destroyed, a new interpreter loads the module afresh
answers["main"]["last"] = main["phase2"]()  # the main interpreter's module, after the others are gone
print(json.dumps({"answers": answers, "errors": errors}))
'''


def expected(name: str, rounds: int) -> dict[str, Any]:
    """The summary that phase1 of `name` answers, computed from the same calls."""
    rows: dict[str, list[Any]] = {}
    for i in range(rounds):
        tool, failed = ("search", "read_file", "only_in_" + name)[i % 3], i % 7 == 0
        row = rows.setdefault(tool, [0, 0, None, {}])
        row[0] += 1
        if failed:
            row[1], row[2] = row[1] + 1, f"{name} failure {i}"
        key = ("text" if tool == "search" else None, "error" if failed else "ok", i % 5 == 0)
        row[3][key] = row[3].get(key, 0) + 1
    return {tool: [*row[:3], sorted([*key, calls] for key, calls in row[3].items())] for tool, row in rows.items()}


def test_sessions_in_isolated_subinterpreters(tmp_path: Path) -> None:
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path))  # the package this run imports, in every interpreter
    done = subprocess.run([sys.executable, "-c", CHILD, str(tmp_path), str(ROUNDS), SESSION], env=env,
                          capture_output=True, text=True, timeout=300)
    # An object that outlives or crosses its interpreter shows up as an abort at exit, after the answers.
    assert done.returncode == 0, f"exit status {done.returncode}\n{done.stdout[-2000:]}\n{done.stderr[-4000:]}"
    report = json.loads(done.stdout)
    assert report["errors"] == []
    answers = report["answers"]
    assert sorted(answers) == ["a", "b", "late", "main"]
    for name, phases in answers.items():
        first, second = phases["phase1"], phases["phase2"]
        assert first["summary"] == expected(name, ROUNDS), name
        assert first["reports"][0] == ["tools"] and first["reports"][1] in ("budget", "warning")
        assert first["unsaved"] is False
        # Each module sees only the registry its own interpreter gave it; its file holds its own session.
        assert second == {"tools": ["only_in_" + name], "reloaded": first["summary"]}, name
    assert answers["main"]["last"] == answers["main"]["phase2"]
    # Three modules alive at once: three module objects, three sets of types.
    ids = [i for name in ("main", "a", "b") for i in answers[name]["phase1"]["ids"]]
    assert len(set(ids)) == len(ids)
