"""tools/bmc-emulator driven by curl and DMTF's redfishtool, one emulator per class."""

import json
import re
import signal
import socket
import ssl
import subprocess
import unittest

from emulator_harness import EMULATOR, Emulator

RESET = "/Actions/ComputerSystem.Reset"


class ProfileChecks:
    """What a client of each vendor's controller depends on; filled in per profile below.
    The shapes the library reads ($select, the expanded Sensors) are the end-to-end
    tests', per profile."""

    PROFILE = SYSTEM = None
    RESET_OK = NO_OP = None   # statuses for a real transition and for an unnecessary one

    @classmethod
    def setUpClass(cls):
        cls.emu = Emulator(cls.PROFILE).start()

    @classmethod
    def tearDownClass(cls):
        assert cls.emu.stop() == 0, "emulator did not exit cleanly"

    def setUp(self):
        self.emu.control("POST", "power", {"system": 0, "PowerState": "On"})

    def system_path(self):
        return "/redfish/v1/Systems/" + self.SYSTEM

    def power_state(self):
        status, body = self.emu.get_json(self.system_path() + "?$select=PowerState")
        self.assertEqual(status, 200)
        return body["PowerState"]

    def post_reset(self, reset_type):
        return self.emu.curl(self.system_path() + RESET, method="POST", data={"ResetType": reset_type})

    def test_service_root_is_public_everything_else_needs_basic_auth(self):
        reply = self.emu.curl("/redfish/v1/", auth=False)
        self.assertEqual((reply.status, reply.headers["odata-version"]), (200, "4.0"))
        self.assertTrue(reply.headers["content-type"].startswith("application/json"))
        self.assertEqual(int(reply.headers["content-length"]), len(reply.body))
        for kw in ({"auth": False}, {"password": "wrong"}, {"user": "root"}):
            reply = self.emu.curl("/redfish/v1/Systems", **kw)
            self.assertEqual(reply.status, 401, kw)
            self.assertRegex(reply.headers["www-authenticate"], r'^Basic realm="[^"]+"$')
            error = reply.json()["error"]
            self.assertRegex(error["code"], r"^Base\.1\.\d+\.AccessDenied$")
            self.assertTrue(error["@Message.ExtendedInfo"])
        self.assertNotEqual(self.emu.redfishtool("Systems", "list", password="wrong").returncode, 0)

    def test_reset_changes_power_and_answers_with_the_vendors_statuses(self):
        for reset, how in (("On", "no-op"), ("ForceOff", "redfishtool"), ("ForceOff", "no-op"),
                           ("On", "done"), ("GracefulRestart", "redfishtool")):
            with self.subTest(reset=reset, how=how):
                if how == "redfishtool":
                    done = self.emu.redfishtool("Systems", "-I", self.SYSTEM, "reset", reset)
                    self.assertEqual(done.returncode, 0, done.stderr)
                elif how == "no-op":
                    reply = self.post_reset(reset)
                    self.assertEqual(reply.status, self.NO_OP)
                    self.check_no_op_body(reply, "OFF" if reset == "ForceOff" else "ON")
                else:
                    reply = self.post_reset(reset)
                    self.assertEqual(reply.status, self.RESET_OK)
                    self.check_success_body(reply)
                self.assertEqual(self.power_state(), "Off" if reset == "ForceOff" else "On")

    def check_no_op_body(self, reply, state):
        pass

    def check_success_body(self, reply):
        self.assertEqual(reply.body, b"")


class DellTest(ProfileChecks, unittest.TestCase):
    PROFILE, SYSTEM = "dell", "System.Embedded.1"
    RESET_OK, NO_OP = 204, 409

    def check_no_op_body(self, reply, state):
        info = reply.json()["error"]["@Message.ExtendedInfo"][0]
        self.assertIn("already powered " + state, info["Message"])


class HpeTest(ProfileChecks, unittest.TestCase):
    PROFILE, SYSTEM = "hpe", "1"
    RESET_OK, NO_OP = 200, 400

    def message_ids(self, reply):
        return [m["MessageId"] for m in reply.json()["error"]["@Message.ExtendedInfo"]]

    def check_no_op_body(self, reply, state):
        self.assertTrue(self.message_ids(reply)[0].endswith(".InvalidOperationForSystemState"))

    def check_success_body(self, reply):
        self.assertRegex(self.message_ids(reply)[0], r"^Base\.\d+\.\d+\.Success$")


class LenovoTest(ProfileChecks, unittest.TestCase):
    PROFILE, SYSTEM = "lenovo", "1"
    RESET_OK, NO_OP = 204, 204


class GenericTest(ProfileChecks, unittest.TestCase):
    PROFILE, SYSTEM = "generic", "node1"
    RESET_OK, NO_OP = 204, 204


class FaultTest(unittest.TestCase):
    """Every fault kind, from the command line and from the control endpoint."""

    @classmethod
    def setUpClass(cls):
        cls.emu = Emulator("generic", "--fault", "/redfish/v1/Managers:status=500@2",
                           "--fault", "/redfish/v1/Chassis/1U:sensors-404").start()

    @classmethod
    def tearDownClass(cls):
        assert cls.emu.stop() == 0

    def tearDown(self):
        self.emu.control("DELETE", "faults")

    def set_faults(self, *specs):
        reply = self.emu.control("POST", "faults", list(specs))
        self.assertEqual(reply.status, 200, reply.body)

    def test_command_line_faults(self):
        statuses = [self.emu.curl("/redfish/v1/Managers").status for _ in range(3)]
        self.assertEqual(statuses, [500, 500, 200])
        self.assertEqual(self.emu.curl("/redfish/v1/Chassis/1U/Sensors").status, 404)
        self.assertEqual(self.emu.curl("/redfish/v1/Chassis/1U/Sensors/CPU1Temp").status, 404)
        self.assertEqual(self.emu.curl("/redfish/v1/Chassis/1U").status, 200)
        cli = [f for f in self.emu.control("GET", "state").json()["faults"] if f["source"] == "cli"]
        self.assertEqual([f["remaining"] for f in cli], [0, None])

    def test_runtime_faults(self):
        chassis = "/redfish/v1/Chassis"
        full = len(self.emu.curl(chassis).body)

        with self.subTest("delay"):
            self.set_faults(chassis + ":delay=0.1@1")
            self.assertEqual(self.emu.curl(chassis).status, 200)
            self.assertEqual(self.emu.control("GET", "faults").json()[-1]["remaining"], 0)
        with self.subTest("retry-after"):
            self.set_faults(chassis + ":retry-after=7")
            reply = self.emu.curl(chassis)
            self.assertEqual((reply.status, reply.headers["retry-after"]), (503, "7"))
        with self.subTest("drop"):
            self.set_faults(chassis + ":drop@1")
            self.assertEqual(self.emu.curl(chassis).rc, 52)  # empty reply from server
            self.assertEqual(self.emu.curl(chassis).status, 200)
        with self.subTest("truncate"):
            self.set_faults(chassis + ":truncate=20")
            reply = self.emu.curl(chassis)
            self.assertEqual(reply.rc, 18)  # transfer closed with outstanding data
            self.assertEqual(len(reply.body), 20)
            self.assertEqual(int(reply.headers["content-length"]), full)
        with self.subTest("bad-length"):
            self.set_faults(chassis + ":bad-length=10")
            reply = self.emu.curl(chassis)
            self.assertEqual((reply.headers["content-length"], len(reply.body)), ("10", 10))
        with self.subTest("unknown-manufacturer"):
            self.set_faults("/redfish/v1/Systems/*:unknown-manufacturer")
            system = self.emu.get_json("/redfish/v1/Systems/node1")[1]
            self.assertEqual((system["Manufacturer"], system["Model"]), ("Unknown", "CS-2100"))
            self.assertEqual(self.emu.get_json("/redfish/v1/Chassis/1U")[1]["Manufacturer"], "Contoso")
        self.emu.control("DELETE", "faults")
        self.assertEqual(self.emu.curl(chassis).status, 200)

    def test_bad_fault_specs_and_power_requests_are_refused(self):
        for spec in ("nokind", "/x:delay", "/x:delay=soon", "/x:drop=1", "/x:status=42", "/x:status=500,body=",
                     "/x:status=500,body=/nonexistent/file", "/x:truncate=-1", "/x:drop@0"):
            with self.subTest(spec=spec):
                self.assertEqual(self.emu.control("POST", "faults", [spec]).status, 400)
        self.assertEqual(self.emu.control("POST", "faults", {"not": "a list"}).status, 400)
        self.assertEqual(self.emu.control("POST", "power", {"system": 7, "PowerState": "On"}).status, 404)
        self.assertEqual(self.emu.control("POST", "power", {"PowerState": "Sleeping"}).status, 400)
        bad_cli = subprocess.run([str(EMULATOR), "--profile", "generic", "--fault", "/x:explode"],
                                 capture_output=True)
        self.assertEqual(bad_cli.returncode, 2)

    def test_malformed_and_misdirected_requests(self):
        ctx = ssl.create_default_context()
        ctx.check_hostname, ctx.verify_mode = False, ssl.CERT_NONE

        def raw(data):
            with ctx.wrap_socket(socket.create_connection(("127.0.0.1", self.emu.port), timeout=10)) as s:
                s.sendall(data)
                return s.recv(200).split(b"\r\n", 1)[0]

        self.assertEqual(raw(b"NONSENSE\r\n\r\n"), b"HTTP/1.1 400 Bad Request")
        self.assertEqual(raw(b"GET /redfish/v1 HTTP/1.1\r\nContent-Length: x\r\n\r\n"), b"HTTP/1.1 400 Bad Request")
        self.assertEqual(raw(b"GET /redfish/v1 HTTP/1.1\r\n" + b"X: y\r\n" * 150 + b"\r\n")[9:12], b"431")
        missing = self.emu.curl("/redfish/v1/Systems/nope")
        self.assertEqual(missing.status, 404)
        self.assertIn("/redfish/v1/Systems/nope", missing.json()["error"]["@Message.ExtendedInfo"][0]["Message"])
        wrong = self.emu.curl("/redfish/v1/Systems/node1", method="DELETE")
        self.assertEqual((wrong.status, wrong.headers["allow"]), (405, "GET, HEAD"))
        self.assertEqual(self.emu.curl("/redfish/v1/Systems?$expand=everything").status, 400)
        self.assertEqual(self.emu.curl("/redfish/v1/Systems?$select=").status, 400)
        self.assertEqual(self.emu.curl("/redfish/v1/Systems").status, 200)

    def test_connection_handling(self):
        # Both URLs over one kept-alive connection: the second needs no new connect.
        reply = self.emu.curl("/redfish/v1/Systems", urls=["/redfish/v1/Chassis"])
        self.assertEqual([(code, connects) for code, connects, _ in reply.transfers], [(200, 1), (200, 0)])
        self.assertEqual(self.emu.curl("/redfish/v1/Systems", extra=["--http1.0"]).status, 200)
        # A body large enough for curl to ask for 100-continue.
        big = json.dumps({"ResetType": "GracefulRestart", "Pad": "x" * 4000})
        self.assertEqual(self.emu.curl("/redfish/v1/Systems/node1" + RESET, method="POST", data=big).status, 204)


class PowerSettleTest(unittest.TestCase):
    """A reset that takes its time: the states on the way, judged by the target."""

    @classmethod
    def setUpClass(cls):
        # Long enough that nothing settles while the test runs.
        cls.emu = Emulator("dell", "--power-settle", "600").start()

    @classmethod
    def tearDownClass(cls):
        assert cls.emu.stop() == 0

    def reset(self, reset_type):
        return self.emu.curl("/redfish/v1/Systems/System.Embedded.1" + RESET, method="POST",
                             data={"ResetType": reset_type}).status

    def state(self):
        return self.emu.get_json("/redfish/v1/Systems/System.Embedded.1")[1]["PowerState"]

    def test_states_on_the_way_and_a_second_reset_judged_by_the_target(self):
        self.emu.control("POST", "power", {"system": 0, "PowerState": "On"})
        self.assertEqual(self.reset("GracefulShutdown"), 204)
        self.assertEqual(self.state(), "On")  # shutting down still reads On
        self.assertEqual(self.reset("GracefulShutdown"), 409)  # already on its way off
        self.assertEqual(self.reset("On"), 204)
        self.assertEqual(self.state(), "PoweringOn")
        self.emu.control("POST", "power", {"system": 0, "PowerState": "Off"})
        self.assertEqual(self.state(), "Off")  # the control endpoint ends the change


class ScaleTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.emu = Emulator("dell", "--scale", "sensors=1000,systems=3", "--scale", "nics=3").start()

    @classmethod
    def tearDownClass(cls):
        assert cls.emu.stop() == 0

    def test_thousand_sensors_expand(self):
        reply = self.emu.curl("/redfish/v1/Chassis/System.Embedded.1/Sensors?$expand=.($levels=1)")
        self.assertEqual(reply.status, 200)
        members = reply.json()["Members"]
        self.assertEqual(len(members), 1000)
        self.assertEqual(len({m["Id"] for m in members}), 1000)
        self.assertTrue(all("Reading" in m for m in members))

    def test_more_systems_and_interfaces_stay_distinct_and_vendor_shaped(self):
        systems = self.emu.get_json("/redfish/v1/Systems")[1]
        self.assertEqual(systems["Members@odata.count"], 3)
        nics = self.emu.get_json("/redfish/v1/Managers/iDRAC.Embedded.1/EthernetInterfaces?$expand=*")[1]
        macs = [m["MACAddress"] for m in nics["Members"]]
        self.assertEqual(len(set(macs)), 3)
        self.assertTrue(all(re.fullmatch(r"([0-9a-f]{2}:){5}[0-9a-f]{2}", m) for m in macs), macs)
        uuids = {self.emu.get_json(m["@odata.id"])[1]["UUID"] for m in systems["Members"]}
        self.assertEqual(len(uuids), 3)


class LifecycleTest(unittest.TestCase):
    # The ready file and SIGTERM are what tools/host-sim and every class above rely on.
    def test_busy_port_fails_and_sigint_stops_cleanly(self):
        emu = Emulator("hpe").start()
        try:
            busy = subprocess.run([str(EMULATOR), "--profile", "hpe", "--port", str(emu.port),
                                   "--cert-dir", str(emu.dir / "cert2")], capture_output=True, timeout=30)
            self.assertEqual(busy.returncode, 1)
        finally:
            self.assertEqual(emu.stop(signal.SIGINT), 0)

    def test_bad_arguments_exit_with_usage_error(self):
        for args in (["--profile", "acme"], ["--profile", "dell", "--scale", "cpus=2"],
                     ["--profile", "dell", "--scale", "sensors=-1"], ["--profile", "dell", "--port", "70000"]):
            with self.subTest(args=args):
                done = subprocess.run([str(EMULATOR)] + args, capture_output=True)
                self.assertEqual(done.returncode, 2)


if __name__ == "__main__":
    unittest.main()
