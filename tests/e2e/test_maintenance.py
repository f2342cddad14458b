"""Device maintenance from the server: reset (reply, queue backup, event,
reboot, flash copy, and the next boot sending what was waiting), firmware
update with its own escaping, log streaming on and off, logging mode,
status-update frequency and the cloud server address, with the exact reply
bytes, the device commands in their order and the UCI values."""
import datetime
import json
import os
import re

from conftest import (CET, MAC, about, journal_lines, request_barrier, request_text, settings,
                      timer_barrier, unsolicited, wait_for, wait_request_queued,
                      wait_start_up_commands, wait_ticks)

INVALID = ('{"jsonrpc":"2.0","id":"%s","error":{"code":-32602,'
           '"message":"Invalid method parameter","data":""}}')
SUCCESS = '{"jsonrpc":"2.0","id":"%s","result":{"deviceId":"%s"}}'
# sntool stalls while /tmp/slow exists: the main thread stays in that one
# request while others queue up behind it
SLOW_WHILE = 'while [ -e /tmp/slow ]; do sleep 0.1; done\necho TAG-1\n'
# records when it ran (host clock), then does what the device tool does
# A device tool that announces itself on the agent's own output (a tool run
# with system() writes to the agent's standard output).
ANNOUNCE = "echo 'device tool ran: %s'\n"


def queued_before_the_tool(agent, name, request_id):
    """True when the handler handed its reply to the reply writer (its
    "produceObject: end" line, after the request arrived) before the device
    tool announced itself: the order the handler's thread printed them in,
    whatever the sending thread's speed."""
    arrived = agent.out.wait_for(re.compile(r'^\{"jsonrpc":"2\.0","id":"%s",' % request_id), 20)
    tool = agent.out.wait_for(re.compile(r"^device tool ran: %s$" % name), 20, start=arrived)
    queued = agent.out.wait_for(re.compile(r"\[LINE 682\]: produceObject: end$"), 20,
                                start=arrived)
    return queued < tool


def after(journal, first):
    """The journal lines after the first line equal to `first`."""
    return journal[journal.index(first) + 1:]


def flash(device):
    return {name: open(os.path.join(device.run, "flash", name)).read()
            for name in sorted(os.listdir(os.path.join(device.run, "flash")))}


def next_reply(server, timeout=30):
    """The next message that is not a status update (status updates stay
    queued)."""
    return server.next_message(timeout, predicate=lambda m: m.method != "dsLogStatusUpdates")


def new_connection(server, count, timeout=30):
    """The first connection made after `count` connections existed."""
    assert wait_for(lambda: server.connection_count > count, timeout), "no new connection"
    return server.connections[count]


# ---- dxResetDevice ----------------------------------------------------------

def test_reset_replies_then_leaves_an_event_reboots_and_copies_the_backups(device, server,
                                                                          start_agent):
    agent = start_agent(server.url, env=CET)
    server.wait_for_connection(15)
    wait_start_up_commands(device)
    device.clear_journal()
    server.send_text(request_text("dxResetDevice", {"deviceId": "x"}, "reset"))
    reply = next_reply(server)
    assert reply.raw == SUCCESS % ("reset", MAC)
    event = server.next_message(30, method="dsEventNotifications")
    assert event.time >= reply.time
    when = event.data["params"]["events"][0]["dateTime"]
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\+01:00", when), when
    assert event.raw == (
        '{"jsonrpc":"2.0","method":"dsEventNotifications","params":{"deviceId":"%s",'
        '"version":0,"events":[{"number":2,"dateTime":"%s","type":"INFO",'
        '"event":"Reboot"}]}}' % (MAC, when))
    assert device.wait_journal("kapri_util.lua backup_cloud_files", 10)
    # "sleep 2; reboot": two seconds at least between the event line (whole
    # seconds) and the reboot; the event went out meanwhile
    evt_at = datetime.datetime.strptime(when.replace("+01:00", "+0100"),
                                        "%Y-%m-%dT%H:%M:%S%z").timestamp()
    assert device.reboot_requested_at() - evt_at >= 1.95
    assert journal_lines(device, "kapri_util.lua", "reboot") == [
        "kapri_util.lua add_a_notification 2 INFO Reboot", "reboot",
        "kapri_util.lua backup_cloud_files"]
    # the device goes down a moment later
    assert device.wait_rebooted(15)
    assert not agent.alive()
    agent.out.wait_for("Backup queue commands to file...")


def test_reset_takes_the_waiting_requests_across_the_reboot(device, server, start_agent):
    settings(device, conn_retry=1)
    device.set_script("sntool", SLOW_WHILE)
    first_agent = start_agent(server.url)
    first = server.wait_for_connection(15)
    wait_start_up_commands(device)
    device.write_file("/tmp/slow", "")
    server.send_text(about("busy"))
    assert device.wait_journal("sntool")
    # the reset and two more requests wait behind the busy one
    server.send_text(request_text("dxResetDevice", {"deviceId": MAC}, "reset"))
    server.send_text(about("a1"))
    server.send_text(about("a2"))
    wait_request_queued(first_agent, "a2")
    device.remove_file("/tmp/slow")
    got = [next_reply(server), next_reply(server)]
    assert got[0].data["id"] == "busy" and "result" in got[0].data
    assert got[1].raw == SUCCESS % ("reset", MAC)
    # the old connection's attempts to come back are refused from here on
    assert device.wait_journal("reboot", 10)
    server.pause()
    assert device.wait_rebooted(20)
    # the receive queue held both requests when the reset saved it
    copies = flash(device)
    assert copies["cloud_recv_cmd.backup"] == "2\n%s\n%s\n" % (about("a1"), about("a2"))
    assert set(copies) <= {"cloud_recv_cmd.backup", "cloud_sent_cmd.backup",
                           "cloud_sent_status_cmd.backup", "cloud_sent_event_cmd.backup"}
    # both replies had left before the reset saved the queues (the server
    # took them above): none is kept for the next boot, none went twice;
    # nor is an event waiting (the reboot's own goes into /tmp/cEvtLog)
    assert "cloud_sent_cmd.backup" not in copies
    assert "cloud_sent_event_cmd.backup" not in copies

    # the next boot: the flash copies come back and both requests run
    seen = got + server.messages
    server.clear_messages()
    server.resume()
    count = server.connection_count
    device.clear_output("sntool")
    device.clear_journal()
    agent = start_agent(server.url)
    second = new_connection(server, count)
    assert second is not first
    replies = {}
    while len(replies) < 2:
        message = next_reply(server, 20)
        if message.data.get("id") in ("a1", "a2"):
            assert message.conn is second
            replies[message.data["id"]] = message
    assert all("result" in m.data for m in replies.values())
    assert journal_lines(device, "mount", "umount", "sntool") == [
        "mount -t jffs2 /dev/mtdblock2 /mnt/_sys1", "umount /mnt/_sys1", "sntool", "sntool"]
    # the copies were moved off the flash (cp; rm) and the mount point
    # removed after the umount (rm -r): no device tools, so their work is
    # checked in the file system
    assert flash(device) == {}
    assert not device.exists("/mnt/_sys1")
    assert not device.exists("/etc/cloud_recv_cmd.backup")
    # the boot emptied /tmp: the reboot's event is not sent again; events
    # go out in order, so one sent now comes after any other
    assert not device.exists("/tmp/cEvtLog")
    timer_barrier(device, server)
    assert not any(m.method == "dsEventNotifications" for m in server.messages)
    assert agent.alive()
    # each request ran once and each reply arrived once, over both runs
    # (a reply sent now comes after any other)
    request_barrier(server)
    seen += list(replies.values()) + server.messages
    ids = [m.data.get("id") for m in seen if m.method is None]
    assert sorted(ids) == ["a1", "a2", "busy", "reset"], ids
    assert device.journal().count("sntool") == 2


def test_replies_that_could_not_leave_before_a_reset_go_out_after_the_boot(device, server,
                                                                          start_agent):
    settings(device, conn_retry=1)
    device.set_script("sntool", SLOW_WHILE)
    first_agent = start_agent(server.url)
    first = server.wait_for_connection(15)
    wait_start_up_commands(device)
    device.write_file("/tmp/slow", "")
    server.send_text(about("busy"))
    assert device.wait_journal("sntool")
    server.send_text(request_text("dxResetDevice", {"deviceId": MAC}, "reset"))
    server.send_text(about("a1"))
    wait_request_queued(first_agent, "a1")
    # the server goes away before any reply is made: they wait in the agent
    server.pause()
    server.drop(first)
    first_agent.out.wait_for(re.compile(r"\] ACK close\.$"), timeout=10)
    device.remove_file("/tmp/slow")
    assert device.wait_journal("reboot", 20)
    assert device.wait_rebooted(20)
    copies = flash(device)
    assert copies["cloud_recv_cmd.backup"] == "1\n%s\n" % about("a1")
    saved = copies["cloud_sent_cmd.backup"].splitlines()
    saved_ids = [json.loads(line)["id"] for line in saved[1:]]
    assert saved[0] == str(len(saved_ids))
    # the reset's reply waited in the queue when the reset saved it; the
    # busy one's too, unless the sending thread had taken it already (it
    # then goes down with the reboot, unsent)
    assert saved_ids in (["reset"], ["busy", "reset"]), saved_ids
    assert not unsolicited(server)

    # the next boot sends the saved replies, then runs a1: each once
    server.resume()
    count = server.connection_count
    device.clear_output("sntool")
    device.clear_journal()
    start_agent(server.url)
    second = new_connection(server, count)
    got = [next_reply(server, 20) for _ in range(len(saved_ids) + 1)]
    assert [m.data["id"] for m in got] == saved_ids + ["a1"]
    assert [m.raw for m in got if m.data["id"] == "reset"] == [SUCCESS % ("reset", MAC)]
    assert all(m.conn is second for m in got)
    # nothing more: a reply sent now comes after any other
    request_barrier(server)
    assert [m for m in server.messages if m.method != "dsLogStatusUpdates"] == []
    # the reset itself is not run again
    assert "reboot" not in device.journal()


def test_reset_without_device_id_does_nothing(device, connected_after_start_up):
    agent, server = connected_after_start_up
    reply = server.request("dxResetDevice", {"deviceID2": MAC}, id="nr")
    assert reply.raw == INVALID % "nr"
    request_barrier(server)
    assert journal_lines(device, "reboot", "kapri_util.lua") == []
    assert not device.reboot_pending()
    assert agent.alive()


# ---- dxUpdateFirmware -------------------------------------------------------

def test_firmware_url_reaches_the_tool_with_its_semicolon_escaped(device,
                                                                  connected_after_start_up):
    agent, server = connected_after_start_up
    device.set_script("cli.sh", ANNOUNCE % "fw")
    reply = server.request("dxUpdateFirmware",
                           {"deviceId": MAC, "url": "a;reboot", "saveAndRestore": True}, id="fw")
    assert reply.raw == SUCCESS % ("fw", MAC)
    assert queued_before_the_tool(agent, "fw", "fw"), "the tool ran before the reply was queued"
    cmd = agent.out.wait_for(re.compile(
        r"\]: === Download firmware and update, cmd = \"/bin/cli\.sh fwupgrade a\\;reboot \" ===$"))
    save = agent.out.wait_for(re.compile(
        r"\]: Save configurations before firmware update\.\.\.\(Not Implement Yet!\)$"))
    assert save < cmd
    # one argument with the semicolon in it; nothing else ran
    assert journal_lines(device, "cli.sh", "reboot") == ["cli.sh fwupgrade a;reboot"]
    assert not device.reboot_pending()
    assert agent.alive()


def test_firmware_without_save_says_so(device, connected_after_start_up):
    agent, server = connected_after_start_up
    url = "http://fw.example/VK310 (v2).bin"
    reply = server.request("dxUpdateFirmware",
                           {"deviceId": MAC, "url": url, "saveAndRestore": 0}, id="fw2")
    assert reply.raw == SUCCESS % ("fw2", MAC)
    agent.out.wait_for(re.compile(
        r"\]: No need to save configurations before firmware update\.\.\.\(Not Implement Yet!\)$"))
    # the parentheses and the blank reach the tool escaped: one argument
    assert device.wait_journal("cli.sh fwupgrade http://fw.example/VK310 (v2).bin")
    agent.out.wait_for(re.compile(
        r'cmd = "/bin/cli\.sh fwupgrade http://fw\.example/VK310\\ \\\(v2\\\)\.bin " ===$'))


def test_firmware_without_a_url_is_refused(device, connected_after_start_up):
    agent, server = connected_after_start_up
    for id_, params in (("f1", {"deviceId": MAC}), ("f2", {"deviceId": MAC, "url": ""}),
                        ("f3", {"deviceId": MAC, "url": 3}), ("f4", {"url": "http://x/fw"})):
        assert server.request("dxUpdateFirmware", params, id=id_).raw == INVALID % id_
    request_barrier(server)
    assert journal_lines(device, "cli.sh") == []


# ---- dxStreamSystemLogs -----------------------------------------------------

def stream(server, enable, id_="abc", device_id=True):
    params = {"enable": enable}
    if device_id:
        params["deviceId"] = MAC
    server.send_text(request_text("dxStreamSystemLogs", params, id_))


def test_streaming_on_starts_a_capture_and_later_lines_carry_the_id(device,
                                                                    connected_after_start_up):
    agent, server = connected_after_start_up
    device.write_file("/tmp/cloud_log_file", "an old capture\n")
    # a second name for the old capture: its file stays, with its lines,
    # when the agent removes the name (rm), and not when it only empties it
    r = device.sh("ln /tmp/cloud_log_file /tmp/old_capture")
    assert r.returncode == 0, r.stderr
    stream(server, True, "abc")
    assert device.wait_journal("logread -f")
    assert journal_lines(device, "killall", "logread") == ["logread -f"]
    # the agent keeps the id of its own follower
    assert wait_for(lambda: (device.read_file("/tmp/cloud_logread_pid") or "").strip().isdigit())
    pid = int(device.read_file("/tmp/cloud_logread_pid"))
    assert [p["pid"] for p in device.find("logread")] == [pid]
    capture = lambda: device.read_file("/tmp/cloud_log_file")  # noqa: E731
    assert wait_for(lambda: capture() is not None and "an old capture" not in capture())
    # the old capture was removed, not emptied: a new file took its name
    assert device.read_file("/tmp/old_capture") == "an old capture\n"
    assert os.stat(device.path("/tmp/old_capture")).st_nlink == 1
    device.append_syslog("Nov 15 23:12:24 VK310 user.notice root: first")
    result = next_reply(server, 15)
    assert result.data["id"] == "abc" and result.data["stream"] is True
    assert [log["message"] for log in result.data["result"]["logs"]] == ["first "]
    # no reply of its own: the first message was the streamed result
    assert not unsolicited(server)


def test_streaming_off_stops_the_capture(device, connected_after_start_up):
    agent, server = connected_after_start_up
    stream(server, True, "on")
    assert device.wait_journal("logread -f")
    assert wait_for(lambda: device.find("logread") != [])
    device.clear_journal()
    stream(server, False, "off")
    assert wait_for(lambda: not device.exists("/tmp/cloud_log_file"))
    assert wait_for(lambda: device.find("logread") == [])
    assert not device.exists("/tmp/cloud_logread_pid")
    assert journal_lines(device, "killall", "logread") == []
    device.append_syslog("Nov 15 23:12:24 VK310 user.notice root: after the end")
    # a streaming period (five ticks) and more, then a reply queued after
    # anything it could have sent
    wait_ticks(device, 6)
    request_barrier(server)
    assert not unsolicited(server)


def test_streaming_is_switched_before_the_device_id_is_refused(device, connected_after_start_up):
    agent, server = connected_after_start_up
    stream(server, True, "nd", device_id=False)
    reply = next_reply(server)
    assert reply.raw == INVALID % "nd"
    assert device.wait_journal("logread -f")
    assert device.exists("/tmp/cloud_log_file")
    # no stored id: nothing is streamed
    device.append_syslog("Nov 15 23:12:24 VK310 user.notice root: unsent")
    wait_ticks(device, 6)
    request_barrier(server)
    assert not unsolicited(server)


def test_a_numeric_request_id_is_refused_before_streaming(device, connected_after_start_up):
    agent, server = connected_after_start_up
    server.send_text('{"jsonrpc":"2.0","id":7,"method":"dxStreamSystemLogs",'
                     '"params":{"deviceId":"%s","enable":true}}' % MAC)
    reply = next_reply(server)
    assert reply.raw == ('{"jsonrpc":"2.0","id":null,"error":{"code":-32600,'
                         '"message":"The JSON sent is not a valid Request object","data":""}}')
    request_barrier(server)
    assert journal_lines(device, "killall", "logread") == []
    assert not device.exists("/tmp/cloud_log_file")


# ---- dxSetLoggingMode -------------------------------------------------------

def test_production_mode_sets_printk_commits_and_applies_after_the_reply(device,
                                                                         connected_after_start_up):
    agent, server = connected_after_start_up
    settings(device, syslog_mode="DEBUG")
    device.set_script("kapri_util.lua", ANNOUNCE % "apply" + "uci commit\n", "cloud_action_apply")
    reply = server.request("dxSetLoggingMode", {"deviceId": MAC, "mode": "PRODUCTION"}, id="lm")
    assert reply.raw == SUCCESS % ("lm", MAC)
    assert queued_before_the_tool(agent, "apply", "lm"), "applied before the reply was queued"
    assert device.wait_journal("uci commit")  # the apply step's own commit
    assert journal_lines(device, "uci set", "uci commit", "kapri_util.lua") == [
        "uci set korvatCloud.korvatCloud.syslog_mode=PRODUCTION",
        "uci commit korvatCloud.korvatCloud.syslog_mode",
        "kapri_util.lua cloud_action_apply", "uci commit"]
    assert device.read_file("/proc/sys/kernel/printk") == "0\n"
    assert device.uci_committed("korvatCloud.korvatCloud.syslog_mode") == "PRODUCTION"


def test_debug_mode_sets_printk_seven(device, connected_after_start_up):
    agent, server = connected_after_start_up
    reply = server.request("dxSetLoggingMode", {"deviceId": MAC, "mode": "DEBUG"}, id="ld")
    assert reply.raw == SUCCESS % ("ld", MAC)
    assert device.wait_journal("kapri_util.lua cloud_action_apply")
    assert device.read_file("/proc/sys/kernel/printk") == "7\n"
    settings_text = device.uci_committed("korvatCloud.korvatCloud.syslog_mode")
    assert settings_text == "DEBUG"


def test_other_modes_are_refused_and_nothing_changes(device, connected_after_start_up):
    agent, server = connected_after_start_up
    for id_, mode in (("m1", "production"), ("m2", "Debug"), ("m3", "")):
        reply = server.request("dxSetLoggingMode", {"deviceId": MAC, "mode": mode}, id=id_)
        assert reply.raw == INVALID % id_
    assert server.request("dxSetLoggingMode", {"deviceId": MAC}, id="m4").raw == INVALID % "m4"
    request_barrier(server)
    assert journal_lines(device, "uci set", "uci commit", "kapri_util.lua") == []
    assert device.read_file("/proc/sys/kernel/printk") == "4\t4\t1\t7\n"
    assert device.uci_committed("korvatCloud.korvatCloud.syslog_mode") == "PRODUCTION"


# ---- status-update frequency ------------------------------------------------

def test_get_frequency_reads_uci(device, connected_after_start_up):
    agent, server = connected_after_start_up
    reply = server.request("dxGetStatusUpdateFrequency", {"deviceId": MAC}, id="g1")
    assert reply.raw == ('{"jsonrpc":"2.0","id":"g1","result":{"deviceId":"%s",'
                         '"frequency":60}}' % MAC)
    device.uci_ok("delete", "korvatCloud.korvatCloud.auto_update")
    device.uci_ok("commit", "korvatCloud")
    reply = server.request("dxGetStatusUpdateFrequency", {"deviceId": MAC}, id="g2")
    assert reply.raw == ('{"jsonrpc":"2.0","id":"g2","result":{"deviceId":"%s",'
                         '"frequency":-1}}' % MAC)
    assert server.request("dxGetStatusUpdateFrequency", {}, id="g3").raw == INVALID % "g3"


def test_set_frequency_replies_then_writes_and_commits(device, connected_after_start_up):
    agent, server = connected_after_start_up
    reply = server.request("dxSetStatusUpdateFrequency", {"deviceId": MAC, "frequency": 300},
                           id="s1")
    assert reply.raw == SUCCESS % ("s1", MAC)
    assert device.wait_journal("uci commit korvatCloud.korvatCloud.auto_update")
    assert journal_lines(device, "uci set", "uci commit") == [
        "uci set korvatCloud.korvatCloud.auto_update=300",
        "uci commit korvatCloud.korvatCloud.auto_update"]
    assert device.uci_committed("korvatCloud.korvatCloud.auto_update") == "300"
    reply = server.request("dxGetStatusUpdateFrequency", {"deviceId": MAC}, id="s2")
    assert reply.data["result"]["frequency"] == 300


def test_frequency_zero_or_a_string_is_refused(device, connected_after_start_up):
    agent, server = connected_after_start_up
    for id_, value in (("z1", 0), ("z2", "30"), ("z3", -60)):
        reply = server.request("dxSetStatusUpdateFrequency",
                               {"deviceId": MAC, "frequency": value}, id=id_)
        assert reply.raw == INVALID % id_
    reply = server.request("dxSetStatusUpdateFrequency", {"deviceId": MAC}, id="z4")
    assert reply.raw == INVALID % "z4"
    request_barrier(server)
    assert journal_lines(device, "uci set", "uci commit") == []
    assert device.uci_committed("korvatCloud.korvatCloud.auto_update") == "60"


# ---- dxSetCloudServerUrl ----------------------------------------------------

def test_server_url_with_port_65535_is_written_and_the_agent_restarts(device,
                                                                      connected_after_start_up):
    agent, server = connected_after_start_up
    device.set_script("korvatCloud", ANNOUNCE % "restart", "restart")
    url = 'wss://cloud.example/a"b$(touch /tmp/pwned)'
    reply = server.request("dxSetCloudServerUrl", {"deviceId": MAC, "url": url, "port": 65535},
                           id="u1")
    assert reply.raw == SUCCESS % ("u1", MAC)
    assert queued_before_the_tool(agent, "restart", "u1"), "restarted before the reply was queued"
    assert journal_lines(device, "uci set", "uci commit", "korvatCloud") == [
        "uci set korvatCloud.korvatCloud.port_number=65535",
        "uci commit",
        "uci set korvatCloud.korvatCloud.server_url=" + url,
        "uci commit",
        "korvatCloud restart"]
    assert device.uci_committed("korvatCloud.korvatCloud.port_number") == "65535"
    assert device.uci_committed("korvatCloud.korvatCloud.server_url") == url
    assert not device.exists("/tmp/pwned")


def test_server_port_0_or_65536_is_refused(device, connected_after_start_up):
    agent, server = connected_after_start_up
    for id_, params in (("p0", {"deviceId": MAC, "url": "ws://a", "port": 0}),
                        ("p1", {"deviceId": MAC, "url": "ws://a", "port": 65536}),
                        ("p2", {"deviceId": MAC, "url": "ws://a"}),
                        ("p3", {"deviceId": MAC, "port": 8080}),
                        ("p4", {"url": "ws://a", "port": 8080})):
        reply = server.request("dxSetCloudServerUrl", params, id=id_)
        assert reply.raw == INVALID % id_
    request_barrier(server)
    assert journal_lines(device, "uci set", "uci commit", "korvatCloud") == []
    assert device.uci_committed("korvatCloud.korvatCloud.port_number") == "8080"
    assert device.uci_committed("korvatCloud.korvatCloud.server_url") == "ws://127.0.0.1"
