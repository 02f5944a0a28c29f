"""The pages that lead a user by commands do so, from the first command to the last."""

import pathlib
import re
import subprocess

import pytest

from vela import BIN, MIB_ROOT, free_port

ROOT = pathlib.Path(__file__).resolve().parents[2]


def test_the_diagram_of_states_is_that_of_the_code():
    result = subprocess.run([ROOT / "scripts/state-diagram", "--check"], capture_output=True, text=True, check=False)
    assert result.returncode == 0, result.stderr


@pytest.mark.parametrize("page", ["snmpv3", "dtls", "managing", "operating"])
def test_the_commands_of_a_page(folder, page):
    script = "".join(re.findall(r"^```sh\n(.*?)^```", (ROOT / f"docs/{page}.md").read_text(), re.M | re.S))
    model = (ROOT / "etc/model.xml").read_text()
    for port in map(str, (1161, 1162, 3162, 10161, 10162)):
        own = str(free_port())
        script, model = (re.sub(rf"\b{port}\b", own, text) for text in (script, model))
    (folder / "model.xml").write_text(model)
    for written, own in (("~/", f"{folder}/"), ("build/release/bin", str(BIN)),
                         ("etc/model.xml", str(folder / "model.xml"))):
        assert written in script
        script = script.replace(written, own)
    # The page waits for what is to arrive without an end. Told to end, the shell ends what it has started.
    result = subprocess.run(["timeout", "100", "bash", "-ec", "trap 'jobs -p | xargs -r kill 2>&1 || true; wait' EXIT\n" + script],
                            capture_output=True, text=True, cwd=ROOT, check=False)
    print(result.stdout, result.stderr)
    assert result.returncode == 0
    assert f'{MIB_ROOT}.1.3.5.1.4.1 = STRING: "Link failure"\n' in result.stdout
    assert not (folder / "mynode").exists()
