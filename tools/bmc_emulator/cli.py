"""Command line: build the model, make a certificate, serve until SIGTERM/SIGINT."""

import argparse
import ipaddress
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import threading

from . import faults as faultlib
from . import health as healthlib
from . import model as modellib
from . import query as querylib
from . import tree as treelib
from .server import App, EmulatorServer, make_ssl_context


def parse_args(argv):
    ap = argparse.ArgumentParser(
        prog="bmc-emulator",
        description="HTTPS Redfish controller emulator with vendor profiles and fault injection.")
    ap.add_argument("--profile", required=True, choices=treelib.all_profiles())
    ap.add_argument("--bind", default="127.0.0.1", help="address to listen on (default 127.0.0.1)")
    ap.add_argument("--port", type=int, default=443, help="TCP port; 0 picks a free one (default 443)")
    ap.add_argument("--user", default="admin")
    ap.add_argument("--password", default="secret")
    ap.add_argument("--request-log", metavar="PATH", help="write one JSON line per request here")
    ap.add_argument("--fault", metavar="SPEC", action="append", default=[],
                    help="PATHPATTERN:KIND[=ARG][@N]; may be repeated")
    ap.add_argument("--scale", metavar="KEY=N[,KEY=N]", action="append", default=[],
                    help="member counts: %s" % ", ".join(modellib.SCALE_KEYS))
    ap.add_argument("--power-settle", metavar="SECONDS", type=float, default=0.0,
                    help="seconds a reset takes to reach its power state; meanwhile PowerState "
                    "is PoweringOn on the way up, the old state on the way down "
                    "(default 0: at once)")
    ap.add_argument("--query-options", choices=querylib.MODES,
                    help="how query options are answered: honour what the service root advertises and "
                    "ignore (advertised) or refuse with 501 (advertised-501) the rest, ignore them all, "
                    "or refuse them all with 501 (reject-501); default: the profile's")
    ap.add_argument("--no-protocol-features", action="store_true",
                    help="serve the service root without ProtocolFeaturesSupported: nothing is advertised, "
                    "so $expand answers collections with bare links (tree profiles)")
    ap.add_argument("--latency", metavar="SECONDS", type=float,
                    help="wait this long before answering each request (default: the profile's, mostly 0)")
    ap.add_argument("--health-fault", metavar="KIND", action="append", default=[], choices=healthlib.FAULTS,
                    help="fail one part of this kind from the start: %s; may be repeated"
                    % ", ".join(healthlib.FAULTS))
    ap.add_argument("--empty-rollup", action="store_true",
                    help="leave HealthRollup out of every Status and raise nothing above a failed part")
    ap.add_argument("--ready-file", metavar="PATH", help="created once the emulator accepts connections")
    ap.add_argument("--cert-dir", metavar="DIR", help="where cert.pem and key.pem are written (default: temp dir)")
    args = ap.parse_args(argv)
    if not 0 <= args.port <= 65535:
        ap.error("--port must be between 0 and 65535")
    try:
        scale = {}
        for text in args.scale:
            scale = modellib.parse_scale(text, scale)
        args.scale = scale
    except ValueError as e:
        ap.error("--scale: %s" % e)
    if args.profile not in modellib.PROFILES:
        try:
            spec = treelib.load_spec(args.profile)
        except (OSError, ValueError) as e:
            ap.error("profile %s: %s" % (args.profile, e))
        if set(args.scale) - {"sensors"} or (args.scale and "synthetic" not in spec):
            ap.error("--scale: profile %s takes only sensors=N, and only if it is generated" % args.profile)
        if args.no_protocol_features:
            spec["no_protocol_features"] = True
        args.spec = spec
    else:
        if args.query_options in ("advertised", "advertised-501") or args.no_protocol_features:
            ap.error("profile %s has no advertised query options; --query-options takes ignore or "
                     "reject-501 there" % args.profile)
        args.spec = None
    if args.latency is not None and not 0 <= args.latency <= 3600:
        ap.error("--latency must be between 0 and 3600")
    try:
        args.fault = faultlib.parse_all(args.fault)
    except faultlib.FaultSpecError as e:
        ap.error("--fault: %s" % e)
    return args


def make_certificate(cert_dir, bind):
    """Self-signed certificate via the openssl command line; returns (cert, key) paths."""
    names = ["DNS:localhost", "IP:127.0.0.1", "IP:::1"]
    try:
        addr = ipaddress.ip_address(bind)
        if not addr.is_unspecified and str(addr) not in ("127.0.0.1", "::1"):
            names.append("IP:%s" % addr)
    except ValueError:
        names.append("DNS:%s" % bind)
    cert = os.path.join(cert_dir, "cert.pem")
    key = os.path.join(cert_dir, "key.pem")
    # Written under temporary names and renamed, so a reader never sees half a file.
    tmp_cert, tmp_key = cert + ".tmp%d" % os.getpid(), key + ".tmp%d" % os.getpid()
    cmd = ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
           "-subj", "/CN=bmc-emulator", "-addext", "subjectAltName=" + ",".join(names),
           "-keyout", tmp_key, "-out", tmp_cert]
    result = subprocess.run(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    if result.returncode != 0:
        raise RuntimeError("openssl failed: %s" % result.stderr.strip())
    os.chmod(tmp_key, 0o600)
    os.replace(tmp_key, key)
    os.replace(tmp_cert, cert)
    return cert, key


def write_ready_file(path, line):
    tmp = path + ".tmp%d" % os.getpid()
    with open(tmp, "w", encoding="utf-8") as f:
        f.write(line + "\n")
    os.replace(tmp, path)


def main(argv=None):
    args = parse_args(sys.argv[1:] if argv is None else argv)
    try:
        if args.spec is None:
            model = modellib.Model(args.profile, args.scale)
        else:
            model = treelib.TreeModel(args.profile, args.spec, args.scale)
        model.power_settle = max(0.0, min(args.power_settle, 3600.0))
        model.health = healthlib.Health(model, model.profile.get("health"))
        if args.health_fault or args.empty_rollup:
            model.health.configure({"faults": args.health_fault,
                                    "empty_rollup": args.empty_rollup or model.health.empty_rollup})
    except (OSError, ValueError, KeyError) as e:
        print("bmc-emulator: cannot load profile %s: %s" % (args.profile, e), file=sys.stderr)
        return 1

    temp_dir = None
    cert_dir = args.cert_dir
    if cert_dir is None:
        temp_dir = cert_dir = tempfile.mkdtemp(prefix="bmc-emulator-")
    else:
        os.makedirs(cert_dir, exist_ok=True)
    server = None
    app = None
    try:
        cert, key = make_certificate(cert_dir, args.bind)
        app = App(model, args.user, args.password, args.fault, args.request_log, args.query_options,
                  args.latency)
        server = EmulatorServer((args.bind, args.port), make_ssl_context(cert, key), app)
    except (OSError, RuntimeError) as e:
        print("bmc-emulator: %s" % e, file=sys.stderr)
        if app is not None:
            app.log.close()
        if temp_dir:
            shutil.rmtree(temp_dir, ignore_errors=True)
        return 1

    stop = threading.Event()

    def on_signal(signum, frame):
        stop.set()

    signal.signal(signal.SIGTERM, on_signal)
    signal.signal(signal.SIGINT, on_signal)

    app.port = server.server_address[1]
    thread = threading.Thread(target=server.serve_forever, kwargs={"poll_interval": 0.1},
                              name="accept", daemon=True)
    thread.start()
    line = "ready port=%d" % app.port if args.port == 0 else "ready"
    # File first: whoever sees the stdout line may look for the file at once.
    if args.ready_file:
        write_ready_file(args.ready_file, line)
    sys.stdout.write(line + "\n")
    sys.stdout.flush()

    stop.wait()

    server.shutdown()
    server.server_close()
    app.log.close()
    if temp_dir:
        shutil.rmtree(temp_dir, ignore_errors=True)
    return 0
