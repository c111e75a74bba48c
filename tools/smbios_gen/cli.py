"""Command line of tools/smbios-gen."""

import argparse
import ipaddress
import os
import sys

from . import tables


def _parser():
    p = argparse.ArgumentParser(
        prog="smbios-gen",
        description="Write SMBIOS structure tables, optionally with a Redfish-over-IP "
        "host interface (type 42), as sysfs files, a dmidecode dump or a raw table.")
    family = p.add_mutually_exclusive_group()
    family.add_argument("--ipv4", metavar="A.B.C.D", help="Redfish service IPv4 address "
                        "(default 127.0.42.1)")
    family.add_argument("--ipv6-only", metavar="ADDR", help="Redfish service IPv6 address; "
                        "no IPv4 address is announced")
    family.add_argument("--no-redfish", action="store_true",
                        help="no Redfish host interface at all")
    p.add_argument("--mask", help="service address mask (default /24 or /64)")
    p.add_argument("--port", type=int, default=443)
    p.add_argument("--vlan", type=int, default=0)
    p.add_argument("--hostname", default="bmc.local")
    p.add_argument("--discovery", choices=sorted(tables.DISCOVERY_TYPES), default="static",
                   help="Redfish service IP discovery type (default static)")
    p.add_argument("--device", choices=sorted(tables.DEVICE_TYPES), default="usb",
                   help="network device descriptor (default usb)")
    p.add_argument("--uuid", help="Redfish service UUID")
    p.add_argument("--kcs-first", action="store_true",
                   help="put a KCS management controller structure before the network one")
    p.add_argument("--first-record", metavar="ADDR",
                   help="put another Redfish host interface, announcing ADDR (IPv4 or IPv6), "
                   "before this one")
    p.add_argument("--entry-point", type=int, choices=(2, 3), default=3,
                   help="entry point format: 3 (64-bit _SM3_, default) or 2 (32-bit _SM_)")
    p.add_argument("--corrupt", metavar="KIND", choices=sorted(tables.CORRUPT_KINDS),
                   help="damage the table one way; see --list-corrupt")
    p.add_argument("--truncate", type=int, metavar="N", help="keep only the first N table bytes")
    p.add_argument("--out-sysfs", metavar="DIR",
                   help="write DIR/smbios_entry_point and DIR/DMI (like /sys/firmware/dmi/tables)")
    p.add_argument("--out-dump", metavar="FILE",
                   help="write a `dmidecode --dump-bin` image (read with --from-dump)")
    p.add_argument("--out-table", metavar="FILE", help="write the bare table ('-' for stdout)")
    p.add_argument("--describe", action="store_true",
                   help="print the table length and each structure's type, offset and end")
    p.add_argument("--list-corrupt", action="store_true", help="list corruption kinds and exit")
    return p


def _write(path, data):
    # Replace rather than rewrite in place: readers never see half a file.
    tmp = path + ".tmp"
    with open(tmp, "wb") as f:
        f.write(data)
    os.replace(tmp, path)


def _write_sysfs(directory, ep, table):
    os.makedirs(directory, exist_ok=True)
    _write(os.path.join(directory, "smbios_entry_point"), ep)
    _write(os.path.join(directory, "DMI"), table)


def options_from_args(args):
    opts = tables.Options()
    if args.no_redfish:
        opts.redfish = False
    elif args.ipv6_only:
        opts.address_format = tables.ADDRESS_FORMAT_IPV6
        opts.address = str(ipaddress.IPv6Address(args.ipv6_only))
    elif args.ipv4:
        opts.address = str(ipaddress.IPv4Address(args.ipv4))
    opts.mask = args.mask
    opts.port = args.port
    opts.vlan = args.vlan
    opts.hostname = args.hostname
    opts.discovery = tables.DISCOVERY_TYPES[args.discovery]
    opts.device = args.device
    if args.uuid:
        opts.service_uuid = args.uuid
    opts.kcs_first = args.kcs_first
    if args.first_record:
        opts.first_record = str(ipaddress.ip_address(args.first_record))
    opts.entry_point = args.entry_point
    opts.corrupt = args.corrupt
    opts.truncate = args.truncate
    return opts


def main(argv=None):
    p = _parser()
    args = p.parse_args(argv)
    if args.list_corrupt:
        for kind, text in sorted(tables.CORRUPT_KINDS.items()):
            print("%-24s %s" % (kind, text))
        return 0
    if not (args.out_sysfs or args.out_dump or args.out_table or args.describe):
        p.error("nothing to write: give --out-sysfs, --out-dump, --out-table or --describe")
    if not 0 <= args.port <= 0xFFFF or not 0 <= args.vlan <= 0xFFFFFFFF:
        p.error("--port or --vlan out of range")
    try:
        opts = options_from_args(args)
        table = tables.build(opts)
    except ValueError as e:
        p.error(str(e))
    if args.out_sysfs:
        ep, dmi = tables.sysfs_files(opts, table)
        _write_sysfs(args.out_sysfs, ep, dmi)
    if args.out_dump:
        _write(args.out_dump, tables.dump_image(opts, table))
    if args.out_table == "-":
        sys.stdout.buffer.write(table.data)
        sys.stdout.buffer.flush()
    elif args.out_table:
        _write(args.out_table, table.data)
    if args.describe:
        sys.stdout.write(tables.describe(table))
    return 0
