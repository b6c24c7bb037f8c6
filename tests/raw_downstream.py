"""A downstream that speaks newline-delimited JSON-RPC by hand, for faults the SDK never makes: `silent` reads and
never answers; otherwise `hang` is never answered, `flood` sends 100,000 log messages before its answer, `big`
answers 50 MB, `invalid` is answered with JSON-RPC "invalid params", `garbage` with a line that is not
JSON before its answer, and any other tool echoes its arguments. A cancellation is acknowledged with a log message."""
import json
import sys
from typing import Any

silent = sys.argv[1:] == ["silent"]
for line in sys.stdin:
    message = json.loads(line)
    if message.get("method") == "notifications/cancelled":  # acknowledged with a log message
        note = {"level": "info", "data": f"cancelled {message['params']['requestId']}"}
        print(json.dumps({"jsonrpc": "2.0", "method": "notifications/message", "params": note}), flush=True)
    if silent or "id" not in message or (message.get("params") or {}).get("name") == "hang":
        continue
    answer: dict[str, Any] = {"jsonrpc": "2.0", "id": message["id"]}
    method, params = message.get("method"), message.get("params") or {}
    if method == "initialize":
        answer["result"] = {"protocolVersion": params["protocolVersion"], "capabilities": {"tools": {}},
                            "serverInfo": {"name": "raw", "version": "1"}}
    elif method == "tools/list":
        names = ("echo", "invalid", "garbage", "hang", "flood", "big")
        answer["result"] = {"tools": [{"name": n, "inputSchema": {"type": "object"}} for n in names]}
    elif method == "tools/call" and params["name"] == "invalid":
        answer["error"] = {"code": -32602, "message": "invalid params: x must be a number"}
    elif method == "tools/call" and params["name"] == "flood":  # 100,000 log messages, then the answer
        log = {"jsonrpc": "2.0", "method": "notifications/message", "params": {"level": "info", "data": "x"}}
        sys.stdout.write((json.dumps(log) + "\n") * 100_000)
        answer["result"] = {"content": [{"type": "text", "text": "flooded"}]}
    elif method == "tools/call" and params["name"] == "big":  # a 50 MB result
        answer["result"] = {"content": [{"type": "text", "text": "x" * (50 * 1024 * 1024)}]}
    elif method == "tools/call":
        if params["name"] == "garbage":
            sys.stdout.write("this is { not json\n")
        answer["result"] = {"content": [{"type": "text", "text": json.dumps(params.get("arguments"))}]}
    else:
        answer["error"] = {"code": -32601, "message": f"no method {method}"}
    sys.stdout.write(json.dumps(answer) + "\n")
    sys.stdout.flush()
