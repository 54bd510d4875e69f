#!/usr/bin/env python3
"""A loopback HTTP server for the streaming tests: serves a folder on 127.0.0.1 and misbehaves on
purpose with transport-stream segments (paths ending in ".ts").

Segments can fail (HTTP 500, a connection reset with no response, or a truncated body: the full
Content-Length, half the body, then close), be sent no faster than a given rate, and wait before
their first byte. Everything else is served plainly.

The port is written to standard output as "PORT <n>". The server exits on SIGTERM, after a maximum
lifetime and, with --exit-with-stdin, when its standard input reaches its end (the parent is gone).

GET /__stats answers the counts as JSON (not counted itself); GET /__redirect/<path> answers a 302
to /<path>.
"""

import argparse
import json
import os
import posixpath
import random
import socket
import struct
import sys
import threading
import time
import urllib.parse
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

FAIL_KINDS = ("500", "reset", "truncated")


class Stats:
    def __init__(self):
        self.lock = threading.Lock()
        self.requests = 0
        self.ok = 0
        self.not_found = 0
        self.failed = {kind: 0 for kind in FAIL_KINDS}
        self.bytes = 0
        self.by_path = {}

    def request(self, path):
        with self.lock:
            self.requests += 1
            self.by_path[path] = self.by_path.get(path, 0) + 1

    def add(self, field, kind=None, count=1):
        with self.lock:
            if field == "failed":
                self.failed[kind] += count
            else:
                setattr(self, field, getattr(self, field) + count)

    def to_json(self):
        with self.lock:
            return json.dumps({
                "requests": self.requests,
                "ok": self.ok,
                "notFound": self.not_found,
                "failed500": self.failed["500"],
                "failedReset": self.failed["reset"],
                "failedTruncated": self.failed["truncated"],
                "bytes": self.bytes,
                "byPath": self.by_path,
            }).encode()


class Faults:
    """Decides which segment requests fail and how: a seeded draw against the share, and the kinds
    taken in turn."""

    def __init__(self, share, seed, kinds):
        self.lock = threading.Lock()
        self.share = share
        self.random = random.Random(seed)
        self.kinds = kinds
        self.next_kind = 0

    def draw(self):
        with self.lock:
            if self.share <= 0 or self.random.random() >= self.share:
                return None
            kind = self.kinds[self.next_kind % len(self.kinds)]
            self.next_kind += 1
            return kind


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "LoopbackHttp/1"

    def log_message(self, format, *args):  # quiet: the tests read the statistics instead
        pass

    def do_GET(self):
        server = self.server
        path = urllib.parse.unquote(urllib.parse.urlsplit(self.path).path)
        if path == "/__stats":
            self.send_body(200, server.stats.to_json(), "application/json")
            return
        if path.startswith("/__redirect/"):
            self.send_response(302)
            self.send_header("Location", "/" + path[len("/__redirect/"):])
            self.send_header("Content-Length", "0")
            self.end_headers()
            return

        server.stats.request(path)
        local = self.local_file(path)
        if local is None:
            server.stats.add("not_found")
            self.send_body(404, b"not found\n", "text/plain")
            return
        with open(local, "rb") as f:
            body = f.read()

        segment = path.endswith(".ts")
        if segment and server.options.first_byte_delay > 0:
            time.sleep(server.options.first_byte_delay)
        fault = server.faults.draw() if segment else None
        if fault == "500":
            server.stats.add("failed", "500")
            self.send_body(500, b"injected failure\n", "text/plain")
        elif fault == "reset":
            server.stats.add("failed", "reset")
            self.reset_connection()
        else:
            sent_all = self.send_file(body, segment, truncate=fault == "truncated")
            if fault == "truncated":
                server.stats.add("failed", "truncated")
            elif sent_all:
                server.stats.add("ok")

    def local_file(self, path):
        """The served file for a URL path, or None; nothing outside the root is reachable."""
        relative = posixpath.normpath(path).lstrip("/")
        if relative in ("", ".") or relative.startswith(".."):
            return None
        local = os.path.realpath(os.path.join(self.server.options.root, relative))
        if not local.startswith(self.server.root + os.sep) or not os.path.isfile(local):
            return None
        return local

    def send_body(self, status, body, content_type):
        self.send_response(status)
        self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def send_file(self, body, paced, truncate):
        """Sends the body (half of it, then closes, when truncating), no faster than the rate limit
        for segments. True when all of it went out."""
        self.send_response(200)
        self.send_header("Content-Type", "video/mp2t" if paced else "application/octet-stream")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.flush()
        length = len(body) // 2 if truncate else len(body)
        rate = self.server.options.bytes_per_second if paced else 0
        chunk = max(1, int(rate / 20)) if rate > 0 else 64 * 1024
        start = time.monotonic()
        sent = 0
        try:
            while sent < length:
                piece = body[sent:min(length, sent + chunk)]
                self.wfile.write(piece)
                sent += len(piece)
                self.server.stats.add("bytes", count=len(piece))
                if rate > 0:
                    wait = start + sent / rate - time.monotonic()
                    if wait > 0:
                        time.sleep(wait)
        except OSError:
            self.close_connection = True
            return False
        if truncate:
            self.close_connection = True
        return sent == len(body)

    def reset_connection(self):
        """Closes the connection with a reset (RST) and no response."""
        self.close_connection = True
        try:
            self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            self.connection.close()
        except OSError:
            pass


class Server(ThreadingHTTPServer):
    daemon_threads = True
    allow_reuse_address = True

    def __init__(self, options):
        super().__init__(("127.0.0.1", 0), Handler)
        self.options = options
        self.root = os.path.realpath(options.root)
        self.stats = Stats()
        kinds = [k for k in options.fail_kinds.split(",") if k]
        for kind in kinds:
            if kind not in FAIL_KINDS:
                raise SystemExit("unknown failure kind: " + kind)
        self.faults = Faults(options.fail_share, options.seed, kinds or list(FAIL_KINDS))

    def handle_error(self, request, client_address):
        # Clients that go away and injected resets end connections abruptly; that is expected.
        kind = sys.exc_info()[0]
        if kind is not None and issubclass(kind, OSError):
            return
        super().handle_error(request, client_address)


def exit_when_parent_goes():
    try:
        while sys.stdin.buffer.read(4096):
            pass
    except OSError:
        pass
    os._exit(0)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--root", required=True, help="folder to serve")
    parser.add_argument("--fail-share", type=float, default=0.0, help="share of segment requests that fail")
    parser.add_argument("--fail-kinds", default=",".join(FAIL_KINDS), help="kinds of failure, taken in turn")
    parser.add_argument("--seed", type=int, default=1, help="seed of the failure draw")
    parser.add_argument("--bytes-per-second", type=float, default=0.0, help="rate limit of segment bodies")
    parser.add_argument("--first-byte-delay", type=float, default=0.0, help="seconds before a segment's response")
    parser.add_argument("--max-seconds", type=float, default=120.0, help="lifetime of the server")
    parser.add_argument("--exit-with-stdin", action="store_true", help="exit when standard input ends")
    options = parser.parse_args()
    if not os.path.isdir(options.root):
        raise SystemExit("not a folder: " + options.root)

    server = Server(options)
    if options.exit_with_stdin:
        threading.Thread(target=exit_when_parent_goes, daemon=True).start()
    lifetime = threading.Timer(options.max_seconds, lambda: os._exit(0))
    lifetime.daemon = True
    lifetime.start()
    sys.stdout.write("PORT %d\n" % server.server_address[1])
    sys.stdout.flush()
    server.serve_forever(poll_interval=0.2)


if __name__ == "__main__":
    main()
