"""The sandbox holds with the real agent: after a run in which the agent
writes its files, runs its device commands and finally kills itself with
"killall -9 korvat-cloud", the host's kernel settings (printk included),
/etc, /tmp and mount table are unchanged and no host process named like
the agent was signalled."""
import os
import signal

from simdevice import HostGuard

from conftest import MAC


def test_agent_run_leaves_the_host_alone(device, server, start_agent):
    with HostGuard(device, decoys=("korvat-cloud", "logread")) as guard:
        agent = start_agent(server.url)
        server.wait_for_connection(15)
        server.ping("p")
        agent.wait_state("1")
        assert server.request("dxGetAbout", {"deviceId": MAC}).data["result"]
        server.close()
        server.wait_for_connection(15)
        tid = agent.main_tid()
        agent.timer_tid()
        device.write_file("/tmp/cloud_timer_pid", "%d\n" % tid)
        # to that thread itself: kill() on the process may pick any thread
        device.signal_thread(tid, signal.SIGTERM)
        assert device.wait_journal("killall -9 korvat-cloud")
        assert agent.wait_exit(10) == 128 + signal.SIGKILL
        # the agent did write its files, inside the device
        assert device.read_file("/tmp/cloud_conn_state").strip() in ("0", "1")
        journal = device.journal()
        assert "uci get korvatCloud.korvatCloud.conn_retry" in journal
        assert "sntool" in journal
        assert guard.problems() == []


def test_agent_runs_without_capabilities_in_its_own_network(device, server, start_agent):
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    found = device.find("korvat-cloud")
    assert len(found) == 1
    host_pid = found[0]["host_pid"]
    # read from the host: the agent's effective, permitted and bounding sets
    with open("/proc/%d/status" % host_pid) as f:
        status = dict(line.rstrip("\n").split(":\t", 1) for line in f if ":\t" in line)
    assert int(status["CapEff"], 16) == 0
    assert int(status["CapPrm"], 16) == 0
    assert int(status["CapBnd"], 16) == 0
    # its network namespace is the run's device namespace, not the host's
    ns = os.readlink("/proc/%d/ns/net" % host_pid)
    assert ns == os.readlink(device.net.device_ns)
    assert ns != os.readlink("/proc/self/ns/net")
