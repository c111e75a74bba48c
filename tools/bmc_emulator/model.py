"""The emulated controller's resource tree, power state and sessions.

Everything vendor-specific comes from profiles/<name>.json; this module only
knows how Redfish resources link to each other.  Keys starting with '_' in a
profile are directives for this module and never reach a response, and the
string '{self}' inside a template is replaced by the resource's own path.
"""

import json
import re
import secrets
import threading
import time
from pathlib import Path

PROFILE_DIR = Path(__file__).resolve().parent / "profiles"
PROFILES = ("dell", "hpe", "lenovo", "generic")
SCALE_KEYS = ("systems", "managers", "chassis", "sensors", "nics")
# Upper bounds keep a typo from eating the machine's memory.
SCALE_LIMITS = {"systems": 1000, "managers": 100, "chassis": 1000, "sensors": 100000, "nics": 200}

ROOT = "/redfish/v1"
SYSTEMS = ROOT + "/Systems"
MANAGERS = ROOT + "/Managers"
CHASSIS = ROOT + "/Chassis"
SESSION_SERVICE = ROOT + "/SessionService"
SESSIONS = SESSION_SERVICE + "/Sessions"
RESET_SUFFIX = "/Actions/ComputerSystem.Reset"
ACTION_INFO_SUFFIX = "/ResetActionInfo"

POWER_STATES = ("On", "Off")
SENSORS_PATH = re.compile(r"^(.+)/Sensors(?:/[^/]+)?$")


class ProfileError(ValueError):
    pass


def load_profile(name):
    if name not in PROFILES:
        raise ProfileError("unknown profile %r (choose from %s)" % (name, ", ".join(PROFILES)))
    with open(PROFILE_DIR / (name + ".json"), encoding="utf-8") as f:
        return json.load(f)


def parse_scale(text, into=None):
    """'sensors=1000,nics=2' -> {'sensors': 1000, 'nics': 2}"""
    out = dict(into or {})
    for item in text.split(","):
        item = item.strip()
        if not item:
            continue
        key, sep, value = item.partition("=")
        key = key.strip()
        if not sep or key not in SCALE_KEYS:
            raise ValueError("bad scale item %r (use KEY=N with KEY in %s)" % (item, ", ".join(SCALE_KEYS)))
        try:
            n = int(value)
        except ValueError:
            raise ValueError("bad count in %r" % item) from None
        if not 0 <= n <= SCALE_LIMITS[key]:
            raise ValueError("%s must be between 0 and %d" % (key, SCALE_LIMITS[key]))
        out[key] = n
    return out


def substitute(obj, mapping):
    """Replace placeholder substrings in every string of a JSON value."""
    if isinstance(obj, str):
        for key, value in mapping.items():
            obj = obj.replace(key, value)
        return obj
    if isinstance(obj, list):
        return [substitute(v, mapping) for v in obj]
    if isinstance(obj, dict):
        return {k: substitute(v, mapping) for k, v in obj.items()}
    return obj


def odata_context(odata_type):
    # "#ComputerSystem.v1_16_0.ComputerSystem" -> "/redfish/v1/$metadata#ComputerSystem.ComputerSystem"
    parts = odata_type.lstrip("#").split(".")
    return "%s/$metadata#%s.%s" % (ROOT, parts[0], parts[-1])


def link_path(body, key):
    """The path body's member key links to: its @odata.id without a fragment
    or a trailing slash; None when body has no such link."""
    value = body.get(key) if isinstance(body, dict) else None
    if isinstance(value, dict) and isinstance(value.get("@odata.id"), str):
        return value["@odata.id"].split("#", 1)[0].rstrip("/") or "/"
    return None


def mac_plus(mac, offset, upper):
    value = (int(mac.replace(":", "").replace("-", ""), 16) + offset) & 0xFFFFFFFFFFFF
    digits = "%012x" % value
    text = ":".join(digits[i:i + 2] for i in range(0, 12, 2))
    return text.upper() if upper else text


def _vary_uuid(uuid, index):
    # Clones need distinct UUIDs; keep the template's case and shape.
    if not isinstance(uuid, str) or len(uuid) < 4:
        return uuid
    tail = "%04x" % (index & 0xFFFF)
    if uuid[-4:].isupper():
        tail = tail.upper()
    return uuid[:-4] + tail


class Resource:
    __slots__ = ("kind", "body", "members", "member_links", "power_index")

    def __init__(self, kind, body, members=None, power_index=None):
        self.kind = kind            # "static", "collection", "system", "chassis", "sessions"
        self.body = body
        self.members = members      # collection member paths
        self.member_links = [{"@odata.id": m} for m in members] if members is not None else None
        self.power_index = power_index


class ServiceState:
    """Power states and sessions: what a client can change on any emulated BMC."""

    def __init__(self, transitions):
        self.system_paths = []
        self.system_ids = []
        self.power = []
        # A real host takes a while to change state after a reset: index ->
        # (monotonic time the change completes, final state).
        self.power_settle = 0.0
        self._settling = {}
        self._lock = threading.Lock()
        self._sessions = {}         # token -> session body
        self._session_seq = 0
        self.transitions = transitions
        self.health = None          # health.Health, once the parts are known

    def render(self, path, **options):
        """The body served for `path`: the resource with any health fault in force."""
        body = self._render(path, **options)
        return body if self.health is None else self.health.apply(path, body)

    # -- power ------------------------------------------------------------

    def find_system(self, selector):
        """Index of a system given its index (int) or Id / path (str)."""
        if isinstance(selector, bool):
            return None
        if isinstance(selector, int):
            return selector if 0 <= selector < len(self.system_paths) else None
        if isinstance(selector, str):
            for i, (ident, path) in enumerate(zip(self.system_ids, self.system_paths)):
                if selector in (ident, path):
                    return i
        return None

    def _settle(self, index):
        """Completes a state change whose time has come (lock held)."""
        pending = self._settling.get(index)
        if pending and time.monotonic() >= pending[0]:
            self.power[index] = pending[1]
            del self._settling[index]

    def power_state(self, index):
        with self._lock:
            self._settle(index)
            return self.power[index]

    def reset(self, index, reset_type):
        """Apply a ResetType; returns (outcome, state_before) with outcome 'done' or 'no-op'.
        With power_settle > 0 the new state is reached that many seconds later;
        meanwhile the system reads PoweringOn on its way up, its old state on its
        way down."""
        with self._lock:
            self._settle(index)
            before = self.power[index]
            if index in self._settling:  # still changing: the target decides
                before = self._settling[index][1]
            after = self.transitions.get(reset_type, {}).get(before, before)
            if after == "no-op":
                return "no-op", before
            if self.power_settle > 0:
                # A shutting-down host still reads On; one coming up is PoweringOn.
                self.power[index] = "PoweringOn" if after == "On" else before
                self._settling[index] = (time.monotonic() + self.power_settle, after)
            else:
                self.power[index] = after
            return "done", before

    def set_power(self, index, state):
        with self._lock:
            self._settling.pop(index, None)
            self.power[index] = state

    def power_summary(self):
        with self._lock:
            for i in list(self._settling):
                self._settle(i)
            return [{"index": i, "Id": ident, "@odata.id": path, "PowerState": self.power[i]}
                    for i, (ident, path) in enumerate(zip(self.system_ids, self.system_paths))]

    # -- sessions ---------------------------------------------------------

    def create_session(self, user):
        token = secrets.token_hex(16)
        with self._lock:
            self._session_seq += 1
            ident = str(self._session_seq)
            body = {"@odata.id": SESSIONS + "/" + ident, "@odata.type": "#Session.v1_3_0.Session",
                    "Id": ident, "Name": "User Session", "UserName": user}
            self._sessions[token] = body
        return token, body

    def token_valid(self, token):
        with self._lock:
            return token in self._sessions

    def delete_session(self, path):
        with self._lock:
            for token, body in self._sessions.items():
                if body["@odata.id"] == path:
                    del self._sessions[token]
                    return True
        return False

    def _session_by_path(self, path):
        if not path.startswith(SESSIONS + "/"):
            return None
        with self._lock:
            for body in self._sessions.values():
                if body["@odata.id"] == path:
                    return body
        return None


class Model(ServiceState):
    """One of the hand-written profiles: a tree built from its templates."""

    is_tree = False
    query_mode = None  # $select and $expand as described in tools/README.md
    latency = 0.0
    event_log = None

    def __init__(self, profile_name, scale=None):
        self.name = profile_name
        self.profile = load_profile(profile_name)
        reset = self.profile["reset"]
        super().__init__(reset["transitions"])
        self.resources = {}
        self.chassis_paths = set()
        self.counts = dict.fromkeys(SCALE_KEYS, 0)
        self.allowable_values = list(reset["allowable_values"])
        self._mac_upper = self._profile_mac_case()
        self._build(scale or {})

    def allowable_for(self, index):
        return self.allowable_values

    def versions(self):
        return {"v1": "/redfish/v1/"}

    def error_status(self, path):
        return None

    # -- construction -----------------------------------------------------

    def _profile_mac_case(self):
        for mgr in self.profile["managers"]:
            for nic in mgr.get("_nics", []):
                mac = nic.get("MACAddress", "")
                if re.search("[A-F]", mac):
                    return True
                if re.search("[a-f]", mac):
                    return False
        return True

    def _head(self, path, template):
        """Common leading properties, in the order real services print them."""
        body = {"@odata.id": path}
        odata_type = template.get("@odata.type")
        if odata_type:
            if self.profile.get("odata_context"):
                body["@odata.context"] = template.get("@odata.context") or odata_context(odata_type)
            body["@odata.type"] = odata_type
        return body

    def _instance(self, template, path, ident=None, clone_index=0):
        body = self._head(path, template)
        if ident is not None:
            body["Id"] = ident
        for key, value in substitute(template, {"{self}": path}).items():
            if key.startswith("_") or key in body or key.startswith("@odata."):
                continue
            body[key] = value
        if clone_index and "UUID" in body:
            body["UUID"] = _vary_uuid(body["UUID"], clone_index)
        return body

    def _add(self, path, resource):
        self.resources[path] = resource
        return resource

    def _collection(self, path, kind_name, members):
        template = self.profile["collections"][kind_name]
        body = self._instance(template, path)
        self._add(path, Resource("collection", body, members))

    @staticmethod
    def _ids(templates, count, pattern):
        ids = []
        for i in range(count):
            if i < len(templates):
                ident = templates[i]["Id"]
            else:
                ident = pattern.format(n=i + 1, n0=i)
            while ident in ids:
                ident += "-%d" % (i + 1)
            ids.append(ident)
        return ids

    def _build(self, scale):
        p = self.profile
        naming = p["naming"]
        n_sys = scale.get("systems", len(p["systems"]))
        n_mgr = scale.get("managers", len(p["managers"]))
        n_ch = scale.get("chassis", len(p["chassis"]))
        sys_ids = self._ids(p["systems"], n_sys, naming["system"])
        mgr_ids = self._ids(p["managers"], n_mgr, naming["manager"])
        ch_ids = self._ids(p["chassis"], n_ch, naming["chassis"])
        sys_paths = [SYSTEMS + "/" + i for i in sys_ids]
        mgr_paths = [MANAGERS + "/" + i for i in mgr_ids]
        ch_paths = [CHASSIS + "/" + i for i in ch_ids]
        self.system_paths, self.system_ids = sys_paths, sys_ids
        self.chassis_paths = set(ch_paths)
        self.counts.update(systems=n_sys, managers=n_mgr, chassis=n_ch)

        def link(path):
            return {"@odata.id": path}

        # Systems: system i sits in chassis i % C and is managed by manager i % M.
        for i, path in enumerate(sys_paths):
            template = p["systems"][i] if i < len(p["systems"]) else p["systems"][0]
            body = self._instance(template, path, sys_ids[i], i if i >= len(p["systems"]) else 0)
            self.power.append(template.get("PowerState", "On"))
            body["PowerState"] = self.power[i]
            links = body.setdefault("Links", {})
            links["Chassis"] = [link(ch_paths[i % n_ch])] if n_ch else []
            links["ManagedBy"] = [link(mgr_paths[i % n_mgr])] if n_mgr else []
            body["Actions"] = self._reset_action(path)
            self._add(path, Resource("system", body, power_index=i))
            if p["reset"].get("advertise") == "action_info":
                self._add_action_info(path)
        self._collection(SYSTEMS, "Systems", sys_paths)

        # Managers and their Ethernet interfaces.
        n_nics_total = 0
        for m, path in enumerate(mgr_paths):
            template = p["managers"][m] if m < len(p["managers"]) else p["managers"][0]
            body = self._instance(template, path, mgr_ids[m], m if m >= len(p["managers"]) else 0)
            nic_coll = path + "/EthernetInterfaces"
            body["EthernetInterfaces"] = link(nic_coll)
            links = body.setdefault("Links", {})
            links["ManagerForServers"] = [link(s) for i, s in enumerate(sys_paths) if i % n_mgr == m]
            links["ManagerForChassis"] = [link(c) for i, c in enumerate(ch_paths) if i % n_mgr == m]
            if n_ch:
                links["ManagerInChassis"] = link(ch_paths[m % n_ch])
            self._add(path, Resource("static", body))
            nic_paths = self._build_nics(m, nic_coll, template.get("_nics", []), scale.get("nics"), ch_paths)
            n_nics_total += len(nic_paths)
            self._collection(nic_coll, "EthernetInterfaces", nic_paths)
        self._collection(MANAGERS, "Managers", mgr_paths)
        self.counts["nics"] = n_nics_total

        # Chassis, their sensors and any legacy sub-resources.
        n_sensors_total = 0
        for c, path in enumerate(ch_paths):
            template = p["chassis"][c] if c < len(p["chassis"]) else p["chassis"][0]
            body = self._instance(template, path, ch_ids[c], c if c >= len(p["chassis"]) else 0)
            sensor_templates = template.get("_sensors")
            if sensor_templates:
                body["Sensors"] = link(path + "/Sensors")
            for name in template.get("_subresources", {}):
                body[name] = link(path + "/" + name)
            links = body.setdefault("Links", {})
            mine = [i for i in range(n_sys) if i % n_ch == c]
            links["ComputerSystems"] = [link(sys_paths[i]) for i in mine]
            links["ManagedBy"] = [link(mgr_paths[c % n_mgr])] if n_mgr else []
            power_index = None
            if "PowerState" in body and n_sys:
                power_index = mine[0] if mine else 0
            self._add(path, Resource("chassis", body, power_index=power_index))
            if sensor_templates:
                count = scale.get("sensors", len(sensor_templates))
                n_sensors_total += count
                self._build_sensors(path, sensor_templates, count)
            for name, sub in template.get("_subresources", {}).items():
                sub_path = path + "/" + name
                self._add(sub_path, Resource("static", self._instance(sub, sub_path)))
        self._collection(CHASSIS, "Chassis", ch_paths)
        self.counts["sensors"] = n_sensors_total

        self._build_root_and_sessions()

    def _reset_action(self, system_path):
        reset = self.profile["reset"]
        action = {"target": system_path + RESET_SUFFIX}
        if reset.get("advertise") == "action_info":
            action["title"] = "Reset"
            action["@Redfish.ActionInfo"] = system_path + ACTION_INFO_SUFFIX
        else:
            action["ResetType@Redfish.AllowableValues"] = list(self.allowable_values)
        return {"#ComputerSystem.Reset": action}

    def _add_action_info(self, system_path):
        path = system_path + ACTION_INFO_SUFFIX
        body = self._instance(self.profile["reset"]["action_info"], path)
        body["Parameters"] = [{
            "Name": "ResetType",
            "Required": True,
            "DataType": "String",
            "AllowableValues": list(self.allowable_values),
        }]
        self._add(path, Resource("static", body))

    def _build_nics(self, m, coll_path, templates, wanted, ch_paths):
        count = len(templates) if wanted is None else wanted
        if not templates:
            return []
        base = templates[0]["MACAddress"]
        pattern = self.profile["naming"]["nic"]
        ids = self._ids(templates, count, pattern)
        paths = []
        for k in range(count):
            template = templates[k] if k < len(templates) else templates[0]
            path = coll_path + "/" + ids[k]
            body = self._instance(template, path, ids[k])
            if m > 0 or k >= len(templates):
                # Derived from the first interface so every clone has a unique, vendor-shaped MAC.
                mac = mac_plus(base, 0x100 * m + 0x10 + k, self._mac_upper)
                body["MACAddress"] = mac
                if "PermanentMACAddress" in body:
                    body["PermanentMACAddress"] = mac
            if ch_paths:
                body.setdefault("Links", {})["Chassis"] = {"@odata.id": ch_paths[m % len(ch_paths)]}
            self._add(path, Resource("static", body))
            paths.append(path)
        return paths

    def _build_sensors(self, chassis_path, templates, count):
        coll = chassis_path + "/Sensors"
        paths = []
        seen = set()
        for k in range(count):
            template = templates[k % len(templates)]
            rnd = k // len(templates)
            ident = template["Id"] if rnd == 0 else "%s_%d" % (template["Id"], rnd)
            while ident in seen:
                ident += "_x"
            seen.add(ident)
            path = coll + "/" + ident
            body = self._instance(template, path, ident)
            if rnd:
                body["Name"] = "%s #%d" % (template.get("Name", ident), rnd + 1)
            self._add(path, Resource("static", body))
            paths.append(path)
        self._collection(coll, "Sensors", paths)

    def _build_root_and_sessions(self):
        p = self.profile
        root_t = p["service_root"]
        root = {"@odata.id": root_t.get("@odata.id", ROOT)}
        if p.get("odata_context"):
            root["@odata.context"] = odata_context(root_t["@odata.type"])
        root["@odata.type"] = root_t["@odata.type"]
        for key, value in root_t.items():
            if not key.startswith("@odata.") and not key.startswith("_"):
                root[key] = value
        # Link only what this service really serves.
        root["Systems"] = {"@odata.id": SYSTEMS}
        root["Chassis"] = {"@odata.id": CHASSIS}
        root["Managers"] = {"@odata.id": MANAGERS}
        root["SessionService"] = {"@odata.id": SESSION_SERVICE}
        root["Links"] = {"Sessions": {"@odata.id": SESSIONS}}
        self._add(ROOT, Resource("static", root))

        svc_t = {"@odata.type": "#SessionService.v1_1_8.SessionService"}
        svc = self._instance(svc_t, SESSION_SERVICE, "SessionService")
        svc.update({"Name": "Session Service", "ServiceEnabled": True, "SessionTimeout": 1800,
                    "Sessions": {"@odata.id": SESSIONS}})
        self._add(SESSION_SERVICE, Resource("static", svc))
        coll_t = {"@odata.type": "#SessionCollection.SessionCollection", "Name": "Session Collection"}
        self._add(SESSIONS, Resource("sessions", self._instance(coll_t, SESSIONS)))

    # -- queries ----------------------------------------------------------

    def exists(self, path):
        return path in self.resources or self._session_by_path(path) is not None

    def is_collection(self, path):
        res = self.resources.get(path)
        return res is not None and res.kind in ("collection", "sessions")

    def inline_subordinates(self, body):
        """body with each subordinate link (a member outside Links holding only
        an "@odata.id" this BMC serves) replaced by that resource."""
        out = dict(body)
        for key, value in body.items():
            if key == "Links" or not isinstance(value, dict) or set(value) != {"@odata.id"}:
                continue
            if self.exists(value["@odata.id"]):
                out[key] = self.render(value["@odata.id"])
        return out

    def _render(self, path, expand=False):
        """Body of the resource at `path` (None if absent).  The result may share
        structure with the model: callers must not modify it."""
        res = self.resources.get(path)
        if res is None:
            return self._session_by_path(path)
        if res.kind == "collection":
            body = dict(res.body)
            if expand:
                body["Members"] = [self.render(m) for m in res.members]
            else:
                body["Members"] = res.member_links
            body["Members@odata.count"] = len(res.members)
            return body
        if res.kind == "sessions":
            with self._lock:
                sessions = list(self._sessions.values())
            body = dict(res.body)
            body["Members"] = sessions if expand else [{"@odata.id": s["@odata.id"]} for s in sessions]
            body["Members@odata.count"] = len(sessions)
            return body
        if res.power_index is not None:
            body = dict(res.body)
            body["PowerState"] = self.power_state(res.power_index)
            return body
        if res.kind == "log":
            return self.event_log.page([], None)
        return res.body

    def add_event_log(self, log):
        """Serves an event_log.EventLog under its owner."""
        self.resources[log.owner].body["LogServices"] = {"@odata.id": log.collection_path}
        for path, (kind, body) in log.resources().items():
            if kind == "collection":
                body = dict(body)
                self._add(path, Resource("collection", body, body.pop("_members")))
            else:
                self._add(path, Resource(kind, body))
        self.event_log = log

    def odata_types(self):
        return sorted({r.body["@odata.type"] for r in self.resources.values() if "@odata.type" in r.body})

    def system_for_reset_target(self, path):
        if path.endswith(RESET_SUFFIX):
            base = path[: -len(RESET_SUFFIX)]
            res = self.resources.get(base)
            if res is not None and res.kind == "system":
                return res.power_index
        return None

    def sensors_owner(self, path):
        """The chassis path if `path` is a chassis's Sensors collection or one of its members."""
        m = SENSORS_PATH.match(path)
        if m and m.group(1) in self.chassis_paths:
            return m.group(1)
        return None
