"""Tool health as Prometheus metrics.

``HealthCollector`` is a custom ``prometheus_client`` collector for one
``ToolHealthTracker``. At each scrape it takes exactly one
``get_health_summary()`` (one short hold of the tracker's lock, no database
access), reads the tracker's limits, takes a thread census on the scraping
thread, and yields (names shown with the default prefix ``veltrane_tool_``):

per tool (label ``tool``)
    ``calls_total``, ``errors_total`` (counters), ``disabled`` (0/1),
    ``disabled_for_seconds`` (only while disabled);
limits of the tracker (no labels)
    ``disable_after_errors``, ``disable_cooldown_seconds``;
per usage key (labels ``tool``, ``action``, ``outcome``, ``alias_hit``)
    ``usage_calls_total`` (counter), ``usage_handler_mean_seconds`` (only where a
    handler time is known);
threads (when a budget is given)
    ``os_threads`` (where the OS can count), ``python_threads``, ``thread_budget``,
    ``python_threads_by_name`` (label ``name_prefix``).

The counters (``calls_total``, ``errors_total``, ``usage_calls_total``) count the calls this
process served since it started when the tracker runs behind one of the package's adapters (which
keep those counts: ``health_view.serve_counts``), so that ``sum()`` over the instances of a fleet
sharing one store is the fleet's total; the gauges (``disabled``, ``disabled_for_seconds``,
``usage_handler_mean_seconds``) are the fleet's view, from the shared tracker. A host's
own tracker is read as it is: its totals since its history began.

``serve_metrics`` serves one collector over HTTP: prometheus_client's own WSGI
application behind a server that allows a bounded number of connections (each on a
thread of a fixed pool) and drops clients that are idle or slow. The module needs the
``metrics`` extra: ``pip install '.[metrics]'``.
"""
from __future__ import annotations

import io
import logging
import socket
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from typing import IO, Any, Callable, Iterator, cast
from wsgiref.simple_server import ServerHandler, WSGIRequestHandler, WSGIServer

try:
    from prometheus_client import make_wsgi_app
    from prometheus_client.core import CounterMetricFamily, GaugeMetricFamily, Metric
    from prometheus_client.registry import CollectorRegistry
    from prometheus_client.samples import Sample
except ImportError as _missing:  # pragma: no cover - exercised in a subprocess
    raise ImportError(
        "ordanis_veltrane.tool_handlers.health_metrics needs prometheus_client: "
        "install the 'metrics' extra (pip install 'ordanis-veltrane-health[metrics]', "
        "or pip install '.[metrics]' from a checkout)"
    ) from _missing

from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.tool_handlers.health_view import label as _label, read_health

__all__ = [
    "DEFAULT_MAX_CONNECTIONS",
    "DEFAULT_PREFIX",
    "DEFAULT_TIMEOUT",
    "HealthCollector",
    "MetricsServer",
    "serve_metrics",
]

DEFAULT_PREFIX = "veltrane_tool_"
DEFAULT_MAX_CONNECTIONS = 8
DEFAULT_TIMEOUT = 10.0

logger: logging.Logger = logging.getLogger(__name__)

_USAGE_LABELS = ("tool", "action", "outcome", "alias_hit")


class _Families:
    """The metric families of one scrape, empty until filled."""

    def __init__(self, p: str) -> None:
        tool = ["tool"]
        self.calls = CounterMetricFamily(
            p + "calls_total", "Calls of the tool (served by this process, behind an adapter).", labels=tool
        )
        self.errors = CounterMetricFamily(
            p + "errors_total", "Failed calls of the tool (served by this process, behind an adapter).", labels=tool
        )
        self.disabled = GaugeMetricFamily(
            p + "disabled", "1 while the tool is disabled after repeated errors.", labels=tool
        )
        self.disabled_for = GaugeMetricFamily(
            p + "disabled_for_seconds", "Seconds since a disabled tool was disabled.", labels=tool
        )
        self.limit = GaugeMetricFamily(p + "disable_after_errors", "Errors in a row that disable a tool.")
        self.cooldown = GaugeMetricFamily(
            p + "disable_cooldown_seconds", "Seconds a disabled tool stays disabled before it is tried again."
        )
        self.usage_calls = CounterMetricFamily(
            p + "usage_calls_total", "Calls by tool, action, outcome and synonym use.", labels=_USAGE_LABELS
        )
        self.usage_mean = GaugeMetricFamily(
            p + "usage_handler_mean_seconds",
            "Mean handler time of the calls of a usage key that reported one.",
            labels=_USAGE_LABELS,
        )
        self.os_threads = GaugeMetricFamily(p + "os_threads", "Threads of the process, as the OS counts them.")
        self.python_threads = GaugeMetricFamily(p + "python_threads", "Threads of the process that Python knows.")
        self.budget = GaugeMetricFamily(p + "thread_budget", "The most threads the process's pools allow.")
        self.by_name = GaugeMetricFamily(
            p + "python_threads_by_name", "Python threads by name prefix.", labels=["name_prefix"]
        )

    def all(self) -> list[Metric]:
        return list(vars(self).values())


class HealthCollector:
    """Reads one tracker at scrape time and yields its health as metric families.

    ``tracker`` may be replaced at any time (a daemon that rebuilds its tracker
    points the collector at the new one) or set to None, which leaves only the
    thread metrics. ``thread_budget`` is the most threads the process's pools
    allow; None leaves the thread metrics out. ``clock`` gives the epoch seconds
    that ``disabled_for_seconds`` is measured against.
    """

    def __init__(
        self,
        tracker: health.ToolHealthTracker | None,
        thread_budget: int | None = None,
        *,
        prefix: str = DEFAULT_PREFIX,
        clock: Callable[[], float] = time.time,
    ) -> None:
        self.tracker = tracker
        self.thread_budget = thread_budget
        self.prefix = prefix
        self.clock = clock
        _Families(prefix)  # an invalid prefix fails here, not at the first scrape

    def describe(self) -> Iterator[Metric]:
        """The families without samples: a registry checks their names without a scrape."""
        return iter(_Families(self.prefix).all())

    # -- one scrape

    def collect(self) -> Iterator[Metric]:
        families = _Families(self.prefix)
        tracker = self.tracker  # read once: a replacement mid-scrape takes effect at the next one
        if tracker is not None:
            self._add_tracker(families, tracker)
        if self.thread_budget is not None:
            self._add_threads(families, self.thread_budget)
        return (family for family in families.all() if family.samples)

    def _add_tracker(self, families: _Families, tracker: health.ToolHealthTracker) -> None:
        view = read_health(tracker, self.clock)  # the only lock hold of the scrape
        tools, usage = view.tools, view.usage

        # Samples are appended directly: add_metric would build the same label dict
        # once per family, and a scrape of thousands of usage keys feels that.
        calls_name, errors_name = families.calls.name + "_total", families.errors.name + "_total"
        disabled_name, disabled_for_name = families.disabled.name, families.disabled_for.name
        calls_s, errors_s = families.calls.samples, families.errors.samples
        disabled_s, disabled_for_s = families.disabled.samples, families.disabled_for.samples
        for name, figures in tools.items():
            labels = {"tool": name}
            calls_s.append(Sample(calls_name, labels, figures.calls))
            errors_s.append(Sample(errors_name, labels, figures.errors))
            disabled_s.append(Sample(disabled_name, labels, 1.0 if figures.disabled else 0.0))
            if figures.disabled_for is not None:
                disabled_for_s.append(Sample(disabled_for_name, labels, figures.disabled_for))
        usage_calls_name, usage_mean_name = families.usage_calls.name + "_total", families.usage_mean.name
        usage_calls_s, usage_mean_s = families.usage_calls.samples, families.usage_mean.samples
        for (tool, action, outcome, alias_hit), (calls, avg_ms) in usage.items():
            labels = {"tool": tool, "action": action, "outcome": outcome, "alias_hit": alias_hit}
            usage_calls_s.append(Sample(usage_calls_name, labels, calls))
            if avg_ms is not None:
                # avg_ms has 2 decimals: 5 in seconds keep it exact and print short
                usage_mean_s.append(Sample(usage_mean_name, labels, round(avg_ms / 1000.0, 5)))
        families.limit.add_metric((), float(tracker.limits.disable_after_errors))
        families.cooldown.add_metric((), float(tracker.cooldown_s))

    def _add_threads(self, families: _Families, budget: int) -> None:
        # The census reads /proc: it runs here, on the scraping thread, never on the event loop.
        report = health.thread_census_report(budget, health.thread_census())
        if "os" in report:
            families.os_threads.add_metric((), report["os"])
        families.python_threads.add_metric((), report["python"])
        families.budget.add_metric((), report["budget"])
        by_name = families.by_name
        for prefix, count in report["python_by_name"].items():
            by_name.add_metric((_label(prefix),), count)


# ---------------------------------------------------------------- the HTTP endpoint

_BUSY = (
    b"HTTP/1.0 503 Service Unavailable\r\nContent-Type: text/plain; charset=utf-8\r\n"
    b"Connection: close\r\nRetry-After: 1\r\n\r\ntoo many connections to the metrics endpoint\n"
)


class _DeadlineReader(io.RawIOBase):
    """Reads a socket until a deadline: the whole request must arrive before it, however
    slowly it trickles in."""

    def __init__(self, sock: socket.socket, deadline: float) -> None:
        self._sock = sock
        self._deadline = deadline

    def readable(self) -> bool:
        return True

    def readinto(self, buffer: Any) -> int:
        left = self._deadline - time.monotonic()
        if left <= 0:
            raise TimeoutError("the client did not send its request in time")
        self._sock.settimeout(left)
        return self._sock.recv_into(buffer)


class _TimedWriter(io.BufferedIOBase):
    """Writes to a socket; each write must be taken by the client within the timeout
    (``sendall``'s timeout covers the whole write, not each piece of it)."""

    def __init__(self, sock: socket.socket, timeout: float) -> None:
        self._sock = sock
        self._timeout = timeout

    def writable(self) -> bool:
        return True

    def write(self, data: Any) -> int:
        self._sock.settimeout(self._timeout)
        self._sock.sendall(data)
        return len(data)


class _ServerHandler(ServerHandler):
    """wsgiref's handler, logging to the module's logger instead of printing to stderr."""

    def log_exception(self, exc_info: Any) -> None:
        if isinstance(exc_info[1], OSError):  # a client too slow to take the answer, or gone
            logger.debug("Metrics answer not delivered", exc_info=exc_info)
        else:
            logger.warning("Serving the metrics failed", exc_info=exc_info)


class _Handler(WSGIRequestHandler):
    """One request per connection, under the server's deadline; logs nothing per request."""

    server: _BoundedServer

    def setup(self) -> None:
        self.connection = self.request
        self.rfile = io.BufferedReader(_DeadlineReader(self.request, time.monotonic() + self.server.client_timeout))
        self.wfile = _TimedWriter(self.request, self.server.client_timeout)

    def finish(self) -> None:
        self.rfile.close()

    def handle(self) -> None:
        # WSGIRequestHandler.handle, with the handler above
        self.raw_requestline = self.rfile.readline(65537)
        if len(self.raw_requestline) > 65536:
            self.requestline = self.request_version = self.command = ""
            self.send_error(414)
            return
        if not self.parse_request():  # the error answer has been sent
            return
        handler = _ServerHandler(self.rfile, cast(IO[bytes], self.wfile), self.get_stderr(), self.get_environ(),
                                 multithread=False)
        handler.request_handler = self  # type: ignore[attr-defined]  # wsgiref's back pointer for logging
        handler.run(self.server.get_app())  # type: ignore[arg-type]

    def log_message(self, format: str, *args: Any) -> None:
        pass


class _BoundedServer(WSGIServer):
    """A WSGI server that serves at most `max_connections` connections at a time, each on a
    thread of a fixed pool of that size. A connection beyond them is answered 503 at once and
    closed, without a thread; a client gets `timeout` seconds to send its request and to take
    each write of the answer, then it is dropped."""

    request_queue_size = 64

    def __init__(self, address: tuple[str, int], family: socket.AddressFamily, max_connections: int,
                 timeout: float) -> None:
        if max_connections < 1:
            raise ValueError("max_connections must be at least 1")
        if not timeout > 0:
            raise ValueError("timeout must be above 0")
        self.address_family = family
        self.client_timeout = timeout
        self.max_connections = max_connections
        self._slots = threading.BoundedSemaphore(max_connections)
        self._open: set[socket.socket] = set()
        self._open_lock = threading.Lock()
        self._pool = ThreadPoolExecutor(max_connections, thread_name_prefix="health-metrics-conn")
        super().__init__(address, _Handler)

    def process_request(self, request: Any, client_address: Any) -> None:
        if not self._slots.acquire(blocking=False):
            self._refuse(request)
            return
        try:
            self._pool.submit(self._serve, request, client_address)
        except RuntimeError:  # the pool is shut down: the server is closing
            self._slots.release()
            self.shutdown_request(request)

    def _serve(self, request: socket.socket, client_address: Any) -> None:
        with self._open_lock:
            self._open.add(request)
        try:
            self.finish_request(request, client_address)
        except Exception:
            self.handle_error(request, client_address)
        finally:
            with self._open_lock:
                self._open.discard(request)
            self.shutdown_request(request)
            self._slots.release()

    def _refuse(self, request: socket.socket) -> None:
        try:
            request.setblocking(False)
            request.send(_BUSY)
        except OSError:
            pass
        self.shutdown_request(request)

    def handle_error(self, request: Any, client_address: Any) -> None:
        # A client that went away or was too slow is no fault of the server's.
        logger.debug("Metrics connection from %s dropped", client_address, exc_info=True)

    def server_close(self) -> None:
        """Closes the listening socket, breaks off the connections being served and waits for their threads."""
        super().server_close()
        with self._open_lock:
            for sock in self._open:
                try:
                    sock.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass
        self._pool.shutdown(wait=True)


@dataclass
class MetricsServer:
    """A running metrics endpoint: where it listens, what it serves, its limits, and how to stop it."""

    collector: HealthCollector
    registry: CollectorRegistry
    address: str
    port: int
    _server: Any
    _thread: Any
    max_connections: int = DEFAULT_MAX_CONNECTIONS
    timeout: float = DEFAULT_TIMEOUT

    @property
    def url(self) -> str:
        host = f"[{self.address}]" if ":" in self.address else self.address
        return f"http://{host}:{self.port}/metrics"

    def close(self) -> None:
        """Stops serving, closes the socket and the connections in progress, and takes the collector out
        of the registry."""
        self._server.shutdown()
        self._server.server_close()
        self._thread.join()
        self.registry.unregister(self.collector)

    def __enter__(self) -> MetricsServer:
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()


def serve_metrics(
    tracker: health.ToolHealthTracker | None,
    port: int,
    address: str = "127.0.0.1",
    *,
    thread_budget: int | None = None,
    prefix: str = DEFAULT_PREFIX,
    registry: CollectorRegistry | None = None,
    max_connections: int = DEFAULT_MAX_CONNECTIONS,
    timeout: float = DEFAULT_TIMEOUT,
) -> MetricsServer:
    """Serves a collector of `tracker` over HTTP on `address`:`port` (port 0 picks a free port).

    The collector goes into `registry`, a fresh one by default (pass
    ``prometheus_client.REGISTRY`` to serve the process metrics beside it). The
    server accepts on a daemon thread of its own and serves at most
    `max_connections` connections at a time, one request each, on a pool of that
    many threads: one more connection is answered 503 and closed at once. A client
    has `timeout` seconds to send its request and to take each write of the answer;
    an idle or slow one is dropped then. So the endpoint holds at most
    ``1 + max_connections`` threads, whatever its clients do. ``close()`` on the
    result stops it. Point ``result.collector.tracker`` at a new tracker when the
    daemon replaces its own.
    """
    collector = HealthCollector(tracker, thread_budget, prefix=prefix)
    if registry is None:
        registry = CollectorRegistry()
    registry.register(collector)
    try:
        family, _, _, _, sockaddr = socket.getaddrinfo(address, port, type=socket.SOCK_STREAM,
                                                       flags=socket.AI_PASSIVE)[0]
        server = _BoundedServer((str(sockaddr[0]), port), family, max_connections, timeout)
    except BaseException:
        registry.unregister(collector)
        raise
    server.set_app(make_wsgi_app(registry))
    thread = threading.Thread(target=server.serve_forever, name="health-metrics", daemon=True)
    thread.start()
    return MetricsServer(collector, registry, address, server.server_port, server, thread, max_connections, timeout)
