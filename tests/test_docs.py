"""Every example of the README and the docs pages, run as a reader would run it. Python blocks run in order in
one namespace per page (`__name__` is not "__main__", so a server's `run()` under that guard stays off), in a
fresh directory; `<!-- invisible-code-block: python ... -->` sets up or checks in the page's source. Shell
blocks run with bash, the package's commands on the PATH (`pip install` lines skipped: the test environment is
where they were installed); one
preceded by `<!-- mcp-server -->` is started as a stdio server, called by the SDK's client, and kept running
until the page ends. A JSON block with "mcpServers" is a client's configuration: each server in it is started
and called. SQL blocks run on an empty SQLite database. A block that cannot run here is preceded by
`<!-- skip: next "why" -->`."""

import json
import os
import re
import sqlite3
import subprocess
import sys
import threading
from pathlib import Path
from typing import Any, Iterator
from unittest import SkipTest

import pytest

from conftest import child_env, stdio_session
from ordanis_veltrane.tool_handlers import health
from ordanis_veltrane.utils.timing import get_timing_collector

ROOT = Path(__file__).resolve().parents[1]
PAGES = [p for p in [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))] if p.is_file()]
pytestmark = [
    pytest.mark.skipif(not (ROOT / "docs").is_dir(), reason="runs from a checkout, next to docs/"),
    # The examples start servers and time their answers; under a preloaded sanitizer runtime they run
    # minutes and time out. The plain run checks them; the sanitizer run is for the native module.
    pytest.mark.skipif("libasan" in os.environ.get("LD_PRELOAD", ""), reason="the examples run in the plain suite"),
]
sybil = pytest.importorskip("sybil")
pytest.importorskip("mcp")

from sybil.parsers.markdown import CodeBlockParser, PythonCodeBlockParser, SkipParser  # noqa: E402


class McpServer(threading.Thread):
    """A stdio MCP server started as the block says, initialized, listed and its status tool called, by the SDK's
    own client; it runs until `stop()`."""

    def __init__(self, command: str, args: list[str], env: dict[str, str], cwd: Path) -> None:
        super().__init__(daemon=True)
        self.params, self.cwd, self.ready, self.done = (command, args, env), cwd, threading.Event(), threading.Event()
        self.tools: list[str] = []
        self.error: BaseException | None = None
        self.start()
        if not self.ready.wait(120):
            raise TimeoutError(f"{command} {args} did not answer within 120 s")
        if self.error is not None:
            raise self.error

    def run(self) -> None:
        import anyio

        async def main() -> None:
            command, args, env = self.params
            async with stdio_session(args, self.cwd / "server.log", command, env, self.cwd) as session:
                self.tools = [t.name for t in (await session.list_tools()).tools]
                status = next(n for n in ("status", "health_status") if n in self.tools)
                answer = await session.call_tool(status, {})
                assert not answer.is_error and "tool_health" in answer.content[0].text, answer
                self.ready.set()
                await anyio.to_thread.run_sync(self.done.wait)

        try:
            anyio.run(main)
        except BaseException as exc:  # reported by the thread that waits for `ready`
            self.error = exc
        finally:
            self.ready.set()

    def stop(self) -> None:
        self.done.set()
        self.join(60)


def environment(tmp: Path) -> dict[str, str]:
    """The package under test first; `python` is this interpreter, its scripts' directory next on the PATH. The
    directory looks like a checkout: benchmarks/, tools/ and examples/ are the repository's, src/ the package's."""
    for name, target in (("benchmarks", ROOT), ("tools", ROOT), ("examples", ROOT), ("src", package_root())):
        (tmp / name).symlink_to(target / name if target is ROOT else target)
    bin_dir = tmp / ".bin"
    bin_dir.mkdir(exist_ok=True)
    (bin_dir / "python").write_text(f'#!/bin/sh\nexec "{sys.executable}" "$@"\n')
    (bin_dir / "python").chmod(0o755)
    for name, module in console_scripts():  # the commands an installed wheel puts on the PATH, from this package
        (bin_dir / name).write_text(f'#!/bin/sh\nexec "{sys.executable}" -m {module} "$@"\n')
        (bin_dir / name).chmod(0o755)
    env = child_env()
    env["PATH"] = os.pathsep.join([str(bin_dir), str(Path(sys.executable).parent), env.get("PATH", "")])
    return env


def console_scripts() -> list[tuple[str, str]]:
    """`[project.scripts]` of pyproject.toml as (command, module); each module runs its `main()` under `-m`."""
    table = re.search(r"^\[project\.scripts\]\n(.*?)(?:^\[|\Z)", (ROOT / "pyproject.toml").read_text(), re.M | re.S)
    return re.findall(r'^([\w-]+)\s*=\s*"([\w.]+):main"', table.group(1) if table else "", re.M)


def package_root() -> Path:
    return Path(health.__file__).parents[2]


def run_shell(example: Any) -> None:
    ns = example.namespace
    source = "\n".join(line for line in example.parsed.splitlines() if not line.lstrip().startswith("pip install"))
    if not source.strip():
        raise SkipTest("only installs packages")
    if ns.pop("_mcp_server", False):
        ns["_servers"].append(McpServer("bash", ["-c", source], ns["_env"], Path.cwd()))
        return
    done = subprocess.run(["bash", "-euo", "pipefail", "-c", source], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, env=ns["_env"], timeout=300)
    assert done.returncode == 0, f"exit {done.returncode}\n{done.stdout[-3000:]}\n{done.stderr[-3000:]}"


def run_json(example: Any) -> None:
    config = json.loads(example.parsed)
    if "mcpServers" not in config:
        return
    for server in config["mcpServers"].values():  # paths written as /abs/path/... go to this page's directory
        args = [re.sub(r"^/abs/path/", f"{Path.cwd()}/", a) for a in server["args"]]
        McpServer(server["command"], args, example.namespace["_env"], Path.cwd()).stop()


def run_sql(example: Any) -> None:
    with sqlite3.connect(":memory:") as conn:
        conn.executescript(example.parsed)


def mcp_server_directive(document: Any) -> Iterator[Any]:
    from sybil import Region

    for found in re.finditer(r"<!--\s*mcp-server\s*-->", document.text):
        yield Region(found.start(), found.end(), None, lambda example: example.namespace.update(_mcp_server=True))


PARSERS = [PythonCodeBlockParser(), SkipParser(), mcp_server_directive,
           *(CodeBlockParser(language, run_shell) for language in ("sh", "bash")),
           CodeBlockParser("json", run_json), CodeBlockParser("sql", run_sql)]


@pytest.mark.parametrize("page", PAGES, ids=[p.name for p in PAGES])
def test_examples(page: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.chdir(tmp_path)
    monkeypatch.setattr(health, "TOOLS", health.TOOLS)  # the integrations install registries of their own
    get_timing_collector().reset()
    document = sybil.Sybil(PARSERS).parse(page)
    document.namespace.update(__name__="docs_example", _env=environment(tmp_path), _servers=[])
    ran = skipped = 0
    try:
        for example in document.examples():
            try:
                example.evaluate()
            except SkipTest:
                skipped += 1
            except Exception as exc:
                raise AssertionError(f"{page.name}, line {example.line}: {exc!r}") from exc
            else:
                ran += "source" in (example.region.lexemes or {})  # a code block, not a directive
    finally:
        for server in document.namespace["_servers"]:
            server.stop()
        get_timing_collector().reset()
    print(f"{page.name}: {ran} examples run, {skipped} skipped")
