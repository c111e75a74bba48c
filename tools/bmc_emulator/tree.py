"""BMCs served from a whole Redfish tree: one captured from a real controller
(trees/<folder>/, each index.json at the request path of the resource it
holds) or one generated in the same shape (synthetic.py).

A profile file naming "tree" or "synthetic" describes such a BMC; "like"
names another profile whose settings it starts from (one level of "reset" is
merged, every other key replaced). Settings: content_type, base_registry,
auth_realm, reset (transitions, success and no_op answers), query_options,
latency, no_protocol_features.
"""

import json
import os
from pathlib import Path

from . import model as modellib, query as querylib, synthetic
from .model import ROOT, SESSIONS, SESSION_SERVICE, Resource, ServiceState, link_path

TREE_DIR = Path(__file__).resolve().parent / "trees"
# Captured error answers lost their status; these codes meant "not there".
_MISSING_CODES = ("ResourceMissingAtURI", "ResourceNotFound")
# Every ResetType, for a system whose action advertises none.
_ALL_RESET_TYPES = ("On", "ForceOff", "GracefulShutdown", "GracefulRestart", "ForceRestart", "Nmi", "ForceOn",
                    "PushPowerButton", "PowerCycle", "Suspend", "Pause", "Resume", "FullPowerCycle")


def _read_spec(name):
    path = modellib.PROFILE_DIR / (name + ".json")
    with open(path, encoding="utf-8") as f:
        return json.load(f)


def load_spec(name, _seen=()):
    """A profile's settings with its "like" chain merged in."""
    own = _read_spec(name)
    parent_name = own.get("like")
    if parent_name is None:
        return own
    if parent_name in _seen:
        raise modellib.ProfileError("profile %s: 'like' loops back to %s" % (name, parent_name))
    spec = load_spec(parent_name, _seen + (name,))
    merged = dict(spec)
    merged.update(own)
    merged["reset"] = dict(spec.get("reset", {}), **own.get("reset", {}))
    for source, other in (("tree", "synthetic"), ("synthetic", "tree")):
        if source in own:
            merged.pop(other, None)
    return merged


def tree_profiles():
    """Names of the profiles served from a tree, sorted."""
    return sorted(p.stem for p in modellib.PROFILE_DIR.glob("*.json") if p.stem not in modellib.PROFILES)


def all_profiles():
    return list(modellib.PROFILES) + tree_profiles()


def load_tree(folder):
    """{request path: body} of every index.json under trees/<folder>."""
    base = TREE_DIR / folder
    if not base.is_dir():
        raise modellib.ProfileError("no tree %s" % base)
    out = {}
    for dirpath, _dirs, files in os.walk(base):
        if "index.json" in files:
            rel = os.path.relpath(dirpath, base)
            path = "/" if rel == "." else "/" + rel.replace(os.sep, "/")
            with open(os.path.join(dirpath, "index.json"), encoding="utf-8") as f:
                out[path] = json.load(f)
    return out


def error_status(body):
    """The status a captured error object stands for, or None for a resource."""
    if not isinstance(body, dict) or not isinstance(body.get("error"), dict):
        return None
    code = str(body["error"].get("code", ""))
    return 404 if code.rsplit(".", 1)[-1] in _MISSING_CODES else 500


def _norm(path):
    return path.rstrip("/") or "/"


def _members(body):
    if not isinstance(body, dict) or not isinstance(body.get("Members"), list):
        return []
    return [_norm(m["@odata.id"]) for m in body["Members"]
            if isinstance(m, dict) and isinstance(m.get("@odata.id"), str)]


class TreeModel(ServiceState):
    is_tree = True
    event_log = None

    def __init__(self, name, spec, scale=None):
        self.name = name
        self.profile = spec
        super().__init__(spec["reset"]["transitions"])
        scale = scale or {}
        if "tree" in spec:
            bodies = load_tree(spec["tree"])
        else:
            settings = dict(spec["synthetic"])
            settings.update(scale)
            bodies = synthetic.build(settings["sensors"])
        self.query_mode = spec.get("query_options", "advertised")
        self.latency = float(spec.get("latency", 0))
        self.resources = {path: Resource("static", body) for path, body in bodies.items()}
        self.errors = {path: status for path, status in
                       ((p, error_status(b)) for p, b in bodies.items()) if status}
        root = self.resources[ROOT].body
        if spec.get("no_protocol_features"):
            root = {k: v for k, v in root.items() if k != "ProtocolFeaturesSupported"}
            self.resources[ROOT] = Resource("static", root)
        self.features = root.get("ProtocolFeaturesSupported") or {}
        self._targets = {}
        self._allowed = []
        self._build_systems()
        self._build_chassis()
        self._build_sessions()
        managers = _members(self.body(ROOT + "/Managers"))
        self.counts = {
            "systems": len(self.system_paths), "managers": len(managers), "chassis": len(self.chassis),
            "sensors": sum(len(_members(self.body(c + "/Sensors"))) for c in self.chassis_paths),
            "nics": sum(len(_members(self.body(link_path(self.body(m), "EthernetInterfaces") or "")))
                        for m in managers),
            "resources": len(bodies)}

    def body(self, path):
        res = self.resources.get(path)
        return res.body if res is not None and path not in self.errors else None

    def _build_systems(self):
        for path in _members(self.body(ROOT + "/Systems")):
            body = self.body(path)
            if body is None:
                continue
            index = len(self.system_paths)
            self.system_paths.append(path)
            self.system_ids.append(body.get("Id", path.rsplit("/", 1)[-1]))
            self.power.append(body.get("PowerState", "On"))
            self.resources[path] = Resource("system", body, power_index=index)
            action = body.get("Actions", {}).get("#ComputerSystem.Reset")
            allowed = []
            if isinstance(action, dict) and isinstance(action.get("target"), str):
                self._targets[_norm(action["target"])] = index
                allowed = list(action.get("ResetType@Redfish.AllowableValues") or [])
                info = self.body(_norm(action.get("@Redfish.ActionInfo") or ""))
                for param in (info or {}).get("Parameters", []):
                    if param.get("Name") == "ResetType":
                        allowed += [v for v in param.get("AllowableValues", []) if v not in allowed]
            self._allowed.append(allowed or list(_ALL_RESET_TYPES))

    def _build_chassis(self):
        self.chassis = _members(self.body(ROOT + "/Chassis"))
        self.chassis_paths = set()
        systems = {p: i for i, p in enumerate(self.system_paths)}
        for path in self.chassis:
            body = self.body(path)
            if body is None:
                continue
            if link_path(body, "Sensors"):
                self.chassis_paths.add(path)
            # A chassis' power follows the first system it holds.
            linked = (body.get("Links") or {}).get("ComputerSystems") or []
            first = _norm(linked[0].get("@odata.id", "")) if linked and isinstance(linked[0], dict) else None
            if "PowerState" in body and first in systems:
                self.resources[path] = Resource("chassis", body, power_index=systems[first])

    def _build_sessions(self):
        # Sessions are the emulator's own: captures hold none.
        self.resources[SESSION_SERVICE] = Resource("static", {
            "@odata.id": SESSION_SERVICE, "@odata.type": "#SessionService.v1_1_8.SessionService",
            "Id": "SessionService", "Name": "Session Service", "ServiceEnabled": True, "SessionTimeout": 1800,
            "Sessions": {"@odata.id": SESSIONS}})
        self.resources[SESSIONS] = Resource("sessions", {
            "@odata.id": SESSIONS, "@odata.type": "#SessionCollection.SessionCollection",
            "Name": "Session Collection"})
        self.errors.pop(SESSION_SERVICE, None)
        self.errors.pop(SESSIONS, None)

    # -- what the front end asks --------------------------------------------

    def versions(self):
        return self.body("/redfish") or {"v1": "/redfish/v1/"}

    def exists(self, path):
        return path in self.resources or self._session_by_path(path) is not None

    def error_status(self, path):
        return self.errors.get(path)

    def _render(self, path):
        """Body of the resource at `path`; may share structure with the model."""
        res = self.resources.get(path)
        if res is None:
            return self._session_by_path(path)
        if res.kind == "sessions":
            with self._lock:
                sessions = [{"@odata.id": s["@odata.id"]} for s in self._sessions.values()]
            return dict(res.body, Members=sessions, **{"Members@odata.count": len(sessions)})
        if res.power_index is not None:
            return dict(res.body, PowerState=self.power_state(res.power_index))
        if res.kind == "log":
            return self.event_log.page([], None)
        return res.body

    def add_event_log(self, log):
        """Serves an event_log.EventLog under its owner, in place of what the tree holds there."""
        owner = self.resources[log.owner]
        owner.body = dict(owner.body, LogServices={"@odata.id": log.collection_path})
        for path, (kind, body) in log.resources().items():
            if kind == "collection":
                members = body["_members"]
                body = {k: v for k, v in body.items() if k != "_members"}
                body.update({"Members": [{"@odata.id": m} for m in members], "Members@odata.count": len(members)})
                kind = "static"
            self.resources[path] = Resource(kind, body)
            self.errors.pop(path, None)
        self.event_log = log

    def expandable(self, path):
        """What a link to `path` expands to: None where the BMC answers an error."""
        path = _norm(path)
        if path in self.errors:
            return None
        return self.render(path)

    def answer(self, path, raw_query, mode):
        chosen = querylib.choose(querylib.split_query(raw_query), mode, self.features)
        return querylib.answer(self, path, chosen, self.features)

    def odata_types(self):
        return sorted({r.body["@odata.type"] for r in self.resources.values()
                       if isinstance(r.body.get("@odata.type"), str)})

    def system_for_reset_target(self, path):
        return self._targets.get(path)

    def allowable_for(self, index):
        return self._allowed[index]

    def sensors_owner(self, path):
        m = modellib.SENSORS_PATH.match(path)
        if m and m.group(1) in self.chassis_paths:
            return m.group(1)
        return None

