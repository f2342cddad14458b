"""The agent's own capture of the system log, and its stream under load:
only the follower the agent started is ever stopped (the system's own
followers, such as a forwarder to a remote log server, are left alone); a
follower left running by a killed agent is stopped at the next start; a
burst of log lines goes out in results below 64 KiB, every line once and in
order, over as many ticks as it takes, while the timer's other checks go
on; and the agent's own output, which the service manager logs, is never
streamed back."""
import json
import re
import subprocess

import pytest

from conftest import AGENT, CET, MAC, Agent, request_text, scaled, wait_for, wait_start_up_commands

# Results and events may be more than 40 s apart on a loaded machine.
SERVER_PING_INTERVAL = 15
# The agent's local time is CET (connected).
AGENT_ENV = CET


def stream(server, enable, id_="s"):
    server.send_text(request_text("dxStreamSystemLogs", {"deviceId": MAC, "enable": enable}, id_))


def own_follower(device):
    """The in-device id of the follower the agent started."""
    assert wait_for(lambda: (device.read_file("/tmp/cloud_logread_pid") or "").strip().isdigit())
    return int(device.read_file("/tmp/cloud_logread_pid"))


def results(server, id_, timeout=60, until=None):
    """Streamed results of request id_, in order, until `until(messages)` holds."""
    got = []
    while True:
        message = server.next_message(timeout, predicate=lambda m: isinstance(m.data, dict)
                                      and m.data.get("id") == id_)
        got.append(message)
        if until is None or until(got):
            return got


def start_system_follower(device):
    """A follower of the system log that the agent did not start (the
    system's forwarder to a remote log server)."""
    r = device.sh("logread -f > /tmp/forwarder.log 2>/dev/null </dev/null & echo $!")
    assert r.returncode == 0, r.stderr
    pid = int(r.stdout.strip())
    assert wait_for(lambda: pid in [p["pid"] for p in device.find("logread")])
    # once its journal line shows it follows; the caller's clear of the
    # journal then cannot leave this line for the agent's follower's one
    assert device.wait_journal("logread -f")
    return pid


def test_only_the_agents_own_follower_is_stopped(device, connected_after_start_up):
    agent, server = connected_after_start_up
    system = start_system_follower(device)
    device.clear_journal()
    stream(server, True, "on")
    assert device.wait_journal("logread -f")
    # the system's follower lives on beside the agent's
    assert system in [p["pid"] for p in device.find("logread")]
    mine = own_follower(device)
    assert mine != system
    assert wait_for(lambda: sorted(p["pid"] for p in device.find("logread"))
                    == sorted([system, mine]))
    device.append_syslog("Nov 15 23:12:24 VK310 user.notice root: both see this")
    got = results(server, "on")
    assert [log["message"] for log in got[0].data["result"]["logs"]] == ["both see this "]
    # the capture restarted after the result: a new follower of the agent's
    assert wait_for(lambda: device.read_file("/tmp/cloud_logread_pid") is not None and
                    int(device.read_file("/tmp/cloud_logread_pid") or 0) not in (0, mine))
    stream(server, False, "off")
    assert wait_for(lambda: not device.exists("/tmp/cloud_log_file"))
    assert wait_for(lambda: [p["pid"] for p in device.find("logread")] == [system])
    assert "both see this" in (device.read_file("/tmp/forwarder.log") or "")


def test_a_follower_left_by_a_killed_agent_is_stopped_at_the_next_start(device, server):
    """The agent killed without a chance to clean up (a crash, or the stop's
    killall -9) leaves its follower running; the next start (as the service
    manager respawns it) stops it and removes its file."""
    url = server.url
    # a service manager of sorts: the device lives on when the agent dies
    launcher = device.start(["/bin/sh", "-c", "/usr/bin/korvat-cloud -d %s %s; sleep 600"
                             % (url, MAC)], agent=AGENT, env=CET)
    first = Agent(device, launcher)
    try:
        server.wait_for_connection(15)
        wait_start_up_commands(device)
        stream(server, True, "on")
        left = own_follower(device)
        assert wait_for(lambda: device.exists("/tmp/cloud_log_file"))
        r = device.sh("kill -9 %d" % first.main_tid())
        assert r.returncode == 0, r.stderr
        assert wait_for(lambda: device.find("korvat-cloud") == [])
        assert [p["pid"] for p in device.find("logread")] == [left]

        again = subprocess.Popen(device.exec_argv(["/usr/bin/korvat-cloud", "-d", url, MAC],
                                                  env=CET),
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        second = Agent(device, again)
        server.wait_for_connection(15)
        assert wait_for(lambda: device.find("logread") == [])
        assert not device.exists("/tmp/cloud_log_file")
        assert not device.exists("/tmp/cloud_logread_pid")
        assert second.alive()
        assert not second.sanitizer_reports(), second.err.text()
    finally:
        device.stop()


def test_a_killed_agent_leaves_no_ghost_connection(device, server):
    """The commands the agent runs (and what they leave running, such as
    the log follower) do not inherit its connection: once the agent is
    killed, the server sees the connection end."""
    launcher = device.start(["/bin/sh", "-c", "/usr/bin/korvat-cloud -d %s %s; sleep 600"
                             % (server.url, MAC)], agent=AGENT, env=CET)
    agent = Agent(device, launcher)
    try:
        conn = server.wait_for_connection(15)
        wait_start_up_commands(device)
        stream(server, True, "on")
        assert device.wait_journal("logread -f")
        assert wait_for(lambda: device.find("logread") != [])
        r = device.sh("kill -9 %d" % agent.main_tid())
        assert r.returncode == 0, r.stderr
        assert wait_for(lambda: device.find("korvat-cloud") == [])
        # the follower lives on (until the next start stops it), the
        # connection does not
        assert device.find("logread") != []
        assert conn.wait_closed(scaled(15))
    finally:
        device.stop()


BURST = 1500


def burst_line(n):
    # long enough that the whole burst is many times 64 KiB
    return "Nov 15 23:12:24 VK310 user.notice app: burst %04d %s" % (n, "x" * 400)


def test_a_burst_goes_out_below_64_kib_every_line_once_in_order(device, connected_after_start_up):
    agent, server = connected_after_start_up
    stream(server, True, "b")
    assert device.wait_journal("logread -f")
    device.append_syslog("\n".join(burst_line(n) for n in range(BURST)))

    def numbers(messages):
        return [int(log["message"].split()[1]) for m in messages
                for log in m.data["result"]["logs"]]

    first = results(server, "b", timeout=60)
    # an event while the rest of the burst waits: the timer's other checks
    # go on between the batches
    device.write_file("/tmp/cEvtLog",
                      "number:9 dateTime:2026-11-15T10:00:00+0100 type:INFO event:During\n")
    rest = results(server, "b", timeout=60, until=lambda got: len(numbers(first + got)) >= BURST)
    got = first + rest
    assert numbers(got) == list(range(BURST))
    for message in got:
        assert len(message.raw.encode()) < 65536, len(message.raw)
        assert len(message.data["result"]["logs"]) <= 100
        json.loads(message.raw)
    assert len(got) >= BURST // 100
    event = server.next_message(30, method="dsEventNotifications")
    assert event.data["params"]["events"][0]["event"] == "During"
    # it went out before the last batch of the burst
    assert event.time < got[-1].time


def test_the_agents_own_output_is_not_streamed_back(device, server, start_agent):
    """The service manager sends the agent's standard output to the system
    log; streaming that log must not feed every dump of a streamed result
    into the next one."""
    agent = start_agent(server.url, env=CET, stdout_to_syslog=True)
    server.wait_for_connection(15)
    wait_start_up_commands(device)
    # the agent's lines do reach the system log
    assert wait_for(lambda: re.search(r" daemon\.info korvat-cloud\[\d+\]: ",
                                      device.syslog() or ""))
    stream(server, True, "loop")
    assert device.wait_journal("logread -f")
    # The capture restarts after every result, and after a tick that found
    # only the agent's own lines (as here, where it logs all the time): a
    # line logged between the stop of one follower and the start of the
    # next is never captured, as with the device's own logread.  So each
    # marker is logged again, under a new number, until it comes back.
    logged, streamed = [], []
    for marker in ("first marker", "second marker", "third marker"):
        for attempt in range(4):
            text = "%s %d" % (marker, attempt)
            logged.append(text + " ")
            device.append_syslog("Nov 15 23:12:24 VK310 user.notice root: %s" % text)
            if streamed_until(server, "loop", text + " ", streamed):
                break
        else:
            pytest.fail("%r never came back: streamed %r" % (marker, streamed))
    # only the lines other programs logged, each once: none of the agent's
    # dumps
    assert streamed and all(line in logged for line in streamed), streamed
    assert len(set(streamed)) == len(streamed), streamed


def streamed_until(server, id_, wanted, streamed, timeout=30):
    """Adds the logs of request id_'s results to `streamed` until `wanted`
    is among them (True) or no result came for `timeout` seconds (False)."""
    while wanted not in streamed:
        try:
            message = server.next_message(timeout, predicate=lambda m: isinstance(m.data, dict)
                                          and m.data.get("id") == id_)
        except TimeoutError:
            return False
        streamed += [log["message"] for log in message.data["result"]["logs"]]
    return True
