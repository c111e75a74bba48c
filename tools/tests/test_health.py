"""The emulator's hardware health: each fault fails one part and raises what
rolls it up (a failed drive's controller excepted), and a BMC that leaves
HealthRollup empty."""

import sys
import unittest
from pathlib import Path


sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from bmc_emulator import health, model as modellib, tree  # noqa: E402


def emulated(profile):
    m = modellib.Model(profile) if profile in modellib.PROFILES else tree.TreeModel(profile, tree.load_spec(profile))
    m.health = health.Health(m, m.profile.get("health"))
    return m


def part(m, target):
    path, _, pointer = target["@odata.id"].partition("#/")
    body = m.render(path)
    if pointer:
        array, index = pointer.split("/")
        body = body[array][int(index)]
    return body


def statuses(value):
    if isinstance(value, dict):
        for k, v in value.items():
            if k == "Status" and isinstance(v, dict):
                yield v
            yield from statuses(v)
    elif isinstance(value, list):
        for v in value:
            yield from statuses(v)


class FaultTest(unittest.TestCase):
    def test_each_fault_fails_its_part_and_raises_what_rolls_it_up(self):
        for profile in ("hpe-tree", "supermicro-tree", "dell"):
            m = emulated(profile)
            system = m.system_paths[0]
            self.assertEqual(sorted(m.health.targets), sorted(health.FAULTS), profile)
            for fault, target in m.health.state()["targets"].items():
                m.health.configure({"faults": [fault]})
                level = "Warning" if fault == "processor" else "Critical"
                self.assertEqual(part(m, target)["Status"]["Health"], level, (profile, fault))
                self.assertEqual(m.render(system)["Status"]["Health"],
                                 "Critical" if profile == "hpe-tree" else level, (profile, fault))
                if fault == "drive":
                    storage = m.render(target["@odata.id"].rsplit("/Drives/", 1)[0])
                    self.assertTrue(all(s.get("Health") in (None, "OK") for s in statuses(storage)),
                                    "the drive's storage and controllers still say OK")
                m.health.configure({"faults": []})
                self.assertEqual(part(m, target)["Status"].get("Health"), "OK", (profile, fault))
        # The maker's aggregate under Oem rises with its part.
        m = emulated("hpe-tree")
        m.health.configure({"faults": ["fan"]})
        aggregate = m.render("/redfish/v1/Systems/1")["Oem"]["Hpe"]["AggregateHealthStatus"]
        self.assertEqual(aggregate["Fans"]["Status"]["Health"], "Critical")

    def test_a_bmc_that_leaves_rollup_empty_tells_only_through_the_part(self):
        m = emulated("openbmc")
        self.assertTrue(m.health.empty_rollup)
        paths = [p for p in m.resources if m.render(p) is not None]
        self.assertFalse([p for p in paths for s in statuses(m.render(p)) if "HealthRollup" in s])
        target = m.health.state()["targets"]["memory"]
        before = m.render(m.system_paths[0])
        m.health.configure({"faults": ["memory"]})
        self.assertEqual(part(m, target)["Status"]["Health"], "Critical")
        self.assertEqual(m.render(m.system_paths[0]), before)


if __name__ == "__main__":
    unittest.main()
