#!/usr/bin/python3
"""Keeps a copy of a node's alarm list in step with the node: the reference for who builds a manager.

    managers/mirror.py --agent 127.0.0.1:1161 --listen 127.0.0.1:1162 --community public

It needs Debian's python3-pysnmp4. It prints a line for each change and, at Ctrl-C, the list; --json FILE keeps the list
as a file. With --user NAME and --phrases FILE (two lines: authentication with SHA, privacy with AES) it reads the node,
and takes its informs, as an SNMPv3 user; traps of that user need --engine-id, too.

How it stays in step, which is what a manager of its own has to do as well:

* Each change of an alarm has a number. The numbers of the notifications that arrive follow each other; a gap says that
  some were lost, and a number that was there before says that one came twice.
* What was lost is found in the table. The walk is begun a second after the last number was read: all up to that number
  is in the table then, and what has a later number is applied behind it.
* A heartbeat tells the last number, so that the loss of the last notification shows, too. It may overtake alarms that
  still wait in the node, which are given two seconds. Without heartbeats the number is read from time to time.
* Texts of over 255 octets are cut in a notification. An append info carries the rest. It has no number: the alarm's
  index in its objects joins the two. What no append info can carry (or when it is lost) is read from the table.
* After a rebuilt list, and when numbers begin anew, the whole table is read.
"""

import argparse
import json
import os
import queue
import sys
import threading
import time

from pysnmp.carrier.asyncore.dgram import udp
from pysnmp.entity import config, engine
from pysnmp.entity.rfc3413 import ntfrcv
from pysnmp.hlapi import (CommunityData, ContextData, ObjectIdentity, ObjectType, SnmpEngine, UdpTransportTarget,
                          UsmUserData, bulkCmd, getCmd, usmAesCfb128Protocol, usmHMACSHAAuthProtocol)
from pysnmp.proto import rfc1905

ROOT = (1, 3, 6, 1, 4, 1, 61234, 183, 4)
TRAP_OID = (1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0)
NOTIFICATIONS = ROOT + (2, 0)
CLEARED, APPEND_INFO, HEARTBEAT, LIST_REBUILT = 7, 8, 20, 30
SEVERITY_OF_NOTIFICATION = {1: 2, 2: 6, 3: 5, 4: 4, 5: 3}
SEVERITIES = {1: "cleared", 2: "indeterminate", 3: "critical", 4: "major", 5: "minor", 6: "warning"}
ACTIVE_NUMBER = ROOT + (1, 3, 1, 0)
LAST_NUMBER = ROOT + (1, 3, 3, 0)
COLUMNS = ROOT + (1, 3, 5, 1)
FIELDS = {2: "majorType", 3: "minorType", 4: "specificProblem", 5: "managedObject", 6: "eventType", 7: "eventTime",
          9: "probableCause", 10: "severity", 12: "additionalText", 15: "additionalInfo"}
COLUMN_OF = {field: column for column, field in FIELDS.items()}
# What a notification carries besides the columns, and what its append info continues.
TEXT, TEXT_CUT, INFO, INFO_CUT, INFO_REST = (ROOT + (1, 2, n, 0) for n in (1, 2, 4, 5, 7))

SETTLED = 1.0  # seconds until what has a number is in the table
PATIENCE = 2.0  # seconds for what is still on its way
REPETITIONS = 25


class Unreachable(Exception):
    """The node did not answer, or its alarm list is not there at the moment."""


class Node:
    """Reads the node's tables."""

    def __init__(self, agent, credentials):
        self.peer = (SnmpEngine(), credentials, UdpTransportTarget(agent, timeout=2, retries=2), ContextData())

    def _ask(self, command, *arguments):
        error, status, _, varbinds = next(command(*self.peer, *arguments, lookupMib=False))
        if error or status:
            raise Unreachable(str(error or status.prettyPrint()))
        return [(tuple(name), value) for name, value in varbinds]

    def get(self, *oids):
        values = [value for _, value in self._ask(getCmd, *(ObjectType(ObjectIdentity(oid)) for oid in oids))]
        if any(isinstance(value, (rfc1905.NoSuchObject, rfc1905.NoSuchInstance)) for value in values):
            raise Unreachable("the alarm list is not there")
        return values

    def numbers(self):
        """The number of the last change, and how many alarms are active."""
        return tuple(map(int, self.get(LAST_NUMBER, ACTIVE_NUMBER)))

    def rows(self):
        """The table of active alarms: fields by index."""
        rows, ends = {}, [COLUMNS + (column,) for column in FIELDS]
        while ends:
            varbinds = self._ask(bulkCmd, 0, REPETITIONS, *(ObjectType(ObjectIdentity(end)) for end in ends))
            following = {}
            for position, (name, value) in enumerate(varbinds):
                column = ends[position % len(ends)][len(COLUMNS)]
                if name[:len(COLUMNS) + 1] == COLUMNS + (column,) and not isinstance(value, rfc1905.EndOfMibView):
                    rows.setdefault(name[-1], {})[FIELDS[column]] = value_of(value)
                    following[column] = name
                else:
                    following[column] = None  # this column is through
            ends = [end for end in following.values() if end]
        return {index: row for index, row in rows.items() if len(row) == len(FIELDS)}


def value_of(value):
    return bytes(value) if hasattr(value, "asOctets") else int(value)


def time_of(value):
    """A DateAndTime as text."""
    zone = f"{chr(value[8])}{value[9]:02}:{value[10]:02}" if len(value) == 11 else ""
    return "{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{}".format(value[0] << 8 | value[1], *value[2:8]) + zone


def text_of(field, value):
    if field == "severity":
        return SEVERITIES.get(value, str(value))
    if field == "eventTime":
        return time_of(value)
    return value if isinstance(value, int) else value.decode(errors="replace")


class Mirror:
    """The copy of the list, and what is known of its being in step."""

    def __init__(self, node, changed=lambda text: None):
        self.node, self.changed = node, changed
        self.alarms = {}
        self.last = None  # the number of the last change that is in the copy
        self.walk_at = 0.0  # when the table is read anew; None: it need not be
        self.expected = None  # a number that should have arrived, and until when
        self.cut = {}  # indexes of alarms whose texts are not whole, and since when
        self.failures = 0
        self.counts = {"applied": 0, "repeated": 0, "lost": 0, "walks": 0}

    def is_in_step(self):
        return self.last is not None and self.walk_at is None and self.expected is None and not self.cut

    def take(self, varbinds, now):
        """A notification."""
        kind = varbinds.get(TRAP_OID)
        if kind is None or kind[:-1] != NOTIFICATIONS:
            return
        number, kind = varbinds.get(LAST_NUMBER), kind[-1]
        if kind == HEARTBEAT:
            self._expect(number, now)
        elif kind == LIST_REBUILT:
            self._miss("list rebuilt", now)
        elif kind == APPEND_INFO:
            self._append(varbinds)
        elif kind == CLEARED or kind in SEVERITY_OF_NOTIFICATION:
            ahead = self._ahead(number)
            if ahead <= 0:
                self.counts["repeated"] += 1
                return
            if ahead > 1:
                self.counts["lost"] += ahead - 1
                self._miss(f"{ahead - 1} lost before number {number}", now)
            self._apply(kind, varbinds, number, now)

    def _ahead(self, number):
        """How far a number is ahead of the copy; after 4294967295 comes 0. Without a copy all is behind the walk."""
        if self.last is None:
            return 0
        distance = (number - self.last) % 2**32
        return distance if distance < 2**31 else distance - 2**32

    def _apply(self, kind, varbinds, number, now):
        columns = {name[len(COLUMNS)]: value for name, value in varbinds.items() if name[:len(COLUMNS)] == COLUMNS}
        index = next(name[-1] for name in varbinds if name[:len(COLUMNS)] == COLUMNS)
        self.last = number
        self.counts["applied"] += 1
        self.cut.pop(index, None)
        if kind == CLEARED:
            self.alarms.pop(index, None)
            self.changed(f"{number} cleared {index}")
            return
        row = {FIELDS[column]: value for column, value in columns.items() if column in FIELDS}
        row.update(severity=SEVERITY_OF_NOTIFICATION[kind], additionalText=varbinds[TEXT], additionalInfo=varbinds[INFO])
        self.alarms[index] = row
        if 1 in (varbinds[TEXT_CUT], varbinds[INFO_CUT]):
            self.cut[index] = now
        self.changed(f"{number} {text_of('severity', row['severity'])} {index} {text_of('specificProblem', row['specificProblem'])}")

    def _append(self, varbinds):
        index = next((name[-1] for name in varbinds if name[:len(COLUMNS) + 1] == COLUMNS + (5,)), None)
        if self.cut.pop(index, None) is not None:
            self.alarms[index]["additionalText"] += varbinds[TEXT]
            self.alarms[index]["additionalInfo"] += varbinds[INFO_REST]

    def _expect(self, number, now):
        if self.last is not None and number != self.last and self.expected is None:
            self.expected = (number, now + PATIENCE)

    def _miss(self, reason, now):
        if self.walk_at is None:
            self.changed(f"reading the table: {reason}")
            self.walk_at = now

    def poll(self, now):
        """Asks the node whether the copy is in step."""
        try:
            number, active = self.node.numbers()
        except Unreachable:
            return self._miss("the node does not answer", now)
        self._expect(number, now)
        if number == self.last and active != len(self.alarms):
            self._miss(f"{active} alarms are active, {len(self.alarms)} are here", now)

    def step(self, now):
        """What time brings; call it when nothing waits to be taken."""
        if self.expected and self.expected[1] <= now:
            number, self.expected = self.expected[0], None
            if number != self.last:
                self._miss(f"number {number} did not arrive", now)
        if self.walk_at is not None and self.walk_at <= now:
            self._walk()
        for index in [index for index, since in self.cut.items() if since + PATIENCE <= now]:
            self._complete(index)

    def _walk(self):
        try:
            number, _ = self.node.numbers()
            time.sleep(SETTLED)
            rows = self.node.rows()
            after, active = self.node.numbers()
            if after == number and active != len(rows):
                raise Unreachable("the table is not whole")
        except Unreachable as error:
            self.failures += 1
            self.changed(f"the table cannot be read: {error}")
            self.walk_at = time.monotonic() + min(2 ** self.failures, 30) / 2
            return
        self.failures, self.walk_at, self.expected = 0, None, None
        self.alarms, self.last, self.cut = rows, number, {}
        self.counts["walks"] += 1
        self.changed(f"{number} read {len(rows)} alarms")

    def _complete(self, index):
        """Reads the texts of an alarm that were cut and not continued."""
        try:
            texts = self.node.get(*(COLUMNS + (COLUMN_OF[field], index) for field in ("additionalText", "additionalInfo")))
            self.alarms[index].update(zip(("additionalText", "additionalInfo"), map(value_of, texts)))
            del self.cut[index]
        except Unreachable:  # or cleared meanwhile, which its notification says, or the next walk
            self.cut[index] = time.monotonic()

    def as_list(self):
        return [{"index": index, **{field: text_of(field, value) for field, value in row.items()}}
                for index, row in sorted(self.alarms.items())]


def receive(options, phrases, notifications):
    """Receives on a thread of its own; what arrives while the table is read waits in the queue."""
    receiver = engine.SnmpEngine()
    config.addTransport(receiver, udp.domainName, udp.UdpTransport().openServerMode(options.listen))
    config.addV1System(receiver, "notifications", options.community)
    if options.user:
        identity = {"securityEngineId": rfc1905.univ.OctetString(hexValue=options.engine_id)} if options.engine_id else {}
        config.addV3User(receiver, options.user, config.usmHMACSHAAuthProtocol, phrases[0],
                         config.usmAesCfb128Protocol, phrases[1], **identity)

    def take(_engine, _reference, _context_id, _context, varbinds, _hint):
        found = {tuple(name): tuple(value) if tuple(name) == TRAP_OID else value for name, value in varbinds}
        plain = {name: value if name == TRAP_OID or tuple(name)[-2:-1] == (14,) else value_of(value)
                 for name, value in found.items()
                 if name == TRAP_OID or name[:len(ROOT)] == ROOT}
        notifications.put(plain)

    ntfrcv.NotificationReceiver(receiver, take)
    receiver.transportDispatcher.jobStarted(1)
    threading.Thread(target=receiver.transportDispatcher.runDispatcher, daemon=True).start()


def endpoint(text):
    host, _, port = text.rpartition(":")
    return host.strip("[]"), int(port)


def write_list(path, mirror):
    with open(path + ".new", "w") as file:
        json.dump({"inStep": mirror.is_in_step(), "number": mirror.last, **mirror.counts, "alarms": mirror.as_list()}, file)
    os.replace(path + ".new", path)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--agent", type=endpoint, required=True, metavar="HOST:PORT", help="the node's SNMP agent")
    parser.add_argument("--listen", type=endpoint, required=True, metavar="HOST:PORT", help="where notifications arrive")
    parser.add_argument("--community", default="public")
    parser.add_argument("--user", help="an SNMPv3 user, in place of the community")
    parser.add_argument("--phrases", help="file with the user's two pass phrases, a line each")
    parser.add_argument("--engine-id", help="the agent's engine id (hexadecimal), for the user's traps")
    parser.add_argument("--poll", type=float, default=60, metavar="SECONDS", help="how often the number is read")
    parser.add_argument("--json", metavar="FILE", help="keeps the list in this file")
    options = parser.parse_args()
    phrases = open(options.phrases).read().splitlines()[:2] if options.phrases else ["", ""]
    credentials = CommunityData(options.community)
    if options.user:
        credentials = UsmUserData(options.user, *phrases, authProtocol=usmHMACSHAAuthProtocol,
                                  privProtocol=usmAesCfb128Protocol)

    notifications = queue.Queue()
    receive(options, phrases, notifications)
    mirror = Mirror(Node(options.agent, credentials), lambda text: print(text, flush=True))
    next_poll, written = time.monotonic() + options.poll, None
    try:
        while True:
            try:
                mirror.take(notifications.get(timeout=0.2), time.monotonic())
                if not notifications.empty():
                    continue
            except queue.Empty:
                pass
            now = time.monotonic()
            if now >= next_poll:
                next_poll = now + options.poll
                mirror.poll(now)
            mirror.step(now)
            state = (mirror.last, mirror.is_in_step(), tuple(mirror.counts.values()), len(mirror.cut))
            if options.json and state != written:
                written = state
                write_list(options.json, mirror)
    except KeyboardInterrupt:
        for alarm in mirror.as_list():
            print("{index:>6}  {severity:13}  {eventTime}  {managedObject}  {majorType}/{minorType}  "
                  "{specificProblem}: {additionalText}".format(**alarm))
    return 0


if __name__ == "__main__":
    sys.exit(main())
