"""The device's time from the server: "dxGetTimeSettings" and
"dxSetTimeSettings" against the simulated device, with the exact reply
bytes, the uci calls in their order, every refusal answered before any
write, and the apply step run once the reply is queued, without waiting for
it to leave."""
import json
import re
import time
from datetime import datetime

import pytest

from conftest import (MAC, request_barrier, uci_set_lines, uci_write_lines, wait_ticks,
                      wait_uci_committed)

INVALID = '{"jsonrpc":"2.0","id":"%s","error":{"code":-32602,"message":"Invalid method parameter","data":""}}'
SUCCESS = '{"jsonrpc":"2.0","id":"%s","result":{"deviceId":"%s"}}'
APPLY = "kapri_util.lua cloud_action_apply"
ISO_WITH_OFFSET = re.compile(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d\d:\d\d$")


def device_now(device):
    """The device clock read the way the agent reads it, by BusyBox date:
    "YYYY-MM-DDThh:mm:ss+hhmm" turned into the "+hh:mm" form by hand."""
    text = device.sh("date +%Y-%m-%dT%H:%M:%S%z").stdout.strip()
    assert re.match(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d{4}$", text), text
    return text[:-2] + ":" + text[-2:]


def test_get_time_settings_exact_reply(device, connected):
    agent, server = connected
    before = device_now(device)
    device.clear_journal()
    reply = server.request("dxGetTimeSettings", {"deviceId": "x"}, id="1")
    after = device_now(device)
    now = reply.data["result"]["currentTime"]
    # the ISO form with the offset as "+hh:mm", taken between the two reads
    # of the device clock, with the device's own offset
    assert ISO_WITH_OFFSET.match(now), now
    assert before[-6:] == now[-6:] == after[-6:]
    assert before <= now <= after
    # and the device clock is the real one
    stamp = datetime.strptime(now[:-6] + now[-6:].replace(":", ""), "%Y-%m-%dT%H:%M:%S%z")
    assert abs(stamp.timestamp() - time.time()) < 120
    # the factory zone UTC0 is +0:00; the daylight-saving switch is off
    assert reply.raw == (
        '{"jsonrpc":"2.0","id":"1","result":{"deviceId":"%s","timeZone":"+0:00",'
        '"currentTime":"%s","daylightSavings":"disabled"}}' % (MAC, now))
    # zone, clock, switch, in this order (the status thread may read the
    # clock as well)
    journal = device.journal()
    zone = journal.index("uci get system.system.timezone")
    clock = journal.index("date +%Y-%m-%dT%H:%M:%S%z", zone)
    switch = journal.index("uci get ntpclient.daylightsaving.DayLightEnable")
    assert zone < clock < switch
    assert not any(line.startswith("uci set") for line in journal)


def test_get_time_settings_other_zone_and_switch_on(device, connected):
    agent, server = connected
    device.uci_ok("set", "system.system.timezone=NST3:30")
    device.uci_ok("set", "ntpclient.daylightsaving.DayLightEnable=1")
    reply = server.request("dxGetTimeSettings", {"deviceId": MAC}, id="2")
    now = reply.data["result"]["currentTime"]
    assert ISO_WITH_OFFSET.match(now), now
    assert reply.raw == (
        '{"jsonrpc":"2.0","id":"2","result":{"deviceId":"%s","timeZone":"-3:30",'
        '"currentTime":"%s","daylightSavings":"enabled"}}' % (MAC, now))


def test_get_time_settings_unknown_zone_and_missing_switch(device, connected):
    agent, server = connected
    # a zone code no row begins with: an empty offset; a missing switch reads
    # -1, which counts as on
    device.uci_ok("set", "system.system.timezone=Europe/Helsinki")
    device.uci_ok("delete", "ntpclient.daylightsaving.DayLightEnable")
    reply = server.request("dxGetTimeSettings", {"deviceId": MAC}, id="3")
    now = reply.data["result"]["currentTime"]
    assert reply.raw == (
        '{"jsonrpc":"2.0","id":"3","result":{"deviceId":"%s","timeZone":"",'
        '"currentTime":"%s","daylightSavings":"enabled"}}' % (MAC, now))


def test_get_time_settings_without_device_id(device, connected):
    agent, server = connected
    device.clear_journal()
    reply = server.request("dxGetTimeSettings", {"timeZone": "-5:00"}, id="4")
    assert reply.raw == INVALID % "4"
    request_barrier(server)
    journal = device.journal()
    assert "uci get system.system.timezone" not in journal
    assert "uci get ntpclient.daylightsaving.DayLightEnable" not in journal


def test_minus_five_hours_stores_utc5_never_est5(device, connected):
    agent, server = connected
    device.clear_journal()
    reply = server.request("dxSetTimeSettings",
                           {"deviceId": MAC, "timeZone": "-5:00",
                            "currentTime": "2020-01-31T13:05:00+01:00"}, id="5")
    assert reply.raw == SUCCESS % ("5", MAC)
    assert device.wait_journal(APPLY)
    assert uci_set_lines(device) == ["uci set system.system.timezone=UTC5"]
    # the time sent along is not used: the clock is read (by the status
    # thread), never set
    journal = device.journal()
    dates = [line for line in journal if line.split(" ")[0] == "date"]
    assert all(line.startswith("date +") for line in dates), dates
    assert not any("2020" in line for line in journal), journal
    assert wait_uci_committed(device, "system.system.timezone", "UTC5") == "UTC5"
    after = server.request("dxGetTimeSettings", {"deviceId": MAC}, id="5b")
    assert after.data["result"]["timeZone"] == "-5:00"


def test_zone_and_switch_are_written_in_order_and_committed_by_the_apply_step(device,
                                                                             connected):
    agent, server = connected
    device.clear_journal()
    reply = server.request("dxSetTimeSettings",
                           {"deviceId": MAC, "timeZone": "Eastern Time",
                            "daylightSavings": "enabled"}, id="6")
    assert reply.raw == SUCCESS % ("6", MAC)
    assert device.wait_journal(APPLY)
    journal = device.journal()
    # staged first, no commit by the handler, then the apply step
    assert [line for line in journal if line.startswith("uci set") or line == APPLY or
            line.startswith("uci commit")] == [
        "uci set system.system.timezone=EST5",
        "uci set ntpclient.daylightsaving.DayLightEnable=1",
        APPLY,
    ]
    assert wait_uci_committed(device, "ntpclient.daylightsaving.DayLightEnable", "1") == "1"
    assert device.uci_committed("system.system.timezone") == "EST5"
    # switching it off again writes 0 and leaves the zone alone
    device.clear_journal()
    reply = server.request("dxSetTimeSettings",
                           {"deviceId": MAC, "daylightSavings": "disabled"}, id="6b")
    assert reply.raw == SUCCESS % ("6b", MAC)
    assert device.wait_journal(APPLY)
    assert uci_set_lines(device) == ["uci set ntpclient.daylightsaving.DayLightEnable=0"]
    assert wait_uci_committed(device, "ntpclient.daylightsaving.DayLightEnable", "0") == "0"
    assert device.uci_committed("system.system.timezone") == "EST5"


@pytest.mark.parametrize("params", [
    {"timeZone": "", "daylightSavings": ""},
    {},
    {"currentTime": "2020-01-31T13:05:00+01:00"},
], ids=["empty", "absent", "only-current-time"])
def test_nothing_to_change_still_replies_and_applies(device, connected, params):
    agent, server = connected
    device.clear_journal()
    reply = server.request("dxSetTimeSettings", dict(params, deviceId=MAC), id="7")
    assert reply.raw == SUCCESS % ("7", MAC)
    assert device.wait_journal(APPLY)
    assert uci_set_lines(device) == []
    assert device.uci_committed("system.system.timezone") == "UTC0"
    assert device.uci_committed("ntpclient.daylightsaving.DayLightEnable") == "0"


@pytest.mark.parametrize("name,params", [
    ("no device id", {"timeZone": "-5:00", "daylightSavings": "enabled"}),
    ("capital Enabled", {"deviceId": MAC, "timeZone": "-5:00", "daylightSavings": "Enabled"}),
    ("other word", {"deviceId": MAC, "daylightSavings": "on"}),
    ("unknown zone", {"deviceId": MAC, "timeZone": "+13:00"}),
    ("unknown zone with a valid switch", {"deviceId": MAC, "timeZone": "Helsinki",
                                          "daylightSavings": "enabled"}),
    ("switch that is no text", {"deviceId": MAC, "daylightSavings": True}),
    ("zone that is no text", {"deviceId": MAC, "timeZone": -5}),
])
def test_refusals_come_before_any_write(device, connected, name, params):
    agent, server = connected
    device.clear_journal()
    reply = server.request("dxSetTimeSettings", params, id="r")
    assert reply.raw == INVALID % "r"
    request_barrier(server)
    assert uci_write_lines(device) == []
    assert APPLY not in device.journal()
    assert device.uci_get("system.system.timezone") == "UTC0"
    assert device.uci_get("ntpclient.daylightsaving.DayLightEnable") == "0"


def test_the_reply_is_queued_before_the_apply_step(device, connected):
    agent, server = connected
    # the apply step holds until the test lets it go
    device.set_script("kapri_util.lua",
                      "touch /tmp/apply_started\n"
                      "i=0; while [ ! -e /tmp/apply_release ] && [ $i -lt 300 ]; do\n"
                      "  sleep 0.1; i=$((i+1)); done\n"
                      "uci commit\n",
                      "cloud_action_apply")
    device.clear_journal()
    reply = server.request("dxSetTimeSettings", {"deviceId": MAC, "timeZone": "+8:00"}, id="8")
    # the reply came while the apply step was still running
    assert reply.raw == SUCCESS % ("8", MAC)
    assert device.wait_journal(APPLY)
    assert not device.exists("/tmp/apply_release")
    assert device.uci_committed("system.system.timezone") == "UTC0"
    assert device.uci_get("system.system.timezone") == "UTC-8"
    device.write_file("/tmp/apply_release", "")
    assert wait_uci_committed(device, "system.system.timezone", "UTC-8") == "UTC-8"


def test_the_apply_step_does_not_wait_for_the_reply_to_leave(device, server, start_agent):
    device.uci_ok("set", "korvatCloud.korvatCloud.conn_retry=1")
    device.uci_ok("commit", "korvatCloud")
    agent = start_agent(server.url)
    first = server.wait_for_connection(15)
    agent.timer_tid()
    # requests wait while the web configuration reloads
    device.write_file("/tmp/luci_reload_cmd", "")
    wait_ticks(device, 2)  # a whole tick has seen it
    server.send_text(json.dumps({"jsonrpc": "2.0", "id": "held", "method": "dxSetTimeSettings",
                                 "params": {"deviceId": MAC, "timeZone": "Japan"}}))
    # received (the dump of the request), not yet handled
    agent.out.wait_for(re.compile(r'"method":\s*"\x1b\[1;33mdxSetTimeSettings\x1b\[m"'))
    assert APPLY not in device.journal()
    # the connection goes and cannot come back: the reply cannot leave
    server.pause()
    server.drop(first)
    agent.out.wait_for(re.compile(r"\] ACK close\.$"), timeout=10)
    assert not any("dxSetTimeSettingsHandler" in line for line in agent.out.lines), \
        "handled before the connection went"
    device.remove_file("/tmp/luci_reload_cmd")
    # the change is applied all the same
    assert device.wait_journal(APPLY, timeout=15)
    assert wait_uci_committed(device, "system.system.timezone", "UTC-9") == "UTC-9"
    assert server.connection_count == 1
    # the reply, queued before, leaves on the next connection
    server.resume()
    second = server.wait_for_connection(20)
    got = server.next_message(15, predicate=lambda m: m.method != "dsLogStatusUpdates")
    assert got.raw == SUCCESS % ("held", MAC)
    assert got.conn is second


def test_request_text_never_reaches_uci_as_is(device, connected):
    agent, server = connected
    # the zone reaches uci only as a code of the table, taken literally
    device.clear_journal()
    reply = server.request("dxSetTimeSettings", {"deviceId": MAC, "timeZone": "New Delhi"},
                           id="q1")
    assert reply.raw == SUCCESS % ("q1", MAC)
    assert device.wait_journal(APPLY)
    assert uci_set_lines(device) == ["uci set system.system.timezone=UTC-5:30"]
    assert wait_uci_committed(device, "system.system.timezone", "UTC-5:30") == "UTC-5:30"
    # text that is in no row, whatever it holds, is refused and runs nothing
    for text in ['Eastern Time"; touch /tmp/pwned; "', "$(touch /tmp/pwned)", "`touch /tmp/pwned`",
                 "UTC-5:00' 'x"]:
        device.clear_journal()
        reply = server.request("dxSetTimeSettings", {"deviceId": MAC, "timeZone": text}, id="q2")
        assert reply.raw == INVALID % "q2"
        request_barrier(server)
        assert uci_write_lines(device) == []
    assert not device.exists("/tmp/pwned")
