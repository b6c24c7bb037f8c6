"""The tracker's call path: construction, disabling and re-enabling, usage counting, locking."""
from __future__ import annotations

import sys
import threading
from typing import Any, Callable

import pytest

from conftest import FakeClock, HostToolState, HostUsage, RecordingDb, hold_lock_in_thread
from ordanis_veltrane.config import ToolsConfig
from ordanis_veltrane.repository import Repository
from ordanis_veltrane.tool_handlers import health

T0 = 1_700_000_000.0
FIELDS = ("call_count", "error_count", "last_error", "disabled_at", "updated_at", "consecutive_errors")


def fields(tracker: Any, name: str) -> tuple[Any, ...] | None:
    record = tracker._state.get(name)
    return None if record is None else tuple(getattr(record, f) for f in FIELDS)


def usage(tracker: Any) -> dict[tuple, tuple]:
    return {key: (u.calls, u.timed_calls, u.total_ms) for key, u in tracker._usage.items()}


@pytest.fixture
def cfg() -> ToolsConfig:
    return ToolsConfig(disable_after_errors=3, disable_cooldown_s=60.0)


@pytest.fixture
def tracker(make_tracker: Callable[..., Any], cfg: ToolsConfig, clock: FakeClock, registry: Any) -> Any:
    return make_tracker(cfg)


def assert_unlocked_and_working(tracker: Any, name: str = "after") -> None:
    assert not tracker._lock.locked()
    before = fields(tracker, name)
    tracker.record_success(name)
    assert fields(tracker, name)[0] == (0 if before is None else before[0]) + 1
    assert name in tracker._dirty
    assert not tracker._lock.locked()


# ---------------------------------------------------------------- construction


def test_construction(repo: Repository, clock: FakeClock, registry: Any) -> None:
    given = ToolsConfig(disable_after_errors=5, disable_cooldown_s=30)
    for tracker in (
        health.ToolHealthTracker(repo, given),
        health.ToolHealthTracker(repository=repo, limits=given),
        health.ToolHealthTracker(repo, limits=given),
    ):
        assert tracker._repo is repo
        assert tracker.limits is given and tracker._limits is given
        assert tracker.cooldown_s == 30 and type(tracker.cooldown_s) is int

    for tracker in (health.ToolHealthTracker(repo), health.ToolHealthTracker(repo, None)):
        default = tracker.limits
        assert type(default) is ToolsConfig and default == ToolsConfig()
        assert tracker.limits is default is tracker._limits
        assert tracker.cooldown_s == ToolsConfig().disable_cooldown_s

    tracker = health.ToolHealthTracker(repo)
    assert type(tracker._state) is dict and tracker._state == {}
    assert type(tracker._dirty) is set and tracker._dirty == set()
    assert type(tracker._usage) is dict and tracker._usage == {}
    assert tracker._usage_dirty is False
    assert type(tracker._lock) is type(threading.Lock())
    assert not tracker._lock.locked()


def test_limits_are_tested_for_absence_only_and_read_live(repo: Repository, clock: FakeClock, registry: Any) -> None:
    class Falsy:
        disable_after_errors = 2
        disable_cooldown_s = object()

        def __bool__(self) -> bool:
            return False

    limits = Falsy()
    tracker = health.ToolHealthTracker(repo, limits)
    assert tracker.limits is limits
    assert tracker.cooldown_s is Falsy.disable_cooldown_s
    with pytest.raises(AttributeError):
        tracker.limits = ToolsConfig()
    with pytest.raises(AttributeError):
        tracker.cooldown_s = 1.0
    assert tracker.limits is limits


@pytest.mark.parametrize(
    ("args", "kwargs"), [((), {}), ((1, 2, 3), {}), ((), {"limits": None}), ((1,), {"repository": 1}), ((1,), {"x": 1})]
)
def test_bad_construction(args: tuple, kwargs: dict) -> None:
    with pytest.raises(TypeError):
        health.ToolHealthTracker(*args, **kwargs)


# ---------------------------------------------------------------- the transition table

# Each case: limit, events before, the event under test, its answer, the record after (None: no record),
# the marks after (cleared just before the event), and how often the event reads the clock.
TRANSITIONS = {
    "unknown-ask": (3, [], ("ask", "a"), (False, None), None, set(), 0),
    "unknown-success": (3, [], ("ok", "a"), None, (1, 0, None, None, T0, 0), {"a"}, 1),
    "unknown-error-below-limit": (3, [], ("err", "a", "boom"), None, (1, 1, "boom", None, T0, 1), {"a"}, 1),
    "unknown-error-at-limit": (1, [], ("err", "a", "boom"), None, (1, 1, "boom", T0, T0, 1), {"a"}, 1),
    "enabled-ask": (3, [("ok", "a"), ("tick", 5)], ("ask", "a"), (False, None), (1, 0, None, None, T0, 0), set(), 0),
    "enabled-success": (3, [("err", "a", "x"), ("tick", 5)], ("ok", "a"), None, (2, 1, "x", None, T0 + 5, 0), {"a"}, 1),
    "enabled-error-below-limit": (
        3, [("err", "a", "x"), ("tick", 5)], ("err", "a", "y"), None, (2, 2, "y", None, T0 + 5, 2), {"a"}, 1),
    "enabled-error-at-limit": (
        3, [("err", "a", "x"), ("err", "a", "x"), ("tick", 5)], ("err", "a", "z"), None,
        (3, 3, "z", T0 + 5, T0 + 5, 3), {"a"}, 1),
    "disabled-ask-before-cooldown": (
        1, [("err", "a", "x"), ("tick", 59.5)], ("ask", "a"), (True, "x"), (1, 1, "x", T0, T0, 1), set(), 1),
    "disabled-ask-at-cooldown": (
        1, [("err", "a", "x"), ("tick", 60)], ("ask", "a"), (False, None), (1, 1, "x", None, T0 + 60, 0), {"a"}, 1),
    "disabled-ask-after-cooldown": (
        1, [("err", "a", "x"), ("tick", 3600)], ("ask", "a"), (False, None), (1, 1, "x", None, T0 + 3600, 0), {"a"}, 1),
    "disabled-success": (1, [("err", "a", "x"), ("tick", 5)], ("ok", "a"), None, (2, 1, "x", None, T0 + 5, 0), {"a"}, 1),
    "disabled-error-at-limit": (
        1, [("err", "a", "x"), ("tick", 5)], ("err", "a", "y"), None, (2, 2, "y", T0 + 5, T0 + 5, 2), {"a"}, 1),
    "disabled-error-below-raised-limit": (
        1, [("err", "a", "x"), ("tick", 5), ("limit", 10)], ("err", "a", "y"), None, (2, 2, "y", T0, T0 + 5, 2), {"a"}, 1),
    "re-enabled-error-starts-a-new-run": (
        2, [("err", "a", "x"), ("err", "a", "x"), ("tick", 60), ("ask", "a"), ("tick", 1)], ("err", "a", "y"), None,
        (3, 3, "y", None, T0 + 61, 1), {"a"}, 1),
    "error-error-success-error-error": (
        3, [("err", "a", "1"), ("err", "a", "2"), ("ok", "a"), ("err", "a", "3"), ("tick", 1)], ("err", "a", "4"), None,
        (5, 4, "4", None, T0 + 1, 2), {"a"}, 1),
    "other-tools-are-independent": (
        1, [("err", "b", "x"), ("ok", "c")], ("ask", "a"), (False, None), None, set(), 0),
}


def apply(tracker: Any, clock: FakeClock, event: tuple) -> Any:
    kind, *args = event
    if kind == "tick":
        clock.advance(args[0])
    elif kind == "limit":
        tracker.limits.disable_after_errors = args[0]
    elif kind == "ask":
        return tracker.is_disabled(args[0])
    elif kind == "ok":
        return tracker.record_success(args[0])
    else:
        return tracker.record_error(args[0], args[1])
    return None


@pytest.mark.parametrize("case", list(TRANSITIONS), ids=list(TRANSITIONS))
def test_transitions(make_tracker: Callable[..., Any], clock: FakeClock, registry: Any, recording: RecordingDb,
                     case: str) -> None:
    limit, setup, event, answer, after, dirty, reads = TRANSITIONS[case]
    tracker = make_tracker(ToolsConfig(disable_after_errors=limit, disable_cooldown_s=60.0))
    recording.calls.clear()
    for step in setup:
        apply(tracker, clock, step)
    others = {name: fields(tracker, name) for name in tracker._state if name != "a"}
    tracker._dirty.clear()
    reads_before = clock.reads
    got = apply(tracker, clock, event)
    assert got == answer and (answer is None or type(got) is tuple)
    assert fields(tracker, "a") == after
    assert tracker._dirty == dirty
    assert clock.reads - reads_before == reads
    assert {name: fields(tracker, name) for name in tracker._state if name != "a"} == others
    if after is not None:
        assert type(tracker._state["a"].updated_at) is float
    # The call path never reaches the database.
    assert recording.calls == [] and recording.lock_violations == 0
    assert not tracker._lock.locked()


@pytest.mark.parametrize("limit", [-1, 0, 1, 3])
def test_threshold(make_tracker: Callable[..., Any], clock: FakeClock, registry: Any, limit: int) -> None:
    tracker = make_tracker(ToolsConfig(disable_after_errors=limit, disable_cooldown_s=60.0))
    for n in range(1, 6):
        clock.advance(1)
        tracker.record_error("a", f"e{n}")
        disabled = n >= max(limit, 1)
        assert tracker.is_disabled("a") == ((True, f"e{n}") if disabled else (False, None))
        if disabled:
            # Every error at or past the limit moves the start of the cooldown to itself.
            assert tracker._state["a"].disabled_at == clock.now == tracker._state["a"].updated_at


def test_cooldown_counts_from_the_latest_error_and_clock_going_back(tracker: Any, clock: FakeClock) -> None:
    tracker.limits.disable_after_errors = 1
    tracker.record_error("a", "x")
    clock.advance(50)
    tracker.record_error("a", "y")
    clock.advance(20)  # 70 s after the first error, 20 s after the latest
    assert tracker.is_disabled("a") == (True, "y")
    clock.now = T0 - 1000  # the wall clock went back
    assert tracker.is_disabled("a") == (True, "y")
    clock.now = T0 + 50 + 59.999
    assert tracker.is_disabled("a") == (True, "y")
    clock.now = T0 + 50 + 60
    assert tracker.is_disabled("a") == (False, None)
    assert fields(tracker, "a") == (2, 2, "y", None, T0 + 110, 0)


def test_cooldown_is_read_live(tracker: Any, clock: FakeClock, cfg: ToolsConfig) -> None:
    cfg.disable_after_errors = 1
    tracker.record_error("a", "x")
    clock.advance(10)
    assert tracker.is_disabled("a")[0] is True
    cfg.disable_cooldown_s = 10  # an int setting works as well
    assert tracker.is_disabled("a") == (False, None)


@pytest.mark.parametrize(
    ("message", "stored"),
    [
        ("x" * 600, "x" * 500),
        ("x" * 500, "x" * 500),
        ("x" * 501, "x" * 500),
        ("x" * 499, "x" * 499),
        ("\U0001F600" * 600, "\U0001F600" * 500),
        ("é" * 300 + "\U0001F600" * 300, "é" * 300 + "\U0001F600" * 200),
        ("a\x00b", "a\x00b"),
        ("\ud83d" * 501, "\ud83d" * 500),
        ("", ""),
        (None, ""),
    ],
    ids=["600", "500", "501", "499", "non-bmp", "mixed", "nul", "lone-surrogate", "empty", "none"],
)
def test_error_message_is_cut_to_500_code_points(tracker: Any, cfg: ToolsConfig, message: str | None,
                                                  stored: str) -> None:
    cfg.disable_after_errors = 1
    tracker.record_error("a", message)
    assert tracker._state["a"].last_error == stored
    assert type(tracker._state["a"].last_error) is str
    assert tracker.is_disabled("a") == (True, stored)


def test_tool_names_are_exact_text(tracker: Any) -> None:
    for name in ("a", "A", "a ", "é", "e\u0301"):
        tracker.record_success(name)
    assert list(tracker._state) == ["a", "A", "a ", "é", "e\u0301"]
    assert all(record.call_count == 1 for record in tracker._state.values())


def test_success_and_error_leave_usage_alone_and_record_call_leaves_health_alone(tracker: Any) -> None:
    tracker.record_success("a")
    tracker.record_error("a", "x")
    assert tracker._usage == {} and tracker._usage_dirty is False
    tracker._dirty.clear()
    tracker.record_call("b", None, "ok", alias_hit=False, duration_ms=1.0)
    assert "b" not in tracker._state and tracker._dirty == set()
    assert fields(tracker, "a")[:2] == (2, 1)


# ---------------------------------------------------------------- record_call


def test_record_call_counts(tracker: Any, clock: FakeClock, recording: RecordingDb) -> None:
    recording.calls.clear()
    tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=None)
    assert usage(tracker) == {("a", None, "ok", False): (1, 0, 0.0)}
    assert tracker._usage_dirty is True
    tracker._usage_dirty = False
    tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=0.0)
    assert usage(tracker) == {("a", None, "ok", False): (2, 1, 0.0)}
    assert tracker._usage_dirty is True
    tracker.record_call(tool_name="a", action=None, outcome="ok", alias_hit=False, duration_ms=2.5)
    tracker.record_call("a", None, "ok", duration_ms=3, alias_hit=False)
    tracker.record_call("a", None, "ok", alias_hit=True, duration_ms=None)
    tracker.record_call("a", "", "ok", alias_hit=False, duration_ms=1.25)
    tracker.record_call("search", "text", "error", alias_hit=False, duration_ms=0.1)
    tracker.record_call("search", "text", "error", alias_hit=False, duration_ms=0.2)
    tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=None)
    assert usage(tracker) == {
        ("a", None, "ok", False): (5, 3, 5.5),
        ("a", None, "ok", True): (1, 0, 0.0),
        ("a", "", "ok", False): (1, 1, 1.25),
        ("search", "text", "error", False): (2, 2, 0.1 + 0.2),
    }
    assert list(tracker._usage) == [
        ("a", None, "ok", False), ("a", None, "ok", True), ("a", "", "ok", False), ("search", "text", "error", False)
    ]
    assert all(type(key) is tuple and len(key) == 4 for key in tracker._usage)
    assert all(type(u.total_ms) is float for u in tracker._usage.values())
    assert recording.calls == [] and recording.lock_violations == 0
    assert tracker._state == {} and tracker._dirty == set()


@pytest.mark.parametrize(
    ("args", "kwargs"),
    [
        (("a", None, "ok", True, 1.0), {}),
        (("a", None, "ok", True), {"duration_ms": 1.0}),
        (("a", None, "ok"), {}),
        (("a", None, "ok"), {"alias_hit": False}),
        (("a", None, "ok"), {"duration_ms": None}),
        (("a", None), {"alias_hit": False, "duration_ms": None}),
        (("a", None, "ok"), {"alias_hit": False, "duration_ms": None, "extra": 1}),
        (("a", None, "ok"), {"alias_hit": False, "duration_ms": None, "tool_name": "a"}),
    ],
)
def test_record_call_refuses_bad_arguments_before_counting(tracker: Any, args: tuple, kwargs: dict) -> None:
    with pytest.raises(TypeError):
        tracker.record_call(*args, **kwargs)
    assert tracker._usage == {} and tracker._usage_dirty is False
    assert not tracker._lock.locked()


# ---------------------------------------------------------------- late binding


def test_late_binding_of_clock_and_records(tracker: Any, cfg: ToolsConfig, monkeypatch: pytest.MonkeyPatch) -> None:
    tracker.record_success("old")
    native_type = type(tracker._state["old"])

    later = FakeClock(2_000_000_000.0)
    monkeypatch.setattr(health, "time", later)
    tracker.record_success("old")
    assert tracker._state["old"].updated_at == 2_000_000_000.0 and later.reads == 1

    PyState, PyUsage = HostToolState, HostUsage

    monkeypatch.setattr(health, "_ToolState", PyState)
    monkeypatch.setattr(health, "_Usage", PyUsage)
    cfg.disable_after_errors = 2
    tracker.record_error("new", "x")
    tracker.record_success("new")
    tracker.record_error("new", "y")
    later.advance(1)
    tracker.record_error("new", "z")
    assert type(tracker._state["new"]) is PyState and type(tracker._state["old"]) is native_type
    assert tracker._state["new"] == PyState(4, 3, "z", 2_000_000_001.0, 2_000_000_001.0, 2)
    assert tracker.is_disabled("new") == (True, "z")
    later.advance(60)
    assert tracker.is_disabled("new") == (False, None)
    assert tracker._state["new"] == PyState(4, 3, "z", None, 2_000_000_061.0, 0)
    tracker.record_success("old")
    assert tracker._state["old"].call_count == 3

    tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=1.5)
    tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=None)
    assert tracker._usage[("a", None, "ok", False)] == PyUsage(2, 1, 1.5)


def test_late_binding_of_the_registry(registry: Any, monkeypatch: pytest.MonkeyPatch) -> None:
    from conftest import make_registry

    assert health._known("search", "text") is True
    monkeypatch.setattr(health, "TOOLS", make_registry({"search": ("symbol",)}))
    assert health._known("search", "text") is False
    assert health._known("a", None) is False


# ---------------------------------------------------------------- locking and bad input


@pytest.mark.parametrize(
    "call",
    [
        lambda t: t.record_success("a"),
        lambda t: t.record_error("a", "x"),
        lambda t: t.is_disabled("a"),
        lambda t: t.record_call("a", None, "ok", alias_hit=False, duration_ms=None),
    ],
    ids=["success", "error", "is_disabled", "record_call"],
)
def test_operations_wait_for_the_lock(tracker: Any, cfg: ToolsConfig, call: Callable[[Any], Any]) -> None:
    cfg.disable_after_errors = 1
    tracker.record_error("a", "x")
    snapshot = (fields(tracker, "a"), usage(tracker))
    _, release, holder = hold_lock_in_thread(tracker._lock)
    done = threading.Event()
    worker = threading.Thread(target=lambda: (call(tracker), done.set()), daemon=True)
    worker.start()
    try:
        assert not done.wait(0.2)
        assert (fields(tracker, "a"), usage(tracker)) == snapshot
    finally:
        release.set()
    assert done.wait(10)
    worker.join(10)
    holder.join(10)
    assert not tracker._lock.locked()


@pytest.mark.parametrize(
    "call",
    [
        lambda t: t.record_success(["a"]),
        lambda t: t.record_error({}, "x"),
        lambda t: t.is_disabled(["a"]),
        lambda t: t.record_call(["a"], None, "ok", alias_hit=False, duration_ms=None),
        lambda t: t.record_call("a", ["x"], "ok", alias_hit=False, duration_ms=None),
    ],
    ids=["success", "error", "is_disabled", "record_call-tool", "record_call-action"],
)
def test_unhashable_names_raise_and_release_the_lock(tracker: Any, call: Callable[[Any], Any]) -> None:
    with pytest.raises(TypeError):
        call(tracker)
    assert tracker._state == {} and tracker._dirty == set() and tracker._usage == {}
    assert_unlocked_and_working(tracker)


def test_properties_do_not_take_the_lock(tracker: Any, cfg: ToolsConfig) -> None:
    _, release, holder = hold_lock_in_thread(tracker._lock)
    answers: list[Any] = []
    reader = threading.Thread(target=lambda: answers.extend([tracker.limits, tracker.cooldown_s]), daemon=True)
    reader.start()
    reader.join(5)
    try:
        assert not reader.is_alive()
    finally:
        release.set()
        holder.join(10)
    assert answers == [cfg, 60.0] and answers[0] is cfg


@pytest.mark.parametrize(
    ("call", "key"),
    [
        (lambda t: t.record_success("a"), "call_count"),
        (lambda t: t.record_error("a", "x"), "call_count"),
        (lambda t: t.record_call("a", None, "ok", alias_hit=False, duration_ms=1.0), "calls"),
    ],
    ids=["success", "error", "record_call"],
)
def test_count_at_the_64_bit_limit_raises_instead_of_wrapping(tracker: Any, call: Callable[[Any], Any],
                                                               key: str) -> None:
    top = 2**63 - 1
    tracker._state["a"] = health._ToolState(call_count=top)
    tracker._usage[("a", None, "ok", False)] = health._Usage(top, 0, 0.0)
    with pytest.raises(OverflowError):
        call(tracker)
    record = tracker._usage[("a", None, "ok", False)] if key == "calls" else tracker._state["a"]
    assert getattr(record, key) == top
    assert_unlocked_and_working(tracker)


class RaisingLimits:
    def __init__(self, after: Any = 3, cooldown: Any = 60.0) -> None:
        self._after, self._cooldown = after, cooldown

    @property
    def disable_after_errors(self) -> Any:
        if isinstance(self._after, BaseException):
            raise self._after
        return self._after

    @property
    def disable_cooldown_s(self) -> Any:
        if isinstance(self._cooldown, BaseException):
            raise self._cooldown
        return self._cooldown


@pytest.mark.parametrize(
    ("after", "error"),
    [(RuntimeError("limits gone"), RuntimeError), (LookupError("x"), LookupError), ("3", TypeError)],
)
def test_failing_limit_leaves_earlier_steps_done(make_tracker: Callable[..., Any], clock: FakeClock, registry: Any,
                                                 after: Any, error: type) -> None:
    tracker = make_tracker(RaisingLimits(after=after))
    tracker.record_success("a")
    tracker._dirty.clear()
    clock.advance(5)
    with pytest.raises(error):
        tracker.record_error("a", "boom")
    assert fields(tracker, "a") == (2, 1, "boom", None, T0 + 5, 1)
    assert tracker._dirty == set()
    assert tracker.is_disabled("a") == (False, None)
    assert_unlocked_and_working(tracker, "a")


def test_failing_cooldown(make_tracker: Callable[..., Any], clock: FakeClock, registry: Any) -> None:
    limits = RaisingLimits(after=1, cooldown=60.0)
    tracker = make_tracker(limits)
    tracker.record_error("a", "x")
    limits._cooldown = RuntimeError("cooldown gone")
    with pytest.raises(RuntimeError, match="cooldown gone"):
        tracker.cooldown_s
    tracker._dirty.clear()
    clock.advance(100)
    with pytest.raises(RuntimeError, match="cooldown gone"):
        tracker.is_disabled("a")
    assert fields(tracker, "a") == (1, 1, "x", T0, T0, 1) and tracker._dirty == set()
    assert tracker.is_disabled("unknown") == (False, None)  # no record: the cooldown is not read
    assert_unlocked_and_working(tracker)
    limits._cooldown = 60
    assert tracker.is_disabled("a") == (False, None)


@pytest.mark.parametrize("duration", ["5", object(), [1.0]])
def test_duration_that_is_not_a_number(tracker: Any, duration: Any) -> None:
    with pytest.raises(TypeError):
        tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=duration)
    # The call was counted before its duration was added; the change was not marked.
    assert tracker._usage[("a", None, "ok", False)].calls == 1
    assert tracker._usage[("a", None, "ok", False)].total_ms == 0.0
    assert tracker._usage_dirty is False
    assert not tracker._lock.locked()
    tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=2.0)
    assert tracker._usage[("a", None, "ok", False)].total_ms == 2.0
    assert tracker._usage_dirty is True


class BadClock:
    def __init__(self, answer: Any) -> None:
        self.answer = answer

    def time(self) -> Any:
        if isinstance(self.answer, BaseException):
            raise self.answer
        return self.answer


@pytest.mark.parametrize(
    ("answer", "error"),
    [("noon", TypeError), (None, TypeError), ([1.0], TypeError), (OSError("no clock"), OSError),
     (KeyboardInterrupt(), KeyboardInterrupt)],
)
@pytest.mark.parametrize(
    "call",
    [lambda t: t.record_success("a"), lambda t: t.record_error("a", "x"), lambda t: t.is_disabled("d")],
    ids=["success", "error", "is_disabled"],
)
def test_clock_answering_garbage(tracker: Any, cfg: ToolsConfig, monkeypatch: pytest.MonkeyPatch, answer: Any,
                                 error: type, call: Callable[[Any], Any]) -> None:
    cfg.disable_after_errors = 1
    tracker.record_error("d", "x")
    monkeypatch.setattr(health, "time", BadClock(answer))
    with pytest.raises(error):
        call(tracker)
    assert not tracker._lock.locked()
    good = FakeClock(T0 + 1000)
    monkeypatch.setattr(health, "time", good)
    call(tracker)
    assert tracker.is_disabled("d") == (False, None)
    assert_unlocked_and_working(tracker)
    assert tracker._state["after"].updated_at == T0 + 1000


def test_concurrent_counting(tracker: Any, cfg: ToolsConfig) -> None:
    cfg.disable_after_errors = 5
    threads, rounds = 4, 1500
    tools = ["a", "b", "c"]
    old = sys.getswitchinterval()
    sys.setswitchinterval(1e-5)
    errors: list[BaseException] = []
    start = threading.Barrier(threads)

    def work(k: int) -> None:
        try:
            start.wait()
            for i in range(rounds):
                name = tools[(i + k) % 3]
                if i % 3 == 0:
                    tracker.record_error(name, f"t{k}")
                else:
                    tracker.record_success(name)
                tracker.record_call(name, None, "ok", alias_hit=bool(i % 2), duration_ms=1.0 if i % 4 else None)
                tracker.is_disabled(name)
        except BaseException as error:  # pragma: no cover - reported below
            errors.append(error)

    workers = [threading.Thread(target=work, args=(k,)) for k in range(threads)]
    try:
        for w in workers:
            w.start()
        for w in workers:
            w.join(60)
    finally:
        sys.setswitchinterval(old)
    assert errors == []
    expected_calls = {n: 0 for n in tools}
    expected_errors = {n: 0 for n in tools}
    expected_usage: dict[tuple, list] = {}
    for k in range(threads):
        for i in range(rounds):
            name = tools[(i + k) % 3]
            expected_calls[name] += 1
            expected_errors[name] += i % 3 == 0
            entry = expected_usage.setdefault((name, None, "ok", bool(i % 2)), [0, 0, 0.0])
            entry[0] += 1
            if i % 4:
                entry[1] += 1
                entry[2] += 1.0
    assert {n: tracker._state[n].call_count for n in tools} == expected_calls
    assert {n: tracker._state[n].error_count for n in tools} == expected_errors
    assert usage(tracker) == {key: tuple(v) for key, v in expected_usage.items()}
    assert tracker._dirty == set(tools) and tracker._usage_dirty is True
    assert not tracker._lock.locked()
