"""Hardware health on every profile: the parts a health read walks
(processors, memory, storage controllers, drives, volumes, power supplies,
fans, network adapters; the managers' firmware), as the captured tree has
them, or generated for the profiles that have none, and faults that make one
part fail the way a BMC reports it.

A fault sets the part's Status.Health and, as the BMCs this emulates do,
raises what rolls it up: its system's and chassis' Status, the system's
ProcessorSummary or MemorySummary, a maker's aggregate under Oem. A failed
drive leaves its storage and controllers reporting OK. With HealthRollup left
empty (a profile's "health": {"empty_rollup": true}, as the common
open-source BMC web server does, or the control endpoint), no Status carries
HealthRollup and nothing is raised: only the part itself tells.

Captured trees are served as captured: nothing is added to them, so a fault
whose part a tree lacks is refused."""

import copy
import threading

from .model import ROOT, Resource, link_path

FAULTS = ("power-supply", "fan", "memory", "drive", "processor")
# The Redfish kind each fault hits, the health it leaves and the maker's
# aggregate (Oem/Hpe/AggregateHealthStatus) that rolls it up.
_FAULT_KIND = {"power-supply": ("PowerSupply", "Critical", "PowerSupplies"),
               "fan": ("Fan", "Critical", "Fans"),
               "memory": ("Memory", "Critical", "Memory"),
               "drive": ("Drive", "Critical", "Storage"),
               "processor": ("Processor", "Warning", "Processors")}
_SUMMARY = {"memory": "MemorySummary", "processor": "ProcessorSummary"}
_LEVEL = {"OK": 1, "Warning": 2, "Critical": 3}


class HealthError(ValueError):
    pass


def _norm(path):
    return path.split("#", 1)[0].rstrip("/") or "/"


def _present(body):
    status = body.get("Status") if isinstance(body, dict) else None
    return not (isinstance(status, dict) and status.get("State") == "Absent")


def _ok(body):
    status = body.get("Status") if isinstance(body, dict) else None
    return not isinstance(status, dict) or status.get("Health") in (None, "OK")


class Target:
    """The part a fault hits: a resource, or an entry of an array in one."""

    def __init__(self, fault, path, body, owners, parent, array=None, index=None):
        self.fault, self.path, self.owners, self.parent = fault, path, owners, parent
        self.array, self.index = array, index
        if array is None:
            self.ident = body.get("Id") or path.rsplit("/", 1)[-1]
        else:
            self.ident = body.get("Id") or body.get("MemberId") or "%s/%d" % (array, index)
        self.name = body.get("Name") or self.ident

    def describe(self):
        return {"kind": _FAULT_KIND[self.fault][0], "Id": self.ident, "Name": self.name,
                "Parent": self.parent, "@odata.id": self.path if self.array is None else
                "%s#/%s/%d" % (self.path, self.array, self.index)}


class Health:
    def __init__(self, model, settings=None):
        settings = settings or {}
        self.model = model
        self._lock = threading.Lock()
        self.default_empty_rollup = bool(settings.get("empty_rollup"))
        self.empty_rollup = self.default_empty_rollup
        self.faults = set()
        self.bmc_firmware = None
        if not model.is_tree or "synthetic" in model.profile:
            _Generator(model).add()
        self.targets = self._find_targets()
        self._patches = {}
        self._managers = set(self._members(ROOT + "/Managers"))
        # The inventory's entries for the BMC's own firmware change with it.
        versions = {(self._raw(m) or {}).get("FirmwareVersion") for m in self._managers}
        service = self._raw(link_path(self._raw(ROOT) or {}, "UpdateService"))
        self._bmc_entries = {p for p in self._members(link_path(service or {}, "FirmwareInventory"))
                             if (self._raw(p) or {}).get("Version") in versions - {None}}

    # -- what the model serves, before any fault ----------------------------

    def _raw(self, path):
        if path is None or self.model.error_status(path) is not None:
            return None
        return self.model._render(path)

    def _members(self, path):
        body = self._raw(path)
        if not isinstance(body, dict) or not isinstance(body.get("Members"), list):
            return []
        return [_norm(m["@odata.id"]) for m in body["Members"]
                if isinstance(m, dict) and isinstance(m.get("@odata.id"), str)]

    def _first(self, fault, collection, owners, parent, accept=_present):
        for path in self._members(collection):
            body = self._raw(path)
            if isinstance(body, dict) and accept(body):
                return Target(fault, path, body, owners, parent)
        return None

    def _first_entry(self, fault, path, array, owners, parent):
        body = self._raw(path) or {}
        for i, entry in enumerate(body.get(array) or []):
            if isinstance(entry, dict) and _present(entry):
                return Target(fault, path, entry, owners, parent, array, i)
        return None

    def _find_targets(self):
        found = {}
        systems = self._members(ROOT + "/Systems")
        for system in systems:
            body = self._raw(system) or {}
            ident = body.get("Id") or system.rsplit("/", 1)[-1]
            owners = [system] + [_norm(c["@odata.id"]) for c in (body.get("Links") or {}).get("Chassis", [])
                                 if isinstance(c, dict) and "@odata.id" in c]
            if not found.get("processor"):
                # A CPU where the BMC also lists GPUs as processors.
                found["processor"] = (self._first("processor", link_path(body, "Processors"), owners, ident,
                                                  lambda b: _present(b) and b.get("ProcessorType") == "CPU")
                                      or self._first("processor", link_path(body, "Processors"), owners, ident))
            if not found.get("memory"):
                found["memory"] = self._first("memory", link_path(body, "Memory"), owners, ident)
            for storage in self._members(link_path(body, "Storage")):
                if found.get("drive"):
                    break
                sbody = self._raw(storage) or {}
                controllers = [self._raw(c) or {} for c in self._members(link_path(sbody, "Controllers"))]
                controllers += [c for c in sbody.get("StorageControllers") or [] if isinstance(c, dict)]
                if not all(_ok(c) for c in controllers) or not _ok(sbody):
                    continue
                for drive in [d["@odata.id"] for d in sbody.get("Drives") or []
                              if isinstance(d, dict) and isinstance(d.get("@odata.id"), str)]:
                    dbody = self._raw(_norm(drive))
                    if isinstance(dbody, dict) and _present(dbody) and _ok(dbody):
                        found["drive"] = Target("drive", _norm(drive), dbody, owners,
                                                sbody.get("Id") or storage.rsplit("/", 1)[-1])
                        break
        for chassis in self._members(ROOT + "/Chassis"):
            body = self._raw(chassis) or {}
            ident = body.get("Id") or chassis.rsplit("/", 1)[-1]
            linked = [_norm(s["@odata.id"]) for s in (body.get("Links") or {}).get("ComputerSystems", [])
                      if isinstance(s, dict) and "@odata.id" in s]
            owners = [chassis] + (linked or systems)
            for fault, sub, coll, legacy, array in (
                    ("power-supply", "PowerSubsystem", "PowerSupplies", "Power", "PowerSupplies"),
                    ("fan", "ThermalSubsystem", "Fans", "Thermal", "Fans")):
                if found.get(fault):
                    continue
                subsystem = link_path(body, sub)
                if subsystem:
                    found[fault] = self._first(fault, subsystem + "/" + coll, owners, ident)
                if not found.get(fault) and link_path(body, legacy):
                    found[fault] = self._first_entry(fault, link_path(body, legacy), array, owners, ident)
        return {k: v for k, v in found.items() if v is not None}

    # -- control ------------------------------------------------------------

    def configure(self, request):
        """Applies {"faults": [...], "empty_rollup": bool, "bmc_firmware": text}; each key optional."""
        if not isinstance(request, dict):
            raise HealthError('want {"faults": [...], "empty_rollup": bool, "bmc_firmware": "text"}')
        faults = request.get("faults", sorted(self.faults))
        if not isinstance(faults, list) or not all(isinstance(f, str) for f in faults):
            raise HealthError("faults: want a list of %s" % ", ".join(FAULTS))
        for fault in faults:
            if fault not in FAULTS:
                raise HealthError("unknown fault %r (choose from %s)" % (fault, ", ".join(FAULTS)))
            if fault not in self.targets:
                raise HealthError("profile %s has no %s to fail" % (self.model.name, fault))
        empty = request.get("empty_rollup", self.empty_rollup)
        firmware = request.get("bmc_firmware", self.bmc_firmware)
        if not isinstance(empty, bool) or not (firmware is None or isinstance(firmware, str)):
            raise HealthError("empty_rollup: want true or false; bmc_firmware: want a text or null")
        with self._lock:
            self.faults, self.empty_rollup, self.bmc_firmware = set(faults), empty, firmware
            self._patches = self._build_patches()

    def reset(self):
        self.configure({"faults": [], "empty_rollup": self.default_empty_rollup, "bmc_firmware": None})

    def state(self):
        return {"faults": sorted(self.faults), "empty_rollup": self.empty_rollup,
                "bmc_firmware": self.bmc_firmware,
                "targets": {f: t.describe() for f, t in sorted(self.targets.items())}}

    def _build_patches(self):
        patches = {}

        def add(path, fn):
            patches.setdefault(path, []).append(fn)

        for fault in sorted(self.faults):
            target = self.targets[fault]
            kind, level, aggregate = _FAULT_KIND[fault]
            add(target.path, _set_health(target.array, target.index, level))
            if self.empty_rollup:
                continue
            for owner in target.owners:
                add(owner, _raise(level, _SUMMARY.get(fault), aggregate))
        if self.bmc_firmware is not None:
            for manager in self._managers:
                add(manager, _set_firmware("FirmwareVersion", self.bmc_firmware))
            for entry in self._bmc_entries:
                add(entry, _set_firmware("Version", self.bmc_firmware))
        return patches

    # -- serving -------------------------------------------------------------

    def apply(self, path, body):
        """body as the BMC shows it now: with the faults in force."""
        patches = self._patches.get(path)
        if not isinstance(body, dict) or (not patches and not self.empty_rollup):
            return body
        body = copy.deepcopy(body)
        for fn in patches or ():
            fn(body)
        if self.empty_rollup:
            _strip_rollup(body)
        return body


def _status(obj):
    status = obj.get("Status")
    if not isinstance(status, dict):
        status = obj["Status"] = {}
    return status


def _set_health(array, index, level):
    def patch(body):
        entry = body
        if array is not None:
            entry = body.get(array)[index]
        _status(entry)["Health"] = level
    return patch


def _worse(status, key, level, add=False):
    if key not in status and not add:
        return
    if _LEVEL.get(status.get(key), 0) < _LEVEL[level]:
        status[key] = level


def _raise(level, summary, aggregate):
    def patch(body):
        status = _status(body)
        _worse(status, "Health", level, add=True)
        _worse(status, "HealthRollup", level)
        if summary and isinstance(body.get(summary), dict):
            for key in ("Health", "HealthRollup"):
                _worse(_status(body[summary]), key, level)
        entry = ((body.get("Oem") or {}).get("Hpe") or {}).get("AggregateHealthStatus", {}).get(aggregate)
        if isinstance(entry, dict):
            _worse(_status(entry), "Health", level, add=True)
    return patch


def _set_firmware(key, version):
    def patch(body):
        body[key] = version
    return patch


def _strip_rollup(value):
    if isinstance(value, dict):
        value.pop("HealthRollup", None)
        for v in value.values():
            _strip_rollup(v)
    elif isinstance(value, list):
        for v in value:
            _strip_rollup(v)


class _Generator:
    """Parts for a profile that has none: two processors, four DIMMs and an
    empty slot, a RAID controller with two drives and a volume, two power
    supplies, two fans and a network adapter, and an update service listing
    the BMC's and BIOS firmware; each only where the profile lacks it."""

    def __init__(self, model):
        self.model = model
        self.hand_written = hasattr(model, "is_collection")

    def add(self):
        m = self.model
        for path in list(m.system_paths):
            self._system(path, m.resources[path].body)
        chassis = self._members(ROOT + "/Chassis")
        if chassis:
            self._chassis(chassis[0], m.resources[chassis[0]].body)
        root = m.resources[ROOT].body
        if "UpdateService" not in root:
            self._update_service(root)

    def _members(self, path):
        res = self.model.resources.get(path)
        if res is None:
            return []
        if res.members is not None:
            return list(res.members)
        return [_norm(m["@odata.id"]) for m in res.body.get("Members", []) if isinstance(m, dict)]

    def _put(self, path, body):
        body = dict({"@odata.id": path}, **body)
        self.model.resources[path] = Resource("static", body)
        return body

    def _collection(self, path, odata_type, name, members):
        body = {"@odata.id": path, "@odata.type": "#%s.%s" % (odata_type, odata_type), "Name": name}
        if self.hand_written:
            self.model.resources[path] = Resource("collection", body, members)
        else:
            body["Members"] = [{"@odata.id": p} for p in members]
            body["Members@odata.count"] = len(members)
            self.model.resources[path] = Resource("static", body)
        return {"@odata.id": path}

    @staticmethod
    def _ok(state="Enabled"):
        return {"State": state, "Health": "OK"} if state != "Absent" else {"State": "Absent"}

    def _parts(self, base, odata_type, collection_type, name, items):
        paths = []
        for ident, extra in items:
            path = base + "/" + ident
            self._put(path, dict({"@odata.type": "#%s.v1_0_0.%s" % (odata_type, odata_type), "Id": ident,
                                  "Name": extra.pop("Name", ident), "Status": self._ok(extra.pop("_state", "Enabled"))},
                                 **extra))
            paths.append(path)
        return self._collection(base, collection_type, name, paths)

    def _system(self, path, body):
        if "Processors" not in body:
            body["Processors"] = self._parts(path + "/Processors", "Processor", "ProcessorCollection",
                                             "Processors Collection",
                                             [("CPU%d" % n, {"Name": "Processor %d" % n, "ProcessorType": "CPU",
                                                             "TotalCores": 16}) for n in (1, 2)])
        if "Memory" not in body:
            dimms = [("DIMM%s" % slot, {"Name": "DIMM %s" % slot, "CapacityMiB": 32768, "MemoryDeviceType": "DDR5"})
                     for slot in ("A1", "A2", "B1", "B2")]
            dimms.append(("DIMMB3", {"Name": "DIMM B3", "_state": "Absent"}))
            body["Memory"] = self._parts(path + "/Memory", "Memory", "MemoryCollection", "Memory Collection", dimms)
        if "Storage" not in body:
            storage = path + "/Storage/RAID.1"
            controllers = self._parts(storage + "/Controllers", "StorageController", "StorageControllerCollection",
                                      "Storage Controllers", [("RAID.1", {"Name": "RAID Controller 1"})])
            drives = []
            for n in (0, 1):
                drive = self._put(storage + "/Drives/Disk.%d" % n, {
                    "@odata.type": "#Drive.v1_0_0.Drive", "Id": "Disk.%d" % n, "Name": "Disk %d" % n,
                    "CapacityBytes": 960197124096, "MediaType": "SSD", "Status": self._ok()})
                drives.append({"@odata.id": drive["@odata.id"]})
            volumes = self._parts(storage + "/Volumes", "Volume", "VolumeCollection", "Volumes",
                                  [("Volume.0", {"Name": "Boot volume", "RAIDType": "RAID1"})])
            self._put(storage, {"@odata.type": "#Storage.v1_10_0.Storage", "Id": "RAID.1", "Name": "RAID.1",
                                "Status": dict(self._ok(), HealthRollup="OK"), "Controllers": controllers,
                                "Drives": drives, "Drives@odata.count": len(drives), "Volumes": volumes})
            body["Storage"] = self._collection(path + "/Storage", "StorageCollection", "Storage Collection",
                                               [storage])

    def _chassis(self, path, body):
        if "PowerSubsystem" not in body and "Power" not in body:
            sub = path + "/PowerSubsystem"
            psus = self._parts(sub + "/PowerSupplies", "PowerSupply", "PowerSupplyCollection",
                               "Power Supply Collection",
                               [("PSU%d" % n, {"Name": "Power Supply %d" % n, "PowerCapacityWatts": 1100})
                                for n in (1, 2)])
            self._put(sub, {"@odata.type": "#PowerSubsystem.v1_1_0.PowerSubsystem", "Id": "PowerSubsystem",
                            "Name": "Power Subsystem", "Status": self._ok(), "PowerSupplies": psus})
            body["PowerSubsystem"] = {"@odata.id": sub}
        if "ThermalSubsystem" not in body and "Thermal" not in body:
            sub = path + "/ThermalSubsystem"
            fans = self._parts(sub + "/Fans", "Fan", "FanCollection", "Fan Collection",
                               [("Fan%d" % n, {"Name": "Fan %d" % n}) for n in (1, 2)])
            self._put(sub, {"@odata.type": "#ThermalSubsystem.v1_0_0.ThermalSubsystem", "Id": "ThermalSubsystem",
                            "Name": "Thermal Subsystem", "Status": self._ok(), "Fans": fans})
            body["ThermalSubsystem"] = {"@odata.id": sub}
        if "NetworkAdapters" not in body:
            body["NetworkAdapters"] = self._parts(path + "/NetworkAdapters", "NetworkAdapter",
                                                  "NetworkAdapterCollection", "Network Adapter Collection",
                                                  [("NIC.1", {"Name": "Network Adapter 1"})])

    def _update_service(self, root):
        m = self.model
        entries = []
        for manager in self._members(ROOT + "/Managers")[:1]:
            version = m.resources[manager].body.get("FirmwareVersion")
            if version:
                entries.append(("bmc_active", {"Name": "BMC firmware", "Version": version}))
        for system in m.system_paths[:1]:
            version = m.resources[system].body.get("BiosVersion")
            if version:
                entries.append(("bios_active", {"Name": "Host BIOS", "Version": version}))
        service = ROOT + "/UpdateService"
        inventory = self._parts(service + "/FirmwareInventory", "SoftwareInventory", "SoftwareInventoryCollection",
                                "Firmware Inventory", entries)
        self._put(service, {"@odata.type": "#UpdateService.v1_11_0.UpdateService", "Id": "UpdateService",
                            "Name": "Update Service", "ServiceEnabled": True, "FirmwareInventory": inventory})
        root["UpdateService"] = {"@odata.id": service}
