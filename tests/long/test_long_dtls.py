"""Strangers at the DTLS port, and what remains of them."""

from strangers import client_hello, rubbish
from test_security import port, strangers  # noqa: F401 (fixtures)
from vela import eventually


def test_what_strangers_took_is_given_back(port, strangers):  # noqa: F811
    hello, garbage = client_hello(), list(rubbish())
    before = port.memory()
    most = 0
    for _ in range(3):
        for stranger in strangers(1000):
            stranger.open(hello, timeout=0.2)
            for datagram in garbage:
                stranger.send(datagram)
            stranger.close()
        most = max(most, port.memory() - before)
    assert most < 50_000_000
    # Ten seconds after the last of them.
    eventually(lambda: port.memory() - before < 8_000_000, 20)
    print(f"3,000 strangers took {most / 1e6:.1f} MB, of which {(port.memory() - before) / 1e6:.1f} MB remain")
    assert port.manager.ask(5)
