"""The readings a BMC emulator profile publishes, found by walking its
resources as the emulator holds them (no HTTP, no query options): each
physical reading once, with the value the BMC gives it. The yardstick of
bench/run-readings-bench, written apart from the library's reader.

What one physical reading is (the readings document's rules, bmcredfish(3)):
  - a Sensor of a chassis' Sensors collection, known by its URI;
  - an excerpt (ThermalMetrics, EnvironmentMetrics, a Fan's SpeedPercent, a
    power supply's Metrics) with a DataSourceUri is that sensor's reading;
    without one it is a reading of its own, known by where it stands
    ("<document>#/<JSON pointer>"), unless a Sensor of its chassis bears its
    name (a Fan's Id or Name, a ThermalMetrics DeviceName);
  - an entry of the deprecated Thermal and Power resources is a reading of
    its own unless a Sensor of its chassis bears its Name, or the newer
    model of the chassis lists the same things (ThermalMetrics temperatures,
    ThermalSubsystem fans, PowerSubsystem supplies, EnvironmentMetrics
    PowerWatts for PowerControl);
  - EnergykWh next to EnergyJoules is the same counter.
"""

import os
import re
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "..", "tools"))

from bmc_emulator import model as modellib, tree as treelib  # noqa: E402

SERVICE = "/redfish/v1/"
TYPE_UNITS = {"Temperature": "Cel", "Voltage": "V", "Current": "A", "Power": "W", "Rotational": "RPM",
              "Percent": "%", "Humidity": "%", "Frequency": "Hz", "EnergyJoules": "J", "EnergykWh": "kW.h"}
THERMAL_METRICS = [("TemperatureReadingsCelsius", "Cel", True)]
ENVIRONMENT = [("TemperatureCelsius", "Cel", False), ("HumidityPercent", "%", False),
               ("DewPointCelsius", "Cel", False), ("AbsoluteHumidity", "g/m3", False),
               ("PowerWatts", "W", False), ("EnergyJoules", "J", False), ("EnergykWh", "kW.h", False),
               ("FanSpeedsPercent", "%", True)]
SUPPLY_METRICS = [("InputVoltage", "V", False), ("InputCurrentAmps", "A", False),
                  ("InputPowerWatts", "W", False), ("OutputPowerWatts", "W", False),
                  ("EnergykWh", "kW.h", False), ("FrequencyHz", "Hz", False),
                  ("TemperatureCelsius", "Cel", False), ("FanSpeedPercent", "%", False),
                  ("FanSpeedsPercent", "%", True), ("RailVoltage", "V", True),
                  ("RailCurrentAmps", "A", True), ("RailPowerWatts", "W", True)]
FAN_PROPERTIES = ("FanSpeedsPercent", "FanSpeedPercent")


def load(profile):
    """The emulator's model of a profile: render(path) is what it serves."""
    if profile in modellib.PROFILES:
        return modellib.Model(profile)
    return treelib.TreeModel(profile, treelib.load_spec(profile))


def trim(uri):
    return uri.rstrip("/") if len(uri) > 1 else uri


def fold(name):
    return " ".join(name.lower().split())


def number(value):
    return value if isinstance(value, (int, float)) and not isinstance(value, bool) else None


class Oracle:
    def __init__(self, model):
        self.model = model
        self.shown = {}  # source -> {"chassis", "value", "units"}
        self.names = {}  # chassis path -> {folded Name or Id: source}
        self.power, self.energy = {}, {}

    def get(self, path):
        if not path or self.model.error_status(path):
            return None
        body = self.model.render(path)
        return body if isinstance(body, dict) else None

    def link(self, body, name):
        value = body.get(name) if body else None
        target = value.get("@odata.id") if isinstance(value, dict) else None
        return trim(target) if isinstance(target, str) and target.startswith(SERVICE) else None

    def members(self, path):
        """Each member's path and body (a member that cannot be read is None)."""
        body = self.get(path)
        out = []
        for m in (body or {}).get("Members", []):
            if isinstance(m, dict) and isinstance(m.get("@odata.id"), str):
                out.append((trim(m["@odata.id"]), self.get(trim(m["@odata.id"]))))
        return out

    def add(self, chassis, source, value, units):
        self.shown[source] = {"chassis": chassis, "value": value, "units": units}

    def offer(self, chassis, source, value, units, linked, aliases=(), figure=None):
        """One reading as a document offers it; figure: "power" or "energy"."""
        twin = source if source in self.shown else None
        if twin is None and not linked:
            twin = next((self.names[chassis][fold(a)] for a in aliases
                         if a and fold(a) in self.names[chassis]), None)
        if twin is None:
            owner = chassis
            if linked:
                prefix = "/".join(source.split("/")[:5])
                owner = prefix if prefix in self.names else chassis
            self.add(owner, source, value, units)
            twin = source
        elif self.shown[twin]["value"] is None and value is not None:
            self.shown[twin].update(value=value, units=units)
        if figure == "power":
            self.power.setdefault(chassis, twin)
        elif figure == "energy":
            self.energy.setdefault(chassis, twin)

    def excerpt(self, chassis, path, pointer, body, units, fan, aliases=(), figure=None):
        if not isinstance(body, dict):
            return
        aliases = tuple(aliases) + (body.get("DeviceName"),)
        if "Reading" in body:
            value = number(body["Reading"])
        elif fan and "SpeedRPM" in body:
            value, units = number(body["SpeedRPM"]), "RPM"
        else:
            return
        link = trim(body["DataSourceUri"]) if isinstance(body.get("DataSourceUri"), str) and \
            body["DataSourceUri"] else None
        self.offer(chassis, link or path + "#" + pointer, value, units, link is not None,
                   aliases if link is None else (), figure)

    def properties(self, chassis, path, body, table, figures=False):
        for name, units, is_array in table:
            value = body.get(name)
            figure = None
            if figures:
                figure = "power" if name == "PowerWatts" else "energy" if name.startswith("Energy") else None
                if name == "EnergykWh" and "EnergyJoules" in body:
                    continue
            fan = name in FAN_PROPERTIES
            if is_array:
                for i, e in enumerate(value if isinstance(value, list) else []):
                    self.excerpt(chassis, path, "/%s/%d" % (name, i), e, units, fan)
            elif value is not None:
                self.excerpt(chassis, path, "/" + name, value, units, fan, (), figure)

    def walk(self):
        chassis = []
        for path, body in self.members("/redfish/v1/Chassis"):
            if body is not None and path not in self.names:
                chassis.append((path, body))
                self.names[path] = {}
        newer = {}
        for path, body in chassis:  # Sensors first: every other way to a reading meets them
            for member, sensor in self.members(self.link(body, "Sensors")):
                if sensor is None or (sensor.get("Status") or {}).get("State") == "Absent":
                    continue
                if not sensor.get("Id") and not sensor.get("Name"):
                    continue
                source = trim(sensor["@odata.id"]) if isinstance(sensor.get("@odata.id"), str) else member
                if source in self.shown:
                    continue
                units = sensor.get("ReadingUnits")
                if units is None:
                    units = TYPE_UNITS.get(sensor.get("ReadingType"), "")
                self.add(path, source, number(sensor.get("Reading")), units)
                for name in (sensor.get("Name"), sensor.get("Id") or source.rsplit("/", 1)[-1]):
                    if isinstance(name, str) and name:
                        self.names[path].setdefault(fold(name), source)
        for path, body in chassis:
            newer[path] = self.newer_models(path, body)
        for path, body in chassis:
            self.deprecated(path, body, newer[path])
        return self

    def newer_models(self, chassis, body):
        has = {"temperatures": False, "fans": False, "supplies": False, "power": False}
        env_path = self.link(body, "EnvironmentMetrics")
        env = self.get(env_path)
        if env is not None:
            has["power"] = isinstance(env.get("PowerWatts"), dict)
            self.properties(chassis, env_path, env, ENVIRONMENT, figures=True)
        thermal = self.get(self.link(body, "ThermalSubsystem"))
        metrics_path = self.link(thermal, "ThermalMetrics")
        metrics = self.get(metrics_path)
        if metrics is not None:
            temps = metrics.get("TemperatureReadingsCelsius")
            has["temperatures"] = isinstance(temps, list) and len(temps) > 0
            self.properties(chassis, metrics_path, metrics, THERMAL_METRICS)
            summary = metrics.get("TemperatureSummaryCelsius")
            for name in ("Internal", "Intake", "Exhaust", "Ambient"):
                if isinstance(summary, dict) and name in summary:
                    self.excerpt(chassis, metrics_path, "/TemperatureSummaryCelsius/" + name,
                                 summary[name], "Cel", False)
        fans = self.members(self.link(thermal, "Fans"))
        has["fans"] = len(fans) > 0
        for fan_path, fan in fans:
            self.fan(chassis, fan_path, fan)
        supplies = self.members(self.link(self.get(self.link(body, "PowerSubsystem")), "PowerSupplies"))
        has["supplies"] = len(supplies) > 0
        for _, supply in supplies:
            metrics_path = self.link(supply, "Metrics")
            metrics = self.get(metrics_path)
            if metrics is not None:
                self.properties(chassis, metrics_path, metrics, SUPPLY_METRICS)
        return has

    def fan(self, chassis, path, fan):
        if fan is None or (fan.get("Status") or {}).get("State") == "Absent":
            return
        speed = fan.get("SpeedPercent")
        if not isinstance(speed, dict):
            return
        aliases = (fan.get("Id") or path.rsplit("/", 1)[-1], fan.get("Name"))
        linked = bool(speed.get("DataSourceUri"))
        if linked or "Reading" in speed:
            self.excerpt(chassis, path, "/SpeedPercent", speed, "%", True, aliases)
        if not linked and "SpeedRPM" in speed:
            self.offer(chassis, path + "#/SpeedPercent/SpeedRPM", number(speed["SpeedRPM"]), "RPM",
                       False, aliases)

    def deprecated(self, chassis, body, has):
        for resource, arrays in (("Thermal", (("Temperatures", ("ReadingCelsius",), "Cel", "temperatures"),
                                              ("Fans", ("Reading", "ReadingRPM", "CurrentReading"), "RPM",
                                               "fans"))),
                                 ("Power", (("Voltages", ("ReadingVolts",), "V", None),
                                            ("PowerControl", ("PowerConsumedWatts",), "W", "power")))):
            path = self.link(body, resource)
            document = self.get(path)
            if document is None:
                continue
            for array, names, units, replaced_by in arrays:
                if replaced_by and has[replaced_by]:
                    continue
                entries = document.get(array)
                for i, e in enumerate(entries if isinstance(entries, list) else []):
                    if not isinstance(e, dict) or (e.get("Status") or {}).get("State") == "Absent":
                        continue
                    source = e.get("@odata.id") if "#" in str(e.get("@odata.id", "")) else \
                        "%s#/%s/%d" % (path, array, i)
                    value = next((number(e[n]) for n in names if number(e.get(n)) is not None), None)
                    own = e.get("ReadingUnits") or e.get("Units") or units
                    power_total = array == "PowerControl" and i == 0
                    alias = () if power_total else (e.get("Name") or e.get("FanName"),)
                    self.offer(chassis, source, value, own, False, alias, "power" if power_total else None)
            if resource == "Power" and not has["supplies"]:
                self.old_supplies(chassis, path, document)

    def old_supplies(self, chassis, path, document):
        supplies = document.get("PowerSupplies")
        for i, e in enumerate(supplies if isinstance(supplies, list) else []):
            if not isinstance(e, dict) or (e.get("Status") or {}).get("State") == "Absent":
                continue
            base = e.get("@odata.id") if "#" in str(e.get("@odata.id", "")) else \
                "%s#/PowerSupplies/%d" % (path, i)
            for names, units in ((("LineInputVoltage",), "V"), (("PowerInputWatts",), "W"),
                                 (("PowerOutputWatts", "LastPowerOutputWatts"), "W")):
                name = next((n for n in names if n in e), None)
                if name is not None:
                    self.offer(chassis, base + "/" + name, number(e[name]), units, False)

    def readings(self):
        """{source: {"chassis", "value", "units"}} of the readings with a number."""
        return {s: r for s, r in self.shown.items() if r["value"] is not None}


def publishes(profile):
    """The oracle of a profile, walked."""
    return Oracle(load(profile)).walk()


if __name__ == "__main__":
    for name in sys.argv[1:]:
        o = publishes(name)
        per = {}
        for r in o.readings().values():
            per[r["chassis"]] = per.get(r["chassis"], 0) + 1
        print("%s: %d readings; %s" % (name, len(o.readings()),
                                       ", ".join("%s %d" % (re.sub(".*/", "", c), n)
                                                 for c, n in per.items())))
