"""tools/portico on free ports (no root needed): a route document PUT is in
effect for the HTTP/2 route to the emulator as soon as it is answered. Its
faults and the configuration port's protocols are the library's integration
tests' (tests/integration/transport_test.cpp)."""

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

    def config(self, method, body=None, path=DOC_PATH):
        """Status and body of an HTTP/1.1 request to the configuration port."""
        args = ["curl", "-s", "--http1.1", "--max-time", "30", "-X", method, "-w", "\n%{http_code}"]
        if body is not None:
            args += ["--data-binary", "@-"]
        r = subprocess.run(args + ["http://127.0.0.1:%d%s" % (self.config_port, path)],
                           input=(body or "").encode(), capture_output=True)
        out, _, code = r.stdout.rpartition(b"\n")
        return int(code), out


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

    def test_each_put_is_in_effect_when_it_is_answered(self):
        p = self.portico
        for doc, status in ((route_document("127.0.0.1", free_port()), 502), (self.doc, 200)) * 2:
            self.assertEqual(p.config("PUT", doc)[0], 204)
            self.assertEqual(p.h2("/bmc/redfish/v1")[0], status)


if __name__ == "__main__":
    unittest.main()
