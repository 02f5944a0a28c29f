"""The MIB module as its compilers see it."""

import functools
import json
import pathlib
import subprocess

from pysmi.codegen import JsonCodeGen
from pysmi.compiler import MibCompiler
from pysmi.parser import SmiStarParser
from pysmi.reader import FileReader
from pysmi.searcher import StubSearcher
from pysmi.writer import CallbackWriter

FOLDER = pathlib.Path(__file__).resolve().parents[2] / "mibs"
MIB = FOLDER / "KAVREL-ALARM-MIB"


@functools.cache
def base_modules():
    """The folder of the IETF's modules, which Debian's erlang-snmp has."""
    files = subprocess.run(["dpkg", "-L", "erlang-snmp"], capture_output=True, text=True, check=True).stdout.split("\n")
    return next(str(pathlib.Path(file).parent) for file in files if file.endswith("/SNMPv2-SMI.mib"))


@functools.cache
def definitions():
    """The module's definitions by name, as pysmi's compiler yields them."""
    documents = {}
    compiler = MibCompiler(SmiStarParser(), JsonCodeGen(),
                           CallbackWriter(lambda name, document, _context: documents.update({name: document})))
    compiler.addSources(FileReader(str(FOLDER)), FileReader(base_modules()))
    compiler.addSearchers(StubSearcher(*JsonCodeGen.baseMibs))
    assert compiler.compile(MIB.name)[MIB.name] == "compiled"
    return json.loads(documents[MIB.name])


def notifications():
    """The names of the objects of each notification, in their order, by the notification's OID."""
    return {"." + definition["oid"]: [member["object"] for member in definition["objects"]]
            for definition in definitions().values() if definition.get("class") == "notificationtype"}
