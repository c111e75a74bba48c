"""tools/portico on free ports (no root needed): the HTTP/2 route to the
emulator, the route-document endpoint, its faults, start and stop."""

import json
import os
import shutil
import socket
import subprocess
import tempfile
import unittest
from pathlib import Path

from emulator_harness import Emulator, start_process, stop_process

PORTICO = Path(__file__).resolve().parents[1] / "portico"
DOC_PATH = "/portico/config/json/bmcApi.json"


def route_document(address, port):
    return json.dumps({"proxy_configuration": {"clusters": [{"endpoints": [
        {"socket_address": {"address": address, "port_value": port}}]}]}})


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Portico:
    def __init__(self, *extra):
        self.tmp = tempfile.TemporaryDirectory(prefix="portico-test-")
        self.dir = Path(self.tmp.name)
        self.http_port, self.config_port = free_port(), free_port()
        self.proc, _ = start_process(
            [str(PORTICO), "--http-port", str(self.http_port), "--config-port",
             str(self.config_port), "--dir", str(self.dir / "nginx"), "--request-log",
             str(self.dir / "config.jsonl"), *extra], "ready")

    def stop(self):
        rc = stop_process(self.proc)
        self.tmp.cleanup()
        return rc

    def h2(self, path, *args):
        """Status of an HTTP/2 prior-knowledge request to the data port, and the body."""
        r = subprocess.run(["curl", "-s", "--http2-prior-knowledge", "--max-time", "20", "-w",
                            "\n%{http_version} %{http_code}", *args,
                            "http://127.0.0.1:%d%s" % (self.http_port, path)],
                           capture_output=True, text=True)
        body, _, tail = r.stdout.rpartition("\n")
        version, code = tail.split()
        return int(code) if version == "2" else None, body

    def config(self, method, body=None, path=DOC_PATH, http2=True):
        """Status and body of a request to the configuration port, which speaks
        HTTP/2 cleartext (prior knowledge) and HTTP/1.1."""
        args = ["curl", "-s", "--http2-prior-knowledge" if http2 else "--http1.1",
                "--max-time", "30", "-X", method, "-w", "\n%{http_code}"]
        if body is not None:
            args += ["--data-binary", "@-"]
        r = subprocess.run(args + ["http://127.0.0.1:%d%s" % (self.config_port, path)],
                           input=body if isinstance(body, bytes) else (body or "").encode(),
                           capture_output=True)
        out, _, code = r.stdout.rpartition(b"\n")
        return int(code), out

    def logged(self):
        with open(self.dir / "config.jsonl") as f:
            return [json.loads(line) for line in f]


@unittest.skipUnless(shutil.which("nginx") or os.path.exists("/usr/sbin/nginx"), "needs nginx")
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

    def test_configuration_port_speaks_http1_and_h2(self):
        p = self.portico
        self.assertEqual(p.config("PUT", self.doc, http2=False), (204, b""))
        self.assertEqual(p.config("GET", http2=True), (200, self.doc.encode()))
        self.assertEqual(p.config("GET", http2=False), (200, self.doc.encode()))
        self.assertEqual(p.config("PUT", "{not json", http2=False)[0], 400)
        # A client that sends a few bytes and closes must not stall the port.
        with socket.create_connection(("127.0.0.1", p.config_port)) as s:
            s.sendall(b"PRI * HT")
        with socket.create_connection(("127.0.0.1", p.config_port)) as s:
            s.sendall(b"GET " + DOC_PATH.encode() + b" HTTP/1.0\r\n\r\n")
            reply = b"".join(iter(lambda: s.recv(4096), b""))
        self.assertTrue(reply.startswith(b"HTTP/1.0 200") or reply.startswith(b"HTTP/1.1 200"),
                        reply[:40])
        self.assertEqual(p.h2("/bmc/redfish/v1")[0], 200)

    def test_each_put_is_in_effect_when_it_is_answered(self):
        p = self.portico
        for doc, status in ((route_document("127.0.0.1", free_port()), 502), (self.doc, 200)) * 2:
            self.assertEqual(p.config("PUT", doc)[0], 204)
            self.assertEqual(p.h2("/bmc/redfish/v1")[0], status)

    def test_bad_requests_change_nothing(self):
        p = self.portico
        for body in ("{not json", json.dumps({"proxy_configuration": {}}),
                     route_document("127.0.0.1; evil", 443), route_document("127.0.0.1", 70000)):
            self.assertEqual(p.config("PUT", body)[0], 400, body)
        self.assertEqual(p.config("GET")[0], 404)
        self.assertEqual(p.h2("/bmc/redfish/v1")[0], 503)
        self.assertEqual(p.h2("/elsewhere")[0], 404)
        self.assertEqual(p.config("POST", self.doc)[0], 405)
        self.assertEqual(p.config("GET", path="/portico/config/json/other.json")[0], 404)

    def test_faults_from_the_control_path(self):
        p = self.portico

        def faults(*specs):
            self.assertEqual(p.config("PUT", json.dumps(specs), "/__portico/faults")[0], 200)

        faults("put=503@1")
        self.assertEqual(p.config("PUT", self.doc)[0], 503)
        self.assertEqual(p.config("GET")[0], 404)  # not stored
        faults("put=200")
        self.assertEqual(p.config("PUT", self.doc)[0], 200)
        self.assertEqual(p.h2("/bmc/redfish/v1")[0], 200)  # stored and routed all the same
        faults("big")
        self.assertEqual(json.loads(p.config("GET")[1])["proxy_configuration"],
                         json.loads(self.doc)["proxy_configuration"])
        faults("slow=1")
        self.assertEqual(p.config("GET")[0], 200)
        self.assertEqual(p.config("DELETE", path="/__portico/faults"), (200, b'{"faults": []}\n'))
        self.assertEqual(p.config("PUT", '["nonsense"]', "/__portico/faults")[0], 400)
        self.assertNotIn("/__portico/faults", [e["path"] for e in p.logged()])

    def test_document_and_fault_from_the_command_line_then_sigterm(self):
        with tempfile.NamedTemporaryFile("w", suffix=".json") as doc:
            doc.write(self.doc)
            doc.flush()
            p = Portico("--document", doc.name, "--fault", "get=503@1")
            try:
                self.assertEqual(p.h2("/bmc/redfish/v1")[0], 200)
                self.assertEqual([p.config("GET")[0] for _ in range(2)], [503, 200])
                master = int((p.dir / "nginx" / "nginx.pid").read_text())
            finally:
                self.assertEqual(p.stop(), 0)
        self.assertFalse(os.path.exists("/proc/%d" % master), "nginx outlived portico")

    def test_bad_arguments_exit_2_leaving_nothing_behind(self):
        with tempfile.TemporaryDirectory() as tmp:
            for args in (["--fault", "put=418"], ["--document", "/dev/null"]):
                r = subprocess.run([str(PORTICO), "--http-port", str(free_port()),
                                    "--config-port", str(free_port()), *args],
                                   capture_output=True, text=True, timeout=30,
                                   env=dict(os.environ, TMPDIR=tmp))
                self.assertEqual((r.returncode, r.stderr[:8]), (2, "portico:"), args)
            self.assertEqual(os.listdir(tmp), [])


if __name__ == "__main__":
    unittest.main()
