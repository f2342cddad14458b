"""What the maintenance timer holds back, tick by tick (the timer shim holds
the timer after a given tick, so a test knows exactly which ticks ran their
checks): no event notification while the web configuration reloads
("/tmp/luci_reload_cmd") or while an apply step runs, and streamed system
logs only every fifth tick."""

from conftest import MAC, put_event_file, request_text, wait_for
from timershim import Ticks, start_shimmed  # noqa: F401  (fixture)

EVENT = "number:7 dateTime:2026-11-15T10:00:00+0100 type:INFO event:Reboot\n"
EVENT_JSON = {"number": 7, "dateTime": "2026-11-15T10:00:00+01:00", "type": "INFO",
              "event": "Reboot"}
# the apply step waits for /tmp/apply_go, then commits as the device does
HELD_APPLY = ("while [ ! -e /tmp/apply_go ]; do sleep 0.05; done\n"
              "uci commit\n")


def events_sent(server):
    return [m for m in server.messages if m.method == "dsEventNotifications"]


def held_agent(device, server, start_shimmed, tick=2):
    agent = start_shimmed(server.url, hold=tick)
    server.wait_for_connection(15)
    ticks = Ticks(device)
    ticks.wait_held(tick)
    return agent, ticks


def test_no_event_goes_out_while_the_web_configuration_reloads(device, server, start_shimmed):
    agent, ticks = held_agent(device, server, start_shimmed)
    device.write_file("/tmp/luci_reload_cmd", "")
    put_event_file(device, EVENT)
    ticks.run_to(5)
    # three ticks with the pause: the event stays in its file
    assert device.read_file("/tmp/cEvtLog") == EVENT
    assert events_sent(server) == []
    device.remove_file("/tmp/luci_reload_cmd")
    ticks.run_to(6)
    # the first tick without the pause sends it and empties the file
    assert device.read_file("/tmp/cEvtLog") == "\n"
    message = server.next_message(15, method="dsEventNotifications")
    assert message.data["params"]["events"] == [EVENT_JSON]


def test_no_event_goes_out_while_an_apply_step_runs(device, server, start_shimmed):
    device.set_script("kapri_util.lua", HELD_APPLY, "cloud_action_apply")
    agent, ticks = held_agent(device, server, start_shimmed)
    reply = server.request("dxSetLoggingMode", {"deviceId": MAC, "mode": "PRODUCTION"},
                           id="m", timeout=30)
    assert reply.data["result"] == {"deviceId": MAC}
    # the reply goes before the apply step, which is now running
    assert device.wait_journal("kapri_util.lua cloud_action_apply", timeout=15)
    put_event_file(device, EVENT)
    ticks.run_to(5)
    assert device.read_file("/tmp/cEvtLog") == EVENT
    assert events_sent(server) == []
    device.write_file("/tmp/apply_go", "")
    # once a later request is answered, the apply step has returned
    about = server.request("dxGetAbout", {"deviceId": MAC}, id="after", timeout=30)
    assert about.data["result"]["deviceId"] == MAC
    ticks.run_to(6)
    assert device.read_file("/tmp/cEvtLog") == "\n"
    message = server.next_message(15, method="dsEventNotifications")
    assert message.data["params"]["events"] == [EVENT_JSON]


def dates(device):
    """The date conversions of streamed lines (one a line sent)."""
    return [line for line in device.journal() if line.startswith("date -d")]


def test_streamed_logs_go_out_every_fifth_tick(device, server, start_shimmed):
    agent, ticks = held_agent(device, server, start_shimmed, tick=1)
    server.send_text(request_text("dxStreamSystemLogs", {"deviceId": MAC, "enable": True},
                                  "abc"))
    assert device.wait_journal("logread -f", timeout=15)
    sent_at = []
    for batch in range(3):
        tick = ticks.state()[0]
        device.append_syslog("Nov 15 23:12:%02d VK310 user.notice root: line %d" % (batch, batch))
        assert wait_for(lambda: ("line %d" % batch) in (device.read_file("/tmp/cloud_log_file")
                                                       or ""), 15)
        before = len(dates(device))
        # tick by tick until the line has been sent
        while len(dates(device)) == before:
            assert tick < 30, "no streamed result by tick %d" % tick
            tick += 1
            ticks.run_to(tick)
        sent_at.append(tick)
        message = server.next_message(15, predicate=lambda m: m.data.get("id") == "abc")
        assert [log["message"] for log in message.data["result"]["logs"]] == [
            "line %d " % batch]
        # the capture starts afresh before the next batch is logged
        assert wait_for(lambda: device.journal().count("logread -f") == batch + 2, 15)
    assert sent_at == [5, 10, 15]
