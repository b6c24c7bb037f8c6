"""A downstream MCP server built with the official SDK for the proxy tests, over stdio or streamable HTTP: one tool
per feature that must pass through the proxy, `die` for a fault, and tools named like the proxy's status tools.

    python tests/proxy_downstream.py [--http PORT --token T]
"""
import argparse
import os
import sys
from typing import Any

from mcp.server.mcpserver import Context, MCPServer
from pydantic import BaseModel

server = MCPServer("features")


class Confirm(BaseModel):
    ok: bool


@server.tool()
async def progress(ctx: Context) -> str:
    for step in range(3):
        await ctx.report_progress(step + 1, 3, f"step {step + 1}")
    return "done"


@server.tool()
async def log(ctx: Context, count: int = 1) -> str:
    for n in range(count):
        await ctx.info(f"line {n}")
    return f"logged {count}"


@server.tool()
async def elicit(ctx: Context) -> str:
    answer = await ctx.elicit("Go ahead?", Confirm)
    return f"{answer.action} {getattr(getattr(answer, 'data', None), 'ok', None)}"


@server.tool()
async def sample(ctx: Context) -> str:
    from mcp.types import SamplingMessage, TextContent

    result = await ctx.session.create_message(
        [SamplingMessage(role="user", content=TextContent(type="text", text="hello"))], max_tokens=5)
    return f"sampled {result.content.text}"


@server.tool()
async def ping_client(ctx: Context) -> str:
    await ctx.session.send_ping()
    return "pinged"


@server.tool()
async def add_tool(ctx: Context) -> str:
    server.add_tool(lambda: "new", name="added")
    await ctx.session.send_tool_list_changed()
    return "added"


@server.tool()
async def sleep(seconds: float) -> str:
    import anyio

    await anyio.sleep(seconds)
    return "slept"


@server.tool()
def die() -> str:
    os._exit(3)


for name in ("status", "health_status"):
    server.add_tool(lambda name=name: f"the downstream's own {name}", name=name)


@server.resource("test://greeting")
def greeting() -> str:
    return "hello resource"


@server.prompt()
def ask(topic: str) -> str:
    return f"Tell me about {topic}"


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--http", type=int)
    parser.add_argument("--token")
    args = parser.parse_args()
    if args.http is None:
        sys.exit(server.run())
    import uvicorn
    from starlette.middleware.base import BaseHTTPMiddleware
    from starlette.responses import Response

    app: Any = server.streamable_http_app()

    async def check_token(request: Any, call_next: Any) -> Any:
        if request.headers.get("authorization") != f"Bearer {args.token}":
            return Response("no token", status_code=401)
        return await call_next(request)

    app.add_middleware(BaseHTTPMiddleware, dispatch=check_token)
    uvicorn.run(app, host="127.0.0.1", port=args.http, log_level="warning")
