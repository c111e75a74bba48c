"""tools/portico on free ports (no root needed): the HTTP/2 route to the
emulator, the route-document endpoint, its faults, start and stop."""

import http.client
import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest
from pathlib import Path

from emulator_harness import Emulator

PORTICO = Path(__file__).resolve().parents[1] / "portico"
DOC_PATH = "/portico/config/json/bmcApi.json"


def route_document(address, port):
    return json.dumps({"proxy_configuration": {"clusters": [
        {"name": "bmc", "endpoints": [{"socket_address": {"address": address,
                                                          "port_value": port}}]}]}})


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Portico:
    def __init__(self, *extra):
        self.tmp = tempfile.TemporaryDirectory(prefix="portico-test-")
        self.dir = Path(self.tmp.name)
        self.log_path = self.dir / "config.jsonl"
        self.http_port, self.config_port = free_port(), free_port()
        self.proc = subprocess.Popen(
            [str(PORTICO), "--http-port", str(self.http_port), "--config-port",
             str(self.config_port), "--dir", str(self.dir / "nginx"), "--request-log",
             str(self.log_path), *extra],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        guard = threading.Timer(30, self.proc.kill)  # only against a hang
        guard.start()
        try:
            line = self.proc.stdout.readline().strip()
        finally:
            guard.cancel()
        if line != "ready":
            self.proc.kill()
            err = self.proc.communicate()[1]
            self.tmp.cleanup()
            raise RuntimeError("portico did not start: %r %s" % (line, err))

    def stop(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
        rc = self.proc.wait(timeout=20)
        self.proc.stdout.close()
        self.proc.stderr.close()
        self.tmp.cleanup()
        return rc

    def h2(self, path, *args):
        """(status, body) of an HTTP/2 prior-knowledge request to the data port."""
        r = subprocess.run(["curl", "-s", "--http2-prior-knowledge", "--max-time", "20",
                            "-w", "\n%{http_code} %{http_version}", *args,
                            "http://127.0.0.1:%d%s" % (self.http_port, path)],
                           capture_output=True, text=True)
        body, _, tail = r.stdout.rpartition("\n")
        code, version = tail.split()
        assert version == "2", "not HTTP/2: %s" % version
        return int(code), body

    def config(self, method, body=None, path=DOC_PATH):
        """(status, body bytes) of a request to the configuration port."""
        conn = http.client.HTTPConnection("127.0.0.1", self.config_port, timeout=30)
        try:
            conn.request(method, path, body=body,
                         headers={"Content-Type": "application/json"} if body else {})
            resp = conn.getresponse()
            return resp.status, resp.read()
        finally:
            conn.close()

    def faults(self, specs):
        status, _ = self.config("PUT", json.dumps(specs), "/__portico/faults")
        assert status == 200

    def logged(self):
        with open(self.log_path) as f:
            return [json.loads(line) for line in f]


def needs_tools():
    missing = [t for t in ("nginx", "curl", "openssl")
               if not shutil.which(t) and not os.path.exists("/usr/sbin/" + t)]
    return unittest.skipIf(missing, "needs %s" % ", ".join(missing))


@needs_tools()
class PorticoTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.emulator = Emulator("generic").start()
        cls.doc = route_document("127.0.0.1", cls.emulator.port)

    @classmethod
    def tearDownClass(cls):
        cls.emulator.stop()

    def setUp(self):
        self.portico = Portico()
        self.addCleanup(self.portico.stop)

    def emulator_paths(self):
        with open(self.emulator.log_path) as f:
            return [json.loads(line)["path"] for line in f]

    def test_routes_bmc_prefix_to_the_document_endpoint(self):
        p = self.portico
        self.assertEqual(p.h2("/bmc/redfish/v1")[0], 503)
        self.assertEqual(p.config("GET")[0], 404)
        self.assertEqual(p.config("PUT", self.doc), (204, b""))
        status, body = p.h2("/bmc/redfish/v1")
        self.assertEqual(status, 200)
        self.assertIn("/redfish/v1", json.loads(body)["@odata.id"])
        self.assertEqual(p.h2("/bmc/redfish/v1/Systems", "-u", "admin:secret")[0], 200)
        self.assertIn("/redfish/v1/Systems", self.emulator_paths())  # prefix rewritten
        self.assertEqual(p.config("GET"), (200, self.doc.encode()))
        self.assertEqual(p.h2("/elsewhere")[0], 404)
        log = p.logged()
        self.assertEqual([(e["method"], e["path"], e["status"]) for e in log],
                         [("GET", DOC_PATH, 404), ("PUT", DOC_PATH, 204), ("GET", DOC_PATH, 200)])
        self.assertEqual(log[1]["body"], self.doc)
        self.assertEqual(log[1]["headers"]["Content-Type"], "application/json")

    def test_each_put_is_in_effect_when_it_is_answered(self):
        p = self.portico
        dead = route_document("127.0.0.1", free_port())
        for _ in range(3):
            self.assertEqual(p.config("PUT", dead)[0], 204)
            self.assertEqual(p.h2("/bmc/redfish/v1")[0], 502)
            self.assertEqual(p.config("PUT", self.doc)[0], 204)
            self.assertEqual(p.h2("/bmc/redfish/v1")[0], 200)

    def test_bad_requests_change_nothing(self):
        p = self.portico
        self.assertEqual(p.config("PUT", "{not json")[0], 400)
        self.assertEqual(p.config("PUT", json.dumps({"proxy_configuration": {}}))[0], 400)
        self.assertEqual(p.config("PUT", route_document("127.0.0.1; evil", 443))[0], 400)
        self.assertEqual(p.config("PUT", route_document("127.0.0.1", 70000))[0], 400)
        self.assertEqual(p.config("GET")[0], 404)
        self.assertEqual(p.h2("/bmc/redfish/v1")[0], 503)
        self.assertEqual(p.config("POST", self.doc)[0], 405)
        self.assertEqual(p.config("DELETE")[0], 405)
        self.assertEqual(p.config("GET", path="/portico/config/json/other.json")[0], 404)

    def test_faults_from_the_control_path(self):
        p = self.portico
        p.faults(["put=503@1"])
        self.assertEqual(p.config("PUT", self.doc)[0], 503)
        self.assertEqual(p.config("GET")[0], 404)  # not stored
        p.faults(["put=200"])
        self.assertEqual(p.config("PUT", self.doc)[0], 200)
        self.assertEqual(p.h2("/bmc/redfish/v1")[0], 200)  # stored and routed all the same
        p.faults(["get=503@2"])
        self.assertEqual([p.config("GET")[0] for _ in range(3)], [503, 503, 200])
        p.faults(["garbage"])
        status, body = p.config("GET")
        self.assertEqual(status, 200)
        self.assertRaises(ValueError, json.loads, body)
        p.faults(["big"])
        status, body = p.config("GET")
        self.assertGreater(len(body), 2048)
        self.assertEqual(json.loads(body)["proxy_configuration"], json.loads(self.doc)["proxy_configuration"])
        p.faults(["slow=1"])
        started = time.monotonic()
        self.assertEqual(p.config("GET")[0], 200)
        self.assertGreaterEqual(time.monotonic() - started, 1.0)
        self.assertEqual(p.config("DELETE", path="/__portico/faults"), (200, b'{"faults": []}\n'))
        self.assertEqual(p.config("PUT", '["nonsense"]', "/__portico/faults")[0], 400)
        # Control requests stay out of the request log.
        self.assertNotIn("/__portico/faults", [e["path"] for e in p.logged()])


@needs_tools()
class PorticoCommandLineTest(unittest.TestCase):
    def test_document_and_fault_from_the_command_line_then_sigterm(self):
        emulator = Emulator("generic").start()
        self.addCleanup(emulator.stop)
        with tempfile.NamedTemporaryFile("w", suffix=".json") as doc:
            doc.write(route_document("127.0.0.1", emulator.port))
            doc.flush()
            p = Portico("--document", doc.name, "--fault", "get=503@1")
            try:
                self.assertEqual(p.h2("/bmc/redfish/v1")[0], 200)
                self.assertEqual(p.config("GET")[0], 503)
                self.assertEqual(p.config("GET")[0], 200)
                with open(p.dir / "nginx" / "nginx.pid") as f:
                    master = int(f.read())
            finally:
                self.assertEqual(p.stop(), 0)
        self.assertFalse(os.path.exists("/proc/%d" % master), "nginx outlived portico")
        with self.assertRaises(OSError):
            socket.create_connection(("127.0.0.1", p.http_port), timeout=2).close()

    def test_bad_arguments_exit_2_leaving_nothing_behind(self):
        with tempfile.TemporaryDirectory() as tmp:
            for args in (["--fault", "put=418"], ["--document", "/dev/null"]):
                r = subprocess.run([str(PORTICO), "--http-port", str(free_port()),
                                    "--config-port", str(free_port()), *args],
                                   capture_output=True, text=True, timeout=30,
                                   env=dict(os.environ, TMPDIR=tmp))
                self.assertEqual(r.returncode, 2, args)
                self.assertIn("portico:", r.stderr)
            self.assertEqual(os.listdir(tmp), [])


if __name__ == "__main__":
    unittest.main()
