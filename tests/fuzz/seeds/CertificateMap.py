#!/usr/bin/env python3
"""Writes certificates, and texts of fingerprints, as seeds: usage CertificateMap.py FOLDER."""
import pathlib
import subprocess
import sys

NAMES = {"names": "email:Boss@EXAMPLE.net,DNS:Host.Example.NET,IP:192.0.2.7,IP:2001:db8::1,URI:http://x.example",
         "other": "otherName:1.2.3.4;UTF8:odd,RID:1.2.3,dirName:dir"}


def certificate(folder, name, names):
    """A self-signed certificate in DER form."""
    configuration, key = folder / f"{name}.cnf", folder / "key"
    configuration.write_text(f"[req]\ndistinguished_name=dn\nx509_extensions=ext\nprompt=no\n[dn]\nCN={name}\nO=o\n"
                             f"[ext]\nsubjectAltName={names}\n[dir]\nCN=d\n")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                    "-keyout", key, "-config", configuration, "-outform", "DER", "-out", folder / name], check=True,
                   capture_output=True)
    configuration.unlink()
    key.unlink()
    return (folder / name).read_bytes()


if __name__ == "__main__":
    target = pathlib.Path(sys.argv[1])
    for kind, content in NAMES.items():
        certificate(target, kind, content)
    (target / "fingerprint").write_text(":".join(["aB"] * 20))
