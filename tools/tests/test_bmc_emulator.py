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


if __name__ == "__main__":
    unittest.main()
