"""Text from a request never reaches the shell as code: the helpers that put
such text into device command lines, run inside the simulated device with
its BusyBox shell and its journalling uci."""
import os

import pytest

from conftest import ROOT, scaled

PROBE = os.environ.get("KC_SHELL_PROBE") or os.path.join(
    ROOT, "build", "tests", "e2e", "shell_probe")
PROBE_IN_DEVICE = "/root/shell_probe"

NASTY = [
    'a"b',
    "$(touch /tmp/pwned)",
    "`id`",
    "a\\b",
    "a'b",
    "$HOME",
    "x; touch /tmp/pwned2",
    '"; touch /tmp/pwned3; echo "',
    "\\\"$`",
    "tab\there",
    "two  blanks",
    "*",
    "",
]


def run_probe(device, *args):
    p = device.start([PROBE_IN_DEVICE] + list(args),
                     binds=[(PROBE, PROBE_IN_DEVICE)])
    out, err = p.communicate(timeout=scaled(60))
    device.stop()
    return p.returncode, out.decode("utf-8", "surrogateescape"), err.decode()


@pytest.mark.parametrize("value", NASTY)
def test_uci_set_passes_the_value_literally(device, value):
    status, out, err = run_probe(device, "uci-set", "system.system.SystemName", value)
    assert status == 0, err
    # uci was called with exactly that value, and nothing else ran
    assert device.journal() == ["uci set system.system.SystemName=" + value]
    assert device.uci_get("system.system.SystemName") == (value or None)
    for marker in ("/tmp/pwned", "/tmp/pwned2", "/tmp/pwned3"):
        assert not device.exists(marker)


def test_uci_set_keeps_plain_values_byte_for_byte(device):
    status, out, err = run_probe(device, "uci-set", "network.lan.ipaddr", "10.0.0.5")
    assert status == 0, err
    assert device.journal() == ["uci set network.lan.ipaddr=10.0.0.5"]
    assert device.uci_get("network.lan.ipaddr") == "10.0.0.5"


@pytest.mark.parametrize("text", NASTY + ["00:11:22:AA:bb:cc", "w0_index3", "/tmp/x.y"])
def test_a_quoted_word_reaches_the_command_as_one_literal_word(device, text):
    status, out, err = run_probe(device, "word", text)
    assert status == 0, err
    assert out == text
    for marker in ("/tmp/pwned", "/tmp/pwned2", "/tmp/pwned3"):
        assert not device.exists(marker)
