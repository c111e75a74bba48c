"""A generated tree in the shape the common open-source BMC web server gives a
rack server: readings only in Sensors, ThermalSubsystem (Fans, ThermalMetrics),
PowerSubsystem (PowerSupplies with Metrics) and EnvironmentMetrics, no Thermal
or Power. Resource shapes follow DMTF's public mockups and a captured OpenBMC
tree; the sensor count is a parameter so that large BMCs cost nothing to make.
"""

from . import model
from .model import ROOT

SYSTEM = model.SYSTEMS + "/system"
MANAGER = model.MANAGERS + "/bmc"
CHASSIS = model.CHASSIS + "/chassis"
SENSORS = CHASSIS + "/Sensors"
MAKER = "Contoso"
PSU_COUNT = 2
LOG_ENTRIES = 5

# Sensors are dealt out over these kinds in turn, so any count has a mix:
# (Id prefix, name pattern, ReadingType, ReadingUnits, typical reading, range
# maximum). That server names a sensor's Id "<prefix>_<name>".
KINDS = (
    ("temperature", "CPU{n}_Temp", "Temperature", "Cel", 45.0, 105.0),
    ("temperature", "DIMM{n}_Temp", "Temperature", "Cel", 38.0, 95.0),
    ("fan_tach", "FAN{n}_TACH", "Rotational", "RPM", 6200.0, 25000.0),
    ("voltage", "P12V_{n}", "Voltage", "V", 12.06, 14.0),
    ("power", "PSU{n}_Input_Power", "Power", "W", 412.0, 2000.0),
    ("current", "PSU{n}_Input_Current", "Current", "A", 1.8, 10.0),
    ("temperature", "Inlet{n}_Temp", "Temperature", "Cel", 24.0, 60.0),
    ("fan_pwm", "FAN{n}_PWM", "Percent", "%", 42.0, 100.0),
)
TACH, VOLTAGE, POWER_IN, CURRENT_IN, INLET, PWM = 2, 3, 4, 5, 6, 7

# A default build of that server honours 'only', $select, $top and $skip and
# answers 501 to $expand and $filter. Its root leaves TopSkipQuery out; it is
# listed here because this emulator honours only what the root advertises.
PROTOCOL_FEATURES = {
    "DeepOperations": {"DeepPATCH": False, "DeepPOST": False},
    "ExcerptQuery": False,
    "ExpandQuery": {"ExpandAll": False, "Levels": False, "Links": False, "NoLinks": False},
    "FilterQuery": False,
    "OnlyMemberQuery": True,
    "SelectQuery": True,
    "TopSkipQuery": True,
}
RESET_TYPES = ["On", "ForceOff", "ForceOn", "ForceRestart", "GracefulRestart", "GracefulShutdown",
               "PowerCycle"]
OK = {"Health": "OK", "State": "Enabled"}


def link(path):
    return {"@odata.id": path}


def collection(path, odata_type, name, members):
    return {"@odata.id": path, "@odata.type": "#%s.%s" % (odata_type, odata_type), "Name": name,
            "Members": [link(m) for m in members], "Members@odata.count": len(members)}


def make_sensors(count):
    """[(kind index, ordinal, body)] for `count` sensors."""
    out = []
    for i in range(count):
        k, n = i % len(KINDS), i // len(KINDS)
        prefix, pattern, reading_type, units, typical, top = KINDS[k]
        name = pattern.format(n=n)
        ident = prefix + "_" + name
        # Distinct, plausible values: a reader that mixes sensors up shows it.
        reading = round(typical * (1 + 0.01 * (n % 9)), 2)
        out.append((k, n, {
            "@odata.id": SENSORS + "/" + ident,
            "@odata.type": "#Sensor.v1_2_0.Sensor",
            "Id": ident,
            "Name": name.replace("_", " "),
            "Reading": reading,
            "ReadingRangeMax": top,
            "ReadingRangeMin": 0.0,
            "ReadingType": reading_type,
            "ReadingUnits": units,
            "Status": dict(OK),
        }))
    return out


def excerpt(sensor, **extra):
    out = {"DataSourceUri": sensor["@odata.id"], "Reading": sensor["Reading"]}
    out.update(extra)
    return out


def build(sensor_count):
    """{request path: body} of the whole service."""
    res = {}
    sensors = make_sensors(sensor_count)
    by_kind = {}
    for k, n, body in sensors:
        by_kind.setdefault(k, []).append(body)
        res[body["@odata.id"]] = body
    res[SENSORS] = collection(SENSORS, "SensorCollection", "Sensors", [b["@odata.id"] for _, _, b in sensors])
    temps = [b for k, _, b in sensors if KINDS[k][2] == "Temperature"]

    res["/redfish"] = {"v1": "/redfish/v1/"}
    res[ROOT] = {
        "@odata.id": ROOT, "@odata.type": "#ServiceRoot.v1_15_0.ServiceRoot", "Id": "RootService",
        "Name": "Root Service", "RedfishVersion": "1.17.0", "UUID": "6f1c2b7a-3d4e-4f5a-9b8c-0d1e2f3a4b5c",
        "ProtocolFeaturesSupported": PROTOCOL_FEATURES,
        "Systems": link(model.SYSTEMS), "Chassis": link(model.CHASSIS),
        "Managers": link(model.MANAGERS), "SessionService": link(model.SESSION_SERVICE),
        "Links": {"ManagerProvidingService": link(MANAGER), "Sessions": link(model.SESSIONS)},
    }

    res[model.SYSTEMS] = collection(model.SYSTEMS, "ComputerSystemCollection",
                                    "Computer System Collection", [SYSTEM])
    res[SYSTEM] = {
        "@odata.id": SYSTEM, "@odata.type": "#ComputerSystem.v1_20_0.ComputerSystem", "Id": "system",
        "Name": "system", "SystemType": "Physical", "Manufacturer": MAKER, "Model": "CS-3100",
        "SerialNumber": "CS3100-0042", "UUID": "0a1b2c3d-4e5f-4a6b-8c7d-9e0f1a2b3c4d", "PowerState": "On",
        "BiosVersion": "2.4.1", "Status": dict(OK, HealthRollup="OK"),
        "Actions": {"#ComputerSystem.Reset": {"target": SYSTEM + model.RESET_SUFFIX,
                                              "@Redfish.ActionInfo": SYSTEM + model.ACTION_INFO_SUFFIX}},
        "LogServices": link(SYSTEM + "/LogServices"),
        "Links": {"Chassis": [link(CHASSIS)], "ManagedBy": [link(MANAGER)]},
    }
    res[SYSTEM + model.ACTION_INFO_SUFFIX] = {
        "@odata.id": SYSTEM + model.ACTION_INFO_SUFFIX, "@odata.type": "#ActionInfo.v1_1_2.ActionInfo",
        "Id": "ResetActionInfo", "Name": "Reset Action Info",
        "Parameters": [{"AllowableValues": RESET_TYPES, "DataType": "String", "Name": "ResetType",
                        "Required": True}],
    }
    logs = SYSTEM + "/LogServices"
    res[logs] = collection(logs, "LogServiceCollection", "System Log Services", [logs + "/EventLog"])
    res[logs + "/EventLog"] = {
        "@odata.id": logs + "/EventLog", "@odata.type": "#LogService.v1_2_0.LogService", "Id": "EventLog",
        "Name": "Event Log Service", "OverWritePolicy": "WrapsWhenFull", "Entries": link(logs + "/EventLog/Entries"),
    }
    entries = logs + "/EventLog/Entries"
    res[entries] = {
        "@odata.id": entries, "@odata.type": "#LogEntryCollection.LogEntryCollection",
        "Name": "System Event Log Entries",
        # That server lists whole entries in the collection, not links.
        "Members": [{
            "@odata.id": "%s/%d" % (entries, i), "@odata.type": "#LogEntry.v1_9_0.LogEntry", "Id": str(i),
            "Name": "System Event Log Entry", "Created": "2024-08-2%dT05:27:1%d+00:00" % (i, i),
            "EntryType": "Event", "Severity": "OK" if i % 2 else "Warning",
            "Message": "Host system DC power is %s" % ("on" if i % 2 else "off"),
            "MessageId": "OpenBMC.0.1.DCPowerO%s" % ("n" if i % 2 else "ff"), "MessageArgs": [],
        } for i in range(1, LOG_ENTRIES + 1)],
        "Members@odata.count": LOG_ENTRIES,
    }

    res[model.MANAGERS] = collection(model.MANAGERS, "ManagerCollection", "Manager Collection", [MANAGER])
    nics = MANAGER + "/EthernetInterfaces"
    res[MANAGER] = {
        "@odata.id": MANAGER, "@odata.type": "#Manager.v1_14_0.Manager", "Id": "bmc", "Name": "OpenBmc Manager",
        "ManagerType": "BMC", "Model": "OpenBmc", "FirmwareVersion": "2.15.0-dev", "PowerState": "On",
        "UUID": "5e6f7a8b-9c0d-4e1f-a2b3-c4d5e6f7a8b9", "Status": dict(OK),
        "EthernetInterfaces": link(nics),
        "Links": {"ManagerForServers": [link(SYSTEM)], "ManagerForChassis": [link(CHASSIS)],
                  "ManagerInChassis": link(CHASSIS)},
    }
    res[nics] = collection(nics, "EthernetInterfaceCollection", "Ethernet Network Interface Collection",
                           [nics + "/eth0"])
    res[nics + "/eth0"] = {
        "@odata.id": nics + "/eth0", "@odata.type": "#EthernetInterface.v1_6_0.EthernetInterface",
        "Id": "eth0", "Name": "Manager Ethernet Interface", "Description": "Management Network Interface",
        "MACAddress": "3c:6d:66:0a:1b:2c", "HostName": "bmc", "InterfaceEnabled": True, "LinkStatus": "LinkUp",
        "SpeedMbps": 1000, "FullDuplex": True,
        "IPv4Addresses": [{"Address": "192.168.50.20", "AddressOrigin": "DHCP", "Gateway": "192.168.50.1",
                           "SubnetMask": "255.255.255.0"}],
        "Status": dict(OK),
    }

    thermal = CHASSIS + "/ThermalSubsystem"
    power = CHASSIS + "/PowerSubsystem"
    res[model.CHASSIS] = collection(model.CHASSIS, "ChassisCollection", "Chassis Collection", [CHASSIS])
    res[CHASSIS] = {
        "@odata.id": CHASSIS, "@odata.type": "#Chassis.v1_22_0.Chassis", "Id": "chassis", "Name": "chassis",
        "ChassisType": "RackMount", "Manufacturer": MAKER, "Model": "CS-3100", "SerialNumber": "CS3100-0042",
        "PartNumber": "CS-3100-A", "PowerState": "On", "Status": dict(OK, HealthRollup="OK"),
        "Sensors": link(SENSORS), "ThermalSubsystem": link(thermal), "PowerSubsystem": link(power),
        "EnvironmentMetrics": link(CHASSIS + "/EnvironmentMetrics"),
        "Links": {"ComputerSystems": [link(SYSTEM)], "ManagedBy": [link(MANAGER)]},
    }

    # ThermalSubsystem: one fan per tachometer, every temperature in ThermalMetrics.
    fans = thermal + "/Fans"
    res[thermal] = {
        "@odata.id": thermal, "@odata.type": "#ThermalSubsystem.v1_0_0.ThermalSubsystem",
        "Id": "ThermalSubsystem", "Name": "Thermal Subsystem", "Status": dict(OK, HealthRollup="OK"),
        "Fans": link(fans), "ThermalMetrics": link(thermal + "/ThermalMetrics"),
    }
    fan_paths = []
    pwm = by_kind.get(PWM, [])
    for n, tach in enumerate(by_kind.get(TACH, [])):
        path = "%s/fan%d" % (fans, n)
        fan_paths.append(path)
        percent = pwm[n]["Reading"] if n < len(pwm) else round(100 * tach["Reading"] / tach["ReadingRangeMax"], 1)
        res[path] = {
            "@odata.id": path, "@odata.type": "#Fan.v1_3_0.Fan", "Id": "fan%d" % n, "Name": "fan%d" % n,
            "HotPluggable": True, "Status": dict(OK),
            "SpeedPercent": {"DataSourceUri": tach["@odata.id"], "Reading": percent, "SpeedRPM": tach["Reading"]},
        }
    res[fans] = collection(fans, "FanCollection", "Fan Collection", fan_paths)
    res[thermal + "/ThermalMetrics"] = {
        "@odata.id": thermal + "/ThermalMetrics", "@odata.type": "#ThermalMetrics.v1_0_1.ThermalMetrics",
        "Id": "ThermalMetrics", "Name": "Thermal Metrics",
        "TemperatureReadingsCelsius": [excerpt(t, DeviceName=t["Name"]) for t in temps],
        "TemperatureReadingsCelsius@odata.count": len(temps),
    }

    # PowerSubsystem: each supply's Metrics point at its own sensors where they exist.
    psus = power + "/PowerSupplies"
    res[power] = {
        "@odata.id": power, "@odata.type": "#PowerSubsystem.v1_1_0.PowerSubsystem", "Id": "PowerSubsystem",
        "Name": "Power Subsystem", "CapacityWatts": 2000 * PSU_COUNT, "Status": dict(OK),
        "PowerSupplies": link(psus),
    }
    psu_paths = []
    for n in range(PSU_COUNT):
        path = "%s/PowerSupply%d" % (psus, n)
        psu_paths.append(path)
        res[path] = {
            "@odata.id": path, "@odata.type": "#PowerSupply.v1_5_0.PowerSupply", "Id": "PowerSupply%d" % n,
            "Name": "PowerSupply%d" % n, "Manufacturer": MAKER, "Model": "PS-2000", "PowerCapacityWatts": 2000,
            "PowerSupplyType": "AC", "Status": dict(OK), "Metrics": link(path + "/Metrics"),
        }
        metrics = {"@odata.id": path + "/Metrics", "@odata.type": "#PowerSupplyMetrics.v1_0_0.PowerSupplyMetrics",
                   "Id": "Metrics", "Name": "Metrics for PowerSupply%d" % n, "Status": dict(OK)}
        for prop, kind in (("InputPowerWatts", POWER_IN), ("InputCurrentAmps", CURRENT_IN), ("InputVoltage", VOLTAGE)):
            if n < len(by_kind.get(kind, [])):
                metrics[prop] = excerpt(by_kind[kind][n])
        res[path + "/Metrics"] = metrics
    res[psus] = collection(psus, "PowerSupplyCollection", "Power Supply Collection", psu_paths)

    env = {"@odata.id": CHASSIS + "/EnvironmentMetrics",
           "@odata.type": "#EnvironmentMetrics.v1_3_0.EnvironmentMetrics", "Id": "EnvironmentMetrics",
           "Name": "Chassis Environment Metrics"}
    if by_kind.get(POWER_IN):
        env["PowerWatts"] = excerpt(by_kind[POWER_IN][0])
    if by_kind.get(INLET):
        env["TemperatureCelsius"] = excerpt(by_kind[INLET][0])
    env["FanSpeedsPercent"] = [excerpt(p, DeviceName=p["Name"]) for p in pwm]
    res[CHASSIS + "/EnvironmentMetrics"] = env
    return res
