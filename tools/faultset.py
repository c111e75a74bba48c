"""Injected misbehaviour shared by the emulated host's tools.

Each tool defines its own fault kinds; this module holds what they have in
common: the optional "@N" budget at the end of a fault's text, range-checked
numbers, and the thread-safe set of faults in force whose budgets are spent as
the faults act.
"""

import re
import threading

_BUDGET = re.compile(r"^(?P<text>.*?)(?:@(?P<count>\d+))?$", re.S)


class FaultError(ValueError):
    pass


def split_budget(text):
    """(text without "@N", N or None for no limit)."""
    if not isinstance(text, str):
        raise FaultError("a fault must be a string")
    m = _BUDGET.match(text.strip())
    count = m.group("count")
    if count is None:
        return m.group("text"), None
    if int(count) == 0:
        raise FaultError("@N must be at least 1")
    return m.group("text"), int(count)


def number(kind, text, conv, low, high):
    try:
        value = conv(text)
    except (TypeError, ValueError):
        raise FaultError("%s needs a number, got %r" % (kind, text)) from None
    if not low <= value <= high:
        raise FaultError("%s must be between %s and %s" % (kind, low, high))
    return value


class FaultSet:
    """Faults in force. A fault with a budget ("@N") acts N times, then never."""

    def __init__(self, faults=()):
        self._lock = threading.Lock()
        self._faults = list(faults)

    def replace(self, faults):
        with self._lock:
            self._faults = list(faults)

    def take(self, applies, first=False):
        """The faults for which applies(fault) holds, each charged once; with
        first=True only the earliest of them (or None)."""
        hit = []
        with self._lock:
            for fault in self._faults:
                if fault.remaining == 0 or not applies(fault):
                    continue
                if fault.remaining is not None:
                    fault.remaining -= 1
                hit.append(fault)
                if first:
                    break
        if first:
            return hit[0] if hit else None
        return hit

    def describe(self):
        with self._lock:
            return [f.describe() for f in self._faults]
