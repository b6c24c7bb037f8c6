"""A throwaway PostgreSQL cluster for tests and benchmarks: initdb and pg_ctl of the installed
server, run as the unprivileged ``postgres`` user when started as root, trust authentication on
127.0.0.1 and a free port, in a temporary directory removed at the end."""
from __future__ import annotations

import glob
import os
import pwd
import shutil
import socket
import subprocess
import tempfile
from pathlib import Path
from typing import Iterator

import pytest


def _bin_dir() -> Path | None:
    found = sorted(glob.glob("/usr/lib/postgresql/*/bin/initdb"), key=lambda p: int(p.split("/")[4]))
    if found:
        return Path(found[-1]).parent
    initdb = shutil.which("initdb")
    return Path(initdb).parent if initdb else None


def _free_port() -> int:
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return int(s.getsockname()[1])


class PgCluster:
    """``start()``/``stop()`` the server; ``url`` reaches its ``postgres`` database."""

    def __init__(self) -> None:
        bin_dir = _bin_dir()
        if bin_dir is None:
            raise RuntimeError("no PostgreSQL server binaries (initdb) found")
        self.bin = bin_dir
        self.as_user: list[str] = []
        owner = None
        if os.geteuid() == 0:
            try:
                owner = pwd.getpwnam("postgres")
            except KeyError:
                raise RuntimeError("running as root and there is no 'postgres' user to run the server") from None
            runner = shutil.which("runuser") or shutil.which("su")
            if runner is None:
                raise RuntimeError("neither runuser nor su is available")
            self.as_user = [runner, "-u", "postgres", "--"] if runner.endswith("runuser") else []
        self.dir = Path(tempfile.mkdtemp(prefix="pgtest-"))
        if owner is not None:
            os.chown(self.dir, owner.pw_uid, owner.pw_gid)
        self.data = self.dir / "data"
        self.port = _free_port()
        self.url = f"postgresql://postgres@127.0.0.1:{self.port}/postgres"
        self._run("initdb", "-D", str(self.data), "-A", "trust", "-U", "postgres", "--no-sync", "-E", "UTF8")

    def _run(self, tool: str, *args: str) -> None:
        command = [str(self.bin / tool), *args]
        if self.as_user:
            command = [*self.as_user, *command]
        elif os.geteuid() == 0:  # su: one command line
            command = ["su", "postgres", "-c", " ".join(map(_quote, command))]
        result = subprocess.run(command, capture_output=True, text=True, timeout=120, cwd=self.dir)
        if result.returncode != 0:
            raise RuntimeError(f"{tool} failed: {result.stdout}{result.stderr}")

    def start(self) -> None:
        options = f"-p {self.port} -k {self.dir} -c listen_addresses=127.0.0.1 -c fsync=off -c max_connections=100"
        self._run("pg_ctl", "-D", str(self.data), "-l", str(self.dir / "log"), "-o", options, "-w", "-t", "60", "start")

    def stop(self, mode: str = "fast") -> None:
        self._run("pg_ctl", "-D", str(self.data), "-m", mode, "-w", "stop")

    def running(self) -> bool:
        return (self.data / "postmaster.pid").exists()

    def remove(self) -> None:
        if self.running():
            try:
                self.stop("immediate")
            except RuntimeError:
                pass
        shutil.rmtree(self.dir, ignore_errors=True)


def _quote(text: str) -> str:
    import shlex

    return shlex.quote(text)


@pytest.fixture(scope="session")
def pg_cluster() -> Iterator[PgCluster]:
    try:
        import psycopg  # noqa: F401
    except ImportError:
        pytest.skip("psycopg is not installed (the 'postgres' extra)")
    try:
        cluster = PgCluster()
        cluster.start()
    except (RuntimeError, OSError, subprocess.SubprocessError) as exc:
        pytest.skip(f"cannot start a PostgreSQL server: {exc}")
    try:
        yield cluster
    finally:
        cluster.remove()


@pytest.fixture
def pg_url(pg_cluster: PgCluster) -> Iterator[str]:
    """A fresh database of the session's cluster, dropped afterwards."""
    import psycopg

    if not pg_cluster.running():
        pg_cluster.start()
    name = f"t{os.getpid()}_{next(_counter)}"
    with psycopg.connect(pg_cluster.url, autocommit=True) as conn:
        conn.execute(f"CREATE DATABASE {name}")
    yield pg_cluster.url.rsplit("/", 1)[0] + "/" + name
    if not pg_cluster.running():
        pg_cluster.start()
    with psycopg.connect(pg_cluster.url, autocommit=True) as conn:
        conn.execute(f"DROP DATABASE IF EXISTS {name} WITH (FORCE)")


def _count() -> Iterator[int]:
    n = 0
    while True:
        n += 1
        yield n


_counter = _count()
