"""A throwaway PostgreSQL cluster for tests and benchmarks: initdb and pg_ctl of the installed
server, run as the unprivileged ``postgres`` user when started as root, trust authentication on
127.0.0.1 and a free port, in a temporary directory removed at the end; and PgBouncer in
transaction-pooling mode in front of it."""
from __future__ import annotations

import contextlib
import glob
import itertools
import os
import shutil
import socket
import subprocess
import re
import tempfile
import time
from pathlib import Path
from typing import Iterator

import pytest


def free_port() -> int:
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return int(s.getsockname()[1])


def as_postgres(command: list[str]) -> list[str]:
    return ["runuser", "-u", "postgres", "--", *command] if os.geteuid() == 0 else command


class PgCluster:
    """``start()``/``stop()`` the server; ``url`` reaches its ``postgres`` database."""

    def __init__(self) -> None:
        found = sorted(glob.glob("/usr/lib/postgresql/*/bin/initdb"), key=lambda p: int(p.split("/")[4]))
        initdb = found[-1] if found else shutil.which("initdb")
        if initdb is None:
            raise RuntimeError("no PostgreSQL server binaries (initdb) found")
        self.bin = Path(initdb).parent
        self.dir = Path(tempfile.mkdtemp(prefix="pgtest-"))
        if os.geteuid() == 0:  # the server refuses to run as root
            shutil.chown(self.dir, "postgres", "postgres")
        self.data = self.dir / "data"
        self.port = free_port()
        self.url = f"postgresql://postgres@127.0.0.1:{self.port}/postgres"
        self._run("initdb", "-D", str(self.data), "-A", "trust", "-U", "postgres", "--no-sync", "-E", "UTF8")

    def _run(self, tool: str, *args: str) -> None:
        command = as_postgres([str(self.bin / tool), *args])
        # The server is not under test: a sanitizer runtime preloaded into the tests' interpreter stays out of it.
        env = {k: v for k, v in os.environ.items() if k not in ("LD_PRELOAD", "ASAN_OPTIONS", "UBSAN_OPTIONS")}
        result = subprocess.run(command, capture_output=True, text=True, timeout=120, cwd=self.dir, env=env)
        if result.returncode != 0:
            raise RuntimeError(f"{tool} failed: {result.stdout}{result.stderr}")

    def start(self, max_connections: int = 100, extra: str = "") -> None:
        options = (f"-p {self.port} -k {self.dir} -c listen_addresses=127.0.0.1 -c fsync=off "
                   f"-c max_connections={max_connections} {extra}")
        self._run("pg_ctl", "-D", str(self.data), "-l", str(self.dir / "log"), "-o", options, "-w", "-t", "60", "start")

    def stop(self, mode: str = "fast") -> None:
        self._run("pg_ctl", "-D", str(self.data), "-m", mode, "-w", "stop")

    def running(self) -> bool:
        return (self.data / "postmaster.pid").exists()

    def remove(self) -> None:
        if self.running():
            with contextlib.suppress(RuntimeError):
                self.stop("immediate")
        shutil.rmtree(self.dir, ignore_errors=True)


@pytest.fixture(scope="session")
def pg_cluster() -> Iterator[PgCluster]:
    pytest.importorskip("psycopg", reason="psycopg is not installed (the 'postgres' extra)")
    try:
        cluster = PgCluster()
        cluster.start()
    except (RuntimeError, LookupError, OSError, subprocess.SubprocessError) as exc:
        pytest.skip(f"cannot start a PostgreSQL server: {exc}")
    try:
        yield cluster
    finally:
        cluster.remove()


_databases = itertools.count(1)


@pytest.fixture
def pg_url(pg_cluster: PgCluster) -> Iterator[str]:
    """A fresh database of the session's cluster, dropped afterwards (restarting a cluster a test stopped)."""
    import psycopg

    name = f"t{os.getpid()}_{next(_databases)}"
    with psycopg.connect(pg_cluster.url, autocommit=True) as conn:
        conn.execute(f"CREATE DATABASE {name}")
    yield pg_cluster.url.rsplit("/", 1)[0] + "/" + name
    if not pg_cluster.running():
        pg_cluster.start()
    with psycopg.connect(pg_cluster.url, autocommit=True) as conn:
        conn.execute(f"DROP DATABASE IF EXISTS {name} WITH (FORCE)")


class PgBouncer:
    """PgBouncer in transaction-pooling mode in front of ``cluster``: every database of it, by name."""

    def __init__(self, cluster: PgCluster, pool_size: int = 20) -> None:
        binary = shutil.which("pgbouncer") or "/usr/sbin/pgbouncer"
        if not os.path.exists(binary):
            raise RuntimeError("pgbouncer is not installed")
        self.port = free_port()
        self.dir = cluster.dir
        ini = self.dir / "pgbouncer.ini"
        ini.write_text(f"""[databases]
* = host=127.0.0.1 port={cluster.port} user=postgres
[pgbouncer]
listen_addr = 127.0.0.1
listen_port = {self.port}
unix_socket_dir =
auth_type = any
pool_mode = transaction
max_client_conn = 2000
default_pool_size = {pool_size}
ignore_startup_parameters = extra_float_digits
query_wait_timeout = 5
server_login_retry = 1
logfile = {self.dir}/pgbouncer.log
pidfile = {self.dir}/pgbouncer.pid
""")
        if os.geteuid() == 0:
            shutil.chown(ini, "postgres", "postgres")
        env = {k: v for k, v in os.environ.items() if k not in ("LD_PRELOAD", "ASAN_OPTIONS", "UBSAN_OPTIONS")}
        self.process = subprocess.Popen(as_postgres([binary, str(ini)]), env=env, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)
        for _ in range(100):
            with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", self.port), 0.1):
                return
            if self.process.poll() is not None:
                raise RuntimeError(f"pgbouncer exited with {self.process.returncode}")
            time.sleep(0.05)
        self.stop()
        raise RuntimeError("pgbouncer did not start listening")

    def url(self, direct_url: str) -> str:
        """``direct_url`` (a database of the cluster) through the pooler."""
        return re.sub(r"@127\.0\.0\.1:\d+/", f"@127.0.0.1:{self.port}/", direct_url)

    def stop(self) -> None:
        self.process.terminate()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


@pytest.fixture(scope="session")
def pg_bouncer(pg_cluster: PgCluster) -> Iterator[PgBouncer]:
    try:
        bouncer = PgBouncer(pg_cluster)
    except (RuntimeError, OSError) as exc:
        pytest.skip(f"cannot start pgbouncer: {exc}")
    try:
        yield bouncer
    finally:
        bouncer.stop()


@pytest.fixture
def pg_bouncer_url(pg_url: str, pg_bouncer: PgBouncer) -> str:
    """A fresh database of the session's cluster, reached through PgBouncer in transaction-pooling mode."""
    return pg_bouncer.url(pg_url)
