#!/usr/bin/python3
"""A second, independent Socket.IO server (python-socketio over aiohttp, Engine.IO 4) for interop tests.

Prints {"ready":true,"url":...} on stdout, then serves JSON-line control requests on stdin, one JSON
reply line each ({"id":..,"ok":true,...} / {"id":..,"ok":false,"error":..}); logs go to stderr.
  "command" is acknowledged with [{"result":0}]; "echo" with its own arguments (binary too).
Control: {"cmd":"connections"}, {"cmd":"push","sid":..,"event":..,"args":[...]}, {"cmd":"disconnect","sid":..}.
Binary values in control JSON are {"$base64": "..."} (or {"$hex": "..."} inbound).
Optional argument: one JSON object {"pingInterval": ms, "pingTimeout": ms}. Exits when stdin closes.
"""
import asyncio
import base64
import json
import socket
import sys
import urllib.parse

import socketio
from aiohttp import web


def log(*parts):
    print("[pyserver]", *parts, file=sys.stderr, flush=True)


def reply(obj):
    sys.stdout.write(json.dumps(obj, separators=(",", ":")) + "\n")
    sys.stdout.flush()


def decode(value):
    """Control JSON -> values to emit: {"$base64"}/{"$hex"} markers become bytes, nested too."""
    if isinstance(value, dict):
        if len(value) == 1 and isinstance(value.get("$base64"), str):
            return base64.b64decode(value["$base64"], validate=True)
        if len(value) == 1 and isinstance(value.get("$hex"), str):
            return bytes.fromhex(value["$hex"])
        return {k: decode(v) for k, v in value.items()}
    if isinstance(value, list):
        return [decode(v) for v in value]
    return value


def encode(value):
    """Received values -> control JSON: bytes become {"$base64": ...}."""
    if isinstance(value, (bytes, bytearray)):
        return {"$base64": base64.b64encode(value).decode()}
    if isinstance(value, dict):
        return {k: encode(v) for k, v in value.items()}
    if isinstance(value, (list, tuple)):
        return [encode(v) for v in value]
    return value


class PyServer:
    def __init__(self, ping_interval_ms, ping_timeout_ms):
        self.sio = socketio.AsyncServer(async_mode="aiohttp", ping_interval=ping_interval_ms / 1000,
                                        ping_timeout=ping_timeout_ms / 1000)
        self.connections = {}  # socket.io sid -> {"id", "query", "connected", "events"}
        self.sio.on("connect", self.on_connect)
        self.sio.on("disconnect", self.on_disconnect)
        self.sio.on("command", self.on_command)
        self.sio.on("echo", self.on_echo)

    async def on_connect(self, sid, environ, auth=None):
        query = dict(urllib.parse.parse_qsl(environ.get("QUERY_STRING", ""), keep_blank_values=True))
        self.connections[sid] = {"id": sid, "query": query, "connected": True, "events": []}

    async def on_disconnect(self, sid):
        if sid in self.connections:
            self.connections[sid]["connected"] = False

    def record(self, sid, name, args):
        if sid in self.connections:
            self.connections[sid]["events"].append({"name": name, "args": encode(args)})

    async def on_command(self, sid, *args):
        self.record(sid, "command", args)
        return {"result": 0}

    async def on_echo(self, sid, *args):
        self.record(sid, "echo", args)
        return args

    async def control(self, req):
        cmd = req.get("cmd")
        if cmd == "connections":
            return {"connections": list(self.connections.values())}
        if cmd in ("push", "disconnect"):
            sid = req.get("sid")
            if sid not in self.connections or not self.connections[sid]["connected"]:
                raise ValueError(f"no live connection {sid!r}")
            if cmd == "disconnect":
                await self.sio.disconnect(sid)
                return {}
            event, args = req.get("event"), req.get("args", [])
            if not isinstance(event, str) or not isinstance(args, list):
                raise ValueError("push needs event (string) and args (array)")
            await self.sio.emit(event, tuple(decode(args)), to=sid)
            return {}
        raise ValueError(f"unknown cmd {cmd!r}")

    async def serve_control(self):
        loop = asyncio.get_running_loop()
        reader = asyncio.StreamReader(limit=64 * 1024 * 1024)
        await loop.connect_read_pipe(lambda: asyncio.StreamReaderProtocol(reader), sys.stdin)
        while line := await reader.readline():
            if not line.strip():
                continue
            req_id = None
            try:
                req = json.loads(line)
                if not isinstance(req, dict):
                    raise ValueError("a request is a JSON object")
                req_id = req.get("id")
                result = await self.control(req)
                reply({**result, "id": req_id, "ok": True})
            except Exception as err:  # every bad request gets an error reply, never a crash
                reply({"id": req_id, "ok": False, "error": str(err) or type(err).__name__})


async def main():
    opts = json.loads(sys.argv[1]) if len(sys.argv) > 1 else {}
    server = PyServer(opts.get("pingInterval", 25000), opts.get("pingTimeout", 20000))
    app = web.Application()
    server.sio.attach(app)
    runner = web.AppRunner(app)
    await runner.setup()
    sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    sock.bind(("127.0.0.1", 0))
    site = web.SockSite(runner, sock)
    await site.start()
    reply({"ready": True, "url": f"http://127.0.0.1:{sock.getsockname()[1]}"})
    try:
        await server.serve_control()
    finally:
        await runner.cleanup()


if __name__ == "__main__":
    try:
        asyncio.run(main())
    except KeyboardInterrupt:
        pass
