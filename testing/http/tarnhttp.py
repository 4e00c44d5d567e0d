#!/usr/bin/env python3
"""A small local web server for tests and the demo, able to misbehave on request.

    tarnhttp.py <root> [--lifetime SECONDS] [--log FILE] [--port-file FILE]

It listens on 127.0.0.1 on a free port, writes "PORT <n>" as the first line of its standard
output (and, with --port-file, the port and the served root as two lines of that file,
written whole at once), and serves the files under <root> (no directory listings, nothing outside <root>).

Misbehaviour is asked for in the query string or, for clients that resolve relative names
against a page (so that a query would not carry over), in leading path segments of the form
"__name=value" that are removed before the file is looked up:

    /x.dll?status=404          that status (404, 304, 206, 500, ...) with a short body
    /__status=304/dir/x.dll    the same, as a path prefix
    ?truncate=N                Content-Length of the whole file, then only N bytes and a close
    ?slow=MS                   a pause of MS milliseconds before each 1 KiB chunk
    ?redirect=/other           302 to /other (percent-encode it inside a path prefix)
    ?close=1                   close the connection at once, without any response

Requests are counted per path as sent (without the query string):
    GET /__count?path=/x.dll   the count, as decimal text
    GET /__reset               forget all counts

It stops by itself, whichever comes first: when its standard input reaches end of file (the
parent that holds the other end of the pipe has gone; stdin that is not a pipe, socket or
terminal, such as /dev/null, is not watched), after --lifetime seconds (default 600), or on
SIGTERM or SIGINT.
"""
import argparse
import http.server
import mimetypes
import os
import posixpath
import signal
import socket
import stat
import sys
import threading
import time
import urllib.parse

CHUNK = 1024
DIRECTIVES = ("status", "truncate", "slow", "redirect", "close")


class Counter:
    def __init__(self):
        self._lock = threading.Lock()
        self._counts = {}

    def hit(self, path):
        with self._lock:
            self._counts[path] = self._counts.get(path, 0) + 1

    def get(self, path):
        with self._lock:
            return self._counts.get(path, 0)

    def reset(self):
        with self._lock:
            self._counts.clear()


def split_request(raw_path):
    """(path as sent but decoded, file path without directives, directives)."""
    parsed = urllib.parse.urlsplit(raw_path)
    options = {}
    for name, value in urllib.parse.parse_qsl(parsed.query, keep_blank_values=True):
        if name in DIRECTIVES:
            options[name] = value
    segments = parsed.path.split("/")
    kept = [segments[0]]
    leading = True
    for segment in segments[1:]:
        name, eq, value = segment.partition("=")
        if leading and eq and name.startswith("__") and name[2:] in DIRECTIVES:
            options.setdefault(name[2:], urllib.parse.unquote(value))
            continue
        leading = False
        kept.append(segment)
    return urllib.parse.unquote(parsed.path), urllib.parse.unquote("/".join(kept)), options


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "tarnhttp"
    sys_version = ""
    timeout = 60  # a client that connects and says nothing does not keep a thread forever

    def log_message(self, fmt, *args):
        self.server.log("%s %s" % (self.address_string(), fmt % args))

    def do_HEAD(self):
        self.handle_request(send_body=False)

    def do_GET(self):
        self.handle_request(send_body=True)

    def handle_request(self, send_body):
        # Every response ends the connection: truncation and closing need it, and it keeps
        # each request on its own connection for clients that count or time them.
        self.close_connection = True
        sent_path, file_path, options = split_request(self.path)
        if sent_path == "/__count":
            query = dict(urllib.parse.parse_qsl(urllib.parse.urlsplit(self.path).query))
            return self.send_text(200, "%d" % self.server.counter.get(query.get("path", "")), send_body)
        if sent_path == "/__reset":
            self.server.counter.reset()
            return self.send_text(200, "reset", send_body)
        self.server.counter.hit(sent_path)

        if options.get("close") not in (None, "", "0"):
            self.abort()
            return
        if "status" in options:
            return self.send_status(options["status"], send_body)
        if "redirect" in options:
            self.send_response(302)
            self.send_header("Location", options["redirect"])
            self.send_header("Content-Length", "0")
            self.end_headers()
            return
        self.send_file(file_path, options, send_body)

    def send_text(self, code, text, send_body, extra=()):
        body = text.encode("ascii")
        self.send_response(code)
        self.send_header("Content-Type", "text/plain")
        self.send_header("Content-Length", str(len(body)))
        self.send_header("Cache-Control", "no-store")
        for name, value in extra:
            self.send_header(name, value)
        self.end_headers()
        if send_body:
            self.wfile.write(body)

    def send_status(self, value, send_body):
        try:
            code = int(value)
        except ValueError:
            code = 0
        if not 200 <= code <= 599:
            return self.send_text(400, "bad status %r\n" % value, send_body)
        if code == 304:
            # A 304 never carries a body; anything after its headers would corrupt the stream.
            self.send_response(304)
            self.send_header("Cache-Control", "no-store")
            self.end_headers()
            return
        body = "status %d\n" % code
        extra = ()
        if code == 206:
            extra = (("Content-Range", "bytes 0-%d/%d" % (len(body) - 1, len(body) * 4)),)
        self.send_text(code, body, send_body, extra)

    def resolve(self, file_path):
        root = self.server.root
        normal = posixpath.normpath("/" + file_path.lstrip("/"))
        if "\0" in normal:
            return None
        full = os.path.realpath(os.path.join(root, normal.lstrip("/")))
        if full != root and not full.startswith(root + os.sep):
            return None
        return full if os.path.isfile(full) else None

    def send_file(self, file_path, options, send_body):
        full = self.resolve(file_path)
        if full is None:
            return self.send_text(404, "not found\n", send_body)
        try:
            with open(full, "rb") as f:
                data = f.read()
        except OSError:
            return self.send_text(404, "not readable\n", send_body)
        limit = len(data)
        if "truncate" in options:
            try:
                limit = max(0, min(limit, int(options["truncate"])))
            except ValueError:
                return self.send_text(400, "bad truncate\n", send_body)
        try:
            pause = max(0, int(options.get("slow", "0"))) / 1000.0
        except ValueError:
            return self.send_text(400, "bad slow\n", send_body)
        self.send_response(200)
        self.send_header("Content-Type", mimetypes.guess_type(full)[0] or "application/octet-stream")
        self.send_header("Content-Length", str(len(data)))
        self.send_header("Cache-Control", "no-store")
        self.end_headers()
        if not send_body:
            return
        for start in range(0, limit, CHUNK):
            if pause:
                self.wfile.flush()
                time.sleep(pause)
            self.wfile.write(data[start:min(limit, start + CHUNK)])
        self.wfile.flush()
        if limit < len(data):
            self.abort()

    def abort(self):
        """Ends the connection here, whatever the headers promised."""
        try:
            self.wfile.flush()
        except OSError:
            pass
        try:
            self.connection.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.close_connection = True


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True
    allow_reuse_address = False

    def __init__(self, root, log_file):
        super().__init__(("127.0.0.1", 0), Handler)
        self.root = os.path.realpath(root)
        self.counter = Counter()
        self._log_file = log_file
        self._log_lock = threading.Lock()

    def log(self, line):
        if self._log_file:
            with self._log_lock:
                self._log_file.write("%s %s\n" % (time.strftime("%H:%M:%S"), line))
                self._log_file.flush()

    def handle_error(self, request, client_address):
        # Clients that hang up early are part of the tests; keep them out of the output.
        self.log("%s error %s" % (client_address, sys.exc_info()[1]))


def watch_stdin(stop):
    try:
        mode = os.fstat(0).st_mode
    except OSError:
        return
    if not (stat.S_ISFIFO(mode) or stat.S_ISSOCK(mode) or os.isatty(0)):
        return

    def run():
        try:
            while os.read(0, 4096):
                pass
        except OSError:
            pass
        stop.set()

    threading.Thread(target=run, name="stdin-watch", daemon=True).start()


def main(argv):
    parser = argparse.ArgumentParser(description="Local test web server.")
    parser.add_argument("root", help="directory whose files are served")
    parser.add_argument("--lifetime", type=float, default=600.0, help="seconds before it stops by itself")
    parser.add_argument("--log", help="append a line per request to this file")
    parser.add_argument("--port-file", help="write the port and the root to this file")
    args = parser.parse_args(argv)
    if not os.path.isdir(args.root):
        parser.error("not a directory: %s" % args.root)

    log_file = open(args.log, "a", encoding="utf-8") if args.log else None
    server = Server(args.root, log_file)
    stop = threading.Event()
    signal.signal(signal.SIGTERM, lambda *_: stop.set())
    signal.signal(signal.SIGINT, lambda *_: stop.set())
    watch_stdin(stop)
    threading.Thread(target=server.serve_forever, kwargs={"poll_interval": 0.2}, name="serve", daemon=True).start()

    sys.stdout.write("PORT %d\n" % server.server_address[1])
    sys.stdout.flush()
    if args.port_file:
        with open(args.port_file + ".new", "w") as f:
            f.write("%d\n%s\n" % (server.server_address[1], server.root))
        os.replace(args.port_file + ".new", args.port_file)
    server.log("listening on port %d, root %s" % (server.server_address[1], server.root))

    deadline = time.monotonic() + args.lifetime
    while not stop.is_set():
        remaining = deadline - time.monotonic()
        if remaining <= 0:
            server.log("lifetime over")
            break
        stop.wait(min(remaining, 0.5))
    server.shutdown()
    server.server_close()
    if log_file:
        log_file.close()
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
