"""Host code that runs inside an operation may do anything Python code may: clear or replace the tracker's
maps, delete the entry being processed, re-enter the tracker. The answer is then computed from what the
operation saw when it started, or an ordinary error; never a crash, a SystemError, a deadlock or a lock left
held. The seeded fuzzer (benchmarks/reentrancy_fuzz.py) runs in child processes, so a crash comes with its seed:
  REENTRANCY_SECONDS=90 REENTRANCY_SEED=123 tools/asan.sh tests/test_reentrancy.py
"""

import os
import subprocess
import sys
import sysconfig
import threading
import time
import types
from pathlib import Path
from typing import Any, Callable

import pytest

from conftest import (FIELDS, NOW, FakeClock, HostLock, HostToolState, HostUsage, MemDb, child_env, make_registry,
                      throw, tracker_over)
from ordanis_veltrane.tool_handlers import health

FUZZ = Path(__file__).parents[1] / "benchmarks" / "reentrancy_fuzz.py"
SECONDS = float(os.environ.get("REENTRANCY_SECONDS", "15"))  # the whole fuzz run, both modes
BASE_SEED = int(os.environ.get("REENTRANCY_SEED", "20240611"))
STALL_S, BATCH_S = 30, 300 + SECONDS  # no operation finished for 30 s, or a batch past 5 min: a hang
Boom = type("Boom", (Exception,), {})
NativeState, NativeUsage = health._ToolState, health._Usage


def batch_problem(done: subprocess.CompletedProcess[str] | None, stderr: str) -> str | None:
    if done is None:
        return "hang: killed at the subprocess timeout"
    if done.returncode < 0:
        return f"crash: signal {-done.returncode}"
    leaks_off = "detect_leaks=0" in os.environ.get("ASAN_OPTIONS", "")
    for marker in ("ERROR: AddressSanitizer", "runtime error:", *(() if leaks_off else ("LeakSanitizer",))):
        if marker in stderr:
            return f"sanitizer report ({marker})"
    if "Timeout (" in stderr:
        return "hang: the batch's watchdog fired (every thread's stack is below)"
    return None if done.returncode == 0 else f"exit status {done.returncode}"


def quiet_actions() -> list[str]:
    """Map churn from keys' hash/eq is left out where the interpreter's dict faults under it alone (3.13t)."""
    churn = [sys.executable, str(FUZZ.with_name("dict_churn.py")), "--runs", "12", "--first-fault"]
    faults = sysconfig.get_config_var("Py_GIL_DISABLED") and subprocess.run(churn, capture_output=True).returncode
    return ["--quiet-actions", "clear,replace,refill"] if faults else []


@pytest.mark.parametrize("mode", ["hostile", "counting"])
def test_fuzz_batches(tmp_path: Path, mode: str) -> None:
    """Seeded batches in child processes until this mode's half of REENTRANCY_SECONDS is spent (at least 2).
    The child inherits the environment (a sanitizer preload included), with the package under test first."""
    first = seed = BASE_SEED + (mode == "counting") * 10**6
    deadline, failures, quiet = time.monotonic() + SECONDS / 2, [], quiet_actions() if mode == "hostile" else []
    while seed - first < 2 or time.monotonic() < deadline:
        log = tmp_path / f"{seed}.log"
        command = [sys.executable, str(FUZZ), "--seed", str(seed), "--mode", mode, "--log", str(log),
                   "--stall", str(STALL_S), "--timeout", str(BATCH_S), *quiet]
        done: subprocess.CompletedProcess[str] | None = None
        try:
            done = subprocess.run(command, capture_output=True, text=True, timeout=BATCH_S + 30, env=child_env())
            stderr = done.stderr
        except subprocess.TimeoutExpired as expired:  # its output comes as bytes whatever text= says
            stderr = expired.stderr.decode(errors="replace") if isinstance(expired.stderr, bytes) else ""
        problem = batch_problem(done, stderr)
        if problem:
            lines = log.read_text(errors="replace").splitlines() if log.exists() else []
            last = sorted({line.split()[0]: line for line in lines if line.startswith("t")}.values())
            failed = [line for line in stderr.splitlines() if line.startswith("FAILURE")][:5]
            failures.append("\n  ".join([f"seed {seed}: {problem}", "rerun: " + " ".join(command[1:6]),
                                         "last call of each thread:", *last, "log tail:", *lines[-8:],
                                         "failures:", *failed, "stderr tail:", *stderr.splitlines()[-30:]]))
        seed += 1
    print(f"{mode}: {seed - first} batches from seed {first}, {len(failures)} failed", *quiet)
    assert not failures, f"{len(failures)} of {seed - first} batches failed\n" + "\n\n".join(failures[:3])


# ---------------------------------------------------------------------------------------------------------
# Each crash class alone, in process

@pytest.fixture
def env(monkeypatch: pytest.MonkeyPatch) -> FakeClock:
    monkeypatch.setattr(health, "TOOLS", make_registry({f"t{i}": ("a", "b") for i in range(8)}))
    monkeypatch.setattr(health, "time", clock := FakeClock())
    return clock


def outcome(fn: Callable[[], Any]) -> tuple[str, Any]:
    """("ok", answer) or ("error", the exception); a SystemError fails the test at once."""
    try:
        return "ok", fn()
    except SystemError:
        raise
    except Exception as error:
        return "error", error


def populated(db: Any = None, tools: int = 4) -> Any:
    t = tracker_over(db if db is not None else MemDb())
    for i in range(tools):
        t.record_success(f"t{i}")
        t.record_error(f"t{i}", "e" * i)
        t.record_call(f"t{i}", "a", "ok", alias_hit=i % 2 == 0, duration_ms=1.5)
        t.record_call(f"t{i}", "b", "ok", alias_hit=False, duration_ms=None)
    return t


def host_record(t: Any, name: str, read: Callable[[str, Any], Any]) -> None:
    """Puts a host record in place of `name`'s, marked, whose fields are read through read(field, value)."""
    values = {f: getattr(t._state[name], f) for f in FIELDS}
    t._state[name] = type("Host", (), {f: property(lambda self, f=f: read(f, values[f]),
                                                   lambda self, v, f=f: values.__setitem__(f, v)) for f in FIELDS})()
    t._dirty.add(name)


def still_works(t: Any) -> None:
    """Emptied, the tracker answers exactly, and its lock is free."""
    for field in ("_state", "_usage", "_dirty"):
        getattr(t, field).clear()
    t.record_success("t7")
    t.record_error("t7", "bad")
    t.record_call("t7", "a", "ok", alias_hit=False, duration_ms=2.0)
    assert [(r["tool_name"], r["call_count"], r["error_count"], len(r["usage"])) for r in t.get_health_summary()] \
        == [("t7", 2, 1, 1)]
    assert t.flush() == 2 and not t.has_unsaved_changes and not t._lock.locked()


def test_mixed_record_kinds_answer_like_host_records(env: FakeClock, monkeypatch: pytest.MonkeyPatch) -> None:
    """Native and host records side by side in both maps give every answer all-host records give."""
    def run(mixed: bool) -> list[Any]:
        env.now, db = NOW, MemDb()
        t = tracker_over(db)
        for i in range(6):  # every other tool and usage key made by the module's own record types
            monkeypatch.setattr(health, "_ToolState", NativeState if mixed and i % 2 else HostToolState)
            monkeypatch.setattr(health, "_Usage", NativeUsage if mixed and i % 2 == 0 else HostUsage)
            for _ in range(i % 4):
                t.record_error(f"t{i}", f"error {i}")
            if i % 3:
                t.record_success(f"t{i}")
            t.record_call(f"t{i}", "a", "ok", alias_hit=False, duration_ms=i * 1.25)
            t.record_call(f"t{i % 3}", None, "error", alias_hit=True, duration_ms=None)
            env.advance(10)
        answers = [t.is_disabled(f"t{i}") for i in range(7)] + [t.get_health_summary(), t._usage_rows("t1"), t.flush()]
        env.advance(100)
        return answers + [t.is_disabled("t3"), t.get_health_summary(), t.flush(), db.written]

    assert run(mixed=True) == run(mixed=False)


@pytest.mark.parametrize(("hook", "change", "operation"), [
    *[("key", "clear", op) for op in ("get_health_summary", "flush", "_usage_rows")],
    ("name", "clear", "get_health_summary"), ("is_slow_call", "delete", "get_health_summary"),
    ("_sqlite_time", "delete", "get_health_summary"), ("_sqlite_time", "delete", "flush"),
    *[("getter", "delete", op) for op in ("get_health_summary", "flush", "is_disabled", "record_error")]])
def test_callback_changes_the_maps_being_walked(env: FakeClock, monkeypatch: pytest.MonkeyPatch, hook: str,
                                                change: str, operation: str) -> None:
    """A usage key's __getitem__ or a tool name's __eq__ empties both maps, or is_slow_call, _sqlite_time or a
    record's own getter deletes the entry being processed (and with it the last reference to its record). The
    operation answers as an identical tracker whose callback stays quiet, or raises an ordinary error."""
    args = {"_usage_rows": ("t1",), "is_disabled": ("t0",), "record_error": ("t0", "x")}.get(operation, ())
    runs, pending = [], []

    def fire(*_: Any) -> None:
        if pending and pending.pop():
            if change == "clear":
                t._usage.clear()
                t._state.clear()
                return
            t._state.pop("t0", None)
            for key in [k for k in t._usage if k[0] == "t0" and operation != "flush"]:
                del t._usage[key]  # (a flush copies the usage map only after writing the health rows)

    if hook in ("is_slow_call", "_sqlite_time"):
        monkeypatch.setattr(health, hook, lambda *a, original=getattr(health, hook): fire() or original(*a))
    key_type = type("Key", (tuple,), {"__getitem__": lambda k, i: fire() or tuple.__getitem__(k, i)})
    name_type = type("Name", (str,), {"__eq__": lambda n, o: fire() or str.__eq__(n, o), "__hash__": str.__hash__})
    for armed in (False, True):
        env.now, db = NOW, MemDb()
        t, pending[:] = populated(db), [armed]
        if hook == "key":
            for i in range(3):
                t._usage[key_type((f"t{i}", "c", "ok", False))] = NativeUsage(2, 1, 3.0)
        elif hook == "name":  # compared with the records' names as the summary groups the usage rows
            t.record_call(name_type("t1"), "c", "ok", alias_hit=False, duration_ms=1.0)
        elif hook == "getter":
            host_record(t, "t0", lambda f, value: fire() or value)
        runs.append((*outcome(lambda: getattr(t, operation)(*args)), db.written))
    (_, expected, written), (kind, answer, written_now) = runs
    assert kind == "error" or (answer, written_now) == (expected, written)
    still_works(t)


@pytest.mark.parametrize(("field", "value"), [
    ("_state", 5), ("_state", {}.items()), ("_usage", []), ("_usage", type("D", (dict,), {})()), ("_dirty", {}),
    ("_dirty", frozenset()), ("_lock", object()), ("_lock", None), ("_state", {}), ("_usage", {}), ("_dirty", set()),
    ("_lock", threading.Lock()), ("_lock", HostLock())])
def test_field_assignment(env: FakeClock, field: str, value: Any) -> None:
    """A field assigned a value of its exact type (a lock: anything with acquire and release) is used from then
    on; any other value, and deletion, is refused and changes nothing."""
    t, HostLock.acquired = populated(), 0
    before, accepted = getattr(t, field), field == "_lock" and value is not None and hasattr(value, "acquire")
    accepted = accepted or type(value) is type(getattr(t, field))
    pytest.raises((TypeError, AttributeError), delattr, t, field)
    if accepted:
        setattr(t, field, value)
    else:
        pytest.raises((TypeError, AttributeError), setattr, t, field, value)
    assert getattr(t, field) is (value if accepted else before)
    t.record_success("t1")
    t.record_call("t1", "a", "ok", alias_hit=False, duration_ms=1.0)
    assert "t1" in t._state and "t1" in t._dirty and ("t1", "a", "ok", False) in t._usage
    assert HostLock.acquired == (2 if type(value) is HostLock else 0)
    still_works(t)


def test_failed_acquire_holds_nothing(env: FakeClock) -> None:
    """A lock whose acquire raises: the operation raises that error, and the tracker is not held afterwards."""
    t, t._lock = populated(), types.SimpleNamespace(acquire=lambda: throw(Boom("acquire")), release=lambda: None)
    pytest.raises(Boom, t.record_success, "t1")
    t._lock = threading.Lock()
    still_works(t)


@pytest.mark.parametrize("site", ["is_slow_call", "acquire", "release"])
@pytest.mark.parametrize("reentry", [
    lambda t: t.record_success("t1"), lambda t: t.is_disabled("t0"), lambda t: t.get_health_summary(),
    lambda t: t.flush(), lambda t: t.record_call("t1", "a", "ok", alias_hit=False, duration_ms=1.0),
    lambda t: t.has_unsaved_changes],
    ids=["record_success", "is_disabled", "get_health_summary", "flush", "record_call", "has_unsaved_changes"])
def test_reentry_under_the_lock_raises_runtime_error(env: FakeClock, monkeypatch: pytest.MonkeyPatch, site: str,
                                                     reentry: Callable[[Any], Any]) -> None:
    """From is_slow_call, or from a host lock's acquire or release, a locking operation of the same tracker
    raises RuntimeError at once instead of waiting for the lock its own thread holds."""
    monkeypatch.setattr(health, "threading", types.SimpleNamespace(Lock=HostLock))
    t, seen = populated(), list[tuple[str, Any]]()

    def strike() -> bool:  # re-enters once, from inside whatever holds the lock
        if not seen:
            seen.append(outcome(lambda: reentry(t)))
        return False
    monkeypatch.setattr(health, "is_slow_call", lambda tool, action: site == "is_slow_call" and strike())
    HostLock.site, HostLock.strike = ("" if site == "is_slow_call" else site), strike
    summary = threading.Thread(target=lambda: outcome(t.get_health_summary), daemon=True)
    summary.start()
    summary.join(10)
    assert not summary.is_alive(), "deadlock: the re-entered operation waits for the lock its own thread holds"
    assert seen and seen[0][0] == "error" and type(seen[0][1]) is RuntimeError, seen
    assert not t._lock.locked()
    still_works(t)


@pytest.mark.parametrize("field", ["call_count", "error_count", "last_error", "updated_at"])
@pytest.mark.parametrize("operation", ["flush", "get_health_summary"])
def test_raising_record_field_reaches_the_caller(env: FakeClock, operation: str, field: str) -> None:
    """A host record one of whose fields raises: the operation raises that error (no later field is read while
    it is pending), and a failed flush keeps its marks."""
    t = populated()
    t.flush()
    host_record(t, "t1", lambda f, value: value if f != field else throw(Boom(f)))
    pytest.raises(Boom, getattr(t, operation))
    assert t.has_unsaved_changes and not t._lock.locked()


def test_failed_write_puts_back_every_mark_it_can(env: FakeClock) -> None:
    """When the health write fails and one name's hash raises as the marks go back, the other names stay
    marked: one host object's failure costs no other tool its row."""
    class Name(str):
        armed = False  # set by the failing write: the next hash raises

        def __hash__(self) -> int:
            if Name.armed:
                Name.armed = False
                raise Boom("hash")
            return str.__hash__(self)
        __eq__ = str.__eq__

    def failing_write(sql: str, rows: Any) -> None:
        Name.armed = True
        raise Boom("write")
    db = MemDb()
    db.executemany = failing_write  # type: ignore[attr-defined]
    t = tracker_over(db)
    for name in (Name("a"), "b", "c"):
        t.record_success(name)
    pytest.raises(Boom, t.flush)
    assert {"b", "c"} <= t._dirty and t.has_unsaved_changes


@pytest.mark.parametrize("code", [
    # the module's __name__ deleted: a missing attribute's error is still made
    "del h.__name__\ndel h.TOOLS\ntry: h._known('x', None)\nexcept AttributeError as e: assert 'TOOLS' in str(e)",
    # a metaclass answering bytes for __qualname__: repr still text
    "M = type('M', (type,), {'__getattribute__': lambda c, n: b'q' if n == '__qualname__' else"
    " type.__getattribute__(c, n)})\nassert repr(M('R', (h._ToolState,), {})()).startswith(\"b'q'(\")",
    # a million records chained through last_error, then a chain of trackers through their repositories
    "import types\nr = h._ToolState()\nfor _ in range(10**6): r = h._ToolState(last_error=r)\ndel r\n"
    "h.logger = types.SimpleNamespace(warning=lambda *a: None)\nt = None\n"
    "for _ in range(10**5): t = h.ToolHealthTracker(t)\ndel t",
])
def test_once_crashing_host_code(code: str) -> None:
    """Code that crashed the interpreter once runs in a child, so a regression is a failed test, not a dead run."""
    done = subprocess.run([sys.executable, "-c", "from ordanis_veltrane.tool_handlers import health as h\n" + code],
                          capture_output=True, text=True, timeout=60, env=child_env())
    assert done.returncode == 0, done.stderr[-2000:]


def test_init_finishing_inside_init_leaves_the_fields_alone(env: FakeClock, monkeypatch: pytest.MonkeyPatch) -> None:
    """A second __init__ that completes while the first runs host code wins; the first is refused."""
    t = health.ToolHealthTracker.__new__(health.ToolHealthTracker)
    inner_limits = types.SimpleNamespace(disable_after_errors=1, disable_cooldown_s=5)
    monkeypatch.setattr(health, "ToolsConfig",  # the default ToolsConfig of the first call runs the second
                        lambda: health.ToolHealthTracker.__init__(t, types.SimpleNamespace(db=MemDb()), inner_limits))
    with pytest.raises(RuntimeError, match="already initialized"):
        health.ToolHealthTracker.__init__(t, types.SimpleNamespace(db=MemDb()))
    assert t.limits is inner_limits
    t.record_error("t1", "x")
    assert t.is_disabled("t1") == (True, "x")


@pytest.mark.parametrize(("trackers", "share_lock"), [(2, True), (16, False), (17, False)])
def test_nested_trackers_refuse_instead_of_deadlocking(monkeypatch: pytest.MonkeyPatch, trackers: int,
                                                       share_lock: bool) -> None:
    """Each tracker's clock runs the next tracker's record_success; the innermost re-enters the first."""
    ts, depth = [tracker_over(MemDb()) for _ in range(trackers)], [0]
    if share_lock:
        ts[1]._lock = ts[0]._lock

    def time() -> float:
        depth[0] += 1
        ts[depth[0] % trackers].record_success("x")
        return NOW
    monkeypatch.setattr(health, "time", types.SimpleNamespace(time=time))
    done: list[BaseException] = []
    worker = threading.Thread(target=lambda: done.append(pytest.raises(RuntimeError, ts[0].record_success, "x").value),
                              daemon=True)
    worker.start()
    worker.join(10)
    assert not worker.is_alive() and done, "deadlocked"
    assert not any(t._lock.locked() for t in ts)
