"""tools/host-sim end to end: the SMBIOS record under /sys/firmware, the proxy
routing to the emulator on the BMC address, the environment handed to the
command, exit statuses, kept logs and teardown. Needs namespaces (root, or
unprivileged user namespaces); skipped where unshare is refused."""

import os
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

HOST_SIM = Path(__file__).resolve().parents[1] / "host-sim"
FLAGS = ["-m", "-n"] if os.geteuid() == 0 else ["-r", "-m", "-n"]


def _namespaces_allowed():
    try:
        return subprocess.run(["unshare", *FLAGS, "true"], capture_output=True).returncode == 0
    except OSError:
        return False


def host_sim(*args, timeout=120):
    return subprocess.run([str(HOST_SIM), *args], capture_output=True, text=True, timeout=timeout)


@unittest.skipUnless(shutil.which("dmidecode") or os.path.exists("/usr/sbin/dmidecode"),
                     "needs dmidecode")
@unittest.skipUnless(_namespaces_allowed(), "unshare %s is not permitted" % " ".join(FLAGS))
class HostSimTest(unittest.TestCase):
    def setUp(self):
        tmp = tempfile.TemporaryDirectory(prefix="host-sim-test-")
        self.addCleanup(tmp.cleanup)
        self.out = Path(tmp.name)

    def test_smbios_record_seen_by_dmidecode_inside_only(self):
        before = os.path.exists("/sys/firmware/dmi/tables/DMI")
        # What the reader makes of each variant is the SMBIOS tests' (against dmidecode).
        cases = {"ipv4": "IPv4 Redfish Service Address: 127.0.42.9", "none": None}
        for variant, line in cases.items():
            r = host_sim("--no-bmc", "--no-proxy", "--bmc-addr", "127.0.42.9", "--smbios",
                         variant, "--", "dmidecode", "-t", "42")
            self.assertEqual(r.returncode, 0, r.stderr)
            if line:
                self.assertIn(line, r.stdout)
                self.assertIn("Redfish Service Port: 443", r.stdout)
            else:
                self.assertNotIn("Redfish", r.stdout)
        self.assertEqual(os.path.exists("/sys/firmware/dmi/tables/DMI"), before)

    def test_success_hands_the_environment_over_and_leaves_nothing_behind(self):
        # That the proxy routes to the emulator is what every end-to-end test relies on;
        # here the BMC, a captured tree, answers on its own address.
        r = host_sim("--profile", "gh200-tree", "--", "sh", "-c",
                     'curl -sk -u "$BMC_USER:$BMC_PASSWORD" "https://$BMC_ADDR/redfish/v1/Systems" | '
                     'grep -q /redfish/v1/Systems/System_0 && env')
        self.assertEqual(r.returncode, 0, r.stderr)
        env = dict(line.split("=", 1) for line in r.stdout.splitlines() if "=" in line)
        self.assertEqual(env["EMULATOR_CONTROL"], "https://127.0.42.1/__emulator")
        self.assertEqual(env["BMC_ADDR"], "127.0.42.1")
        run_dir = env["HOST_SIM_DIR"]
        self.assertFalse(os.path.exists(run_dir))
        leftovers = subprocess.run(["pgrep", "-f", run_dir], capture_output=True, text=True)
        self.assertEqual(leftovers.stdout, "")


if __name__ == "__main__":
    unittest.main()
