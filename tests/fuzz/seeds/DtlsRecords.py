#!/usr/bin/env python3
"""Writes seed datagrams for the readers of DTLS records and v3 messages: usage DtlsRecords.py FOLDER."""
import pathlib
import sys


def record(content, kind=22, epoch=0):
    return bytes([kind]) + b"\xfe\xfd" + epoch.to_bytes(2, "big") + (1).to_bytes(6, "big") + \
        len(content).to_bytes(2, "big") + content


def message(kind, number, content):
    length = len(content).to_bytes(3, "big")
    return bytes([kind]) + length + number.to_bytes(2, "big") + bytes(3) + length + content


def hello(cookie=b""):
    extensions = bytes.fromhex("000a000400020017" "000d000a000804030503060308040016000000170000")
    body = b"\xfe\xfd" + bytes(32) + b"\0" + bytes([len(cookie)]) + cookie + bytes.fromhex("0004c02bc02c0100") + \
        len(extensions).to_bytes(2, "big") + extensions
    return message(1, 1 if cookie else 0, body)


def tlv(tag, content):
    return bytes([tag, len(content)]) + content


def v3(pdu):
    scoped = tlv(0x30, tlv(4, b"engine") + tlv(4, b"") + tlv(pdu, bytes.fromhex("0201010201000201003000")))
    return tlv(0x30, b"\2\1\3" + tlv(0x30, b"\2\1\1") + tlv(4, b"") + scoped)


if __name__ == "__main__":
    folder = pathlib.Path(sys.argv[1])
    seeds = {"hello": record(hello()), "cookie": record(hello(b"c" * 32)), "inform": v3(0xA6), "trap": v3(0xA7),
             "flight": record(message(11, 2, bytes(100))) + record(message(16, 3, bytes(66))) +
             record(message(15, 4, bytes(70))) + record(b"\1", 20) + record(bytes(40), 22, 1),
             "data": record(bytes(60), 23, 1), "alert": record(b"\2\x28", 21)}
    for name, content in seeds.items():
        (folder / name).write_bytes(content)
