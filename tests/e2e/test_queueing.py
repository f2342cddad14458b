"""Queues seen from outside: a full receive queue, reply order, and replies
that wait for the server to come back."""
import json
import re

from conftest import MAC, Deadline, about, not_a_status_update, request_barrier, wait_for

# sntool stalls while /tmp/slow exists (for two minutes at most), which keeps
# the main thread inside one dxGetAbout until the test lets it go: no timing
# assumption, however slow the machine or the emulated target.
SLOW_WHILE = ('i=0; while [ -e /tmp/slow ] && [ $i -lt 600 ]; do sleep 0.2; i=$((i+1)); done\n'
              'echo TAG-1\n')


def collect(server, count, timeout=30):
    """The next `count` messages other than status updates."""
    got = []
    deadline = Deadline(timeout)
    while len(got) < count:
        got.append(server.next_message(deadline.budget(), predicate=not_a_status_update))
    return got


def test_eleventh_request_while_busy_is_refused_and_never_run(device, connected):
    agent, server = connected
    device.set_script("sntool", SLOW_WHILE)
    device.write_file("/tmp/slow", "")
    server.send_text(about("busy"))
    assert device.wait_journal("sntool")
    for i in range(1, 12):
        server.send_text(about("q%d" % i))
    # the refusal leaves while the main thread is still busy, ahead of every reply
    first = server.next_message(30, predicate=not_a_status_update)
    assert first.raw == ('{"jsonrpc":"2.0","id":"q11","error":{"code":10002,'
                         '"message":"Too many items in a list","data":""}}')
    device.remove_file("/tmp/slow")
    rest = collect(server, 11)
    assert [m.data["id"] for m in rest] == ["busy"] + ["q%d" % i for i in range(1, 11)]
    assert all("result" in m.data for m in rest)
    # q11 never ran: one sntool call for each executed dxGetAbout
    assert device.journal().count("sntool") == 11
    # nothing more: a reply queued now leaves after any other
    request_barrier(server)
    assert [m for m in server.messages if not_a_status_update(m)] == []


def test_replies_leave_in_request_order(connected):
    agent, server = connected
    for i in range(8):
        method = "dxGetAbout" if i % 2 else "dxNoSuchMethod"
        server.send_text(json.dumps({"jsonrpc": "2.0", "id": "o%d" % i, "method": method,
                                     "params": {"deviceId": MAC}}))
    got = collect(server, 8)
    assert [m.data["id"] for m in got] == ["o%d" % i for i in range(8)]


def test_replies_queued_while_the_server_is_gone_arrive_after_reconnection(device, server,
                                                                        start_agent):
    device.uci_ok("set", "korvatCloud.korvatCloud.conn_retry=1")
    device.uci_ok("commit", "korvatCloud")
    device.set_script("sntool", SLOW_WHILE)
    agent = start_agent(server.url)
    first = server.wait_for_connection(15)
    device.write_file("/tmp/slow", "")
    server.send_text(about("a1"))
    assert device.wait_journal("sntool")
    for name in ("a2", "a3", "a4"):
        server.send_text(about(name))
    # the server goes away while the replies are still being made
    server.pause()
    server.drop()
    agent.out.wait_for(re.compile(r"\] ACK close\.$"), timeout=10)
    start = len(agent.out.lines)
    device.remove_file("/tmp/slow")
    # all four replies are made (each handed to the reply writer) while
    # the server is away
    assert wait_for(lambda: sum(1 for line in agent.out.lines[start:]
                                if re.search(r"\]\[LINE 682\]: produceObject: end$", line)) >= 4,
                    30)
    assert device.journal().count("sntool") == 4
    assert [m for m in server.messages if not_a_status_update(m)] == []
    server.resume()
    second = server.wait_for_connection(20)
    got = collect(server, 4)
    assert [m.data["id"] for m in got] == ["a1", "a2", "a3", "a4"]
    assert all(m.conn is second for m in got)
    assert all(m.data["result"]["deviceId"] == MAC for m in got)
