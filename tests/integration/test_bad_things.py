"""Bad things on a running node cost themselves only: five good targets, one of each kind, stay ENABLED and get their
alarms, and the log names what is bad. tests/long does each alone."""

from bad_things import BAD_THINGS, Five


def test_what_bad_things_cost(folder, nodes, receivers, make_receiver, credentials, stopping):
    five = Five(folder, nodes, receivers, make_receiver, credentials, stopping).start()
    alone = {what: BAD_THINGS[what] for what in ("an alarm that no message carries", "an agent address that is none")}
    five.cost_nothing_but_themselves({what: thing for what, thing in BAD_THINGS.items() if what not in alone})
    for what, thing in alone.items():
        five.cost_nothing_but_themselves({what: thing})
