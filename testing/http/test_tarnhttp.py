#!/usr/bin/env python3
"""Checks the local test server's files, counters, misbehaviours and ways of stopping."""
import http.client
import os
import signal
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.error
import urllib.request

SERVER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "tarnhttp.py")
BIG = bytes((i * 7 + i // 256) % 256 for i in range(3000))


def start(root, *args, stdin=subprocess.PIPE):
    proc = subprocess.Popen([sys.executable, SERVER, root, *args], stdin=stdin, stdout=subprocess.PIPE)
    line = proc.stdout.readline().decode("ascii")
    if not line.startswith("PORT "):
        proc.kill()
        raise AssertionError("first line was %r" % line)
    return proc, int(line.split()[1])


def exits_within(proc, seconds):
    try:
        proc.wait(timeout=seconds)
        return True
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.wait()
        return False


class ServerTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        cls.root = os.path.join(cls.tmp.name, "www")
        os.makedirs(os.path.join(cls.root, "sub"))
        with open(os.path.join(cls.root, "x.dll"), "wb") as f:
            f.write(BIG)
        with open(os.path.join(cls.root, "sub", "y.dll"), "wb") as f:
            f.write(b"why")
        with open(os.path.join(cls.root, "page.html"), "wb") as f:
            f.write(b"<html></html>")
        with open(os.path.join(cls.tmp.name, "secret.txt"), "wb") as f:
            f.write(b"outside the root")
        cls.log = os.path.join(cls.tmp.name, "server.log")
        cls.proc, cls.port = start(cls.root, "--lifetime", "120", "--log", cls.log)

    @classmethod
    def tearDownClass(cls):
        cls.proc.stdin.close()
        stopped = exits_within(cls.proc, 10)
        cls.proc.stdout.close()
        cls.tmp.cleanup()
        assert stopped, "server did not stop when its stdin closed"

    def url(self, path):
        return "http://127.0.0.1:%d%s" % (self.port, path)

    def get(self, path, method="GET"):
        """(status, headers, body) without following redirects or raising on errors."""
        conn = http.client.HTTPConnection("127.0.0.1", self.port, timeout=10)
        try:
            conn.request(method, path)
            response = conn.getresponse()
            return response.status, response.headers, response.read()
        finally:
            conn.close()

    def count(self, path):
        with urllib.request.urlopen(self.url("/__count?path=" + path), timeout=10) as r:
            return int(r.read())


class FilesAndCounts(ServerTest):
    def test_files_are_served_whole_with_their_length_and_type(self):
        status, headers, body = self.get("/x.dll")
        self.assertEqual((status, body), (200, BIG))
        self.assertEqual(headers["Content-Length"], str(len(BIG)))
        self.assertEqual(self.get("/sub/y.dll")[2], b"why")
        status, headers, _ = self.get("/page.html")
        self.assertEqual(headers["Content-Type"], "text/html")

    def test_head_sends_headers_only(self):
        status, headers, body = self.get("/x.dll", method="HEAD")
        self.assertEqual((status, body), (200, b""))
        self.assertEqual(headers["Content-Length"], str(len(BIG)))

    def test_nothing_outside_the_root_and_no_listings(self):
        for path in ["/missing.dll", "/../secret.txt", "/%2e%2e/secret.txt", "/sub/../../secret.txt", "/sub", "/"]:
            with self.subTest(path=path):
                status, _, body = self.get(path)
                self.assertEqual(status, 404)
                self.assertNotIn(b"outside", body)

    def test_requests_are_counted_per_path_until_reset(self):
        self.get("/__reset")
        self.assertEqual(self.count("/x.dll"), 0)
        self.get("/x.dll")
        self.get("/x.dll?status=404")
        self.get("/sub/y.dll")
        self.assertEqual(self.count("/x.dll"), 2)
        self.assertEqual(self.count("/sub/y.dll"), 1)
        self.assertEqual(self.count("/__count"), 0)
        self.get("/__status=500/x.dll")
        self.assertEqual(self.count("/__status=500/x.dll"), 1)
        self.get("/__reset")
        self.assertEqual(self.count("/x.dll"), 0)

    def test_log_file_gets_a_line_per_request(self):
        self.get("/sub/y.dll?logged=1")
        with open(self.log, encoding="utf-8") as f:
            self.assertIn("/sub/y.dll?logged=1", f.read())


class Misbehaviour(ServerTest):
    def test_status_on_request_in_the_query_or_as_a_path_prefix(self):
        for code in (404, 500, 206):
            for path in ("/x.dll?status=%d" % code, "/__status=%d/x.dll" % code, "/__status=%d/missing.dll" % code):
                with self.subTest(path=path):
                    status, headers, body = self.get(path)
                    self.assertEqual(status, code)
                    self.assertEqual(body, b"status %d\n" % code)
        status, headers, _ = self.get("/x.dll?status=206")
        self.assertTrue(headers["Content-Range"].startswith("bytes 0-"))
        self.assertEqual(self.get("/x.dll?status=nonsense")[0], 400)

    def test_not_modified_has_no_body_and_leaves_the_stream_intact(self):
        status, _, body = self.get("/__status=304/x.dll")
        self.assertEqual((status, body), (304, b""))
        with self.assertRaises(urllib.error.HTTPError) as caught:
            urllib.request.urlopen(self.url("/x.dll?status=404"), timeout=10)
        self.assertEqual(caught.exception.code, 404)

    def test_truncate_promises_the_whole_file_and_sends_part(self):
        for path in ("/x.dll?truncate=100", "/__truncate=100/x.dll"):
            with self.subTest(path=path):
                conn = http.client.HTTPConnection("127.0.0.1", self.port, timeout=10)
                conn.request("GET", path)
                response = conn.getresponse()
                self.assertEqual(response.status, 200)
                self.assertEqual(response.getheader("Content-Length"), str(len(BIG)))
                with self.assertRaises(http.client.IncompleteRead) as caught:
                    response.read()
                self.assertEqual(caught.exception.partial, BIG[:100])
                conn.close()
        self.assertEqual(self.get("/x.dll?truncate=99999")[2], BIG)

    def test_slow_pauses_between_kilobyte_chunks(self):
        started = time.monotonic()
        status, _, body = self.get("/x.dll?slow=150")
        elapsed = time.monotonic() - started
        self.assertEqual((status, body), (200, BIG))
        self.assertGreaterEqual(elapsed, 0.4)  # three chunks
        started = time.monotonic()
        with self.assertRaises(http.client.IncompleteRead):
            self.get("/__slow=100/__truncate=1500/x.dll")
        self.assertGreaterEqual(time.monotonic() - started, 0.18)  # two chunks

    def test_redirect(self):
        status, headers, _ = self.get("/x.dll?redirect=/sub/y.dll")
        self.assertEqual(status, 302)
        self.assertEqual(headers["Location"], "/sub/y.dll")
        with urllib.request.urlopen(self.url("/__redirect=%2Fsub%2Fy.dll/trust.dll"), timeout=10) as r:
            self.assertEqual(r.read(), b"why")

    def test_close_drops_the_connection_without_a_response(self):
        for path in ("/x.dll?close=1", "/__close=1/x.dll"):
            with self.subTest(path=path):
                with self.assertRaises((http.client.RemoteDisconnected, ConnectionError)):
                    self.get(path)
        self.assertEqual(self.get("/x.dll?close=0")[0], 200)

    def test_many_clients_at_once(self):
        import concurrent.futures
        with concurrent.futures.ThreadPoolExecutor(8) as pool:
            results = list(pool.map(lambda _: self.get("/x.dll?slow=20")[2], range(8)))
        self.assertEqual(results, [BIG] * 8)


class Stopping(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()

    def tearDown(self):
        self.tmp.cleanup()

    def run_until_stopped(self, proc, seconds):
        stopped = exits_within(proc, seconds)
        if proc.stdin:
            proc.stdin.close()
        proc.stdout.close()
        return stopped

    def test_stops_when_stdin_closes(self):
        proc, _ = start(self.tmp.name)
        time.sleep(0.3)
        self.assertIsNone(proc.poll())
        proc.stdin.close()
        self.assertTrue(self.run_until_stopped(proc, 5))
        self.assertEqual(proc.returncode, 0)

    def test_stops_after_its_lifetime(self):
        proc, _ = start(self.tmp.name, "--lifetime", "1")
        self.assertTrue(self.run_until_stopped(proc, 5))

    def test_stops_on_sigterm(self):
        proc, _ = start(self.tmp.name)
        proc.send_signal(signal.SIGTERM)
        self.assertTrue(self.run_until_stopped(proc, 5))
        self.assertEqual(proc.returncode, 0)

    def test_stdin_from_dev_null_is_not_taken_for_a_dead_parent(self):
        proc, port = start(self.tmp.name, "--lifetime", "2", stdin=subprocess.DEVNULL)
        time.sleep(0.5)
        self.assertIsNone(proc.poll())
        conn = http.client.HTTPConnection("127.0.0.1", port, timeout=5)
        conn.request("GET", "/__count?path=/")
        self.assertEqual(conn.getresponse().read(), b"0")
        conn.close()
        self.assertTrue(self.run_until_stopped(proc, 6))


if __name__ == "__main__":
    unittest.main()
