"""Command line, connection-state file, close and reconnection lines, the
SIGTERM handler and the stop on text that is not JSON."""
import json
import re
import signal
import time

from conftest import MAC, agent_sleeps, request_barrier, scaled, wait_for
from simdevice import TARGET

DEBUG_START = re.compile(
    r"^\[PID \d+\]\[FUNC nimb_client\.cpp::main\]\[LINE 100\]: Starting Korvat Cloud Client$")
USAGE = "Usage: /usr/bin/korvat-cloud [-d] <device_server_url> <device_mac_address>"


def test_too_few_operands_print_usage_and_exit_255(start_agent):
    agent = start_agent(args=["ws://127.0.0.1:1/"])
    assert agent.wait_exit(10) == 255
    assert agent.out.lines == [USAGE]


def test_too_many_operands_are_a_usage_error(start_agent):
    agent = start_agent(args=["-d", "ws://127.0.0.1:1/", MAC, "extra"])
    assert agent.wait_exit(10) == 255
    assert agent.out.lines == [USAGE]


def test_without_flag_there_is_no_debug_output(server, start_agent):
    agent = start_agent(server.url, debug=False)
    conn = server.wait_for_connection(15)
    server.request("dxGetAbout", {"deviceId": MAC})
    agent.out.wait_for("Load uci configurations to global variables...")
    assert conn.header("Origin") == MAC
    assert not any(line.startswith("[PID ") for line in agent.out.lines)


def test_debug_flag_turns_on_debug_lines(server, start_agent):
    agent = start_agent(server.url, debug=True)
    server.wait_for_connection(15)
    agent.out.wait_for(DEBUG_START)
    agent.out.wait_for(re.compile(
        r"^\[PID \d+\]\[FUNC nimb_sdk\.cpp::establishWbsConnection\]\[LINE 378\]: "
        r"<< pthread create and start >>$"))
    server.request("dxGetAbout", {"deviceId": MAC})
    i = agent.out.wait_for(re.compile(
        r"^\[PID \d+\]\[FUNC nimb_client\.cpp::main\]\[LINE 126\]: processing genericCommandHandler\.\.\.$"))
    # each thread prints its own id, as each thread has its own process id
    # on the device; the main thread's is the process id
    main_pid = int(re.match(r"^\[PID (\d+)\]", agent.out.lines[i]).group(1))
    assert main_pid == agent.main_tid()
    j = agent.out.wait_for(re.compile(r"\[FUNC nimb_sdk\.cpp::queueWriter\]\[LINE 571\]"))
    reader_pid = int(re.match(r"^\[PID (\d+)\]", agent.out.lines[j]).group(1))
    assert reader_pid != main_pid and reader_pid in agent.threads()


def test_other_first_word_is_taken_as_no_debug(server, start_agent):
    agent = start_agent(args=["-x", server.url, "aa:bb:cc:dd:ee:ff"])
    conn = server.wait_for_connection(15)
    assert conn.header("Origin") == "aa:bb:cc:dd:ee:ff"
    reply = server.request("dxGetAbout", {"deviceId": "x"})
    assert reply.data["result"]["deviceId"] == "aa:bb:cc:dd:ee:ff"
    assert not any(line.startswith("[PID ") for line in agent.out.lines)


def test_invalid_url_is_reported_and_ends_the_agent(start_agent):
    agent = start_agent(args=["WSS://example", MAC])
    assert agent.wait_exit(10) == 255
    assert "Invalid device server URL: WSS://example" in agent.err.text()


def test_state_file_follows_ping_close_and_reconnection(device, server, start_agent):
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    # connected, but no ping answered yet
    assert agent.state() == "0"
    assert server.ping("abc") == b"abc"
    agent.wait_state("1")
    server.close()
    agent.out.wait_for(re.compile(r"^\[\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d\d:\d\d\] ACK close\.$"))
    server.wait_for_connection(15)
    agent.out.wait_for(re.compile(r"^\[[^]]+\] ACK reconnection\.$"))
    agent.wait_state("1")
    journal = device.journal()
    assert "uci get korvatCloud.korvatCloud.conn_retry" in journal


def test_state_file_reads_zero_while_the_first_connection_is_opened(peer, start_agent):
    agent = start_agent(peer.url())
    peer.accept(15)
    request = peer.read_request()
    assert request.request_line == "GET / HTTP/1.1"
    # the opening handshake is not answered yet: the file already says "0"
    assert agent.state() == "0"


def test_state_file_reads_zero_while_the_server_is_away(device, server, start_agent):
    device.uci_ok("set", "korvatCloud.korvatCloud.conn_retry=1")
    device.uci_ok("commit", "korvatCloud")
    # the agent's sleeps are recorded (one before each new attempt), and
    # last as long as asked
    agent = start_agent(server.url, fastsleep=True, env={"FASTSLEEP_SCALE": "1"})
    server.wait_for_connection(15)
    server.ping("x")
    agent.wait_state("1")
    server.pause()
    server.drop()
    agent.wait_state("0")
    # it stays so through refused attempts
    assert wait_for(lambda: len(agent_sleeps(device)) >= 2, 20)
    assert agent.state() == "0"
    server.resume()
    server.wait_for_connection(15)
    agent.wait_state("1")


def test_sigterm_to_main_thread_closes_and_reconnects_promptly(server, start_agent):
    agent = start_agent(server.url)
    first = server.wait_for_connection(15)
    reply = server.request("dxGetAbout", {"deviceId": MAC})
    assert "result" in reply.data
    timer = agent.timer_tid()
    started = time.monotonic()
    # to the main thread itself: kill() on the process may pick any thread
    agent.device.signal_thread(agent.main_tid(), signal.SIGTERM)
    assert first.wait_closed(scaled(10))
    second = server.wait_for_connection(15)
    # the receiving thread is woken, not left in its 40-second wait
    assert time.monotonic() - started < min(scaled(10), 39)
    assert second is not first
    assert server.request("dxGetAbout", {"deviceId": MAC}).data["result"]["deviceId"] == MAC
    # the client sent a close frame on the first connection
    closes = [f for f in server.frames if f.conn_index == first.index
              and f.direction == "recv" and f.opcode == 8]
    assert closes
    assert agent.alive()
    # the timer file names the timer, not the main thread: nothing else
    assert timer != agent.main_tid()
    assert "killall -9 korvat-cloud" not in agent.device.journal()
    assert agent.out.count("Func /tmp/cloud_timer_pid: File kapri_sig_term doesn't exist.") == 0


def test_sigterm_without_the_timer_file_reports_it(device, server, start_agent):
    agent = start_agent(server.url)
    first = server.wait_for_connection(15)
    agent.timer_tid()
    device.remove_file("/tmp/cloud_timer_pid")
    device.signal_thread(agent.main_tid(), signal.SIGTERM)
    agent.out.wait_for("Func /tmp/cloud_timer_pid: File kapri_sig_term doesn't exist.")
    assert first.wait_closed(scaled(10))
    server.wait_for_connection(15)
    assert agent.alive()


def thread_signal_masks(device, tid):
    """(blocked, pending) SIGTERM bits of one agent thread, from the host."""
    tgid, host_tid = device.host_tid(tid)
    with open("/proc/%d/task/%d/status" % (tgid, host_tid)) as f:
        status = dict(line.rstrip("\n").split(":\t", 1) for line in f if ":\t" in line)
    bit = 1 << (signal.SIGTERM - 1)
    return bool(int(status["SigBlk"], 16) & bit), bool(int(status["SigPnd"], 16) & bit)


def test_sigterm_to_a_worker_thread_is_held_back(device, server, start_agent):
    """Threads without a part in the SIGTERM behaviour block it, so that a
    process-wide SIGTERM can only reach the main thread or the timer."""
    agent = start_agent(server.url)
    conn = server.wait_for_connection(15)
    # The receiving thread's id, as it prints it (under emulation the process
    # also holds the emulator's own helper threads).
    i = agent.out.wait_for(re.compile(r"^\[PID \d+\]\[FUNC nimb_sdk.cpp::queueWriter\]"))
    worker = int(re.match(r"\[PID (\d+)\]", agent.out.lines[i]).group(1))
    assert worker != agent.main_tid() and worker in agent.threads()
    device.signal_thread(worker, signal.SIGTERM)
    assert server.request("dxGetAbout", {"deviceId": MAC}).data["result"]["deviceId"] == MAC
    request_barrier(server)
    assert conn.is_open
    assert agent.out.count("Func /tmp/cloud_timer_pid: File kapri_sig_term doesn't exist.") == 0
    assert "killall -9 korvat-cloud" not in device.journal()
    if not TARGET:
        # natively the kernel shows it: blocked in that thread, and pending
        assert thread_signal_masks(device, worker) == (True, True)
        assert thread_signal_masks(device, agent.main_tid()) == (False, False)


def test_process_directed_sigterm_reaches_the_main_thread(device, server, start_agent):
    """kill PID (what a service manager sends) closes the connection only."""
    agent = start_agent(server.url)
    first = server.wait_for_connection(15)
    agent.out.wait_for(re.compile(r"\]\[FUNC nimb_sdk.cpp::readJsonCommand\]"))
    agent.timer_tid()
    device.signal(agent.main_tid(), signal.SIGTERM)
    assert first.wait_closed(scaled(10))
    server.wait_for_connection(15)
    assert agent.alive()
    assert "killall -9 korvat-cloud" not in device.journal()


def test_sigterm_to_the_recorded_thread_saves_queues_and_kills(device, server, start_agent):
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    # the queues exist once the main thread waits for requests
    agent.out.wait_for(re.compile(r"\]\[FUNC nimb_sdk.cpp::readJsonCommand\]"))
    tid = agent.main_tid()
    agent.timer_tid()
    device.write_file("/tmp/cloud_timer_pid", "99999\n%d\n" % tid)
    device.signal_thread(tid, signal.SIGTERM)
    agent.out.wait_for("Backup queue commands to file...")
    assert device.wait_journal("killall -9 korvat-cloud")
    assert agent.wait_exit(10) == 128 + signal.SIGKILL
    # nothing was queued, so no backup file was written
    assert agent.out.count("Func backup_queue: Queue is emtpy") == 4, "\n".join(agent.out.lines[-12:])
    assert not device.exists("/etc/cloud_recv_cmd.backup")


def test_text_that_is_not_json_stops_the_agent(server, start_agent):
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    agent.expect_abort = True
    server.send_text("hello")
    assert agent.wait_exit(15) == 128 + signal.SIGABRT
    assert ("korvat-cloud: nimb_sdk.cpp:568: queueWriter: Assertion "
            "`((void *)0) != root' failed.") in agent.err.lines
    agent.out.wait_for("Recieved text frame: 5")


def test_sigterm_to_a_thread_not_named_in_the_timer_file_does_not_kill(device, server,
                                                                       start_agent):
    agent = start_agent(server.url)
    first = server.wait_for_connection(15)
    agent.out.wait_for(re.compile(r"\]\[FUNC nimb_sdk.cpp::readJsonCommand\]"))
    tid = agent.main_tid()
    # the file names other threads only
    agent.timer_tid()
    device.write_file("/tmp/cloud_timer_pid", "99999\n%d\n" % (tid + 100000))
    device.signal_thread(tid, signal.SIGTERM)
    assert first.wait_closed(scaled(10))
    second = server.wait_for_connection(15)
    assert server.request("dxGetAbout", {"deviceId": MAC}).data["result"]["deviceId"] == MAC
    assert agent.alive()
    assert "killall -9 korvat-cloud" not in device.journal()
    assert agent.out.count("Backup queue commands to file...") == 0
    # the file was there, so no message about a missing one
    assert agent.out.count("Func /tmp/cloud_timer_pid: File kapri_sig_term doesn't exist.") == 0
    assert second is not first


# sntool stalls while /tmp/slow exists: the main thread stays inside one
# request until the test lets it go
SLOW_SNTOOL = "while [ -e /tmp/slow ]; do sleep 0.1; done\necho TAG-SLOW\n"


def test_sigterm_while_the_main_thread_is_busy_closes_at_once(device, server, start_agent):
    r = device.uci("set", "korvatCloud.korvatCloud.conn_retry=1")
    assert r.returncode == 0
    assert device.uci("commit", "korvatCloud").returncode == 0
    agent = start_agent(server.url)
    first = server.wait_for_connection(15)
    device.set_script("sntool", SLOW_SNTOOL)
    device.write_file("/tmp/slow", "")
    server.send_text(json.dumps({"jsonrpc": "2.0", "id": "busy", "method": "dxGetAbout",
                                 "params": {"deviceId": MAC}}))
    assert device.wait_journal("sntool")
    # the main thread is inside the handler, waiting for sntool, which
    # goes on until the connection has closed
    device.signal_thread(agent.main_tid(), signal.SIGTERM)
    assert first.wait_closed(scaled(10)), "the connection stayed open while the handler ran"
    assert [m for m in server.messages if m.data.get("id") == "busy"] == []
    device.remove_file("/tmp/slow")
    second = server.wait_for_connection(15)
    # the busy request still gets its reply, on the new connection
    msg = server.next_message(15, predicate=lambda m: m.method != "dsLogStatusUpdates")
    assert msg.data["id"] == "busy" and msg.conn is second
    assert msg.data["result"]["serviceTag"] == "TAG-SLOW"
    assert agent.alive()


def test_sigterm_to_the_recorded_thread_kills_even_while_it_is_busy(device, server,
                                                                  start_agent):
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    device.set_script("sntool", SLOW_SNTOOL)
    device.write_file("/tmp/slow", "")
    tid = agent.main_tid()
    agent.timer_tid()
    device.write_file("/tmp/cloud_timer_pid", "%d\n" % tid)
    server.send_text(json.dumps({"jsonrpc": "2.0", "id": "busy", "method": "dxGetAbout",
                                 "params": {"deviceId": MAC}}))
    assert device.wait_journal("sntool")
    # the handler cannot end while /tmp/slow exists: the kill comes first
    device.signal_thread(tid, signal.SIGTERM)
    assert agent.wait_exit(10) == 128 + signal.SIGKILL
    assert device.exists("/tmp/slow")
    assert agent.out.count("Backup queue commands to file...") == 1
    assert "killall -9 korvat-cloud" in device.journal()
