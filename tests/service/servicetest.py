"""Shared helpers: start lofthaven-service on a free loopback port and talk to it with curl."""
import dataclasses
import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile


def read(path):
    """The file's bytes; none when curl wrote no file (nothing arrived)."""
    if not os.path.exists(path):
        return b""
    with open(path, "rb") as f:
        return f.read()


@dataclasses.dataclass
class Answer:
    status: int
    headers: dict  # lower-case names
    body: bytes

    def json(self):
        return json.loads(self.body.decode())

    def header(self, name):
        return self.headers.get(name.lower())


class Service:
    """One service process with its own data folder (kept across restart_after_kill())."""

    def __init__(self, binary, *extra, data=None, wrapper=()):
        self.binary = binary
        self.extra = list(extra)
        self.wrapper = list(wrapper)  # a command the service runs under
        self.data = data or tempfile.mkdtemp(prefix="lh-service-")
        self.proc = None
        self.start()

    def start(self):
        self.stderr = open(os.path.join(self.data, "stderr.log"), "ab")
        self.proc = subprocess.Popen(
            self.wrapper + [self.binary, "--listen", "127.0.0.1:0", "--data", self.data] + self.extra,
            stdout=subprocess.PIPE, stderr=self.stderr)
        line = self.proc.stdout.readline().decode().strip()
        prefix = "lofthaven-service listening on "
        if not line.startswith(prefix):
            raise RuntimeError("no ready line, got %r" % line)
        self.origin = line[len(prefix):]

    def stop(self):
        if self.proc and self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            self.proc.wait(timeout=10)
        return self.proc.returncode

    def restart_after_kill(self):
        self.proc.send_signal(signal.SIGKILL)
        self.proc.wait()
        self.start()

    def close(self):
        self.stop()
        shutil.rmtree(self.data, ignore_errors=True)

    def curl(self, method, path, body=None, headers=None, timeout=30, args=()):
        """Runs curl; returns Answer. body: dict or list (sent as JSON), bytes or str."""
        with tempfile.TemporaryDirectory() as tmp:
            out, head = os.path.join(tmp, "body"), os.path.join(tmp, "head")
            cmd = ["curl", "-sS", "-X", method, "-o", out, "-D", head, "-w", "%{http_code}",
                   "--max-time", str(timeout)]
            if isinstance(body, (dict, list)):
                body = json.dumps(body)
                cmd += ["-H", "Content-Type: application/json"]
            elif body is not None:
                cmd += ["-H", "Content-Type: application/octet-stream"]
            if body is not None:
                body = body.encode() if isinstance(body, str) else body
                cmd += ["--data-binary", "@-"]
            for name, value in (headers or {}).items():
                cmd += ["-H", "%s: %s" % (name, value)]
            cmd += list(args)
            cmd.append(self.origin + path)
            run = subprocess.run(cmd, input=body, capture_output=True, timeout=timeout + 5)
            received = {}
            for line in read(head).decode("latin-1").split("\r\n"):
                if ":" in line:
                    name, value = line.split(":", 1)
                    received[name.strip().lower()] = value.strip()
            return Answer(int(run.stdout.decode() or "0"), received, read(out))

    def connect(self, timeout=5):
        host, port = self.origin.rsplit("/", 1)[1].rsplit(":", 1)
        return socket.create_connection((host, int(port)), timeout=timeout)

    def raw(self, data, timeout=5, check_closed=False):
        """Sends raw request bytes; returns (Answer, closed) where closed says the service hung
        up after answering (checked only when asked: it waits up to 2 s). Answer.status is 0
        when no answer came within timeout."""
        with self.connect(timeout) as s:
            try:
                s.sendall(data)
                head = b""
                while b"\r\n\r\n" not in head:
                    chunk = s.recv(65536)
                    if not chunk:
                        break
                    head += chunk
            except (socket.timeout, ConnectionError):
                return Answer(0, {}, b""), True
            if b"\r\n\r\n" not in head:
                return Answer(0, {}, b""), True
            head, body = head.split(b"\r\n\r\n", 1)
            lines = head.decode("latin-1").split("\r\n")
            headers = {}
            for line in lines[1:]:
                name, value = line.split(":", 1)
                headers[name.strip().lower()] = value.strip()
            length = int(headers.get("content-length", "0"))
            try:
                while len(body) < length:
                    chunk = s.recv(65536)
                    if not chunk:
                        break
                    body += chunk
                closed = None
                if check_closed:
                    s.settimeout(2)
                    closed = s.recv(1) == b""
            except socket.timeout:
                closed = False
            except ConnectionError:
                closed = True
            return Answer(int(lines[0].split()[1]), headers, body), closed
