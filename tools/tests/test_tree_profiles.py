"""The tree-served profiles: captured trees answered at their request paths,
and the count of requests in flight that the readings benchmark reports."""

import json
import os
import threading
import unittest
from pathlib import Path
from urllib.parse import quote

from emulator_harness import Emulator, EmulatorCase

TOOLS = Path(__file__).resolve().parents[1]

FOLDERS = {"dell-tree": "dell", "hpe-tree": "hpe", "lenovo-tree": "lenovo", "supermicro-tree": "supermicro",
           "gh200-tree": "nvidia_gh200"}
SENSORS = "/redfish/v1/Chassis/chassis/Sensors"


def captured(folder):
    base = TOOLS / "bmc_emulator" / "trees" / folder
    for dirpath, _dirs, files in os.walk(base):
        if "index.json" in files:
            rel = os.path.relpath(dirpath, base)
            with open(os.path.join(dirpath, "index.json"), encoding="utf-8") as f:
                yield ("/" + rel if rel != "." else "/"), json.load(f)


class CapturedTreeTest(unittest.TestCase):
    def test_every_resource_is_answered_at_its_path(self):
        for profile, folder in FOLDERS.items():
            emu = Emulator(profile).start()
            try:
                client = emu.client()
                for i, (path, body) in enumerate(captured(folder)):
                    # Half the requests percent-encoded with a trailing slash: both must reach it.
                    status, got = client.get(quote(path) + "/" if i % 2 else path)
                    code = body["error"]["code"] if "error" in body else None
                    want = 200 if code is None else 404 if code.endswith("ResourceMissingAtURI") else 500
                    self.assertEqual((status, got), (want, body), "%s %s" % (profile, path))
                client.close()
            finally:
                self.assertEqual(emu.stop(), 0)

    def test_reset_accepts_what_the_action_info_lists(self):
        emu = Emulator("gh200-tree").start()
        try:
            target = "/redfish/v1/Systems/%s/Actions/ComputerSystem.Reset"
            reply = emu.curl(target % "System_0", method="POST", data={"ResetType": "ForceOff"})
            self.assertEqual(reply.status, 200)
            self.assertRegex(reply.json()["@Message.ExtendedInfo"][0]["MessageId"], r"\.Success$")
            self.assertEqual(emu.get_json("/redfish/v1/Chassis/CPU_0?$select=PowerState")[1]["PowerState"], "Off")
            # Nmi is in no list of this system; the second system has no reset action at all.
            self.assertEqual(emu.curl(target % "System_0", method="POST", data={"ResetType": "Nmi"}).status, 400)
            self.assertEqual(emu.curl(target % "HGX_Baseboard_0", method="POST", data={"ResetType": "On"}).status, 404)
        finally:
            self.assertEqual(emu.stop(), 0)


class GeneratedBmcTest(EmulatorCase):
    """openbmc-300: 300 sensors, 50 ms a request, 501 for $expand."""

    PROFILE = "openbmc-300"

    def test_the_peak_of_requests_in_flight_is_counted(self):
        # A second's delay makes the requests overlap whatever the machine's load.
        self.emu.control("POST", "faults", [SENSORS + "/*:delay=1"])
        self.addCleanup(self.emu.control, "DELETE", "faults")
        clients = [self.emu.client() for _ in range(6)]
        self.emu.control("POST", "reset-log")
        go = threading.Barrier(len(clients))

        def fetch(client):
            go.wait()
            client.get(SENSORS + "/voltage_P12V_0")
            client.close()

        threads = [threading.Thread(target=fetch, args=(c,)) for c in clients]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        state = self.emu.control("GET", "state").json()
        self.assertEqual((state["requests_logged"], state["in_flight"], state["max_in_flight"]), (6, 0, 6))
        self.emu.control("POST", "reset-log")
        self.assertEqual(self.emu.control("GET", "state").json()["max_in_flight"], 0)


if __name__ == "__main__":
    unittest.main()
