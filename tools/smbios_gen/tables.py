"""SMBIOS structure tables with an optional Redfish-over-IP host interface.

The table holds a BIOS (type 0) and a System (type 1) structure, optionally a
KCS management controller (type 42) and a network host interface (type 42,
interface type 0x40) carrying one Redfish-over-IP protocol record (0x04), and
the end-of-table marker (type 127). Corruptions damage the table in one
specific way each so that readers can be tested against it.
"""

import dataclasses
import ipaddress
import struct
import uuid
from dataclasses import dataclass, field
from typing import List, Optional

SMBIOS_VERSION = (3, 3, 0)  # type 42 is fully described from 3.2 on

DISCOVERY_TYPES = {"static": 1, "dhcp": 2, "auto": 3, "host": 4}
ADDRESS_FORMAT_IPV4 = 1
ADDRESS_FORMAT_IPV6 = 2

INTERFACE_KCS = 0x02
INTERFACE_NETWORK = 0x40
PROTOCOL_IPMI = 0x02
PROTOCOL_REDFISH_OVER_IP = 0x04
PROTOCOL_OEM = 0xF0

DEVICE_TYPES = {"usb": 0x02, "pci": 0x03, "usb-v2": 0x04, "pci-v2": 0x05}

# Each corruption, and what a careful reader must make of it.
CORRUPT_KINDS = {
    "struct-past-end": "the host interface structure's length runs past the end of the table",
    "no-terminator": "the host interface structure's strings end without a terminator "
    "at the end of the table",
    "short-header": "a structure before the host interface declares a length below 4",
    "iface-data-past-struct": "the interface-specific data length runs past the structure",
    "record-past-struct": "the Redfish protocol record's length runs past its structure",
    "count-past-struct": "the protocol record count names more records than the structure holds",
    "short-record": "the Redfish protocol record is shorter than its fixed 91 bytes",
    "hostname-past-record": "the service hostname length runs past its protocol record "
    "(the rest of the record stays usable)",
    "extra-record": "a non-Redfish protocol record precedes the Redfish one (valid, must be skipped)",
    "entry-point-checksum": "the entry point's checksum is wrong (the table itself is intact)",
}

# Redfish-over-IP protocol record: fixed part before the hostname.
REDFISH_RECORD_FIXED = 91

END_OF_TABLE = 127


@dataclass
class Options:
    redfish: bool = True
    address_format: int = ADDRESS_FORMAT_IPV4
    address: str = "127.0.42.1"
    mask: Optional[str] = None
    port: int = 443
    vlan: int = 0
    discovery: int = 1
    hostname: str = "bmc.local"
    device: str = "usb"
    service_uuid: str = "2f6a3d4e-8b1c-4d2e-9f10-a1b2c3d4e5f6"
    kcs_first: bool = False
    first_record: Optional[str] = None  # address of another Redfish interface placed first
    corrupt: Optional[str] = None
    truncate: Optional[int] = None
    entry_point: int = 3


@dataclass
class Structure:
    type: int
    handle: int
    offset: int
    length: int  # declared length of the formatted area
    end: int  # first byte after the string set


@dataclass
class Table:
    data: bytes
    structures: List[Structure] = field(default_factory=list)
    announced_length: int = 0  # what the entry point announces


def _strings(*texts):
    """String set following a formatted area: NUL-terminated texts, then one more NUL."""
    if not texts:
        return b"\0\0"
    return b"".join(t.encode("ascii") + b"\0" for t in texts) + b"\0"


def _structure(stype, handle, body):
    return struct.pack("<BBH", stype, 4 + len(body), handle) + body


def _bios(handle):
    body = struct.pack(
        "<BBHBBQBBBBBBH",
        1, 2,  # vendor, version strings
        0xE800,  # starting address segment
        3,  # release date string
        0xFF,  # ROM size: see extended size
        0x80 | 0x800 | 0x8000,  # characteristics: PCI, flash upgradeable, CD boot
        0x01, 0x0C,  # extension bytes: ACPI; UEFI + targeted content
        1, 0,  # BIOS release
        0xFF, 0xFF,  # no embedded controller
        16,  # extended ROM size: 16 MiB
    )
    return _structure(0, handle, body) + _strings("Emulated Firmware", "1.0.0", "01/01/2026")


def _system(handle):
    system_uuid = uuid.UUID("6c1f0f5e-2a4b-4c3d-8e9f-0a1b2c3d4e5f").bytes_le
    body = struct.pack("<BBBB16sBBB", 1, 2, 3, 4, system_uuid, 0x06, 5, 6)
    return _structure(1, handle, body) + _strings(
        "Emulated Systems", "Emulated Host", "1", "EMU0000001", "EMU-SKU", "Emulated")


def _device_descriptor(device):
    """Interface-specific data: device type, its descriptor, and the strings it refers to."""
    mac = bytes([0x02, 0x00, 0x00, 0x42, 0x00, 0x01])
    dtype = DEVICE_TYPES[device]
    strings = []
    if device == "usb":
        serial = "EMU42".encode("utf-16-le")
        desc = struct.pack("<HH", 0x1D6B, 0x0104) + bytes([2 + len(serial), 0x03]) + serial
    elif device == "pci":
        desc = struct.pack("<HHHH", 0x1AF4, 0x1000, 0x1AF4, 0x0001)
    elif device == "usb-v2":
        # length, vendor, product, serial string index, MAC, characteristics, bootstrap handle
        desc = struct.pack("<BHHB6sHH", 16, 0x1D6B, 0x0104, 1, mac, 0, 0)
        strings.append("EMU42")
    else:  # pci-v2
        # length, vendor, device, subvendor, subsystem, MAC, segment, bus, dev/fn,
        # characteristics, bootstrap handle
        desc = struct.pack("<BHHHH6sHBBHH", 23, 0x1AF4, 0x1000, 0x1AF4, 0x0001, mac, 0, 0, 0x18, 0, 0)
    return bytes([dtype]) + desc, strings


def _ip_bytes(text, address_format):
    if not text:
        return bytes(16)
    if address_format == ADDRESS_FORMAT_IPV4:
        return ipaddress.IPv4Address(text).packed + bytes(12)
    return ipaddress.IPv6Address(text).packed


def redfish_record_data(opts):
    """Protocol-specific data of the Redfish-over-IP record."""
    fmt = opts.address_format
    if opts.mask is not None:
        mask = opts.mask
    else:
        mask = "255.255.255.0" if fmt == ADDRESS_FORMAT_IPV4 else "ffff:ffff:ffff:ffff::"
    # The host side mirrors the service: a neighbour in the same subnet.
    if fmt == ADDRESS_FORMAT_IPV4:
        host_ip = str(ipaddress.IPv4Address(opts.address) + 1)
    else:
        host_ip = str(ipaddress.IPv6Address(opts.address) + 1)
    name = opts.hostname.encode("ascii")
    return (
        uuid.UUID(opts.service_uuid).bytes_le
        + bytes([1, fmt])  # host IP: static, same family as the service
        + _ip_bytes(host_ip, fmt)
        + _ip_bytes(mask, fmt)
        + bytes([opts.discovery, fmt])
        + _ip_bytes(opts.address, fmt)
        + _ip_bytes(mask, fmt)
        + struct.pack("<HIB", opts.port, opts.vlan, len(name))
        + name
    )


def _record(ptype, data, declared=None):
    return bytes([ptype, len(data) if declared is None else declared]) + data


def _host_interface(handle, opts):
    """The network host interface structure, with the corruption applied when it lives here."""
    kind = opts.corrupt
    iface, strings = _device_descriptor(opts.device)
    rdata = redfish_record_data(opts)
    if kind == "short-record":
        rdata = rdata[:60]
    if kind == "hostname-past-record":
        rdata = rdata[:REDFISH_RECORD_FIXED - 1] + bytes([len(opts.hostname) + 20]) + \
            rdata[REDFISH_RECORD_FIXED:]
    records = []
    if kind == "extra-record":
        # An OEM record: enterprise number then opaque bytes; its length is not 91.
        records.append(_record(PROTOCOL_OEM, struct.pack("<I", 0x0000A5A5) + b"\x01\x02\x03"))
    records.append(_record(PROTOCOL_REDFISH_OVER_IP, rdata,
                           declared=0xFF if kind == "record-past-struct" else None))
    count = len(records) + (2 if kind == "count-past-struct" else 0)
    iface_len = 0xFF if kind == "iface-data-past-struct" else len(iface)
    body = struct.pack("<BB", INTERFACE_NETWORK, iface_len) + iface + bytes([count]) + b"".join(records)
    formatted = _structure(42, handle, body)
    if len(formatted) > 255:
        raise ValueError("host interface structure exceeds 255 bytes; shorten the hostname")
    return formatted, strings


def _kcs_interface(handle):
    # A KCS controller with an IPMI protocol record: not a network interface, so a
    # reader looking for Redfish must pass over it even though it holds records.
    ipmi = _record(PROTOCOL_IPMI, bytes([0x20, 0x00, 0xA2, 0x0C]))
    body = struct.pack("<BB", INTERFACE_KCS, 4) + struct.pack("<I", 0x00000CA2) + bytes([1]) + ipmi
    return _structure(42, handle, body) + _strings()


def build(opts):
    """Returns the Table described by opts."""
    if opts.corrupt is not None and opts.corrupt not in CORRUPT_KINDS:
        raise ValueError("unknown corruption %r" % opts.corrupt)
    if opts.corrupt is not None and not opts.redfish and opts.corrupt != "entry-point-checksum":
        raise ValueError("corruption %r needs the Redfish host interface" % opts.corrupt)
    parts = []  # (type, handle, bytes, declared length)
    handle = 0

    def add(stype, blob, declared=None):
        nonlocal handle
        parts.append((stype, handle, blob, blob[1] if declared is None else declared))
        handle += 1

    add(0, _bios(handle))
    system = _system(handle)
    if opts.corrupt == "short-header":
        system = system[:1] + bytes([2]) + system[2:]
    add(1, system)
    if opts.kcs_first:
        add(42, _kcs_interface(handle))
    if opts.redfish and opts.first_record:
        # Firmware that publishes two interfaces; a reader taking the first gets this one.
        family = ipaddress.ip_address(opts.first_record).version
        other = dataclasses.replace(
            opts, address=opts.first_record, mask=None, corrupt=None,
            address_format=ADDRESS_FORMAT_IPV4 if family == 4 else ADDRESS_FORMAT_IPV6)
        formatted, strings = _host_interface(handle, other)
        add(42, formatted + _strings(*strings))
    ends_table = False
    if opts.redfish:
        formatted, strings = _host_interface(handle, opts)
        if opts.corrupt == "struct-past-end":
            # Last in the table, declaring two bytes more than remain.
            formatted = formatted[:1] + bytes([len(formatted) + 2]) + formatted[2:]
            add(42, formatted)
            ends_table = True
        elif opts.corrupt == "no-terminator":
            add(42, formatted + (strings[0].encode("ascii") if strings else b"XY"))
            ends_table = True
        else:
            add(42, formatted + _strings(*strings))
    if not ends_table:
        add(END_OF_TABLE, _structure(END_OF_TABLE, handle, b"") + _strings())

    data = b""
    structures = []
    for stype, h, blob, declared in parts:
        structures.append(Structure(stype, h, len(data), declared, len(data) + len(blob)))
        data += blob
    table = Table(data, structures, len(data))
    if opts.truncate is not None:
        if opts.truncate < 0:
            raise ValueError("--truncate needs a length of 0 or more")
        table.data = data[:opts.truncate]
    return table


def _checksum_byte(blob):
    return (-sum(blob)) & 0xFF


def entry_point(opts, table, address):
    """The entry point announcing table at a physical address."""
    major, minor, docrev = SMBIOS_VERSION
    if opts.entry_point == 3:
        ep = bytearray(struct.pack("<5sBBBBBBBIQ", b"_SM3_", 0, 0x18, major, minor, docrev,
                                   1, 0, table.announced_length, address))
        ep[5] = _checksum_byte(ep)
    else:
        count = sum(1 for s in table.structures)
        ep = bytearray(struct.pack("<4sBBBBHB5s5sBHIHB", b"_SM_", 0, 0x1F, major, minor, 0xFFFF,
                                   0, bytes(5), b"_DMI_", 0, table.announced_length,
                                   address, count, (major << 4) | (minor & 0x0F)))
        ep[0x15] = _checksum_byte(ep[0x10:0x1F])
        ep[0x04] = _checksum_byte(ep)
    if opts.corrupt == "entry-point-checksum":
        ep[5 if opts.entry_point == 3 else 4] ^= 0x5A
    return bytes(ep)


DUMP_TABLE_OFFSET = 0x20
SYSFS_TABLE_ADDRESS = 0x7FFF0000


def dump_image(opts, table):
    """The `dmidecode --dump-bin` layout: entry point at 0, table at 0x20."""
    ep = entry_point(opts, table, DUMP_TABLE_OFFSET)
    return ep.ljust(DUMP_TABLE_OFFSET, b"\0") + table.data


def sysfs_files(opts, table):
    """Contents of smbios_entry_point and DMI as the kernel exports them."""
    return entry_point(opts, table, SYSFS_TABLE_ADDRESS), table.data


def describe(table):
    lines = ["length=%d announced=%d" % (len(table.data), table.announced_length)]
    for s in table.structures:
        lines.append("type=%d handle=0x%04x offset=%d length=%d end=%d"
                     % (s.type, s.handle, s.offset, s.length, s.end))
    return "\n".join(lines) + "\n"
