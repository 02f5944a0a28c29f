"""Those without a certificate at a node's DTLS port, and networks that are slow."""

import os
import select
import socket
import subprocess
import threading
import time

RECORD, MESSAGE = 13, 12  # octets of the headers of a record and of a message in it
HANDSHAKE, CERTIFICATE = 22, 11


def client_hello():
    """The first datagram of a client."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        client = subprocess.Popen(["openssl", "s_client", "-dtls1_2", "-connect",
                                   f"127.0.0.1:{probe.getsockname()[1]}"], stdin=subprocess.DEVNULL,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        hello = probe.recv(65535)
        client.kill()
        client.wait()
    assert hello[0] == HANDSHAKE and hello[RECORD] == 1
    return hello


def record(number, content, epoch=0, kind=HANDSHAKE):
    return bytes([kind, 0xFE, 0xFD]) + epoch.to_bytes(2, "big") + number.to_bytes(6, "big") + \
        len(content).to_bytes(2, "big") + content


def fragment(kind, number, length, content, offset=0):
    return bytes([kind]) + length.to_bytes(3, "big") + number.to_bytes(2, "big") + offset.to_bytes(3, "big") + \
        len(content).to_bytes(3, "big") + content


def answered(hello, request):
    """The hello again, with the cookie that a HelloVerifyRequest asks for."""
    cookie = request[RECORD + MESSAGE + 3:]
    assert request[RECORD] == 3 and len(cookie) == request[RECORD + MESSAGE + 2]
    body = hello[RECORD + MESSAGE:]
    at = 34 + 1 + body[34]  # behind version, random and session id
    body = body[:at] + bytes([len(cookie)]) + cookie + body[at + 1 + body[at]:]
    return record(1, fragment(1, 1, len(body), body))


def rubbish():
    """What a client sends to make a server keep it: messages that never become whole, and protected records."""
    for number in range(2, 12):
        yield record(number, fragment(CERTIFICATE, number, 16000, os.urandom(1000), 1000))
    for number in range(20):
        yield record(number, os.urandom(1200), epoch=1)


class Stranger:
    """A client with an address of its own, beginning with 127."""

    def __init__(self, port, number):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind((f"127.1.{number // 250 + 1}.{number % 250 + 1}", 0))
        self.socket.connect(("127.0.0.1", port))

    def send(self, datagram):
        try:
            self.socket.send(datagram)
        except ConnectionRefusedError:
            pass  # of an earlier datagram

    def open(self, hello, timeout=1.0):
        """Begins a handshake, cookie and all; yields whether the server has gone on with it."""
        self.socket.settimeout(timeout)
        self.send(hello)
        try:
            while True:
                datagram = self.socket.recv(65535)
                if datagram[RECORD] != 3:
                    return True
                self.send(answered(hello, datagram))
        except OSError:
            return False

    def close(self):
        self.socket.close()


class Flood:
    """Hellos without a cookie from ever other ports, so many a second, until it is closed."""

    def __init__(self, port, hello, rate):
        self.sent = 0
        self._begin = time.monotonic()
        self._ended = threading.Event()
        self._sockets = [Stranger(port, number) for number in range(500)]
        self._thread = threading.Thread(target=self._run, args=(hello, rate), daemon=True)
        self._thread.start()

    def _run(self, hello, rate):
        while not self._ended.wait(0.005):
            while self.sent < (time.monotonic() - self._begin) * rate:
                self._sockets[self.sent % len(self._sockets)].send(hello)
                self.sent += 1

    def rate(self):
        return self.sent / (time.monotonic() - self._begin)

    def close(self):
        self._ended.set()
        self._thread.join()
        for stranger in self._sockets:
            stranger.close()


class DelayingRelay:
    """A port that is as far from another as a delay in seconds, each way, says."""

    def __init__(self, port, delay):
        self._target = ("127.0.0.1", port)
        self._delay = delay
        self._waiting = []  # (time, socket to send from, address)
        self._links = {}  # by the client's address: the socket towards the target
        self._front = self._socket()
        self.port = self._front.getsockname()[1]
        self._ended = False
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    @staticmethod
    def _socket():
        made = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        made.bind(("127.0.0.1", 0))
        return made

    def _run(self):
        while not self._ended:
            readable, _, _ = select.select([self._front, *self._links.values()], [], [], 0.002)
            due = time.monotonic() + self._delay
            for source in readable:
                datagram, sender = source.recvfrom(65535)
                if source is self._front:
                    if sender not in self._links:
                        self._links[sender] = self._socket()
                    self._waiting.append((due, datagram, self._links[sender], self._target))
                else:
                    client = next(address for address, link in self._links.items() if link is source)
                    self._waiting.append((due, datagram, self._front, client))
            while self._waiting and self._waiting[0][0] <= time.monotonic():
                _, datagram, source, address = self._waiting.pop(0)
                source.sendto(datagram, address)

    def close(self):
        self._ended = True
        self._thread.join()
        for made in (self._front, *self._links.values()):
            made.close()
