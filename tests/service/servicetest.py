"""Shared helpers: start lofthaven-service on a free loopback port and talk to it with curl."""
import json
import os
import shutil
import signal
import subprocess
import tempfile


class Answer:
    def __init__(self, status, headers, body):
        self.status = status
        self.headers = headers
        self.body = body

    def json(self):
        return json.loads(self.body.decode())

    def header(self, name):
        return self.headers.get(name.lower())


class Service:
    """One service process with its own data folder (kept across restart())."""

    def __init__(self, binary, *extra, data=None):
        self.binary = binary
        self.extra = list(extra)
        self.data = data or tempfile.mkdtemp(prefix="lh-service-")
        self.proc = None
        self.origin = None
        self.start()

    def start(self):
        self.stderr = open(os.path.join(self.data, "stderr.log"), "ab")
        self.proc = subprocess.Popen(
            [self.binary, "--listen", "127.0.0.1:0", "--data", self.data] + self.extra,
            stdout=subprocess.PIPE, stderr=self.stderr)
        line = self.proc.stdout.readline().decode().strip()
        prefix = "lofthaven-service listening on "
        if not line.startswith(prefix):
            raise RuntimeError("no ready line, got %r" % line)
        self.origin = line[len(prefix):]

    def kill(self):
        self.proc.send_signal(signal.SIGKILL)
        self.proc.wait()

    def stop(self):
        if self.proc and self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            self.proc.wait(timeout=10)
        return self.proc.returncode

    def restart_after_kill(self):
        self.kill()
        self.start()

    def close(self):
        self.stop()
        shutil.rmtree(self.data, ignore_errors=True)

    def curl(self, method, path, body=None, headers=None, data_file=None, extra=None, timeout=30):
        """Runs curl; returns Answer. body: dict (sent as JSON), bytes or str."""
        out = tempfile.NamedTemporaryFile(delete=False)
        hdr = tempfile.NamedTemporaryFile(delete=False)
        out.close()
        hdr.close()
        cmd = ["curl", "-sS", "-X", method, "-o", out.name, "-D", hdr.name, "-w", "%{http_code}",
               "--max-time", str(timeout)]
        stdin = None
        if isinstance(body, dict) or isinstance(body, list):
            stdin = json.dumps(body).encode()
            cmd += ["-H", "Content-Type: application/json", "--data-binary", "@-"]
        elif isinstance(body, (bytes, str)):
            stdin = body.encode() if isinstance(body, str) else body
            cmd += ["-H", "Content-Type: application/octet-stream", "--data-binary", "@-"]
        elif data_file:
            cmd += ["-H", "Content-Type: application/octet-stream", "-T", data_file]
        for k, v in (headers or {}).items():
            cmd += ["-H", "%s: %s" % (k, v)]
        cmd += extra or []
        cmd.append(self.origin + path)
        run = subprocess.run(cmd, input=stdin, capture_output=True, timeout=timeout + 5)
        status = int(run.stdout.decode() or "0")
        headers_out = {}
        with open(hdr.name, "rb") as f:
            for line in f.read().decode("latin-1").split("\r\n"):
                if ":" in line:
                    k, v = line.split(":", 1)
                    headers_out[k.strip().lower()] = v.strip()
        with open(out.name, "rb") as f:
            data = f.read()
        os.unlink(out.name)
        os.unlink(hdr.name)
        return Answer(status, headers_out, data)
