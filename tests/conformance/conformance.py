#!/usr/bin/env python3
"""Runs the conformance table against the library in an emulated host.

Each row runs in a fresh process (the route document is updated once per
process), which loads the library as a host service does and makes the row's
calls. The row's expectations are then compared with what was observed: every
result, every request the BMC emulator received (method, target, body), every
exchange with the configuration endpoint, and every record the library logged
(level, text, order, count).

Usage (inside tools/host-sim): conformance.py --library PATH --profile NAME TABLE [ROW...]
Table grammar: see the head of tests/conformance/table.txt.
"""
import argparse
import ctypes
import json
import os
import re
import subprocess
import sys
import threading

USER, PASSWORD = b"admin", b"secret"
TIMEOUT_MS = 5000
ROUTE_PATH = "/portico/config/json/bmcApi.json"
COMMANDS = ["on", "force-off", "force-on", "force-restart", "graceful-restart",
            "graceful-shutdown", "push-power-button", "nmi", "power-cycle"]
VARIABLE = re.compile(r"\$([A-Z][A-Z0-9_]*)")
RECORD = re.compile(r"^\S+ Redfish\[(\d+)\] (.*)$")
# A sanitizer runtime preloaded for the library is not curl's to load.
TOOL_ENV = {k: v for k, v in os.environ.items() if k != "LD_PRELOAD"}


class TableError(Exception):
    pass


def unescape(text):
    """The table's C-like escapes (\\n, \\", \\\\) as the bytes they stand for."""
    return re.sub(r"\\(.)", lambda m: {"n": "\n", "t": "\t"}.get(m.group(1), m.group(1)), text)


class Row:
    def __init__(self, title, line):
        self.title, self.line = title, line
        self.profiles = None
        self.setup = []          # (kind, argument)
        self.prepare = []        # calls whose observations are not compared
        self.calls = []          # (call words, expected results)
        self.unordered = False
        self.logs, self.requests, self.config = [], [], []


class Table:
    def __init__(self, path, profile):
        self.macros, self.variables, self.rows = {}, {}, []
        with open(path, encoding="utf-8") as f:
            lines = [(n + 1, raw.rstrip("\n")) for n, raw in enumerate(f)]
        self._parse(lines, profile)

    def _parse(self, lines, profile):
        i, section = 0, None
        while i < len(lines):
            n, raw = lines[i]
            i += 1
            words = raw.split()
            if not words or words[0].startswith("#"):
                continue
            head = words[0]
            if head == "define":
                body = []
                while lines[i][1].strip() != "end":
                    body.append(lines[i][1].strip())
                    i += 1
                i += 1
                if section in (None, profile):
                    self.macros[words[1]] = (words[2:], body)
            elif head == "profile":
                section = words[1]
            elif head == "endprofile":
                section = None
            elif head == "let":
                if section in (None, profile):
                    self.variables[words[1]] = raw.strip().split(None, 2)[2]
            elif head == "row":
                row = Row(raw.strip()[4:], n)
                while lines[i][1].strip() != "end":
                    self._row_line(row, lines[i])
                    i += 1
                i += 1
                self.rows.append(row)
            else:
                raise TableError("line %d: unknown %r" % (n, head))

    def _row_line(self, row, line):
        n, raw = line
        text = raw.strip()
        if not text or text.startswith("#"):
            return
        if text.startswith("profiles "):
            row.profiles = text.split()[1:]
        else:
            row.source = getattr(row, "source", []) + [(n, text)]

    def expand(self, row, profile):
        """Resolves the row's lines for profile: macros, variables, expectations."""
        pending = list(row.source)
        depth = 0
        while pending:
            n, text = pending.pop(0)
            text = self.substitute(text, {}, n)
            word, _, rest = text.partition(" ")
            if word in ("fault", "route", "switch", "host"):
                row.setup.append((word, rest))
            elif word == "prepare":
                row.prepare.append(rest.split())
            elif word == "call":
                call, _, results = rest.partition(" = ")
                row.calls.append((call.split(), sorted(int(r) for r in results.split())))
            elif word == "unordered":
                row.unordered = True
            elif word == "log":
                level, _, message = rest.partition(" ")
                row.logs.append((int(level), message))
            elif word == "request":
                parts = rest.split(" ", 2)
                row.requests.append((parts[0], parts[1],
                                     unescape(parts[2]) if len(parts) > 2 else None))
            elif word == "config":
                parts = rest.split(" ", 2)
                row.config.append((parts[0], int(parts[1]),
                                   unescape(parts[2]) if len(parts) > 2 else None))
            elif word in self.macros:
                depth += 1
                if depth > 10000:
                    raise TableError("line %d: macros expand without end" % n)
                params, body = self.macros[word]
                args = rest.split(" ", len(params) - 1) if params else []
                if len(args) != len(params):
                    raise TableError("line %d: %s takes %s" % (n, word, " ".join(params)))
                bound = dict(zip(params, args))
                pending[0:0] = [(n, self.substitute(b, bound, n)) for b in body]
            else:
                raise TableError("line %d: unknown %r" % (n, word))
        return row

    def substitute(self, text, bound, n):
        def value(m):
            name = m.group(1)
            if name in bound:
                return bound[name]
            if name in self.variables:
                return self.variables[name]
            raise TableError("line %d: no value for $%s" % (n, name))
        for _ in range(20):
            new = VARIABLE.sub(value, text)
            if new == text:
                return new
            text = new
        raise TableError("line %d: variables refer to each other" % n)


def matches(pattern, text):
    """'*' in pattern stands for any run of characters; nothing else is special."""
    return re.fullmatch(".*".join(map(re.escape, pattern.split("*"))), text, re.S) is not None


# ---- the emulated host ---------------------------------------------------

def control(base, path, body, method="POST"):
    subprocess.run(["curl", "-sfk", "-o", "/dev/null", "-X", method, "-H",
                    "Content-Type: application/json", "--data-binary", "@-", base + path],
                   input=body.encode(), check=True, env=TOOL_ENV)


def log_lines(path):
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            return f.read().splitlines()
    except FileNotFoundError:
        return []


class Host:
    def __init__(self, table):
        # The route document as the library writes it: the template, compact.
        self.table = table
        self.emulator = os.environ["EMULATOR_CONTROL"]
        self.portico = os.environ["PORTICO_CONTROL"]
        self.bmc = os.environ["BMC_ADDR"]
        self.route_known = False

    def prepare(self, row):
        control(self.emulator, "/faults", json.dumps(
            [arg.split(" ", 1)[1] for kind, arg in row.setup
             if kind == "fault" and arg.startswith("emulator ")]))
        control(self.emulator, "/power", '{"system":0,"PowerState":"On"}')
        portico_faults = [arg.split(" ", 1)[1] for kind, arg in row.setup
                          if kind == "fault" and arg.startswith("portico ")]
        route = dict(row.setup).get("route", "same")
        if route == "differs" or not self.route_known:
            # Stored through the endpoint, as an operator or the library would.
            address = "127.0.42.9" if route == "differs" else self.bmc
            subprocess.run(["curl", "-sf", "-o", "/dev/null", "-X", "PUT", "--data-binary",
                            self.table.substitute("$ROUTE", {"ROUTE_ADDRESS": address}, 0),
                            "http://127.0.0.1:549" + ROUTE_PATH],
                           check=True, env=TOOL_ENV)
            self.route_known = route != "differs"
        if route == "404":
            portico_faults.append("get=404@1")
        control(self.portico, "/faults", json.dumps(portico_faults))
        if route != "same" or portico_faults:
            self.route_known = False  # the library may have rewritten it


# ---- one row in a process of its own -------------------------------------

def host_argument(words):
    for w in words[1:]:
        if w.startswith("host="):
            value = w[5:]
            return None if value == "null" else value.encode()
    return None


def make_call(lib, words):
    """One exported call as the row names it; returns its result."""
    name, args = words[0], [w for w in words[1:] if not w.startswith("host=")]
    host = host_argument(words)
    if name == "power-state":
        on = ctypes.c_bool(False)
        return lib.Redfish_GetPowerState(USER, PASSWORD, host, TIMEOUT_MS, ctypes.byref(on))
    if name == "mac":
        buffer = ctypes.create_string_buffer(32)
        length = ctypes.c_uint(32)
        mac = args[0].encode() if args else None
        return lib.Redfish_GetMacAddress(USER, PASSWORD, host, mac, TIMEOUT_MS, buffer,
                                         ctypes.byref(length))
    if name == "sensors":
        length = ctypes.c_uint(0)
        return lib.Redfish_GetSensorsInfo(USER, PASSWORD, host, TIMEOUT_MS, None,
                                          ctypes.byref(length))
    if name == "power":
        return lib.Redfish_PowerOperation(USER, PASSWORD, host, args[1].encode(),
                                          COMMANDS.index(args[0]), TIMEOUT_MS)
    if name == "close":
        lib.Redfish_CloseConnection(host)
        return 0
    if name == "cleanup":
        lib.cleanup()
        return 0
    if name == "initialize":
        return lib.Redfish_Initialize()
    raise TableError("unknown call %r" % name)


def run_calls(lib, words):
    """A call, or "N x call" made by N threads at once; their results."""
    if len(words) > 2 and words[1] == "x":
        count, words = int(words[0]), words[2:]
        results = [None] * count
        barrier = threading.Barrier(count)

        def one(i):
            barrier.wait()
            results[i] = make_call(lib, words)
        threads = [threading.Thread(target=one, args=(i,)) for i in range(count)]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        return results
    return [make_call(lib, words)]


def child(library, row, log_file, to_parent, from_parent):
    os.environ["BMCREDFISH_LOG"] = "file:" + log_file
    lib = ctypes.CDLL(library)
    lib.FeatureState_Init()
    lib.GetFeatureState_Slow.restype = ctypes.POINTER(ctypes.c_uint8)
    switch = lib.GetFeatureState_Slow(b"REDFISH")
    switch[0] = 1
    for words in row.prepare:
        run_calls(lib, words)
    if ("switch", "off") in row.setup:
        switch[0] = 0
    os.write(to_parent, b"r")
    os.read(from_parent, 1)
    results = [sorted(run_calls(lib, words)) for words, _ in row.calls]
    os.write(to_parent, json.dumps(results).encode())
    os.close(to_parent)
    os._exit(0)


def observe(library, row, host, workdir, index):
    log_file = os.path.join(workdir, "row-%d.log" % index)
    up_r, up_w = os.pipe()
    down_r, down_w = os.pipe()
    host.prepare(row)
    pid = os.fork()
    if pid == 0:
        try:
            os.close(up_r)
            os.close(down_w)
            child(library, row, log_file, up_w, down_r)
        finally:
            os._exit(3)
    os.close(up_w)
    os.close(down_r)
    if os.read(up_r, 1) != b"r":
        os.waitpid(pid, 0)
        return None
    marks = (len(log_lines(os.environ["EMULATOR_LOG"])), len(log_lines(os.environ["PORTICO_LOG"])),
             len(log_lines(log_file)))
    os.write(down_w, b"g")
    data = b""
    while True:
        chunk = os.read(up_r, 65536)
        if not chunk:
            break
        data += chunk
    os.waitpid(pid, 0)
    if not data:
        return None
    emulator = [json.loads(l) for l in log_lines(os.environ["EMULATOR_LOG"])[marks[0]:]]
    portico = [json.loads(l) for l in log_lines(os.environ["PORTICO_LOG"])[marks[1]:]]
    records = []
    for line in log_lines(log_file)[marks[2]:]:
        m = RECORD.match(line)
        records.append((int(m.group(1)), m.group(2)) if m else (0, line))
    return {"results": json.loads(data),
            "requests": [(e["method"], e["path"], e.get("body") or None) for e in emulator],
            "config": [(e["method"], e["status"], e.get("body") or None) for e in portico],
            "logs": records}


# ---- comparison ------------------------------------------------------------

def compare_sequence(what, expected, observed, same):
    problems = []
    for i in range(max(len(expected), len(observed))):
        e = expected[i] if i < len(expected) else None
        o = observed[i] if i < len(observed) else None
        if e is None or o is None or not same(e, o):
            problems.append("%s #%d: expected %s\n%s   observed %s" % (
                what, i + 1, e, " " * len(what), o))
            break  # after the first difference the rest only repeats it
    return problems


def compare_counts(what, expected, observed, same):
    left = list(observed)
    missing = []
    # Exact patterns first, so that a wildcard does not take a record an exact one needs.
    for e in sorted(expected, key=lambda e: "*" in str(e)):
        found = next((i for i, o in enumerate(left) if same(e, o)), None)
        if found is None:
            missing.append(e)
        else:
            left.pop(found)
    problems = ["%s missing: %s" % (what, e) for e in missing]
    problems += ["%s not expected: %s" % (what, o) for o in left]
    return problems


def same_log(e, o):
    return e[0] == o[0] and matches(e[1], o[1])


def same_exchange(e, o):
    """Method, target or status, and body (None: no body); '*' in texts as in logs."""
    return all(matches(a, b) if isinstance(a, str) and isinstance(b, str) else a == b
               for a, b in zip(e, o))


def check(row, seen):
    if seen is None:
        return ["the row's process failed"]
    problems = []
    expected_results = [r for _, r in row.calls]
    if seen["results"] != expected_results:
        problems.append("results: expected %s, observed %s" % (expected_results, seen["results"]))
    compare = compare_counts if row.unordered else compare_sequence
    problems += compare_sequence("request", row.requests, seen["requests"], same_exchange)
    problems += compare_sequence("config", row.config, seen["config"], same_exchange)
    problems += compare("log", row.logs, seen["logs"], same_log)
    return problems


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--library", required=True)
    parser.add_argument("--profile", required=True)
    parser.add_argument("--dump", action="store_true", help="print what each row observed")
    parser.add_argument("table")
    parser.add_argument("only", nargs="*", help="run only rows whose title contains one of these")
    args = parser.parse_args()
    table = Table(args.table, args.profile)
    host = Host(table)
    workdir = os.environ.get("HOST_SIM_DIR", "/tmp")
    failed = ran = 0
    for index, row in enumerate(table.rows):
        if row.profiles is not None and args.profile not in row.profiles:
            continue
        table.expand(row, args.profile)
        if args.only and not any(o in row.title for o in args.only):
            continue
        ran += 1
        seen = observe(args.library, row, host, workdir, index)
        problems = check(row, seen)
        if args.dump and seen:
            for key in ("results", "requests", "config", "logs"):
                for item in (seen[key] if key != "results" else [seen[key]]):
                    print("  %-8s %s" % (key, item))
        status = "ok" if not problems else "FAIL"
        print("%-4s %s (line %d)" % (status, row.title, row.line))
        for p in problems[:12]:
            print("       " + p)
        if len(problems) > 12:
            print("       ... and %d more" % (len(problems) - 12))
        failed += bool(problems)
    print("%d of %d rows conform (profile %s)" % (ran - failed, ran, args.profile))
    return 1 if failed or ran == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
