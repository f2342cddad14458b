"""The agent's life cycle: SIGTERM to the maintenance timer saves the four
queues and ends the agent; the next start on the same device sends what was
waiting, in order and exactly once; the init script's stop does the same;
the luci-reload pause holds requests and status updates; the beta mode
renames the model."""
import json
import os
import re
import signal

from conftest import (MAC, REQUEST_QUEUED, ROOT, Deadline, about, agent_sleeps,
                      not_a_status_update, request_barrier, scaled, settings, timer_barrier,
                      wait_file_exists, wait_for, wait_request_queued, wait_ticks)

BACKUPS = {
    "recv": "/etc/cloud_recv_cmd.backup",
    "reply": "/etc/cloud_sent_cmd.backup",
    "status": "/etc/cloud_sent_status_cmd.backup",
    "event": "/etc/cloud_sent_event_cmd.backup",
}

# sntool stalls while /tmp/slow exists (the main thread stays in that one
# request), then answers at once
SLOW_WHILE = 'while [ -e /tmp/slow ]; do sleep 0.2; done\necho TAG-1\n'


def backup_lines(device, name):
    text = device.read_file(BACKUPS[name])
    return None if text is None else text.splitlines()


def wait_emptied(device, path, timeout=30):
    return wait_for(lambda: (device.read_file(path) or "").strip() == "", timeout)


def wait_count(device, line, count, timeout=30):
    return wait_for(lambda: device.journal().count(line) >= count, timeout)


# the agent's debug lines of its queues
REPLY_QUEUED = r"\]\[LINE 682\]: produceObject: end$"             # a reply queued
UPDATE_STARTS = r"logStatusUpdates\]\[LINE 120\]"                 # a status update begun
UPDATE_QUEUED = r"logStatusUpdates\]\[LINE 272\]"                 # a status update queued


def lines_since(agent, pattern, start):
    regex = re.compile(pattern)
    return sum(1 for line in agent.out.lines[start:] if regex.search(line))


def event_line(number, text):
    return "number:%d dateTime:2026-11-15T10:00:0%d+0100 type:INFO event:%s\n" % (
        number, number, text)


def messages_until(server, count, timeout=30, predicate=not_a_status_update):
    """The next `count` messages (by default other than status updates,
    which a long test sees now and then)."""
    got = []
    deadline = Deadline(timeout)
    while len(got) < count:
        got.append(server.next_message(deadline.budget(), predicate=predicate))
    return got


def test_sigterm_to_the_timer_saves_every_queue_and_the_next_start_sends_them(
        device, server, start_agent):
    settings(device, conn_retry=1, auto_update=2)
    device.set_script("sntool", SLOW_WHILE)
    agent = start_agent(server.url)
    first = server.wait_for_connection(15)
    timer = agent.timer_tid()
    # the main thread stays inside "busy"; r1..r3 wait in the receive queue
    device.write_file("/tmp/slow", "")
    server.send_text(about("busy"))
    assert device.wait_journal("sntool")
    for name in ("r1", "r2", "r3"):
        server.send_text(about(name))
    wait_request_queued(agent, "r3")
    # the server goes away: status updates and events pile up
    server.pause()
    server.drop(first)
    agent.out.wait_for(re.compile(r"\] ACK close\.$"), timeout=10)
    updates_start = len(agent.out.lines)
    for number, text in ((1, "first"), (2, "second")):
        device.write_file("/tmp/cEvtLog", event_line(number, text))
        # the timer takes the line and empties the file
        assert wait_emptied(device, "/tmp/cEvtLog")
        if number == 1:
            # taken by the sending thread, which holds it while the server is away
            agent.sent_frame(lambda tree: tree["params"]["events"][0]["event"] == "first",
                             start=updates_start)
    # a few status updates are queued meanwhile: the sending thread holds
    # the first, the others wait in the queue
    assert wait_for(lambda: lines_since(agent, UPDATE_QUEUED, updates_start) >= 3, 60)

    device.signal_thread(timer, signal.SIGTERM)
    assert agent.wait_exit(15) == 128 + signal.SIGKILL
    assert "killall -9 korvat-cloud" in device.journal()
    assert agent.out.count("Backup queue commands to file...") == 1

    recv = backup_lines(device, "recv")
    assert recv[0] == "3"
    assert [json.loads(line)["id"] for line in recv[1:]] == ["r1", "r2", "r3"]
    # nothing was waiting in the reply queue: no file
    assert backup_lines(device, "reply") is None
    status = backup_lines(device, "status")
    assert int(status[0]) == len(status) - 1 >= 1
    saved_status = [json.loads(line) for line in status[1:]]
    assert all(m["method"] == "dsLogStatusUpdates" for m in saved_status)
    event = backup_lines(device, "event")
    # the first notification was with the sending thread when the kill came;
    # the second waited in the queue
    assert event[0] == "1"
    saved_event = json.loads(event[1])
    assert saved_event["params"]["events"][0]["event"] == "second"

    # the next start on the same device, the server back
    device.clear_output("sntool")
    device.remove_file("/tmp/slow")
    server.resume()
    device.stop()
    again = start_agent(server.url)
    second = server.wait_for_connection(20)
    again.out.wait_for("Read backup file to queue...")
    # r1..r3 are executed once each, in order; the saved messages go out once
    wanted = 3 + len(saved_status) + 1
    got = messages_until(server, wanted, timeout=40, predicate=None)
    replies = [m.data["id"] for m in got if m.data.get("id")]
    assert replies == ["r1", "r2", "r3"]
    delivered_status = [m.data for m in got if m.data.get("method") == "dsLogStatusUpdates"]
    assert delivered_status[:len(saved_status)] == saved_status
    delivered_events = [m.data for m in got if m.data.get("method") == "dsEventNotifications"]
    assert delivered_events == [saved_event]
    assert all(m.conn is second for m in got)
    for path in BACKUPS.values():
        assert not device.exists(path)
    # nothing twice: replies and events go out in order, so one sent now
    # comes after any other
    request_barrier(server)
    timer_barrier(device, server)
    later = [m.data for m in server.messages]
    assert not any(m.get("id") in ("r1", "r2", "r3", "busy") for m in later)
    assert not any(m.get("method") == "dsEventNotifications" for m in later)


def test_replies_waiting_for_the_server_survive_a_stop(device, server, start_agent):
    settings(device, conn_retry=1)
    device.set_script("sntool", SLOW_WHILE)
    agent = start_agent(server.url)
    first = server.wait_for_connection(15)
    timer = agent.timer_tid()
    device.write_file("/tmp/slow", "")
    server.send_text(about("a0"))
    assert device.wait_journal("sntool")
    for name in ("a1", "a2", "a3"):
        server.send_text(about(name))
    wait_request_queued(agent, "a3")
    server.pause()
    server.drop(first)
    agent.out.wait_for(re.compile(r"\] ACK close\.$"), timeout=10)
    start = len(agent.out.lines)
    device.remove_file("/tmp/slow")
    # a0's reply is with the sending thread; a1..a3's wait in the reply queue
    agent.sent_frame("a0", start=start)
    assert wait_for(lambda: lines_since(agent, REPLY_QUEUED, start) >= 4, 20)
    device.signal_thread(timer, signal.SIGTERM)
    assert agent.wait_exit(15) == 128 + signal.SIGKILL
    reply = backup_lines(device, "reply")
    assert reply[0] == "3"
    saved = [json.loads(line) for line in reply[1:]]
    assert [m["id"] for m in saved] == ["a1", "a2", "a3"]
    assert backup_lines(device, "recv") is None

    device.stop()
    server.resume()
    start_agent(server.url)
    server.wait_for_connection(20)
    got = messages_until(server, 3)
    assert [m.data for m in got] == saved
    # a reply sent now comes after any other
    request_barrier(server)
    assert not any(m.data.get("id", "").startswith("a") for m in server.messages)
    # dxGetAbout ran four times in all: nothing ran again
    assert device.journal().count("sntool") == 4


# killall takes its time (a loaded device): the agent keeps running for two
# seconds after the stop has saved its queues
SLOW_KILLALL = 'sleep 2\nexec /simdevice/busybox/killall "$@"\n'


def test_a_stop_under_load_runs_nothing_twice(device, server, start_agent):
    """Requests queued when the stop saves the queues are handed over to the
    next start: answered then, once, and never also by the agent that is
    stopping (which goes on running until the kill comes)."""
    settings(device, conn_retry=1)
    device.set_script("sntool", SLOW_WHILE)
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    timer = agent.timer_tid()
    device.write_file("/tmp/slow", "")
    server.send_text(about("busy"))
    assert device.wait_journal("sntool")
    # eight: with nine the ring would wrap, which the snapshot saves as
    # nothing
    names = ["q%d" % i for i in range(1, 9)]
    for name in names:
        server.send_text(about(name))
    wait_request_queued(agent, "q8")
    device.set_script("killall", SLOW_KILLALL)

    device.signal_thread(timer, signal.SIGTERM)
    agent.out.wait_for("Backup queue commands to file...", 20)
    # the queues are saved: the main thread now goes on, for as long as the
    # kill takes
    device.remove_file("/tmp/slow")
    assert agent.wait_exit(30) == 128 + signal.SIGKILL
    saved = [json.loads(line)["id"] for line in backup_lines(device, "recv")[1:]]
    assert saved == names

    device.stop()
    device.clear_output("killall")
    device.clear_output("sntool")
    start_agent(server.url)
    server.wait_for_connection(20)
    got = []
    deadline = Deadline(40)
    while sorted(set(got) & set(names)) != names and not deadline.passed():
        try:
            message = server.next_message(deadline.budget(least=0.1))
        except TimeoutError:
            continue
        if message.data.get("id"):
            got.append(message.data["id"])
    # a late duplicate would come before the reply to a request sent now
    request_barrier(server)
    got += [m.data["id"] for m in server.messages if m.data.get("id")]
    # every queued request answered exactly once; the one in progress at
    # most once
    assert sorted(got.count(name) for name in names) == [1] * len(names), got
    assert got.count("busy") <= 1, got


def test_a_backup_file_whose_count_is_zero_is_read_to_its_end(device, server, start_agent):
    device.write_file(BACKUPS["recv"], "0\n%s\n%s\n" % (about("z1"), about("z2")))
    start_agent(server.url)
    server.wait_for_connection(15)
    got = messages_until(server, 2)
    assert [m.data["id"] for m in got] == ["z1", "z2"]
    assert not device.exists(BACKUPS["recv"])


def test_restored_requests_beyond_ten_are_refused_with_too_many_items(device, server,
                                                                     start_agent):
    lines = [about("q%d" % i) for i in range(12)]
    device.write_file(BACKUPS["recv"], "12\n" + "\n".join(lines) + "\n")
    start_agent(server.url)
    server.wait_for_connection(15)
    # the restore runs before the main loop takes anything: q0..q9 fill the
    # receive queue, q10 and q11 are answered at once with 10002
    refusal = ('{"jsonrpc":"2.0","id":"%s","error":{"code":10002,'
               '"message":"Too many items in a list","data":""}}')
    got = messages_until(server, 12)
    assert [m.raw for m in got[:2]] == [refusal % "q10", refusal % "q11"]
    assert [m.data["id"] for m in got[2:]] == ["q%d" % i for i in range(10)]
    assert all("result" in m.data for m in got[2:])


def test_a_corrupt_backup_line_stops_the_agent_once(device, server, start_agent):
    """A torn backup file (a power cut during the copy to flash) stops the
    first start with the assertion, but is moved aside first: the agent
    restarted as the service manager would starts normally, answers, and
    the damage stays there to be inspected."""
    torn = "2\n%s\nnot json\n" % about("c1")
    device.write_file(BACKUPS["recv"], torn)
    agent = start_agent(server.url)
    agent.expect_abort = True
    server.wait_for_connection(15)
    assert agent.wait_exit(15) == 128 + signal.SIGABRT
    assert ("korvat-cloud: kapri_util.cpp:1702: restore_queue: Assertion "
            "`((void *)0) != root' failed.") in agent.err.lines
    assert device.read_file(BACKUPS["recv"]) is None
    assert device.read_file(BACKUPS["recv"] + ".corrupt") == torn

    # the respawn: a normal start
    again = start_agent(server.url)
    conn = server.wait_for_connection(15)
    reply = server.request("dxGetAbout", {"deviceId": MAC}, id="after", conn=conn)
    assert reply.data["result"]["deviceId"] == MAC
    assert again.alive()
    assert again.err.lines == []
    assert device.read_file(BACKUPS["recv"] + ".corrupt") == torn


def test_the_flash_copies_are_moved_to_etc_before_the_restore(device, server, start_agent):
    device.write_file(BACKUPS["recv"], "1\n%s\n" % about("etc-copy"))
    # the jffs2 partition of the simulated device
    flash = os.path.join(device.run, "flash", "cloud_recv_cmd.backup")
    with open(flash, "w") as f:
        f.write("1\n%s\n" % about("flash-copy"))
    # the mount point is made for the mount and removed after it (mkdir
    # and rm are no device tools: their work shows in the file system)
    assert not device.exists("/mnt/_sys1")
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    got = server.next_message(15, predicate=not_a_status_update)
    # the flash copy came through the mount, which needs its directory
    assert got.data["id"] == "flash-copy"
    journal = device.journal()
    mounted = journal.index("mount -t jffs2 /dev/mtdblock2 /mnt/_sys1")
    assert journal.index("umount /mnt/_sys1") > mounted, journal
    assert not device.exists("/mnt/_sys1")
    assert not os.path.exists(flash)
    assert not device.exists(BACKUPS["recv"])
    agent.out.wait_for("Read backup file to queue...")


# ---- the luci-reload pause -----------------------------------------------

def test_a_request_waits_while_the_web_configuration_reloads(device, server, start_agent):
    # the agent's sleeps are recorded, and last as long as asked
    agent = start_agent(server.url, fastsleep=True, env={"FASTSLEEP_SCALE": "1"})
    server.wait_for_connection(15)
    # the timer has started ticking
    agent.out.wait_for(re.compile(r"\[LINE 1550\]: === beta_mode="), timeout=15)
    device.write_file("/tmp/luci_reload_cmd", "")
    wait_ticks(device, 2)  # a whole tick has seen it
    device.clear_journal()
    assert agent_sleeps(device) == []
    server.send_text(about("paused"))
    # the main loop took the request and holds it, looking again every second
    assert wait_for(lambda: len(agent_sleeps(device)) >= 3, 30)
    assert set(agent_sleeps(device)) == {1}
    assert [m for m in server.messages if m.method != "dsLogStatusUpdates"] == []
    assert "sntool" not in device.journal()
    dispatch = r"\[LINE 126\]: processing genericCommandHandler\.\.\.$"
    before = len(agent.out.matching(dispatch))
    device.remove_file("/tmp/luci_reload_cmd")
    reply = server.next_message(30, predicate=lambda m: m.method != "dsLogStatusUpdates")
    assert reply.data["id"] == "paused"
    # (the reader of the agent's output may take the line after the reply)
    assert wait_for(lambda: len(agent.out.matching(dispatch)[before:]) >= 1, 10)
    assert len(agent.out.matching(dispatch)[before:]) == 1
    # once the timer saw the file gone, five more seconds, then the request ran
    waits = agent_sleeps(device)
    assert waits[-1] == 5 and set(waits[:-1]) == {1}, waits


def test_no_status_update_while_the_web_configuration_reloads(device, server, start_agent):
    settings(device, auto_update=1)
    device.write_file("/tmp/luci_reload_cmd", "")
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    # periods pass: each one is skipped, and says so
    skipped = r"\[LINE 316\]: === luci-reloading\.\.\.\.\.\.$"
    assert wait_for(lambda: len(agent.out.matching(skipped)) >= 4, 30)
    # and no update starts meanwhile.  (The timer sets the pause at its
    # first tick, after its start-up commands: a period that ended before
    # may have had its update; one started then has printed its first line
    # before the second skipped period.)
    regex = re.compile(skipped)
    second = [i for i, line in enumerate(agent.out.lines) if regex.search(line)][1]
    assert not [line for line in agent.out.lines[second:] if re.search(UPDATE_STARTS, line)]
    device.remove_file("/tmp/luci_reload_cmd")
    update = server.next_message(30, method="dsLogStatusUpdates")
    assert update.data["params"]["deviceId"] == MAC


# ---- start-up of the timer ------------------------------------------------

def test_the_timer_records_its_id_and_detects_radios_and_beta_mode(device, server,
                                                                    start_agent):
    settings(device, beta_mode=1)
    device.write_file("/etc/mDNSResponder.conf", '#\n\t"VK310"\n')
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    timer = agent.timer_tid()
    assert timer in agent.threads() and timer != agent.main_tid()
    agent.out.wait_for(re.compile(
        r"^\[PID %d\]\[FUNC kapri_util\.cpp::timerHandler\]\[LINE 1544\]: "
        r"=== support2G=1, support5G=1$" % timer))
    agent.out.wait_for(re.compile(
        r"^\[PID %d\]\[FUNC kapri_util\.cpp::timerHandler\]\[LINE 1550\]: "
        r"=== beta_mode=1$" % timer))
    reply = server.request("dxGetAbout", {"deviceId": MAC})
    assert reply.data["result"]["model"] == "VK310-BETA"
    journal = device.journal()
    assert "kapri_util.lua get_support_radio" in journal
    assert "uci get korvatCloud.korvatCloud.beta_mode" in journal


def test_without_beta_mode_the_model_is_plain(device, server, start_agent):
    settings(device, beta_mode=0)
    device.write_file("/etc/mDNSResponder.conf", '#\n\t"VK310"\n')
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    agent.timer_tid()
    agent.out.wait_for(re.compile(r"\[LINE 1550\]: === beta_mode=0$"))
    assert server.request("dxGetAbout", {"deviceId": MAC}).data["result"]["model"] == "VK310"


# ---- the init script ------------------------------------------------------

RC_COMMON = os.path.join(ROOT, "openwrt", "test-support", "rc.common")
INIT_SCRIPT = os.path.join(ROOT, "openwrt", "korvat-cloud", "files", "korvatCloud.init")


def install_service(device, tmp_path, url):
    """The package's service script and the procd stand-in, configured for
    url, with a LAN address file for the device id."""
    net = tmp_path / "net"
    (net / "br-lan").mkdir(parents=True)
    (net / "br-lan" / "address").write_text("00:11:22:33:44:55\n")
    for name, src, mode in (("/etc/rc.common", RC_COMMON, 0o755),
                            ("/etc/init.d/korvatCloud", INIT_SCRIPT, 0o755)):
        with open(src) as f:
            device.write_file(name, f.read(), mode)
    device.uci_ok("set", "korvatCloud.korvatCloud.server_url=%s" % url)
    device.uci_ok("set", "korvatCloud.korvatCloud.port_number=")
    device.uci_ok("commit", "korvatCloud")
    return str(net)


# The agent's output under the procd stand-in (stdout 1, stderr 1).
INSTANCE_LOG = "/tmp/run/procd/korvatCloud/instance1.log"


def test_init_script_stop_saves_the_queues_and_ends_the_agent(device, server, tmp_path):
    from conftest import AGENT
    net = install_service(device, tmp_path, server.url)
    # debug lines in the instance's output show what the agent queued
    device.uci_ok("set", "korvatCloud.korvatCloud.debug=1")
    device.uci_ok("commit", "korvatCloud")
    device.start(["/bin/sh", "-c", "touch /tmp/.booted; exec sleep 3600"], agent=AGENT,
                 binds=[(net, "/sys/class/net")])
    assert wait_file_exists(device, "/tmp/.booted")
    r = device.exec(["/etc/init.d/korvatCloud", "start"])
    assert r.returncode == 0, r.stderr
    server.wait_for_connection(20)
    assert wait_file_exists(device, "/tmp/cloud_timer_pid")
    device.set_script("sntool", SLOW_WHILE)
    device.write_file("/tmp/slow", "")
    server.send_text(about("busy"))
    assert device.wait_journal("sntool")
    server.send_text(about("s1"))
    server.send_text(about("s2"))
    # both are in the receive queue: the frame's dump, then the queue's line

    def queued(id_):
        out = (device.read_file(INSTANCE_LOG) or "").splitlines()
        dumped = [i for i, line in enumerate(out)
                  if re.match(r'^\{"jsonrpc":"2\.0","id":"%s",' % id_, line)]
        return dumped and any(re.search(REQUEST_QUEUED, line) for line in out[dumped[0]:])
    assert wait_for(lambda: queued("s2"), 20)
    r = device.exec(["/etc/init.d/korvatCloud", "stop"], timeout=scaled(60))
    assert r.returncode == 0, r.stderr
    assert device.find("korvat-cloud") == []
    assert "killall -9 korvat-cloud" in device.journal()
    recv = backup_lines(device, "recv")
    assert [json.loads(line)["id"] for line in recv[1:]] == ["s1", "s2"]
    # the next start sends what was waiting
    device.remove_file("/tmp/slow")
    r = device.exec(["/etc/init.d/korvatCloud", "start"])
    assert r.returncode == 0, r.stderr
    server.wait_for_connection(20)
    got = messages_until(server, 2)
    assert [m.data["id"] for m in got] == ["s1", "s2"]
    r = device.exec(["/etc/init.d/korvatCloud", "stop"], timeout=scaled(60))
    assert r.returncode == 0
