"""Periodic status updates ("dsLogStatusUpdates") from the simulated device:
the message byte for byte, the period from "auto_update" (shortened through
UCI), the memory alarm, one radio, too many radios."""
import datetime
import json
import re

from conftest import MAC, settings, wait_for

# Updates and events may be more than 40 s apart on a loaded machine.
SERVER_PING_INTERVAL = 15

FREE = ("              total        used        free      shared  buff/cache   available\n"
        "Mem:        %7d     %7d     %7d        1180       22600       61636\n"
        "Swap:             0           0           0\n")


def next_update(server, timeout=40):
    return server.next_message(timeout, method="dsLogStatusUpdates")


def test_an_update_byte_for_byte(device, server, start_agent):
    settings(device, auto_update=1)
    device.set_output("free", FREE % (126072, 48440, 55032))
    device.set_output("kapri_util.lua", "1234\n", "GetSysTxRx", "eth0", "0", "rx")
    device.set_output("kapri_util.lua", "5678\n", "GetSysTxRx", "eth0", "0", "tx")
    device.set_output("kapri_util.lua", json.dumps(
        {"RadioNum": 2,
         "Dev2G": {"RxByte": "111", "TxByte": "222", "NetworkNum": 2, "ClientNum": 3,
                   "Status": "Enabled", "Channel": 6},
         "Dev5G": {"RxByte": "333", "TxByte": "444", "NetworkNum": 1, "ClientNum": 0,
                   "Status": "Disabled", "Channel": 36}}), "WifiInfo")
    start_agent(server.url)
    server.wait_for_connection(15)
    update = next_update(server)
    data = update.data
    stamp = data["params"]["updates"][0]["dateTime"]
    assert re.match(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d\d:\d\d$", stamp)
    cpu = data["params"]["updates"][0]["system"]["cpu"]
    assert isinstance(cpu, int) and 0 <= cpu <= 100
    assert update.raw == (
        '{"jsonrpc":"2.0","method":"dsLogStatusUpdates","params":{"deviceId":"%s","version":0,'
        '"updates":[{"dateTime":"%s","system":{"cpu":%d,"memFree":%d,"memUsed":%d},'
        '"lan":{"rx":1234,"tx":5678},"radios":['
        '{"interface":"2.4GHz","rx":111,"tx":222,"networks":2,"clients":3,"enabled":true},'
        '{"interface":"5GHz","rx":333,"tx":444,"networks":1,"clients":0,"enabled":false}]}]}}'
        % (MAC, stamp, cpu, 55032 * 1024, 48440 * 1024))
    # a notification: no "id"
    assert "id" not in data


# the agent's lines as an update thread starts, and once it has queued its update
UPDATE_STARTS = r"\[FUNC nimb_sdk\.cpp::logStatusUpdates\]\[LINE 120\]"
UPDATE_QUEUED = r"\[FUNC nimb_sdk\.cpp::logStatusUpdates\]\[LINE 272\]"


def stamp(update):
    """The device's time (whole seconds) at which the update was gathered."""
    text = update.data["params"]["updates"][0]["dateTime"]
    return datetime.datetime.fromisoformat(text).timestamp()


def test_the_period_follows_auto_update_from_the_next_period_on(device, server, start_agent):
    """Measured on the device's own time stamps of the updates, not on when
    the test saw them: updates two seconds apart, then six."""
    settings(device, auto_update=2)
    start_agent(server.url)
    server.wait_for_connection(15)
    first = [stamp(next_update(server)) for _ in range(4)]
    # every update reads the period again; the wait after it uses it
    settings(device, auto_update=6)
    later = [stamp(next_update(server)) for _ in range(5)]
    assert first == sorted(first) and later == sorted(later), (first, later)
    # three periods of 2 s (a period is skipped while an update is still
    # being gathered, so a loaded device may space them more)
    assert 3 <= first[3] - first[0] <= 12, first
    # the update gathered when the setting changed, and the one after it,
    # may still be spaced by the old period; from the third on, 6 s
    assert 9 <= later[4] - later[2] <= 24, later


def test_memory_above_ninety_percent_raises_the_alarm_each_period(device, server,
                                                                  start_agent):
    settings(device, auto_update=1)
    # 920 MB used of 1000 MB
    device.set_output("free", FREE % (1000000, 920000, 80000))
    start_agent(server.url)
    server.wait_for_connection(15)
    next_update(server)
    next_update(server)
    assert device.journal().count("logger Memory usage greater then 90%.") >= 2
    syslog = open(device.run + "/syslog.log").read()
    assert "Memory usage greater then 90%." in syslog


def test_exactly_ninety_percent_raises_no_alarm(device, server, start_agent):
    settings(device, auto_update=1)
    device.set_output("free", FREE % (1000000, 900000, 100000))
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    next_update(server)
    next_update(server)
    assert not any(line.startswith("logger") for line in device.journal())
    agent.out.wait_for(re.compile(r"memUsedK:\(900000\), memFreeK:\(100000\), \(9000\)$"))


def test_a_device_with_one_radio_sends_one_radio_object(device, server, start_agent):
    settings(device, auto_update=1)
    device.set_output("kapri_util.lua", json.dumps(
        {"RadioNum": 1, "Dev2G": {"RxByte": "9", "TxByte": "8", "NetworkNum": 1,
                                  "ClientNum": 0, "Status": "Enabled"}}), "WifiInfo")
    start_agent(server.url)
    server.wait_for_connection(15)
    radios = next_update(server).data["params"]["updates"][0]["radios"]
    assert radios == [{"interface": "2.4GHz", "rx": 9, "tx": 8, "networks": 1,
                       "clients": 0, "enabled": True}]


def test_three_radios_drop_the_update_of_that_period(device, server, start_agent):
    settings(device, auto_update=1)
    device.set_output("kapri_util.lua", json.dumps({"RadioNum": 3}), "WifiInfo")
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    # one update at a time: once the third has started, the first two are
    # over, and neither queued anything
    assert wait_for(lambda: len(agent.out.matching(UPDATE_STARTS)) >= 3, 30)
    assert device.journal().count("kapri_util.lua WifiInfo") >= 2
    assert agent.out.matching(UPDATE_QUEUED) == []
    assert not [m for m in server.messages if m.method == "dsLogStatusUpdates"]
    # with two radios again the updates come back
    device.clear_output("kapri_util.lua", "WifiInfo")
    assert next_update(server).data["params"]["updates"][0]["radios"][1]["interface"] == "5GHz"


def test_missing_counters_leave_their_members_out(device, server, start_agent):
    settings(device, auto_update=1)
    device.set_output("kapri_util.lua", "", "GetSysTxRx", "eth0", "0", "tx")
    device.set_output("kapri_util.lua", "", "WifiInfo")
    start_agent(server.url)
    server.wait_for_connection(15)
    update = next_update(server).data["params"]["updates"][0]
    assert list(update) == ["dateTime", "system", "lan"]
    assert list(update["lan"]) == ["rx"]
