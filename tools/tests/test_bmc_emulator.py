"""tools/bmc-emulator driven by curl and DMTF's redfishtool, one emulator per class."""

import unittest

from emulator_harness import EmulatorCase


class ServiceTest(EmulatorCase):
    """What any Redfish client of the controller depends on, checked with curl and DMTF's
    redfishtool. Each vendor's shapes and reset answers are the end-to-end tests', per
    profile, through the library."""

    PROFILE = "dell"

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

    def test_a_reset_through_redfishtool_changes_the_power_state(self):
        self.emu.control("POST", "power", {"system": 0, "PowerState": "On"})
        done = self.emu.redfishtool("Systems", "-I", "System.Embedded.1", "reset", "ForceOff")
        self.assertEqual(done.returncode, 0, done.stderr)
        status, body = self.emu.get_json("/redfish/v1/Systems/System.Embedded.1?$select=PowerState")
        self.assertEqual((status, body["PowerState"]), (200, "Off"))


class FaultTest(EmulatorCase):
    """The fault kinds no other test uses (delay, status, body and sensors-404 are the
    integration tests'), from the control endpoint."""

    PROFILE = "generic"

    def tearDown(self):
        self.emu.control("DELETE", "faults")

    def set_faults(self, *specs):
        reply = self.emu.control("POST", "faults", list(specs))
        self.assertEqual(reply.status, 200, reply.body)

    def test_runtime_faults(self):
        chassis = "/redfish/v1/Chassis"
        full = len(self.emu.curl(chassis).body)

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


if __name__ == "__main__":
    unittest.main()
