"""Reconnect back-off, fast-forwarded: the sleep shim records every sleep(N)
the agent makes while no server listens, and shortens it."""
import pytest

from conftest import set_conn_retry, wait_for

DEAD_URL = "ws://127.0.0.1:9/"  # discard port: nothing listens there


def sleeps(device, count, timeout=30):
    def recorded():
        text = device.read_file("/tmp/fastsleep.log") or ""
        return [int(line.split()[1]) for line in text.splitlines()
                if line.startswith("sleep ")]
    values = wait_for(lambda: len(recorded()) >= count and recorded(), timeout)
    if not values:
        raise AssertionError("only %d sleeps recorded" % len(recorded()))
    return values[:count]


def test_interval_of_30_seconds_for_21_attempts_then_60_to_119(device, start_agent):
    set_conn_retry(device, 30)
    start_agent(DEAD_URL, fastsleep=True)
    got = sleeps(device, 60)
    assert got[:21] == [30] * 21
    assert all(60 <= s <= 119 for s in got[21:]), got[21:]
    # the random part actually varies
    assert len(set(got[21:])) > 1


@pytest.mark.parametrize("value", [None, "0", "abc", "-5"], ids=["unset", "zero", "text", "negative"])
def test_interval_stays_10_seconds_without_a_usable_setting(device, start_agent, value):
    set_conn_retry(device, value)
    start_agent(DEAD_URL, fastsleep=True)
    got = sleeps(device, 65)
    assert got[:61] == [10] * 61
    assert all(60 <= s <= 119 for s in got[61:]), got[61:]


def test_the_interval_is_read_again_before_every_reconnection(device, server, start_agent):
    set_conn_retry(device, 2)
    agent = start_agent(server.url, fastsleep=True)
    server.wait_for_connection(15)
    assert device.journal().count("uci get korvatCloud.korvatCloud.conn_retry") == 1
    # the setting changes while connected; the next reconnection uses it
    set_conn_retry(device, 7)
    server.pause()
    server.drop()
    got = sleeps(device, 3)
    assert got == [7, 7, 7]
    assert device.journal().count("uci get korvatCloud.korvatCloud.conn_retry") == 2
    server.resume()
    server.wait_for_connection(15)
