"""Runs tools/bmc-emulator on a free port and talks to it with curl and redfishtool."""

import base64
import http.client
import json
import os
import signal
import ssl
import subprocess
import tempfile
import threading
import unittest
from pathlib import Path

EMULATOR = Path(__file__).resolve().parents[1] / "bmc-emulator"
START_TIMEOUT = 30


class Reply:
    """curl's exit code and the answer's status, headers and body."""

    def __init__(self, rc, status, headers, body):
        self.rc, self.status, self.headers, self.body = rc, status, headers, body

    def json(self):
        return json.loads(self.body)

    def __repr__(self):
        return "Reply(rc=%r, status=%r, body=%r)" % (self.rc, self.status, self.body[:200])


class Client:
    """One keep-alive HTTPS connection, certificate unchecked: many requests
    cost no process or handshake each."""

    def __init__(self, port, user, password):
        self.conn = http.client.HTTPSConnection("127.0.0.1", port, timeout=20,
                                                context=ssl._create_unverified_context())
        self.conn.connect()
        self.auth = "Basic " + base64.b64encode(("%s:%s" % (user, password)).encode()).decode()

    def get(self, path):
        """(status, parsed JSON body or None)."""
        self.conn.request("GET", path, headers={"Authorization": self.auth})
        reply = self.conn.getresponse()
        body = reply.read()
        return reply.status, (json.loads(body) if body else None)

    def close(self):
        self.conn.close()


class Emulator:
    def __init__(self, profile, *extra, user="admin", password="secret"):
        self.profile, self.extra = profile, list(extra)
        self.user, self.password = user, password
        self.tmp = tempfile.TemporaryDirectory(prefix="emulator-test-")
        self.dir = Path(self.tmp.name)
        self.log_path = self.dir / "requests.jsonl"
        self.proc = None
        self.port = None

    def command(self, *more):
        return [str(EMULATOR), "--profile", self.profile, "--port", "0", "--request-log", str(self.log_path),
                "--cert-dir", str(self.dir / "cert"), *self.extra, *more]

    def start(self):
        """Starts the emulator and waits for its "ready port=N" line."""
        cmd = self.command()
        self.proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        # The ready line (or EOF if it dies) ends the wait; the timer only guards against a hang.
        guard = threading.Timer(START_TIMEOUT, self.proc.kill)
        guard.start()
        try:
            line = self.proc.stdout.readline().strip()
        finally:
            guard.cancel()
        if not line.startswith("ready port="):
            self.proc.kill()
            err = self.proc.stderr.read()
            self.proc.wait()
            raise RuntimeError("%s did not start: %r %s" % (cmd[0], line, err))
        self.port = int(line.split("=", 1)[1])
        return self

    def stop(self, sig=signal.SIGTERM):
        """Signals the emulator and returns its exit status."""
        if self.proc is None:
            return None
        proc, self.proc = self.proc, None
        if proc.poll() is None:
            proc.send_signal(sig)
        try:
            rc = proc.wait(timeout=20)
        except subprocess.TimeoutExpired:
            proc.kill()
            rc = proc.wait()
        proc.stdout.close()
        proc.stderr.close()
        self.tmp.cleanup()
        return rc

    @property
    def base(self):
        return "https://127.0.0.1:%d" % self.port

    def curl(self, path, method="GET", data=None, auth=True, user=None, password=None):
        hdr_file, body_file = self.dir / "hdr", self.dir / "body"
        cmd = ["curl", "-sk", "-g", "--max-time", "20", "-D", str(hdr_file), "-o", str(body_file),
               "-w", "%{http_code}"]
        if method != "GET" or data is not None:
            cmd += ["-X", method]
        if auth:
            cmd += ["-u", "%s:%s" % (user or self.user, password or self.password)]
        if data is not None:
            cmd += ["--data-binary", data if isinstance(data, str) else json.dumps(data),
                    "-H", "Content-Type: application/json"]
        cmd.append(self.base + path)
        done = subprocess.run(cmd, capture_output=True, text=True)
        headers_out = {}
        raw = hdr_file.read_text("latin-1") if hdr_file.exists() else ""
        blocks = [b for b in raw.split("\r\n\r\n") if b and not b.startswith("HTTP/1.1 1")]
        for line in (blocks[0] if blocks else "").splitlines():
            name, sep, value = line.partition(":")
            if sep:
                headers_out[name.strip().lower()] = value.strip()
        body = body_file.read_bytes() if body_file.exists() else b""
        for f in (hdr_file, body_file):
            if f.exists():
                f.unlink()
        return Reply(done.returncode, int(done.stdout or 0), headers_out, body)

    def client(self):
        return Client(self.port, self.user, self.password)

    def get_json(self, path, **kw):
        reply = self.curl(path, **kw)
        return reply.status, (reply.json() if reply.body else None)

    def control(self, method, sub, payload=None):
        return self.curl("/__emulator/" + sub, method=method, data=payload, auth=False)

    def redfishtool(self, *args, password=None):
        cmd = ["redfishtool", "-r", "127.0.0.1:%d" % self.port, "-u", self.user,
               "-p", password or self.password, "-S", "Always", "-T", "20", *args]
        env = dict(os.environ, NO_PROXY="*", no_proxy="*")
        return subprocess.run(cmd, capture_output=True, text=True, env=env)


class EmulatorCase(unittest.TestCase):
    """One emulator of PROFILE for the whole class, which must exit cleanly."""
    PROFILE = "dell"

    @classmethod
    def setUpClass(cls):
        cls.emu = Emulator(cls.PROFILE).start()

    @classmethod
    def tearDownClass(cls):
        assert cls.emu.stop() == 0, "emulator did not exit cleanly"
