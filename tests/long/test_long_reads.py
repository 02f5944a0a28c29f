"""The comparison of what is read at once with what is read one by one, with many MIBs and requests."""

import random

import pytest

from test_reads import agents, differential  # noqa: F401 (a fixture)


@pytest.mark.parametrize("number", range(8))
def test_many_variables_at_once_are_the_same_as_one_after_the_other(agents, stopping, number):  # noqa: F811
    differential(random.randrange(2**32), 4000, agents, stopping)
