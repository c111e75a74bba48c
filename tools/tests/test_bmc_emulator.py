"""tools/bmc-emulator driven by curl and DMTF's redfishtool, one emulator per class."""

import unittest

from emulator_harness import Emulator

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



if __name__ == "__main__":
    unittest.main()
