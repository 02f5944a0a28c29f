#!/usr/bin/env python3
"""Writes the datagrams of a client's handshake as seeds: usage DtlsOpening.py FOLDER."""
import pathlib
import sys

from CertificateMap import NAMES, certificate
from DtlsRecords import hello, message, record


def row(*datagrams):
    return b"".join(len(datagram).to_bytes(2, "big") + datagram for datagram in datagrams)


if __name__ == "__main__":
    folder = pathlib.Path(sys.argv[1])
    first = record(hello(b"c" * 32))
    der = certificate(folder, "certificate", NAMES["names"])
    chain = (len(der) + 3).to_bytes(3, "big") + len(der).to_bytes(3, "big") + der
    flight = [record(message(11, 2, chain)), record(message(16, 3, b"\x41" + bytes(65))),
              record(message(15, 4, b"\4\3\0\x46" + bytes(70))), record(b"\1", 20), record(bytes(40), 22, 1)]
    (folder / "hello").write_bytes(row(first))
    (folder / "flight").write_bytes(row(first, *flight))
    (folder / "packed").write_bytes(row(first, b"".join(flight)))
    (folder / "early").write_bytes(row(first, *reversed(flight)))
