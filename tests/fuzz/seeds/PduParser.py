#!/usr/bin/env python3
"""Writes seed datagrams for the notification decoder: usage PduParser.py FOLDER."""
import pathlib
import sys

ROOT = (1, 3, 6, 1, 4, 1, 61234, 183, 4)
ALARM, ALERT = ROOT + (1, 3, 5, 1), ROOT + (1, 4, 5, 1)
SYS_UP_TIME = (1, 3, 6, 1, 2, 1, 1, 3, 0)
SNMP_TRAP_OID = (1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0)


def tlv(tag, contents):
    length = len(contents)
    if length < 0x80:
        return bytes([tag, length]) + contents
    octets = length.to_bytes(4, "big").lstrip(b"\0")
    return bytes([tag, 0x80 | len(octets)]) + octets + contents


def integer(value, tag=0x02):
    return tlv(tag, value.to_bytes(value.bit_length() // 8 + 1, "big", signed=True))


def identifier(arcs):
    contents = b""
    for arc in (arcs[0] * 40 + arcs[1],) + tuple(arcs[2:]):
        groups = [arc & 0x7F]
        while arc := arc >> 7:
            groups.insert(0, 0x80 | arc & 0x7F)
        contents += bytes(groups)
    return tlv(0x06, contents)


def notification(last, objects, pdu=0xA7):
    objects = [(SYS_UP_TIME, integer(4711, 0x43)), (SNMP_TRAP_OID, identifier(ROOT + (2, 0, last)))] + objects
    varbinds = tlv(0x30, b"".join(tlv(0x30, identifier(name) + value) for name, value in objects))
    return tlv(0x30, integer(1) + tlv(0x04, b"VelaDummy") +
               tlv(pdu, integer(0x12345678) + integer(0) + integer(0) + varbinds))


def identity(columns, index, name):
    return [(columns + (5, index), tlv(0x04, name)), (columns + (2, index), integer(193, 0x42)),
            (columns + (3, index), integer(4000000000, 0x42))]


SEEDS = {
    "alarm": notification(4, identity(ALARM, 4294967295, b"ManagedElement=1") + [(ROOT + (1, 2, 6, 0), integer(1))]),
    "alert": notification(13, identity(ALERT, 0, b"")),
    "inform": notification(7, identity(ALARM, 1, b"m" * 300), pdu=0xA6),
    "append": notification(8, identity(ALARM, 1, b"m") + [(ALARM + (14, 0), identifier((0, 0)))]),
    "rebuilt": notification(30, [(ROOT + (1, 3, 4, 0), tlv(0x04, b""))]),
    "long_identifier": notification(4, [(tuple([1, 3] + [2**32 - 1] * 126), tlv(0x05, b""))]),
    "nested": notification(4, [(ROOT, tlv(0x30, tlv(0x30, tlv(0x30, b""))))]),
    "long": notification(4, identity(ALARM, 1, b"m" * 60000)),
}

for seed, octets in SEEDS.items():
    (pathlib.Path(sys.argv[1]) / seed).write_bytes(octets)
