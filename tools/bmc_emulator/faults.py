"""Injected misbehaviour.

A fault is written PATHPATTERN:KIND[=ARG][@N]:

  PATHPATTERN  fnmatch glob ('*' also crosses '/') matched against the request
               path after percent-decoding and trailing-slash removal.  If the
               pattern contains '?', it is matched against "path?query" instead
               (query percent-decoded), so '/redfish/v1/Systems/*?$select=*' only
               hits $select requests.
  KIND[=ARG]   delay=SECONDS | status=CODE[,body=FILE] | retry-after=SECONDS |
               drop | truncate=BYTES | bad-length=N | sensors-404 |
               unknown-manufacturer[=NAME]
  @N           only the first N matching requests are affected.
"""

import fnmatch
import re

from faultset import FaultError, FaultSet, number, split_budget

__all__ = ["FaultError", "FaultSet", "Fault", "KINDS", "parse_all"]  # FaultSet is re-exported for the servers

KINDS = ("delay", "status", "retry-after", "drop", "truncate", "bad-length",
         "sensors-404", "unknown-manufacturer")
NO_ARG = ("drop", "sensors-404")

_SPEC = re.compile(
    r"^(?P<pattern>.+):(?P<kind>%s)(?:=(?P<arg>.*?))?$"
    % "|".join(re.escape(k) for k in sorted(KINDS, key=len, reverse=True)),
    re.S)

FaultSpecError = FaultError
_number = number


class Fault:
    def __init__(self, spec):
        text, self.remaining = split_budget(spec)
        m = _SPEC.match(text)
        if not m:
            raise FaultSpecError("bad fault spec %r (want PATHPATTERN:KIND[=ARG][@N], KIND one of %s)"
                                 % (spec, ", ".join(KINDS)))
        self.spec = spec.strip()
        self.pattern = m.group("pattern")
        self.kind = m.group("kind")
        arg = m.group("arg")
        self.value = None
        self.body = None
        if self.kind in NO_ARG:
            if arg is not None:
                raise FaultSpecError("%s takes no argument" % self.kind)
        elif self.kind == "unknown-manufacturer":
            self.value = "Unknown" if arg is None else arg
        elif arg is None or arg == "":
            raise FaultSpecError("%s needs an argument" % self.kind)
        elif self.kind == "delay":
            self.value = _number(self.kind, arg, float, 0, 3600)
        elif self.kind == "status":
            code, _, rest = arg.partition(",")
            self.value = _number(self.kind, code, int, 200, 599)
            if rest:
                key, sep, path = rest.partition("=")
                if key != "body" or not sep or not path:
                    raise FaultSpecError("status takes CODE or CODE,body=FILE")
                try:
                    with open(path, "rb") as f:
                        self.body = f.read()
                except OSError as e:
                    raise FaultSpecError("cannot read body file %r: %s" % (path, e.strerror)) from None
        elif self.kind == "retry-after":
            self.value = _number(self.kind, arg, int, 0, 86400)
        else:  # truncate, bad-length
            self.value = _number(self.kind, arg, int, 0, 1 << 30)

    def matches(self, path, query):
        target = path
        if "?" in self.pattern and query:
            target = path + "?" + query
        return fnmatch.fnmatchcase(target, self.pattern)

    def describe(self):
        return {"spec": self.spec, "kind": self.kind, "remaining": self.remaining}


def parse_all(specs):
    return [Fault(s) for s in specs]
