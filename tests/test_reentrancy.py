"""Host code that runs inside an operation may do anything Python code may: clear or replace the tracker's
maps, delete the entry being processed, re-enter the tracker. The answer is then computed from what the
operation saw when it started, or an ordinary error; never a crash, a SystemError, a deadlock or a lock left
held. The seeded fuzzer (benchmarks/reentrancy_fuzz.py) runs in child processes, so a crash comes with its seed:
  REENTRANCY_SECONDS=90 REENTRANCY_SEED=123 tools/asan.sh tests/test_reentrancy.py
"""

import functools
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

from conftest import NOW, FakeClock, HostToolState, HostUsage, MemDb, make_registry, tracker_over
from ordanis_veltrane.repository import Repository
from ordanis_veltrane.tool_handlers import health

FUZZ = Path(__file__).parents[1] / "benchmarks" / "reentrancy_fuzz.py"
CHURN = FUZZ.with_name("dict_churn.py")
SECONDS = float(os.environ.get("REENTRANCY_SECONDS", "15"))  # the whole fuzz run, both modes
BASE_SEED = int(os.environ.get("REENTRANCY_SEED", "20240611"))
STALL_S, BATCH_S = 30, 300 + SECONDS  # no operation finished for 30 s, or a batch past 5 min: a hang
Boom = type("Boom", (Exception,), {})
NativeState, NativeUsage = health._ToolState, health._Usage
FIELDS = ("call_count", "error_count", "last_error", "disabled_at", "updated_at", "consecutive_errors")


def child_env() -> dict[str, str]:
    """The environment as it is (a sanitizer preload included), with the package under test first."""
    return {**os.environ, "PYTHONPATH": os.pathsep.join([str(Path(health.__file__).parents[2]),
                                                         os.environ.get("PYTHONPATH", "")])}


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


@functools.lru_cache(maxsize=None)
def quiet_actions(mode: str) -> list[str]:
    """The fuzzer's callbacks that empty, replace or refill the tracker's maps from inside its keys' hash and eq,
    left out where the interpreter's own dict faults under that churn with no module loaded (the free-threaded
    3.13: benchmarks/dict_churn.py), since a crash there says nothing about the module."""
    if mode != "hostile" or not sysconfig.get_config_var("Py_GIL_DISABLED"):
        return []
    probe = subprocess.run([sys.executable, str(CHURN), "--runs", "12", "--first-fault"], capture_output=True,
                           text=True, timeout=1800)
    return ["--quiet-actions", "clear,replace,refill"] if probe.returncode else []


@pytest.mark.parametrize("mode", ["hostile", "counting"])
def test_fuzz_batches(tmp_path: Path, mode: str) -> None:
    """Seeded batches in child processes until this mode's half of REENTRANCY_SECONDS is spent (at least 2).
    The child inherits the environment (a sanitizer preload included), with the package under test first."""
    env = child_env()
    first = seed = BASE_SEED + (mode == "counting") * 10**6
    deadline, failures = time.monotonic() + SECONDS / 2, []
    while seed - first < 2 or time.monotonic() < deadline:
        log = tmp_path / f"{seed}.log"
        command = [sys.executable, str(FUZZ), "--seed", str(seed), "--mode", mode, "--log", str(log),
                   "--stall", str(STALL_S), "--timeout", str(BATCH_S), *quiet_actions(mode)]
        done: subprocess.CompletedProcess[str] | None = None
        try:
            done = subprocess.run(command, capture_output=True, text=True, timeout=BATCH_S + 30, env=env)
            stderr = done.stderr
        except subprocess.TimeoutExpired as expired:  # its output comes as bytes whatever text= says
            stderr = expired.stderr.decode(errors="replace") if isinstance(expired.stderr, bytes) else ""
        problem = batch_problem(done, stderr)
        if problem:
            lines = log.read_text(errors="replace").splitlines() if log.exists() else []
            last = sorted({line.split()[0]: line for line in lines if line.startswith("t")}.values())
            found = [line for line in stderr.splitlines() if line.startswith("FAILURE")][:5]
            failures.append(f"seed {seed}: {problem}\n  rerun: {' '.join(command[1:6])}\n  last calls: "
                            + "\n    ".join(last) + "\n  log tail:\n    " + "\n    ".join(lines[-8:])
                            + "\n  failures:\n    " + "\n    ".join(found)
                            + "\n  stderr tail:\n" + "\n".join(stderr.splitlines()[-30:]))
        seed += 1
    print(f"{mode}: {seed - first} batches from seed {first}, {len(failures)} failed", *quiet_actions(mode))
    assert not failures, f"{len(failures)} of {seed - first} batches failed\n" + "\n\n".join(failures[:3])


# ---------------------------------------------------------------------------------------------------------
# Each crash class alone, in process

@pytest.fixture
def env(monkeypatch: pytest.MonkeyPatch) -> FakeClock:
    monkeypatch.setattr(health, "TOOLS", make_registry({f"t{i}": ("a", "b") for i in range(8)}))
    clock = FakeClock()
    monkeypatch.setattr(health, "time", clock)
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


def test_str_key_whose_eq_clears_the_maps_during_the_summary(tmp_path: Path) -> None:
    repository = Repository(tmp_path / "r.db")
    t = health.ToolHealthTracker(repository)
    for i in range(50):
        t.record_success(f"tool{i}")
        t.record_call(f"tool{i}", "a", "ok", alias_hit=False, duration_ms=1.0)

    class Evil(str):
        armed = False

        def __eq__(self, other: object) -> bool:
            if Evil.armed:
                Evil.armed = False
                t._usage.clear()
                t._state.clear()
            return str.__eq__(self, other)
        __hash__ = str.__hash__

    t.record_success("x")
    t.record_call(Evil("x"), "b", "ok", alias_hit=False, duration_ms=1.0)
    expected = t.get_health_summary()
    Evil.armed = True
    kind, answer = outcome(t.get_health_summary)
    assert (kind == "error" or answer == expected) and (len(t._state), len(t._usage)) == (0, 0)
    still_works(t)
    repository.close()


class PlainState:  # a host record type with plain attributes
    def __init__(self, call_count: Any = 0, error_count: Any = 0, last_error: Any = None, disabled_at: Any = None,
                 updated_at: Any = 0.0, consecutive_errors: Any = 0) -> None:
        self.call_count, self.error_count, self.last_error = call_count, error_count, last_error
        self.disabled_at, self.updated_at, self.consecutive_errors = disabled_at, updated_at, consecutive_errors


class SlotUsage:
    __slots__ = ("calls", "timed_calls", "total_ms")

    def __init__(self, calls: Any = 0, timed_calls: Any = 0, total_ms: Any = 0.0) -> None:
        self.calls, self.timed_calls, self.total_ms = calls, timed_calls, total_ms


@pytest.mark.parametrize(("host_state", "host_usage"), [(HostToolState, HostUsage), (PlainState, SlotUsage)])
def test_mixed_record_kinds_answer_like_host_records(env: FakeClock, monkeypatch: pytest.MonkeyPatch,
                                                     host_state: type, host_usage: type) -> None:
    """Native and host records side by side in both maps give every answer all-host records give."""
    def run(mixed: bool) -> list[Any]:
        env.now, db = NOW, MemDb()
        t = tracker_over(db)
        for i in range(6):  # every other tool and usage key made by the module's own record types
            monkeypatch.setattr(health, "_ToolState", NativeState if mixed and i % 2 else host_state)
            monkeypatch.setattr(health, "_Usage", NativeUsage if mixed and i % 2 == 0 else host_usage)
            for _ in range(i % 4):
                t.record_error(f"t{i}", f"error {i}")
            if i % 3:
                t.record_success(f"t{i}")
            t.record_call(f"t{i}", "a", "ok", alias_hit=False, duration_ms=i * 1.25)
            t.record_call(f"t{i % 3}", None, "error", alias_hit=True, duration_ms=None)
            env.advance(10)
        answers = [t.is_disabled(f"t{i}") for i in range(7)] + [t.get_health_summary(), t._usage_rows("t1"),
                                                                t.flush()]
        env.advance(100)
        return answers + [t.is_disabled("t3"), t.get_health_summary(), t.flush(), db.written]

    assert run(mixed=True) == run(mixed=False)


class FiringKey(tuple):  # type: ignore[type-arg]
    """A usage key whose item access runs the armed callback."""
    fire: Callable[[], None] = staticmethod(lambda: None)

    def __getitem__(self, index: Any) -> Any:
        FiringKey.fire()
        return tuple.__getitem__(self, index)


CASES = [("key", "clear", op) for op in ("get_health_summary", "flush", "_usage_rows")] + [
    ("is_slow_call", "delete", "get_health_summary"), ("_sqlite_time", "delete", "get_health_summary"),
    ("_sqlite_time", "delete", "flush")] + [("getter", "delete", op) for op in (
        "get_health_summary", "flush", "is_disabled", "record_error")]


@pytest.mark.parametrize(("hook", "change", "operation"), CASES)
def test_callback_changes_the_maps_being_walked(env: FakeClock, hook: str, change: str, operation: str) -> None:
    """A usage key's __getitem__ empties the usage map, or is_slow_call, _sqlite_time or a record's own getter
    deletes the entry being processed (and with it the last reference to its record). The operation answers
    as an identical tracker whose callback stays quiet, or raises an ordinary error."""
    args = {"_usage_rows": ("t1",), "is_disabled": ("t0",), "record_error": ("t0", "x")}.get(operation, ())
    runs = []
    for armed in (False, True):
        env.now, db = NOW, MemDb()
        t, pending = populated(db), [armed]

        def fire() -> None:
            if pending and pending.pop():
                if change == "clear":
                    return t._usage.clear()
                t._state.pop("t0", None)
                for key in [k for k in t._usage if k[0] == "t0" and operation != "flush"]:
                    del t._usage[key]  # (a flush copies the usage map only after writing the health rows)

        FiringKey.fire = staticmethod(fire)  # type: ignore[assignment]
        if hook == "key":
            for i in range(3):
                t._usage[FiringKey((f"t{i}", "c", "ok", False))] = NativeUsage(2, 1, 3.0)
        elif hook == "getter":
            values = {f: getattr(t._state["t0"], f) for f in FIELDS}

            def field(name: str) -> property:
                def get(self: Any) -> Any:
                    fire()
                    return values[name]
                return property(get, lambda self, value: values.__setitem__(name, value))
            t._state["t0"] = type("Firing", (), {f: field(f) for f in FIELDS})()
            t._dirty.add("t0")
        original = getattr(health, hook, None)
        if original is not None:
            def firing(*args: Any, original: Any = original) -> Any:
                fire()
                return original(*args)
            setattr(health, hook, firing)
        try:
            runs.append((*outcome(lambda: getattr(t, operation)(*args)), db.written))
        finally:
            if original is not None:
                setattr(health, hook, original)
    (_, expected, written), (kind, answer, written_now) = runs
    assert kind == "error" or (answer, written_now) == (expected, written)
    still_works(t)


@pytest.mark.parametrize(("field", "value"), [("_state", 5), ("_state", {}.items()), ("_usage", []),
                                              ("_usage", type("D", (dict,), {})()), ("_dirty", {}),
                                              ("_dirty", frozenset()), ("_lock", object()), ("_lock", None)])
def test_wrong_type_field_assignment_is_refused(env: FakeClock, field: str, value: Any) -> None:
    t = populated()
    before = getattr(t, field)
    with pytest.raises((TypeError, AttributeError)):
        setattr(t, field, value)
    with pytest.raises((TypeError, AttributeError)):
        delattr(t, field)
    assert getattr(t, field) is before
    still_works(t)


class HostLock:
    """A host lock around a real one; `strike`, when set, runs once from inside acquire (once the lock is taken)
    or release (before it is let go): both times the calling thread holds the lock."""
    site, acquired = "", 0
    strike: Callable[[], Any] = print

    def __init__(self) -> None:
        self.inner = threading.Lock()

    def acquire(self) -> bool:
        self.inner.acquire()
        HostLock.acquired += 1
        self.run_strike("acquire")
        return True

    def release(self) -> None:
        try:
            self.run_strike("release")
        finally:
            self.inner.release()

    def locked(self) -> bool:
        return self.inner.locked()

    @staticmethod
    def run_strike(site: str) -> None:
        if HostLock.site == site:
            HostLock.site = ""
            HostLock.strike()


@pytest.mark.parametrize(("field", "make"), [("_state", dict), ("_usage", dict), ("_dirty", set),
                                             ("_lock", threading.Lock), ("_lock", HostLock)])
def test_field_replaced_by_the_right_type_is_used(env: FakeClock, field: str, make: Callable[[], Any]) -> None:
    t, value, HostLock.acquired = populated(), make(), 0
    setattr(t, field, value)
    assert getattr(t, field) is value
    t.record_success("t1")
    t.record_call("t1", "a", "ok", alias_hit=False, duration_ms=1.0)
    assert "t1" in t._state and "t1" in t._dirty and ("t1", "a", "ok", False) in t._usage
    assert HostLock.acquired == (2 if make is HostLock else 0)


REENTRIES: dict[str, Callable[[Any], Any]] = {
    "record_success": lambda t: t.record_success("t1"), "is_disabled": lambda t: t.is_disabled("t0"),
    "record_call": lambda t: t.record_call("t1", "a", "ok", alias_hit=False, duration_ms=1.0),
    "get_health_summary": lambda t: t.get_health_summary(), "flush": lambda t: t.flush(),
    "has_unsaved_changes": lambda t: t.has_unsaved_changes}


@pytest.mark.parametrize("site", ["is_slow_call", "acquire", "release"])
@pytest.mark.parametrize("reentry", list(REENTRIES))
def test_reentry_under_the_lock_raises_runtime_error(env: FakeClock, monkeypatch: pytest.MonkeyPatch, site: str,
                                                     reentry: str) -> None:
    """From is_slow_call, or from a host lock's acquire or release, a locking operation of the same tracker
    raises RuntimeError at once instead of waiting for the lock its own thread holds."""
    monkeypatch.setattr(health, "threading", types.SimpleNamespace(Lock=HostLock))
    t, seen = populated(), list[tuple[str, Any]]()

    def strike() -> bool:
        if not seen:
            seen.append(outcome(lambda: REENTRIES[reentry](t)))
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
    values = {f: getattr(t._state["t1"], f) for f in FIELDS}

    def read(name: str) -> property:
        def get(self: Any) -> Any:
            if name == field:
                raise Boom(name)
            return values[name]
        return property(get)
    t._state["t1"] = type("Raising", (), {f: read(f) for f in FIELDS})()
    t._dirty.add("t1")
    with pytest.raises(Boom):
        getattr(t, operation)()
    assert t.has_unsaved_changes and not t._lock.locked()


def test_failed_write_puts_back_every_mark_it_can(env: FakeClock) -> None:
    """When the health write fails and one name's hash raises as the marks go back, the other names stay
    marked: one host object's failure costs no other tool its row."""
    class Name(str):
        armed = False

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
    t = tracker_over(types.SimpleNamespace(fetchall=db.fetchall, fetchone=db.fetchone, execute=db.execute,
                                           executemany=failing_write))
    for name in (Name("a"), "b", "c"):
        t.record_success(name)
    with pytest.raises(Boom):
        t.flush()
    assert {"b", "c"} <= t._dirty and t.has_unsaved_changes


def run_child(code: str) -> subprocess.CompletedProcess[str]:
    """Code that crashed the interpreter once runs in a child, so a regression is a failed test, not a dead run."""
    return subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=60, env=child_env())


@pytest.mark.parametrize("code", [
    # the module's __name__ deleted: a missing attribute's error is still made
    "from ordanis_veltrane.tool_handlers import health as h\ndel h.__name__\ndel h.TOOLS\n"
    "try: h._known('x', None)\nexcept AttributeError as e: assert 'TOOLS' in str(e)",
    # a metaclass answering bytes for __qualname__: repr still text
    "from ordanis_veltrane.tool_handlers import health as h\n"
    "M = type('M', (type,), {'__getattribute__': lambda c, n: b'q' if n == '__qualname__' else"
    " type.__getattribute__(c, n)})\nassert repr(M('R', (h._ToolState,), {})()).startswith(\"b'q'(\")",
    # a million records chained through last_error, then a chain of trackers through their repositories
    "from ordanis_veltrane.tool_handlers import health as h\nimport types\nr = h._ToolState()\n"
    "for _ in range(10**6): r = h._ToolState(last_error=r)\ndel r\n"
    "h.logger = types.SimpleNamespace(warning=lambda *a: None)\nt = None\n"
    "for _ in range(10**5): t = h.ToolHealthTracker(t)\ndel t",
])
def test_once_crashing_host_code(code: str) -> None:
    done = run_child(code)
    assert done.returncode == 0, done.stderr[-2000:]


def test_init_finishing_inside_init_leaves_the_fields_alone(env: FakeClock) -> None:
    """A second __init__ that completes while the first runs host code wins; the first is refused."""
    t = health.ToolHealthTracker.__new__(health.ToolHealthTracker)
    inner_limits = types.SimpleNamespace(disable_after_errors=1, disable_cooldown_s=5)

    class Config:  # the default ToolsConfig of the first call runs the second __init__
        def __init__(self) -> None:
            health.ToolHealthTracker.__init__(t, types.SimpleNamespace(db=MemDb()), inner_limits)
    with pytest.MonkeyPatch.context() as m:
        m.setattr(health, "ToolsConfig", Config)
        with pytest.raises(RuntimeError, match="already initialized"):
            health.ToolHealthTracker.__init__(t, types.SimpleNamespace(db=MemDb()))
    assert t.limits is inner_limits
    t.record_error("t1", "x")
    assert t.is_disabled("t1") == (True, "x")


def nest(trackers: list[Any], last: Any) -> Any:
    """Each tracker's clock runs the next tracker's record_success; the innermost one calls `last`."""
    depth = [0]

    class Clock:
        @staticmethod
        def time() -> float:
            depth[0] += 1
            (trackers[depth[0]].record_success if depth[0] < len(trackers) else last)("x")
            return NOW
    return Clock


@pytest.mark.parametrize(("trackers", "share_lock"), [(2, True), (16, False), (17, False)])
def test_nested_trackers_refuse_instead_of_deadlocking(monkeypatch: pytest.MonkeyPatch, trackers: int,
                                                       share_lock: bool) -> None:
    ts = [tracker_over(MemDb()) for _ in range(trackers)]
    if share_lock:
        ts[1]._lock = ts[0]._lock
    monkeypatch.setattr(health, "time", nest(ts, ts[0].record_success))  # the innermost re-enters the first
    done: list[BaseException] = []
    worker = threading.Thread(target=lambda: done.append(pytest.raises(RuntimeError, ts[0].record_success, "x").value))
    worker.start()
    worker.join(10)
    assert not worker.is_alive() and done, "deadlocked"
    assert not any(t._lock.locked() for t in ts)
