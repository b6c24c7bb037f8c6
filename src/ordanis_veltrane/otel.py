"""OpenTelemetry for tool calls and tool health.

``OtelObserver`` is a call observer of the tool pipeline: the pipeline hands it a report
of every finished call (``call_finished(report)``), on the thread the call ran on. It

- records the call in the histogram ``mcp.server.operation.duration`` (seconds, with
  the bucket boundaries the MCP semantic conventions advise) with the attributes
  ``mcp.method.name`` = ``tools/call``, ``gen_ai.operation.name`` = ``execute_tool``,
  ``gen_ai.tool.name`` and, when the call failed or was refused, ``error.type``.
  The call's thread (often the event loop) only queues the measurement; the SDK's
  ``record``, which costs several microseconds, runs at the next collection, on the
  reader's thread, before the histogram is read. While ``PENDING_LIMIT`` measurements
  wait (a provider nobody collects from), a call records its own on its thread. Where a
  span is current, its context goes with the measurement, so that an exemplar still
  points at the call's span;
- adds the tool's health to the span that is current, if one is recording (the MCP SDK's
  ``tools/call`` span, FastMCP's, or the application's own): ``veltrane.tool.disabled``,
  ``veltrane.tool.consecutive_errors`` and ``veltrane.tool.action``, and an event
  ``veltrane.tool.refused`` when the call was refused. It never starts a span of its own:
  the call already has one where tracing is on;
- reports the tracker's health through observable instruments, read at each collection
  from one ``get_health_summary()`` shared by all of them (``health_view``, the walk the
  Prometheus collector uses too): ``veltrane.tool.health.calls``,
  ``veltrane.tool.health.errors``, ``veltrane.tool.health.disabled`` and
  ``veltrane.tool.health.usage``. The counters count the calls this process served when the
  tracker runs behind one of the package's adapters (so that a sum over instances is the fleet's
  total), ``disabled`` is the fleet's view; a host's own tracker is read as it is.

Only the OpenTelemetry API is needed; the SDK, its readers and exporters are the
application's choice (``opentelemetry-instrument`` sets them up from the environment).
Without an SDK the API does nothing, and neither does the observer: each call compares the
API's two global providers with the ones it last saw (two attribute reads) and returns. A
provider installed later, as ``opentelemetry-instrument`` does at start, is picked up at
the next call.

Needs the ``otel`` extra: ``pip install '.[otel]'``.
"""
from __future__ import annotations

import collections
import functools
import importlib.metadata
import inspect
import logging
import os
import threading
import time
import weakref
from typing import Any, Callable, Iterable, Protocol

try:
    from opentelemetry import context as _context, metrics as _metrics, trace as _trace
    from opentelemetry.metrics import (
        CallbackOptions,
        Histogram,
        Meter,
        MeterProvider,
        NoOpMeter,
        NoOpMeterProvider,
        Observation,
    )
    from opentelemetry.trace import NoOpTracerProvider, Span, get_current_span
except ImportError as _missing:  # pragma: no cover - exercised in a subprocess
    raise ImportError(
        "ordanis_veltrane.otel needs the OpenTelemetry API: install the 'otel' extra "
        "(pip install 'ordanis-veltrane-health[otel]', or pip install '.[otel]' from a checkout)"
    ) from _missing

from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.tool_handlers.health_view import HealthView, label, read_health

__all__ = ["DURATION_BUCKETS", "PENDING_LIMIT", "REFUSED", "SCOPE", "CallReportLike", "OtelObserver",
           "default_observer"]

logger: logging.Logger = logging.getLogger(__name__)

# The MCP semantic conventions' advice for mcp.server.operation.duration, in seconds.
DURATION_BUCKETS: tuple[float, ...] = (0.01, 0.02, 0.05, 0.1, 0.2, 0.5, 1, 2, 5, 10, 30, 60, 120, 300)

SCOPE: str = "ordanis_veltrane"

# error.type of a call that was refused because its tool is disabled, and the ones used when a
# report of a failed call names no type (the conventions' fallback is _OTHER).
REFUSED: str = "tool_disabled"
_ERROR_TYPE_OF_OUTCOME = {"disabled": REFUSED, "cancelled": "cancelled", "error": "_OTHER", "client_error": "_OTHER"}

# Attribute sets of the histogram are kept per (tool, outcome, error type); past this many the
# cache starts again, so that a stream of distinct exception types cannot grow it without end.
_ATTRIBUTE_CACHE_SIZE = 4096

# Measurements queued for the SDK at most (about 1.5 MB); past this many, a call records its own.
PENDING_LIMIT: int = 16384

# The observable instruments of one collection share one walk of the summary: the first of
# them walks it, the others take that walk when it is at most this old.
_SHARED_WALK_S = 1.0

_UNSEEN = object()

_TrackerRef = Callable[[], "health.ToolHealthTracker | None"]


class CallReportLike(Protocol):
    """What the observer reads of a call report (``tool_pipeline.CallReport``)."""

    @property
    def tool(self) -> str: ...
    @property
    def action(self) -> str | None: ...
    @property
    def alias_hit(self) -> bool: ...
    @property
    def outcome(self) -> str: ...
    @property
    def duration_s(self) -> float: ...
    @property
    def error_type(self) -> str | None: ...
    @property
    def error_message(self) -> str | None: ...
    @property
    def tracker(self) -> health.ToolHealthTracker: ...


class _PublicGlobals:
    """The global providers through the API's public getters, should its module globals ever move:
    slower (each getter looks at the environment), with the same answers."""

    @property
    def _METER_PROVIDER(self) -> object:
        provider = _metrics.get_meter_provider()
        return None if type(provider).__name__ == "_ProxyMeterProvider" else provider

    @property
    def _TRACER_PROVIDER(self) -> object:
        provider = _trace.get_tracer_provider()
        return None if isinstance(provider, _trace.ProxyTracerProvider) else provider


def _module_globals() -> tuple[Any, Any]:
    """The objects whose ``_METER_PROVIDER`` and ``_TRACER_PROVIDER`` are the API's global providers
    (None until one is set; a provider, once set, is never replaced)."""
    metrics_state: Any = importlib.import_module("opentelemetry.metrics._internal")
    if hasattr(metrics_state, "_METER_PROVIDER") and hasattr(_trace, "_TRACER_PROVIDER"):
        return metrics_state, _trace
    fallback = _PublicGlobals()
    return fallback, fallback


_METRICS_STATE, _TRACE_STATE = _module_globals()


def _version() -> str | None:
    try:
        return importlib.metadata.version("ordanis-veltrane-health")
    except importlib.metadata.PackageNotFoundError:
        return None


class OtelObserver:
    """Records tool calls and tool health with OpenTelemetry (see the module's description).

    ``meter_provider``: the provider of the instruments; None follows the API's global
    provider, including one set after construction. ``spans``: whether to annotate the
    current span; None does so once a global tracer provider is set. ``tracker``: the
    tracker whose health the observable instruments report; each call's report sets it
    to the report's tracker, and it can be set at any time (None: no health series).
    The tracker is held weakly: once the host drops it, the health series go.
    """

    def __init__(self, meter_provider: MeterProvider | None = None, *, spans: bool | None = None) -> None:
        self._lock = threading.Lock()
        self._follow_meter = meter_provider is None
        self._follow_spans = spans is None
        self._spans = bool(spans)
        self._histogram: Histogram | None = None
        self._takes_context = False
        # (attributes, seconds, the call's context or None), waiting for the SDK
        self._pending: collections.deque[tuple[dict[str, str], float, _context.Context | None]] = collections.deque()
        self._attributes: dict[tuple[str, str, str | None], dict[str, str]] = {}
        self._tracker_ref: _TrackerRef | None = None
        self._walk: tuple[_TrackerRef, float, HealthView] | None = None
        # The global providers last looked at; a sentinel until the first look.
        self._seen_meter: object = _UNSEEN
        self._seen_tracer: object = _UNSEEN
        if meter_provider is not None:
            self._use_meter(meter_provider)
        if self._follow_meter or self._follow_spans:
            # The getters load a provider named by OTEL_PYTHON_METER_PROVIDER / _TRACER_PROVIDER.
            _metrics.get_meter_provider()
            _trace.get_tracer_provider()
            self._follow_globals()

    # ------------------------------------------------------------ the tracker

    @property
    def tracker(self) -> health.ToolHealthTracker | None:
        ref = self._tracker_ref
        return None if ref is None else ref()

    @tracker.setter
    def tracker(self, tracker: health.ToolHealthTracker | None) -> None:
        ref: _TrackerRef | None = None
        if tracker is not None:
            try:
                ref = weakref.ref(tracker)
            except TypeError:  # a tracker type without weak references is held as it is
                ref = functools.partial(_same, tracker)
        self._tracker_ref = ref

    # ------------------------------------------------------------ per call

    def active(self) -> bool:
        """Whether a call's report would have any effect: false while no provider is installed, so the
        pipeline does not even build one."""
        if (_METRICS_STATE._METER_PROVIDER is not self._seen_meter
                or _TRACE_STATE._TRACER_PROVIDER is not self._seen_tracer):
            self._follow_globals()
        return self._spans or self._histogram is not None

    def call_finished(self, report: CallReportLike) -> None:
        """Records one finished call: cheap, and without effect while no provider is installed."""
        if (_METRICS_STATE._METER_PROVIDER is not self._seen_meter
                or _TRACE_STATE._TRACER_PROVIDER is not self._seen_tracer):
            self._follow_globals()
        context = None
        if self._spans:
            span = get_current_span()
            if span.is_recording():
                _annotate(span, report)
                context = _context.get_current()
        if self._histogram is not None:
            ref = self._tracker_ref
            if ref is None or ref() is not report.tracker:
                self.tracker = report.tracker
            key = (report.tool, report.outcome, report.error_type)
            attributes = self._attributes.get(key)
            if attributes is None:
                attributes = self._attributes_of(key)
            pending = self._pending
            if len(pending) < PENDING_LIMIT:
                pending.append((attributes, report.duration_s, context))
            elif self._takes_context:
                self._histogram.record(report.duration_s, attributes, context)
            else:
                self._histogram.record(report.duration_s, attributes)

    def record_pending(self) -> None:
        """Hands the queued measurements to the SDK (each collection does so first)."""
        histogram, pending = self._histogram, self._pending
        if histogram is None:
            return
        record, takes_context = histogram.record, self._takes_context
        while True:
            try:
                attributes, seconds, context = pending.popleft()
            except IndexError:
                return
            if takes_context:
                record(seconds, attributes, context)
            else:
                record(seconds, attributes)

    def _attributes_of(self, key: tuple[str, str, str | None]) -> dict[str, str]:
        tool, outcome, error_type = key
        attributes = {"mcp.method.name": "tools/call", "gen_ai.operation.name": "execute_tool",
                      "gen_ai.tool.name": label(tool)}
        if error_type is None and outcome != "ok":
            error_type = _ERROR_TYPE_OF_OUTCOME.get(outcome, "_OTHER")
        if error_type is not None:
            attributes["error.type"] = label(error_type)
        if len(self._attributes) >= _ATTRIBUTE_CACHE_SIZE:
            self._attributes = {}
        self._attributes[key] = attributes
        return attributes

    # ------------------------------------------------------------ providers

    def _follow_globals(self) -> None:
        with self._lock:
            meter_provider = _METRICS_STATE._METER_PROVIDER
            tracer_provider = _TRACE_STATE._TRACER_PROVIDER
            if self._follow_meter and meter_provider is not self._seen_meter:
                if meter_provider is not None and not isinstance(meter_provider, NoOpMeterProvider):
                    try:
                        self._use_meter(meter_provider)
                    except Exception:  # once: the provider is marked as seen below
                        logger.exception("Could not create the tool-call instruments")
            if self._follow_spans:
                self._spans = tracer_provider is not None and not isinstance(tracer_provider, NoOpTracerProvider)
            self._seen_meter, self._seen_tracer = meter_provider, tracer_provider

    def _use_meter(self, provider: MeterProvider) -> None:
        meter = provider.get_meter(SCOPE, _version())
        if isinstance(meter, NoOpMeter):  # e.g. the SDK switched off by OTEL_SDK_DISABLED
            return
        description = "MCP request duration as observed on the server, from its receipt until the result is sent."
        try:
            histogram = meter.create_histogram("mcp.server.operation.duration", unit="s", description=description,
                                               explicit_bucket_boundaries_advisory=DURATION_BUCKETS)
        except TypeError:  # an API before 1.23 takes no advice: the SDK's default buckets apply
            histogram = meter.create_histogram("mcp.server.operation.duration", unit="s", description=description)
        try:
            self._takes_context = "context" in inspect.signature(histogram.record).parameters
        except (TypeError, ValueError):
            self._takes_context = False
        self._add_health_instruments(meter)
        self._histogram = histogram

    # ------------------------------------------------------------ tool health

    def _add_health_instruments(self, meter: Meter) -> None:
        meter.create_observable_counter(
            "veltrane.tool.health.calls", [self._observe_calls], unit="{call}",
            description="Calls of the tool (served by this process, behind an adapter).")
        meter.create_observable_counter(
            "veltrane.tool.health.errors", [self._observe_errors], unit="{error}",
            description="Failed calls of the tool (served by this process, behind an adapter).")
        meter.create_observable_up_down_counter(
            "veltrane.tool.health.disabled", [self._observe_disabled], unit="{tool}",
            description="1 while the tool is disabled after repeated errors, else 0.")
        meter.create_observable_counter(
            "veltrane.tool.health.usage", [self._observe_usage], unit="{call}",
            description="Calls by tool, action, outcome and synonym use (served by this process, behind an adapter).")

    def _view(self, first: bool) -> HealthView | None:
        """The walk of this collection: ``first`` (the first instrument's callback) takes a new one."""
        if self._pending:
            self.record_pending()
        ref = self._tracker_ref
        tracker = None if ref is None else ref()
        if tracker is None or ref is None:
            return None
        walk = self._walk
        now = time.monotonic()
        if not first and walk is not None and walk[0] is ref and now - walk[1] <= _SHARED_WALK_S:
            return walk[2]
        view = read_health(tracker, time.time)
        self._walk = (ref, now, view)
        return view

    def _observe_calls(self, options: CallbackOptions) -> Iterable[Observation]:
        view = self._view(first=True)
        if view is None:
            return ()
        return [Observation(f.calls, {"gen_ai.tool.name": name}) for name, f in view.tools.items()]

    def _observe_errors(self, options: CallbackOptions) -> Iterable[Observation]:
        view = self._view(first=False)
        if view is None:
            return ()
        return [Observation(f.errors, {"gen_ai.tool.name": name}) for name, f in view.tools.items()]

    def _observe_disabled(self, options: CallbackOptions) -> Iterable[Observation]:
        view = self._view(first=False)
        if view is None:
            return ()
        return [Observation(1 if f.disabled else 0, {"gen_ai.tool.name": name}) for name, f in view.tools.items()]

    def _observe_usage(self, options: CallbackOptions) -> Iterable[Observation]:
        view = self._view(first=False)
        if view is None:
            return ()
        observations = []
        for (tool, action, outcome, alias_hit), (calls, _) in view.usage.items():
            attributes: dict[str, str | bool] = {"gen_ai.tool.name": tool, "veltrane.tool.outcome": outcome,
                                                 "veltrane.tool.alias_hit": alias_hit == "true"}
            if action:
                attributes["veltrane.tool.action"] = action
            observations.append(Observation(calls, attributes))
        return observations


def _same(tracker: health.ToolHealthTracker) -> health.ToolHealthTracker:
    return tracker


def _annotate(span: Span, report: CallReportLike) -> None:
    """Adds the tool's health after the call to the call's span, and an event when it was refused."""
    tool, refused = report.tool, report.outcome == "disabled"
    # Few attributes: the SDK's set_attributes costs about a microsecond for each.
    attributes: dict[str, str | bool | int] = {}
    if report.action is not None:
        attributes["veltrane.tool.action"] = label(report.action)
    # Read without the tracker's lock, so that a call never waits on a flush holding it: a dict
    # lookup and two field reads, each whole; a record of another type may lack a field.
    disabled = refused
    try:
        state = report.tracker._state.get(tool)
        if state is not None:
            attributes["veltrane.tool.consecutive_errors"] = int(state.consecutive_errors)
            disabled = disabled or state.disabled_at is not None
    except Exception:
        pass
    attributes["veltrane.tool.disabled"] = disabled
    span.set_attributes(attributes)
    if refused:
        event: dict[str, str] = {"gen_ai.tool.name": label(tool), "error.type": report.error_type or REFUSED}
        if report.error_message is not None:
            event["veltrane.tool.last_error"] = label(report.error_message)
        span.add_event("veltrane.tool.refused", event)


_default: OtelObserver | None = None
_default_lock = threading.Lock()


def default_observer() -> OtelObserver | None:
    """The process's observer that follows the API's global providers (one per process, so that
    its observable instruments are registered once); None while ``OTEL_SDK_DISABLED`` is true."""
    global _default
    if os.environ.get("OTEL_SDK_DISABLED", "").strip().lower() == "true":
        return None
    with _default_lock:
        if _default is None:
            _default = OtelObserver()
        return _default

