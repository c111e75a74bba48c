"""The tree-served profiles: captured trees answered at their request paths,
query options as each service root advertises them, and the count of
requests in flight that the readings benchmark reports."""

import json
import os
import sys
import threading
import unittest
from pathlib import Path
from urllib.parse import quote

from emulator_harness import Emulator, EmulatorCase

TOOLS = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TOOLS))
from bmc_emulator import query, tree  # noqa: E402

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


def model(profile):
    return tree.TreeModel(profile, tree.load_spec(profile))


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


class QueryOptionTest(unittest.TestCase):
    """The query engine against the captured roots (no server: same code path)."""

    @classmethod
    def setUpClass(cls):
        cls.dell, cls.hpe, cls.lenovo = model("dell-tree"), model("hpe-tree"), model("lenovo-tree")

    def answer(self, m, path, raw, mode="advertised"):
        try:
            return 200, m.answer(path, raw, mode)
        except query.QueryError as e:
            return e.status, e.key

    def test_what_the_root_advertises_decides(self):
        sensors = "/redfish/v1/Chassis/System.Embedded.1/Sensors"
        body = self.answer(self.dell, sensors, "$expand=.($levels=1)")[1]
        self.assertEqual([("Reading" in m) for m in body["Members"]], [True] * 33)
        self.assertEqual(self.answer(self.dell, sensors, "$expand=.($levels=2)"), (400, "QueryParameterOutOfRange"))
        # HPE advertises NoLinks but not ExpandAll; nobody advertises $top.
        chassis = self.answer(self.hpe, "/redfish/v1/Chassis", "$expand=*")[1]
        self.assertEqual(chassis["Members"], [{"@odata.id": "/redfish/v1/Chassis/1"}])
        self.assertIn("Thermal", self.answer(self.hpe, "/redfish/v1/Chassis", "$expand=.")[1]["Members"][0])
        entries = "/redfish/v1/Managers/iDRAC.Embedded.1/LogServices/Lclog/Entries"
        self.assertEqual(len(self.answer(self.dell, entries, "$top=1")[1]["Members"]), 5)
        bare = model("bare-expand")
        self.assertNotIn("ProtocolFeaturesSupported", bare.render("/redfish/v1"))
        self.assertEqual(self.answer(bare, SENSORS, "$expand=.")[1]["Members"][0],
                         {"@odata.id": SENSORS + "/temperature_CPU0_Temp"})

    def test_filter_as_a_log_reader_uses_it(self):
        entries = "/redfish/v1/Managers/iDRAC.Embedded.1/LogServices/Lclog/Entries"

        def ids(text):
            status, body = self.answer(self.dell, entries, "$filter=" + quote(text))
            self.assertEqual(status, 200, text)
            self.assertEqual(body["Members@odata.count"], len(body["Members"]))
            return [m["Id"] for m in body["Members"]]

        # The entries carry -05:00 offsets; the times compare as instants, not text.
        self.assertEqual(ids("Created gt '2024-08-08T23:47:00Z'"), ["83434", "83433", "83432", "83431"])
        self.assertEqual(ids("Created ge 2024-08-08T18:48:07-05:00"), ["83434", "83433"])
        self.assertEqual(ids("Id gt 83431 and Id lt 83434"), ["83433", "83432"])
        self.assertEqual(ids("Severity eq 'Critical' or not (Id lt 83434)"), ["83434", "83432"])
        # An unencoded '+' in an offset stays an offset.
        self.assertEqual(self.answer(self.dell, entries, "$filter=Created+gt+'2024-08-08T23:48:00+00:00'")[1]
                         ["Members@odata.count"], 2)
        for bad in ("Id gt", "Id near 3", "(Id gt 3", "Id gt 3 4"):
            self.assertEqual(self.answer(self.dell, entries, "$filter=" + quote(bad))[0], 400, bad)

    def test_select_only_and_excerpt(self):
        sensors = "/redfish/v1/Chassis/1/Sensors"
        body = self.answer(self.lenovo, sensors, "$expand=.&$select=Reading")[1]
        self.assertEqual(set(body["Members"][0]) - {"@odata.id", "@odata.type", "@odata.context"}, {"Reading"})
        self.assertEqual(body["Members@odata.count"], 236)
        member = self.answer(self.lenovo, sensors + "/" + body["Members"][0]["@odata.id"].rsplit("/", 1)[1],
                             "excerpt")[1]
        self.assertNotIn("ReadingUnits", member)
        self.assertEqual(self.answer(self.dell, "/redfish/v1/Systems", "only")[1]["Id"], "System.Embedded.1")
        self.assertEqual(self.answer(self.dell, "/redfish/v1/Systems", "only&$select=Id")[0], 400)
        self.assertEqual(self.answer(self.dell, "/redfish/v1/Systems/System.Embedded.1", "only")[0], 400)


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
