"""An event log where the profile's vendor keeps it, growing while the
emulator runs.

A profile's "event_log" names the owner (the first system or manager), the
LogService (its Id, Name, LogEntryType, ...), other log services beside it
that a reader must pass over, the entries' style (how that vendor writes
them), the order they are listed in and the page size. The log starts with
entries that must raise no alarm: some years old, one whose clock was never
set (1970), a "log cleared" mark, an assertion and its deassertion (or an
entry the BMC marked Resolved), and a few recent OK ones. POST
/__emulator/log appends entries, generates many, or clears the log.
"""

import datetime
import threading
import time

ROOT = "/redfish/v1"
ORDERS = ("oldest-first", "newest-first")
STYLES = ("sel", "iml", "lenovo", "openbmc")
SEVERITIES = ("OK", "Warning", "Critical")
# Kept from start to end: a long run must not eat the machine's memory.
MAX_ENTRIES = 200000


class LogError(ValueError):
    pass


def stamp(epoch, style):
    """Created as the vendor writes it."""
    moment = datetime.datetime.fromtimestamp(epoch, datetime.timezone.utc)
    if style == "sel":  # local time with its offset, as that controller prints it
        return moment.astimezone(datetime.timezone(datetime.timedelta(hours=-5))).isoformat(
            timespec="seconds")
    if style == "lenovo":
        return moment.isoformat(timespec="milliseconds")
    if style == "iml":
        return moment.strftime("%Y-%m-%dT%H:%M:%SZ")
    return moment.isoformat(timespec="seconds")


def _sensor_name(sensor):
    return sensor if isinstance(sensor, str) else "Sensor %d" % sensor


class EventLog:
    def __init__(self, spec, owner, features, page=None, order=None, max_records=None, extra=0):
        self.style = spec["style"]
        if self.style not in STYLES:
            raise LogError("unknown log style %r" % self.style)
        self.order = order or spec.get("order", "oldest-first")
        if self.order not in ORDERS:
            raise LogError("unknown log order %r" % self.order)
        self.page_size = spec.get("page", 0) if page is None else page
        self.features = features or {}
        service = dict(spec["service"])
        self.max = max_records if max_records is not None else service.get("MaxNumberOfRecords")
        if max_records is not None:
            service["MaxNumberOfRecords"] = max_records
        self.owner = owner
        self.collection_path = owner + "/LogServices"
        self.service_path = self.collection_path + "/" + service["Id"]
        self.entries_path = self.service_path + "/Entries"
        self._service = service
        self._others = spec.get("others", [])
        self._lock = threading.Lock()
        self._entries = []  # oldest first
        self._next = 1
        self.appended = 0
        self._seed(time.time(), extra)

    # -- the resources --------------------------------------------------------

    def resources(self):
        """{path: (kind, body)}: the LogServices collection, each service and the
        other services' (empty) entry collections; "log" marks the live one."""
        out = {}
        members = [self.service_path]
        out[self.service_path] = ("static", self._service_body(self._service, True))
        out[self.entries_path] = ("log", {})
        for other in self._others:
            path = self.collection_path + "/" + other["Id"]
            members.append(path)
            has_entries = other.get("_entries", True)
            out[path] = ("static", self._service_body(other, has_entries))
            if has_entries:
                out[path + "/Entries"] = ("static", {
                    "@odata.id": path + "/Entries", "@odata.type": "#LogEntryCollection.LogEntryCollection",
                    "Name": "Log Service Collection", "Members": [], "Members@odata.count": 0})
        out[self.collection_path] = ("collection", {
            "@odata.id": self.collection_path, "@odata.type": "#LogServiceCollection.LogServiceCollection",
            "Name": "Log Service Collection", "_members": members})
        return out

    def _service_body(self, template, has_entries):
        path = self.collection_path + "/" + template["Id"]
        body = {"@odata.id": path, "@odata.type": "#LogService.v1_2_0.LogService"}
        body.update({k: v for k, v in template.items() if not k.startswith("_")})
        if has_entries:
            body["Entries"] = {"@odata.id": path + "/Entries"}
        return body

    def page(self, pairs, mode):
        """The entries collection for the query's pairs [(name, value)]. $skip is
        always honoured (the log's own next links use it); $top where TopSkipQuery
        is advertised; any other '$' option as the run's query mode says."""
        skip, top = 0, None
        for name, value in pairs:
            if name == "$skip":
                skip = _count(name, value)
            elif name == "$top" and self.features.get("TopSkipQuery") is True and mode != "ignore":
                top = _count(name, value)
            elif name.startswith("$") and mode in ("advertised-501", "reject-501"):
                raise LogQueryError(501, "QueryParameterUnsupported", [name])
        with self._lock:
            listing = self._entries if self.order == "oldest-first" else self._entries[::-1]
            total = len(listing)
            limit = total if top is None else min(total, skip + top)
            end = limit if not self.page_size else min(limit, skip + self.page_size)
            members = [self._body(e) for e in listing[skip:end]]
        body = {"@odata.id": self.entries_path, "@odata.type": "#LogEntryCollection.LogEntryCollection",
                "Name": "Log Entries", "Members": members, "Members@odata.count": total}
        if end < limit:
            link = "%s?$skip=%d" % (self.entries_path, end)
            if top is not None:
                link += "&$top=%d" % (limit - end)
            body["Members@odata.nextLink"] = link
        return body

    def state(self):
        with self._lock:
            return {"path": self.entries_path, "service": self.service_path, "entries": len(self._entries),
                    "appended": self.appended, "order": self.order, "page": self.page_size,
                    "max": self.max, "next_id": self._next}

    # -- changes ------------------------------------------------------------

    def control(self, request):
        """Applies a POST /__emulator/log body: {"clear": true}, {"entries": [ENTRY...]},
        {"generate": N, "Severity": S}; in that order when combined."""
        if not isinstance(request, dict):
            raise LogError('want {"entries": [...]}, {"generate": N} or {"clear": true}')
        entries = request.get("entries", [])
        generate = request.get("generate", 0)
        if not isinstance(entries, list) or not all(isinstance(e, dict) for e in entries):
            raise LogError("entries: want a list of objects")
        if isinstance(generate, bool) or not isinstance(generate, int) or not 0 <= generate <= MAX_ENTRIES:
            raise LogError("generate: want a count up to %d" % MAX_ENTRIES)
        severity = request.get("Severity", "OK")
        if severity not in SEVERITIES:
            raise LogError("Severity: one of %s" % ", ".join(SEVERITIES))
        now = time.time()
        with self._lock:
            if request.get("clear"):
                self._entries.clear()
                self._next = 1
                self._add(self._clear_mark(now))
            for e in entries:
                self._add(self._entry(e, now))
                self.appended += 1
            for i in range(generate):
                self._add(self._entry({"Severity": severity, "Message": "Generated event %d" % (i + 1)}, now))
            self.appended += generate
        return self.state()

    def _add(self, entry):
        entry["Id"] = str(self._next)
        self._next += 1
        self._entries.append(entry)
        limit = min(self.max or MAX_ENTRIES, MAX_ENTRIES)
        if len(self._entries) > limit:  # WrapsWhenFull: the oldest go
            del self._entries[:len(self._entries) - limit]

    def _entry(self, e, now):
        created = e.get("Created")
        if not isinstance(created, str):
            created = stamp(e["Time"] if isinstance(e.get("Time"), (int, float)) else now, self.style)
        severity = e.get("Severity", "OK")
        return {"Created": created, "Severity": severity if severity in SEVERITIES else "OK",
                "Message": str(e.get("Message", "Event")), "MessageId": e.get("MessageId"),
                "Sensor": e.get("Sensor"), "Code": e.get("Code"), "Resolved": bool(e.get("Resolved")),
                "Args": e.get("MessageArgs")}

    def _clear_mark(self, now):
        text = {"sel": ("Log cleared.", "SEL9901"), "iml": ("IML Cleared (user: Administrator)", None),
                "lenovo": ("The event log was cleared by user USERID.", "FQXSPEM4000I"),
                "openbmc": ("Event log was cleared.", "OpenBMC.0.1.EventLogCleared")}[self.style]
        # Some firmware flags the clearing itself as a warning: it must count for nothing.
        return self._entry({"Severity": "Warning" if self.style in ("sel", "lenovo") else "OK",
                            "Message": text[0], "MessageId": text[1]}, now)

    def _seed(self, now, extra):
        year = 365 * 86400
        old = [(now - 5 * year, "OK", "The system was powered on.", "SYS1001"),
               (now - 4 * year, "Critical", "Power supply 2 failed.", "PSU0003"),
               (now - 4 * year + 60, "Warning", "Fan 3 is running below its lower threshold.", "FAN0001")]
        for t, sev, msg, mid in old:
            self._add(self._entry({"Time": t, "Severity": sev, "Message": msg, "MessageId": mid}, now))
        self._add(self._clear_mark(now - 3 * 3600))
        for entry in self._pair(now - 2 * 3600):
            self._add(entry)
        for k in range(3):
            self._add(self._entry({"Time": now - 3600 + 60 * k, "Severity": "OK",
                                   "Message": "Host boot %d completed." % (k + 1), "MessageId": "SYS1003"}, now))
        self._add(self._entry({"Created": "1970-01-01T00:01:38Z", "Severity": "OK",
                               "Message": "Server reset detected.", "MessageId": "SYS1004"}, now))
        for i in range(extra):
            self._add(self._entry({"Time": now - 1800, "Severity": "OK",
                                   "Message": "Seeded event %d" % (i + 1), "MessageId": "SYS1005"}, now))

    def _pair(self, t):
        """A Critical condition and its end, as this vendor writes them."""
        if self.style == "openbmc":
            args = ["CPU0_Temp", "96.0", "95.0"]
            return [self._entry({"Time": t, "Severity": "Critical", "MessageArgs": args,
                                 "Message": "CPU0_Temp sensor crossed a critical high threshold going high.",
                                 "MessageId": "OpenBMC.0.1.SensorThresholdCriticalHighGoingHigh"}, t),
                    self._entry({"Time": t + 30, "Severity": "OK", "MessageArgs": ["CPU0_Temp", "80.0", "95.0"],
                                 "Message": "CPU0_Temp sensor crossed a critical high threshold going low.",
                                 "MessageId": "OpenBMC.0.1.SensorThresholdCriticalHighGoingLow"}, t),
                    self._entry({"Time": t + 60, "Severity": "Critical", "Resolved": True,
                                 "Message": "Memory DIMM A1 uncorrectable error.", "MessageId":
                                 "OpenBMC.0.1.MemoryECCUncorrectable", "MessageArgs": ["DIMM_A1"]}, t)]
        if self.style == "iml":
            return [self._entry({"Time": t, "Severity": "Critical", "Resolved": True,
                                 "Message": "System Power Supply: General Failure (Power Supply 1)"}, t)]
        sensor = 0x30 if self.style == "sel" else "/redfish/v1/Chassis/1/Sensors/CPU1Temp"
        return [self._entry({"Time": t, "Severity": "Critical", "Sensor": sensor, "Code": "Assert",
                             "Message": "The CPU1 temperature is greater than the upper critical threshold.",
                             "MessageId": "TMP0120"}, t),
                self._entry({"Time": t + 30, "Severity": "OK", "Sensor": sensor, "Code": "Deassert",
                             "Message": "The CPU1 temperature is greater than the upper critical threshold.",
                             "MessageId": "TMP0120"}, t)]

    # -- entry bodies as each vendor writes them ----------------------------

    def _body(self, e):
        ident = e["Id"]
        path = self.entries_path + "/" + ident
        body = {"@odata.id": path, "@odata.type": "#LogEntry.v1_9_0.LogEntry", "Id": ident,
                "Created": e["Created"], "Severity": e["Severity"], "Message": e["Message"]}
        sensor = e["Sensor"]
        if self.style == "sel":
            body.update({"Name": "Log Entry " + ident, "Description": "Log Entry " + ident, "EntryType": "SEL",
                         "EntryCode": e["Code"] or "Assert", "GeneratorId": "0x0020",
                         "SensorNumber": sensor if isinstance(sensor, int) else 0x1A, "SensorType": None,
                         "MessageId": e["MessageId"] or "7e0127%02d" % (int(ident) % 100),
                         "MessageArgs": [], "MessageArgs@odata.count": 0, "Links": {}})
        elif self.style == "iml":
            body.update({"@odata.type": "#LogEntry.v1_11_0.LogEntry", "Name": "Integrated Management Log",
                         "EntryType": "Oem", "OemRecordFormat": "Hpe-IML",
                         "Oem": {"Hpe": {"@odata.type": "#HpeLogEntry.v2_4_0.HpeLogEntry", "Class": 32,
                                         "Code": 1, "Count": 1, "EventNumber": 100 + int(ident),
                                         "Repaired": e["Resolved"], "Updated": e["Created"],
                                         "Severity": {"OK": "Informational", "Warning": "Caution"}.get(
                                             e["Severity"], e["Severity"])}}})
            if e["Resolved"]:
                body["Resolved"] = True
        elif self.style == "lenovo":
            body.update({"@odata.type": "#LogEntry.v1_11_0.LogEntry", "Name": "LogEntry", "EntryType": "Oem",
                         "OemRecordFormat": "Lenovo", "EventId": "0x806f%012x" % int(ident),
                         "Oem": {"Lenovo": {"EventSequenceNumber": int(ident), "Serviceable": "Not Serviceable",
                                            "ReportingChain": "XCC", "Source": "System"}}})
            if e["MessageId"]:
                body["MessageId"] = e["MessageId"]
            if e["Code"]:
                body["EntryCode"] = e["Code"]
            if isinstance(sensor, str):
                body["Links"] = {"OriginOfCondition": {"@odata.id": sensor}}
        else:
            body.update({"Name": "System Event Log Entry", "EntryType": "Event",
                         "MessageId": e["MessageId"] or "OpenBMC.0.1.Generic",
                         "MessageArgs": e["Args"] if isinstance(e["Args"], list) else [],
                         "Resolved": e["Resolved"]})
        return body


class LogQueryError(Exception):
    def __init__(self, status, key, args=()):
        super().__init__(status)
        self.status, self.key, self.args_ = status, key, list(args)


def _count(name, value):
    if not value.isdigit():
        raise LogQueryError(400, "QueryParameterValueFormatError", [value, name])
    return int(value)


def attach(model, spec, features, page=None, order=None, max_records=None, extra=0):
    """Adds the log described by spec to model (its first system or manager)."""
    kind = spec.get("owner", "system")
    collection = ROOT + ("/Managers" if kind == "manager" else "/Systems")
    owners = [m["@odata.id"] for m in (model.render(collection) or {}).get("Members", [])]
    if not owners:
        return None
    log = EventLog(spec, owners[0].rstrip("/"), features, page, order, max_records, extra)
    model.add_event_log(log)
    return log
