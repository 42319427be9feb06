#!/usr/bin/env python3
"""HTTP of the live page, over plain sockets: what is answered, what is refused, and what a client that is slow, silent or
hostile can do. Usage: http_test.py PAGE_SERVER [TEST]"""
import http.client
import json
import re
import select
import socket
import subprocess
import sys

LONG = 30  # seconds for what comes at once
CONNECTIONS = 32
STREAMS = 16


class Server:
    def __init__(self, *arguments):
        self.process = subprocess.Popen([sys.argv[1], *arguments], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.port = int(self.process.stdout.readline())

    def do(self, words):
        self.process.stdin.write(words + "\n")
        self.process.stdin.flush()
        assert self.process.stdout.readline() == "ok\n"

    def stop(self):
        self.process.stdin.close()
        status = self.process.wait(LONG)
        assert status == 0, f"it ended with {status}"

    def get(self, path, method="GET", headers=None):
        """Status, headers in lower case, body."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=LONG)
        connection.request(method, path, headers=headers or {})
        answer = connection.getresponse()
        body = answer.read()
        connection.close()
        return answer.status, {name.lower(): value for name, value in answer.getheaders()}, body.decode()

    def plain(self, text=""):
        """A connection with these bytes sent."""
        connection = socket.create_connection(("127.0.0.1", self.port), timeout=LONG)
        connection.sendall(text.encode())
        return connection

    def stream(self, headers=""):
        """The events, as a file of lines that begins after the head."""
        connection = self.plain(f"GET /events HTTP/1.1\r\nHost: localhost\r\n{headers}\r\n")
        lines = connection.makefile("r", newline="\n")
        assert "200" in lines.readline()
        while lines.readline().strip():
            pass
        return lines


def event(lines):
    """The next event of a stream as a dictionary; the sizes of chunks and comments are skipped."""
    got = {}
    while True:
        line = lines.readline()
        assert line, "the stream ended"
        if line == "\n" and "event" in got:
            return got
        part = re.match(r"(\w+): (.*)\n", line)
        if part:
            got[part[1]] = part[2]


def test_paths(server):
    for path, kind, part in [("/", "text/html; charset=utf-8", "<svg"), ("/model.json", "application/json", '"instances"'),
                             ("/instance.json?app=100&node=1", "application/json", '"samples"'),
                             ("/log?app=100&node=1", "text/plain; charset=utf-8", "process 1101 <b>?[1m"),
                             ("/metrics", "text/plain; version=0.0.4; charset=utf-8", "zeb_instance_up{")]:
        status, headers, body = server.get(path)
        assert (status, headers["content-type"]) == (200, kind), path
        assert part in body, path
        assert int(headers["content-length"]) == len(body.encode())
        assert "access-control-allow-origin" not in headers
        assert headers["x-content-type-options"] == "nosniff" and "default-src 'none'" in headers["content-security-policy"]
        status, head, body = server.get(path, "HEAD")
        assert (status, body) == (200, "") and int(head["content-length"]) > 0, path


def test_each_page_has_a_number_of_its_own(server):
    numbers = set()
    for _ in range(3):
        _, headers, body = server.get("/")
        number = re.search(r"script-src 'nonce-([0-9a-f]{32})'", headers["content-security-policy"])[1]
        assert body.count(f'nonce="{number}"') == 2 and "@NONCE@" not in body
        assert "unsafe" not in headers["content-security-policy"]
        numbers.add(number)
    assert len(numbers) == 3


def test_refusals(server):
    for path in ["/nothing", "/model.json/", "/../etc/passwd", "/instance.json?app=100&node=77", "/log?app=100&node=77"]:
        assert server.get(path)[0] == 404, path
    for query in ["", "?app=100", "?app=0&node=1", "?app=100&node=65536", "?app=-1&node=1", "?app=1e2&node=1", "?app=9000&node=1",
                  "?app=000100&node=1"]:
        for path in ["/instance.json", "/log"]:
            assert server.get(path + query)[0] == 400, path + query
    for method in ["POST", "PUT", "DELETE", "OPTIONS"]:
        status, headers, body = server.get("/", method)
        assert (status, headers["allow"]) == (405, "GET, HEAD"), method
        assert "only be read" in body
    status, _, body = server.get("/log?app=100&node=3")
    assert status == 404 and "no log file" in body


def test_the_host_is_named(server):
    for host in ["evil.example", "evil.example:%d" % server.port, "10.0.0.1"]:
        for path in ["/", "/model.json", "/events", "/metrics"]:
            status, _, body = server.get(path, headers={"Host": host})
            assert status == 400 and "Host" in body, host
    for host in ["localhost", "127.0.0.1", "[::1]:1"]:
        assert server.get("/", headers={"Host": host})[0] == 200, host
    with server.plain("GET / HTTP/1.1\r\n\r\n") as connection:
        assert b" 400 " in connection.recv(4096)


def test_events_come_as_they_happen(server):
    lines = server.stream()
    server.do("join 170 2")
    got = event(lines)
    assert got["event"] == "joined" and json.loads(got["data"])["inst"] == {"app": 170, "node": 2}
    server.do("block 100 1 110 2")
    blocked = json.loads(event(lines)["data"])
    assert blocked["peer"] == {"app": 110, "node": 2} and blocked["unacknowledged"] == 1025
    server.do("round")
    assert event(lines)["event"] == "round"
    server.do("quit 170 2")
    got = event(lines)
    assert got["event"] == "quit"
    # Who comes back is told what he has missed, and nothing twice.
    server.do("free 100 1 110 2")
    again = server.stream(f"Last-Event-ID: {got['id']}\r\n")
    missed = event(again)
    assert missed["event"] == "unblocked" and int(missed["id"]) == int(got["id"]) + 1
    # A number that is too high is of an earlier zebd.
    later = server.stream("Last-Event-ID: 999999\r\n")
    server.do("join 171 2")
    for each in [again, later]:
        assert json.loads(event(each)["data"])["inst"]["app"] == 171


def test_a_stream_that_is_too_late_is_told_so(server):
    lines = server.stream()
    server.do("join 170 2")
    first = int(event(lines)["id"])
    server.do("events 3000")
    late = server.stream(f"Last-Event-ID: {first}\r\n")
    got = event(late)
    assert got["event"] == "lost" and json.loads(got["data"]) == {"events": 2000}
    numbers = [int(event(late)["id"]) for _ in range(1000)]
    assert numbers == list(range(first + 2001, first + 3001))


def test_a_stream_that_is_not_read_holds_up_nobody(server):
    slow = server.stream()
    for _ in range(20):
        server.do("events 1000")
    fast = server.stream()
    server.do("quit 100 1")
    assert event(fast)["event"] == "quit"
    kinds = [event(slow)["event"] for _ in range(1000)]
    while kinds[-1] != "quit":
        kinds.append(event(slow)["event"])
    assert "lost" in kinds or len(kinds) == 20001


def test_streams_have_a_bound(server):
    streams = [server.stream() for _ in range(STREAMS)]
    status, _, body = server.get("/events")
    assert status == 503 and "Too many" in body
    assert server.get("/model.json")[0] == 200
    assert len(streams) == STREAMS


def test_connections_have_a_bound(server):
    request = "GET /model.json HTTP/1.1\r\nHost: localhost\r\n\r\n"
    served = [server.plain(request) for _ in range(CONNECTIONS)]
    for connection in served:
        assert connection.recv(4096).startswith(b"HTTP/1.1 200")
    more = server.plain(request)
    for connection in served[:2]:  # which still are
        connection.sendall(b"GET /nothing HTTP/1.1\r\nHost: localhost\r\n\r\n")
        while b"There is nothing here" not in connection.recv(65536):
            pass
    assert not select.select([more], [], [], 0)[0], "one above the bound is served"
    served[0].close()
    assert more.recv(4096).startswith(b"HTTP/1.1 200")


def test_what_is_no_request_ends_the_connection(server):
    for text in ["NONSENSE\r\n\r\n", "GET / HTTP/1.1\r\nHost: localhost\r\nX: " + "x" * 40000 + "\r\n\r\n",
                 "POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 1000000000\r\n\r\nx",
                 "GET / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 5\r\n\r\n12345",
                 "GET / HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\nffffffff\r\nx"]:
        with server.plain(text) as connection:
            got = b""
            try:
                while part := connection.recv(65536):
                    got += part
            except ConnectionResetError:
                pass
            assert not got.startswith(b"HTTP/1.1 200"), text[:60]
    assert server.get("/model.json")[0] == 200


def test_a_log_of_another_node_comes_later(server):
    waiting = server.plain("GET /log?app=100&node=2 HTTP/1.0\r\nHost: localhost\r\n\r\n")
    assert server.get("/model.json")[0] == 200  # nobody else waits
    server.do("log")
    got = b""
    while part := waiting.recv(4096):
        got += part
    assert got.startswith(b"HTTP/1.") and got.endswith(b"from afar\n"), got


def test_it_ends_while_others_wait(server):
    server.waiting = [server.stream(), server.plain("GET /log?app=100&node=2 HTTP/1.1\r\nHost: localhost\r\n\r\n"),
                      server.plain("GET / HTTP/1.1\r\n")]
    assert server.get("/model.json")[0] == 200


def test_a_client_that_goes_away(server):
    for _ in range(3 * CONNECTIONS):
        server.plain("GET /events HTTP/1.1\r\nHost: localhost\r\n\r\n").close()
        server.plain("GET /log?app=100&node=2 HTTP/1.1\r\nHost: localhost\r\n\r\n").close()
        server.do("log")
        server.do("round")
    for _ in range(5):
        server.do("round")
    assert event_after_round(server)["event"] == "round"


def event_after_round(server):
    lines = server.stream()
    server.do("round")
    return event(lines)


def test_other_addresses(server):
    refused = subprocess.run([sys.argv[1], "1", "1", "1", "0.0.0.0:0"], stdin=subprocess.DEVNULL, capture_output=True, text=True)
    assert refused.returncode == 1 and "--http-any" in refused.stderr
    used = subprocess.run([sys.argv[1], "1", "1", "1", f"127.0.0.1:{server.port}"], stdin=subprocess.DEVNULL, capture_output=True, text=True)
    assert used.returncode == 1 and "Address already in use" in used.stderr


def test_another_reads_the_metrics(server):
    """The reader of the Prometheus client, where it is installed."""
    sys.path.append("/usr/lib/python3/dist-packages")  # whichever Python this is
    try:
        from prometheus_client.parser import text_string_to_metric_families
    except ImportError:
        print("python3-prometheus-client is not installed")
        return
    server.do('name 100 1 "a\\b"} 1 # HELP')
    server.do("block 100 1 110 2")
    families = {each.name: each for each in text_string_to_metric_families(server.get("/metrics")[2])}
    assert len(families) > 20
    up = {each.labels["node"]: each for each in families["zeb_instance_up"].samples if each.labels["app"] == "100"}
    assert up["1"].labels["name"] == '"a\\b"} 1 # HELP' and up["1"].value == 1
    blocked = [each for each in families["zeb_pair_blocked"].samples if each.value == 1]
    assert [(each.labels["node"], each.labels["peer_app"]) for each in blocked] == [("1", "110")]
    assert families["zeb_instance_messages_sent"].type == "counter"


def main():
    failures = 0
    for name, test in list(globals().items()):
        if not name.startswith("test_") or (len(sys.argv) > 2 and sys.argv[2] != name):
            continue
        server = Server("3", "3", "2")
        try:
            test(server)
            server.stop()
            print("passed", name)
        except Exception:  # pylint: disable=broad-except
            import traceback
            traceback.print_exc()
            print("FAILED", name)
            failures += 1
            server.process.kill()
            server.process.wait()
    sys.exit(failures != 0)


main()
