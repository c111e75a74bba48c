"""tools/smbios-gen outputs as dmidecode and the kernel's layout expect them.
(The library's reader is checked against every variant in tests/sysinfo.)"""

import os
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

GEN = Path(__file__).resolve().parents[1] / "smbios-gen"
DMIDECODE = shutil.which("dmidecode") or "/usr/sbin/dmidecode"


def gen(*args):
    return subprocess.run([str(GEN), *args], capture_output=True, text=True, timeout=30)


class SmbiosGenTest(unittest.TestCase):
    def setUp(self):
        tmp = tempfile.TemporaryDirectory(prefix="smbios-gen-test-")
        self.addCleanup(tmp.cleanup)
        self.dir = Path(tmp.name)

    @unittest.skipUnless(os.path.exists(DMIDECODE), "needs dmidecode")
    def test_dumps_decode_with_either_entry_point_and_every_device(self):
        for ep in ("3", "2"):
            for device, shown in (("usb", "Device Type: USB"), ("pci", "VendorID: 0x1af4"),
                                  ("usb-v2", "Protocol ID: 04"), ("pci-v2", "Protocol ID: 04")):
                with self.subTest(entry_point=ep, device=device):
                    dump = self.dir / ("%s-%s.bin" % (ep, device))
                    self.assertEqual(gen("--entry-point", ep, "--device", device, "--kcs-first",
                                         "--ipv4", "127.0.42.3", "--vlan", "7",
                                         "--out-dump", str(dump)).returncode, 0)
                    r = subprocess.run([DMIDECODE, "--from-dump", str(dump)],
                                       capture_output=True, text=True)
                    self.assertEqual(r.stderr, "")
                    for line in ("SMBIOS 3.3", "Manufacturer: Emulated Systems",
                                 "Host Interface Type: KCS", shown,
                                 "IPv4 Redfish Service Address: 127.0.42.3",
                                 "Redfish Service Vlan: 7", "End Of Table"):
                        self.assertIn(line, r.stdout)

    def test_sysfs_pair_matches_the_bare_table(self):
        for ep, size in (("3", 0x18), ("2", 0x1F)):
            sysfs = self.dir / ep
            table = self.dir / ("table" + ep)
            self.assertEqual(gen("--entry-point", ep, "--out-sysfs", str(sysfs),
                                 "--out-table", str(table)).returncode, 0)
            entry = (sysfs / "smbios_entry_point").read_bytes()
            self.assertEqual(len(entry), size)
            self.assertEqual(sum(entry) % 256, 0)
            self.assertEqual((sysfs / "DMI").read_bytes(), table.read_bytes())
        stdout = subprocess.run([str(GEN), "--out-table", "-"], capture_output=True).stdout
        self.assertEqual(stdout, table.read_bytes())

    def test_impossible_requests_exit_2(self):
        for args in (["--corrupt", "nonsense", "--describe"], ["--truncate", "-1", "--describe"],
                     ["--hostname", "h" * 200, "--describe"],
                     ["--no-redfish", "--corrupt", "short-record", "--describe"],
                     ["--ipv4", "300.1.1.1", "--describe"], []):
            with self.subTest(args=args):
                r = gen(*args)
                self.assertEqual(r.returncode, 2)
                self.assertIn("smbios-gen: error", r.stderr)


if __name__ == "__main__":
    unittest.main()
