"""Faults of the configuration endpoint: KIND[=ARG][@N]."""

import re

from faultset import FaultError, FaultSet, split_budget

__all__ = ["FaultError", "FaultSet", "Fault", "KINDS"]  # FaultSet is re-exported for the servers

# kind -> (takes an argument, what it does)
KINDS = {
    "get": (True, "GET of the document answers 503, or 404 as if there were none"),
    "put": (True, "PUT answers 503 without storing, or 200 instead of 204 after storing"),
    "garbage": (False, "GET answers 200 with a body that is not JSON"),
    "slow": (True, "every document request waits SECONDS before it is handled"),
    "big": (False, "GET answers a valid document of more than 2048 bytes"),
}

_GRAMMAR = re.compile(r"^(?P<kind>[a-z]+)(?:=(?P<arg>.*))?$")


class Fault:
    def __init__(self, text):
        body, self.remaining = split_budget(text)
        m = _GRAMMAR.match(body)
        if not m or m.group("kind") not in KINDS:
            raise FaultError("bad fault %r (want KIND[=ARG][@N], KIND one of %s)"
                             % (text, ", ".join(sorted(KINDS))))
        self.text = text.strip()
        self.kind = m.group("kind")
        arg = m.group("arg")
        takes_arg = KINDS[self.kind][0]
        if takes_arg and not arg:
            raise FaultError("%s needs an argument" % self.kind)
        if not takes_arg and arg is not None:
            raise FaultError("%s takes no argument" % self.kind)
        self.value = None
        if self.kind == "get" and arg not in ("503", "404"):
            raise FaultError("get supports 503 and 404")
        if self.kind == "put":
            if arg not in ("503", "200"):
                raise FaultError("put supports 503 and 200")
            self.value = int(arg)
        elif self.kind == "get":
            self.value = int(arg)
        elif self.kind == "slow":
            try:
                self.value = float(arg)
            except ValueError:
                raise FaultError("slow needs seconds, got %r" % arg) from None
            if not 0 <= self.value <= 600:
                raise FaultError("slow must be between 0 and 600 seconds")

    def describe(self):
        return {"fault": self.text, "kind": self.kind, "remaining": self.remaining}
