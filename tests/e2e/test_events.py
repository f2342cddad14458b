"""Messages the agent makes from device-side files: event notifications
from "/tmp/cEvtLog" and streamed system-log lines from the capture that
"logread -f" fills, byte for byte from files the test writes; the files'
"Func ...: File ... doesn't exist." messages; and what happens under queue
pressure while the server cannot be reached (the device-side data is
discarded instead of queued)."""
import re
import time

from conftest import (CET, MAC, about, not_a_status_update, put_event_file, request_barrier,
                      request_text, settings, timer_barrier, unsolicited, wait_for,
                      wait_request_queued, wait_start_up_commands, wait_ticks)

# Updates and events may be more than 40 s apart on a loaded machine.
SERVER_PING_INTERVAL = 15
# The agent's local time is CET (connected).
AGENT_ENV = CET

SLOW_WHILE = 'while [ -e /tmp/slow ]; do sleep 0.1; done\necho TAG-1\n'
EVENT = "number:%d dateTime:2026-11-15T10:00:%02d+0100 type:INFO event:E%d\n"


def next_message(server, timeout=30, method=None):
    """The next message other than a status update (those stay queued)."""
    return server.next_message(timeout, method=method, predicate=not_a_status_update)


def notification(*events):
    return ('{"jsonrpc":"2.0","method":"dsEventNotifications","params":{"deviceId":"%s",'
            '"version":0,"events":[%s]}}' % (MAC, ",".join(events)))


def stream(server, id_="abc"):
    server.send_text(request_text("dxStreamSystemLogs", {"deviceId": MAC, "enable": True}, id_))


def count_lines(agent, pattern, start):
    regex = re.compile(pattern)
    return sum(1 for line in agent.out.lines[start:] if regex.search(line))


# ---- event notifications -----------------------------------------------------

def test_event_lines_go_out_byte_for_byte_and_the_file_is_emptied(device,
                                                                  connected_after_start_up):
    agent, server = connected_after_start_up
    put_event_file(device,
                   "number:7 dateTime:2026-11-15T10:00:00+0100 type:INFO event:Reboot\n"
                   "a line without the labels\n"
                   "number:12 dateTime:2026-11-16T08:30:05-0330 type:WARN "
                   "event:Memory usage greater then 90%.\n"
                   "type:INFO number:3 dateTime:2026-11-15T10:00:00+0100 event:out of order\n"
                   "number:8 dateTime:2026-11-15T10:00:01+0100 type:INFO event:Rebooted")
    message = next_message(server, 30)
    assert message.raw == notification(
        '{"number":7,"dateTime":"2026-11-15T10:00:00+01:00","type":"INFO","event":"Reboot"}',
        '{"number":12,"dateTime":"2026-11-16T08:30:05-03:30","type":"WARN",'
        '"event":"Memory usage greater then 90%."}',
        # the last line had no newline: its last character goes all the same
        '{"number":8,"dateTime":"2026-11-15T10:00:01+01:00","type":"INFO","event":"Reboote"}')
    # emptied with echo "": one empty line stays, which sends nothing; the
    # events go out in order, so one sent now comes after any other
    assert wait_for(lambda: device.read_file("/tmp/cEvtLog") == "\n")
    timer_barrier(device, server)
    assert unsolicited(server) == []


def test_an_event_file_holding_only_the_empty_line_sends_nothing(device, connected_after_start_up):
    agent, server = connected_after_start_up
    put_event_file(device, "\n")
    wait_ticks(device, 2)  # the timer has read it in a whole tick
    assert unsolicited(server) == []
    assert device.read_file("/tmp/cEvtLog") == "\n"
    # the sender was at work all along: a real line goes out at once, and
    # is the first notification (one made from the empty line would come
    # before it)
    put_event_file(device, "\n" + EVENT % (1, 1, 1))
    message = next_message(server, 30)
    assert message.raw == notification(
        '{"number":1,"dateTime":"2026-11-15T10:00:01+01:00","type":"INFO","event":"E1"}')


def test_the_utility_scripts_event_line_reaches_the_server(device, connected_after_start_up):
    agent, server = connected_after_start_up
    r = device.exec(["/usr/sbin/kapri_util.lua", "add_a_notification", "5", "WARN",
                     "Fan", "stopped"], env=CET)
    assert r.returncode == 0, r.stderr
    # the timer may take the line at once, so it is read where it arrives
    message = next_message(server, 30)
    m = re.search(r'"dateTime":"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d)\+01:00"', message.raw)
    assert m, message.raw
    assert message.raw == notification(
        '{"number":5,"dateTime":"%s+01:00","type":"WARN","event":"Fan stopped"}' % m.group(1))
    assert wait_for(lambda: device.read_file("/tmp/cEvtLog") == "\n")


def test_an_event_file_that_cannot_be_opened_is_reported_path_first(device,
                                                                    connected_after_start_up):
    agent, server = connected_after_start_up
    device.write_file("/tmp/cEvtLog", EVENT % (4, 4, 4), mode=0o000)
    agent.out.wait_for("Func /tmp/cEvtLog: File sendEventLog doesn't exist.", timeout=10)
    wait_ticks(device, 2)
    assert unsolicited(server) == []
    # left as it was
    assert device.read_file("/tmp/cEvtLog") == EVENT % (4, 4, 4)


# ---- streamed system log ---------------------------------------------------------

def test_streamed_log_lines_go_out_byte_for_byte(device, connected_after_start_up):
    agent, server = connected_after_start_up
    year = time.strftime("%Y")
    stream(server, "abc")
    assert device.wait_journal("logread -f")
    device.clear_journal()
    device.append_syslog("Nov 15 23:12:24 VK310 user.notice root: hello world\n"
                         "Foo 15 23:12:25 VK310 user.notice root: not a month\n"
                         'Nov  5 08:01:02 VK310 user.notice root: say "hi"\n'
                         "Dec 31 23:59:59 VK310 kern.info kernel no message start")
    message = next_message(server, 30)
    assert message.raw == (
        '{"jsonrpc":"2.0","id":"abc","stream":true,"result":{"deviceId":"%s","logs":['
        '{"dateTime":"%s-11-15T23:12:24+01:00","level":20,"location":" ",'
        '"message":"hello world "},'
        '{"dateTime":"%s-11-05T08:01:02+01:00","level":20,"location":" ",'
        '"message":"say \'hi\' "}]}}' % (MAC, year, year))
    agent.out.wait_for(re.compile(
        r"\[FUNC nimb_client\.cpp::sendStreamSysLog\]\[LINE 4425\]: No matched month!!$"))
    # one date per line sent, the time as one word; then the capture restarts
    # (the new follower's journal line comes once it has started)
    assert device.wait_journal("logread -f", timeout=20)
    journal = [line for line in device.journal()
               if line.startswith(("date -d", "killall", "logread"))]
    assert journal == ["date -d 11.15-23:12:24 +%Y-%m-%dT%H:%M:%S%z",
                       "date -d 11. 5-08:01:02 +%Y-%m-%dT%H:%M:%S%z",
                       "logread -f"]
    # the next lines go in the next result, with the same id
    device.append_syslog("Jan  1 00:00:00 VK310 daemon.info app[12]: a: b\tc")
    message = next_message(server, 30)
    assert message.raw == (
        '{"jsonrpc":"2.0","id":"abc","stream":true,"result":{"deviceId":"%s","logs":['
        '{"dateTime":"%s-01-01T00:00:00+01:00","level":20,"location":" ",'
        '"message":"a: b\\tc "}]}}' % (MAC, year))


def test_a_capture_that_cannot_be_opened_is_reported_path_first(device, connected_after_start_up):
    agent, server = connected_after_start_up
    stream(server, "abc")
    assert device.wait_journal("logread -f")
    device.write_file("/tmp/cloud_log_file", "Nov 15 23:12:24 VK310 user.notice root: x\n",
                      mode=0o000)
    agent.out.wait_for("Func /tmp/cloud_log_file: File sendStreamSysLog doesn't exist.",
                       timeout=15)
    assert unsolicited(server) == []


# ---- queue pressure ------------------------------------------------------------

def cut_off(agent, server):
    """The server stops listening and drops the connection: what the agent
    sends from now on waits in its queues."""
    server.pause()
    server.drop()
    agent.out.wait_for(re.compile(r"\] ACK close\.$"), timeout=10)


def test_with_nine_replies_waiting_the_capture_is_discarded(device, server, start_agent):
    settings(device, conn_retry=1)
    device.set_script("sntool", SLOW_WHILE)
    agent = start_agent(server.url, env=CET)
    first = server.wait_for_connection(15)
    wait_start_up_commands(device)
    stream(server, "abc")
    assert device.wait_journal("logread -f")
    # the main thread stays in one request while nine more queue up
    device.write_file("/tmp/slow", "")
    server.send_text(about("busy"))
    assert device.wait_journal("sntool")
    for i in range(1, 10):
        server.send_text(about("q%d" % i))
    wait_request_queued(agent, "q9")
    cut_off(agent, server)
    start = len(agent.out.lines)
    device.remove_file("/tmp/slow")
    # ten replies: the sending thread holds the first, nine wait in the queue
    assert wait_for(lambda: count_lines(agent, r"\]\[LINE 682\]: produceObject: end$",
                                        start) >= 10, 60)
    restarts = device.journal().count("logread -f")
    device.append_syslog("Nov 15 23:12:24 VK310 user.notice root: pressure line")
    assert wait_for(lambda: "pressure line" in (device.read_file("/tmp/cloud_log_file") or ""))
    # the next streaming check finds one free slot and restarts the capture
    assert wait_for(lambda: device.journal().count("logread -f") > restarts, 15)
    assert "pressure line" not in (device.read_file("/tmp/cloud_log_file") or "")
    server.resume()
    second = server.wait_for_connection(30)
    got = [next_message(server, 30) for _ in range(10)]
    assert [m.data["id"] for m in got] == ["busy"] + ["q%d" % i for i in range(1, 10)]
    assert all("result" in m.data and m.conn is second for m in got)
    # nothing more: replies and streamed results go out in order
    request_barrier(server)
    assert unsolicited(server) == []
    # streaming goes on; the discarded line never comes
    device.append_syslog("Nov 15 23:12:30 VK310 user.notice root: after")
    message = next_message(server, 30)
    assert message.data["id"] == "abc"
    assert [log["message"] for log in message.data["result"]["logs"]] == ["after "]
    assert first is not second


def test_with_the_event_queue_nearly_full_the_event_file_is_emptied(device, server,
                                                                    start_agent):
    settings(device, conn_retry=1)
    agent = start_agent(server.url, env=CET)
    server.wait_for_connection(15)
    wait_start_up_commands(device)
    cut_off(agent, server)
    # ten notifications: the sending thread holds the first, nine wait
    for n in range(1, 11):
        put_event_file(device, EVENT % (n, n, n))
        assert wait_for(lambda: device.read_file("/tmp/cEvtLog") == "\n", 10), n
        if n == 1:
            # taken by the sending thread, which holds it
            agent.sent_frame(lambda tree: tree["params"]["events"][0]["number"] == 1)
    # one free slot: the eleventh is emptied without a notification
    put_event_file(device, EVENT % (11, 11, 11))
    assert wait_for(lambda: device.read_file("/tmp/cEvtLog") == "\n", 10)
    server.resume()
    second = server.wait_for_connection(30)
    got = [next_message(server, 30, method="dsEventNotifications") for _ in range(10)]
    assert [m.data["params"]["events"][0]["number"] for m in got] == list(range(1, 11))
    assert all(m.conn is second for m in got)
    assert got[9].raw == notification(
        '{"number":10,"dateTime":"2026-11-15T10:00:10+01:00","type":"INFO","event":"E10"}')
    # the eleventh never comes: events go out in order
    timer_barrier(device, server)
    assert unsolicited(server) == []
