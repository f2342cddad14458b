# The service script /etc/init.d/korvatCloud run inside the simulated device
# (procd stand-in as /etc/rc.common, stand-in agent as
# /usr/bin/korvat-cloud): the agent's command line built from UCI (the label
# MAC first), the checks of the options it reads, the enabled switch,
# restart, reload (also on a setting the agent reads only at start), stop
# with SIGTERM and SIGKILL after the timeout, respawn, and the refusal to
# start without a server URL (the default).
import signal
import time

import pytest

from pkgsupport import AGENT_LOG, wait_for
from simdevice import HostGuard

MAC = "02:4B:56:A1:B2:C3"
ETH0 = "02:4B:56:A1:B2:C4"


def started(ap, count=1, timeout=10):
    """The count-th start of the stand-in (pid, argv), waiting for it."""
    s = wait_for(lambda: len(ap.starts()) >= count and ap.starts(), timeout)
    assert s, "agent not started; journal: %s" % ap.dev.journal()
    return s[count - 1]


def test_script_parses_with_device_shell(ap):
    r = ap.dev.exec(["/bin/sh", "-n", "/etc/init.d/korvatCloud"])
    assert r.returncode == 0, r.stderr


def test_start_runs_agent_with_url_and_mac(ap):
    r = ap.service("start")
    assert r.returncode == 0, r.stderr
    pid, argv = started(ap)
    assert argv == ["wss://cloud.example.net:443/device", MAC]
    assert ap.alive(pid)
    assert ap.instance_pid() == pid
    j = ap.dev.journal()
    assert "korvatCloud start" in j
    assert "uci -q -S -n export korvatCloud" in j
    assert ("procd exec korvatCloud instance1 %d /usr/bin/korvat-cloud "
            "wss://cloud.example.net:443/device %s" % (pid, MAC)) in j
    assert "procd trigger korvatCloud config.change korvatCloud" in j


@pytest.mark.parametrize("url,port,expected", [
    ("ws://127.0.0.1", "8080", "ws://127.0.0.1:8080"),
    ("ws://10.0.0.5:8765/ws", "443", "ws://10.0.0.5:8765/ws"),
    ("wss://cloud.example.net:8443", "443", "wss://cloud.example.net:8443"),
    ("wss://cloud.example.net/a/b", "8443", "wss://cloud.example.net:8443/a/b"),
    ("ws://h.example/", "80", "ws://h.example:80/"),
    ("wss://cloud.example.net/device", "", "wss://cloud.example.net/device"),
    ("wss://cloud.example.net/device", "0", "wss://cloud.example.net/device"),
    ("wss://cloud.example.net/device", "00443",
     "wss://cloud.example.net:443/device"),
])
def test_port_number_joins_url_without_port(ap, url, port, expected):
    ap.configure(server_url=url, port_number=port)
    assert ap.service("start").returncode == 0
    _, argv = started(ap)
    assert argv == [expected, MAC]


def test_debug_option_adds_d(ap):
    ap.configure(debug="1")
    assert ap.service("start").returncode == 0
    _, argv = started(ap)
    assert argv == ["-d", "wss://cloud.example.net:443/device", MAC]


def test_default_configuration_keeps_the_agent_stopped(fresh_ap):
    """As installed the package names no server: the agent is not started
    (rather than trying a placeholder host for ever), and the reason is
    logged."""
    assert fresh_ap.dev.uci("get", "korvatCloud.korvatCloud.server_url"
                            ).stdout.strip() == ""
    r = fresh_ap.service("start")
    assert r.returncode != 0
    assert "korvatCloud: not started: korvatCloud.korvatCloud.server_url " \
        "is empty" in r.stderr
    time.sleep(0.5)
    assert fresh_ap.starts() == [] and fresh_ap.agents() == []


def test_disabled_keeps_the_agent_stopped_and_stops_it(ap):
    ap.configure(enabled="0")
    r = ap.service("start")
    assert r.returncode == 0, r.stderr
    assert "not started: disabled (korvatCloud.korvatCloud.enabled is 0)" \
        in r.stderr
    time.sleep(0.5)
    assert ap.starts() == [] and ap.agents() == []
    # on, started; off again and reloaded: stopped
    ap.configure(enabled="1")
    assert ap.service("reload").returncode == 0
    pid, _ = started(ap)
    ap.configure(enabled="off")
    assert ap.service("reload").returncode == 0
    assert ap.signals(pid) == ["TERM"] and ap.agents() == []


def test_options_are_declared_for_validation(ap):
    assert ap.service("start").returncode == 0
    started(ap)
    assert ("procd validate korvatCloud korvatCloud enabled:bool:1 "
            "server_url:string port_number:port mac:macaddr debug:bool:0"
            ) in ap.dev.journal()


@pytest.mark.parametrize("option,value,kind", [
    ("port_number", "x1", "port"),
    ("port_number", "70000", "port"),
    ("port_number", "-1", "port"),
    ("mac", "02:4b:56:a1:b2", "macaddr"),
    ("mac", "02-4b-56-a1-b2-c3", "macaddr"),
    ("enabled", "maybe", "bool"),
    ("debug", "2", "bool"),
])
def test_invalid_option_refuses_to_start(ap, option, value, kind):
    ap.configure(**{option: value})
    r = ap.service("start")
    assert r.returncode != 0
    assert "korvatCloud.korvatCloud.%s: '%s' is not a valid %s" % (
        option, value, kind) in r.stderr
    assert "korvatCloud: not started: invalid settings" in r.stderr
    time.sleep(0.5)
    assert ap.starts() == [] and ap.agents() == []
    assert any(x.startswith("logger -t korvatCloud -p daemon.err") and
               "invalid settings" in x for x in ap.dev.journal())


def test_mac_is_the_label_mac(ap):
    ap.set_label_mac("02:4b:56:0a:0b:0c")
    assert ap.service("start").returncode == 0
    _, argv = started(ap)
    assert argv[-1] == "02:4B:56:0A:0B:0C"


@pytest.mark.parametrize("label", ["", "00:00:00:00:00:00", "not-a-mac"])
def test_unusable_label_mac_falls_back_to_br_lan(ap, label):
    ap.set_label_mac(label)
    assert ap.service("start").returncode == 0
    _, argv = started(ap)
    assert argv[-1] == MAC


def test_mac_option_wins_over_the_label(ap):
    ap.set_label_mac("02:4b:56:0a:0b:0c")
    ap.configure(mac="02:4b:56:dd:ee:ff")
    assert ap.service("start").returncode == 0
    _, argv = started(ap)
    assert argv[-1] == "02:4B:56:DD:EE:FF"


def test_mac_falls_back_to_eth0(ap):
    ap.set_mac("br-lan", None)
    assert ap.service("start").returncode == 0
    _, argv = started(ap)
    assert argv[-1] == ETH0


def test_no_mac_address_refuses_to_start(ap):
    ap.set_mac("br-lan", None)
    ap.set_mac("eth0", "00:00:00:00:00:00")
    r = ap.service("start")
    assert r.returncode != 0
    assert "not started: no MAC address (label, br-lan eth0)" in r.stderr
    time.sleep(0.5)
    assert ap.starts() == [] and ap.agents() == []


def test_empty_server_url_refuses_to_start(ap):
    ap.configure(server_url="")
    r = ap.service("start")
    assert r.returncode != 0
    assert "server_url is empty" in r.stderr
    time.sleep(0.5)
    assert ap.starts() == [] and ap.agents() == []
    j = ap.dev.journal()
    assert not [x for x in j if x.startswith("procd exec")]
    assert any(x.startswith("logger -t korvatCloud -p daemon.err")
               and "server_url is empty" in x for x in j)
    syslog = open(ap.dev.run + "/syslog.log").read()
    assert "korvatCloud: not started" in syslog


def test_start_twice_keeps_the_running_agent(ap):
    assert ap.service("start").returncode == 0
    pid, _ = started(ap)
    assert ap.service("start").returncode == 0
    time.sleep(0.3)
    assert len(ap.starts()) == 1 and ap.agents() == [pid]
    assert "procd keep korvatCloud instance1" in ap.dev.journal()


def test_restart_gives_new_process_with_new_settings(ap):
    assert ap.service("start").returncode == 0
    old, _ = started(ap)
    ap.configure(server_url="ws://192.0.2.10/cloud", port_number="9000")
    r = ap.service("restart")
    assert r.returncode == 0, r.stderr
    new, argv = started(ap, 2)
    assert new != old
    assert argv == ["ws://192.0.2.10:9000/cloud", MAC]
    assert ap.signals(old) == ["TERM"]
    assert ap.agents() == [new]
    j = ap.dev.journal()
    assert j.index("procd signal korvatCloud instance1 TERM %d" % old) < \
        j.index([x for x in j if x.startswith("procd exec korvatCloud "
                                              "instance1 %d " % new)][0])


def test_agent_restarting_itself(ap):
    """The agent runs "/etc/init.d/korvatCloud restart &" itself; the
    restart outlives the agent it stops and starts a new one."""
    assert ap.service("start").returncode == 0
    old, _ = started(ap)
    ap.configure(server_url="wss://other.example.org/dev", port_number="8443")
    ap.dev.signal(old, signal.SIGUSR1)
    new, argv = started(ap, 2)
    assert argv == ["wss://other.example.org:8443/dev", MAC]
    assert ap.signals(old) == ["USR1", "TERM"]
    assert wait_for(lambda: ap.agents() == [new])
    assert "korvatCloud restart" in ap.dev.journal()


def test_stop_sends_sigterm(ap):
    assert ap.service("start").returncode == 0
    pid, _ = started(ap)
    t0 = time.time()
    r = ap.service("stop")
    assert r.returncode == 0, r.stderr
    assert time.time() - t0 < 5
    assert ap.signals(pid) == ["TERM"]
    assert ap.agents() == []
    j = ap.dev.journal()
    assert "procd signal korvatCloud instance1 TERM %d" % pid in j
    assert "procd signal korvatCloud instance1 KILL %d" % pid not in j
    # stopped for good: no respawn
    time.sleep(6)
    assert len(ap.starts()) == 1 and ap.agents() == []


def test_stop_signals_the_maintenance_timer_first(ap):
    """The agent saves its queues and ends when its timer thread (named in
    /tmp/cloud_timer_pid) gets SIGTERM; stop signals that one first."""
    ap.dev.write_file("/tmp/fake-agent.timer", "")
    assert ap.service("start").returncode == 0
    pid, _ = started(ap)
    timer = wait_for(lambda: (ap.dev.read_file("/tmp/cloud_timer_pid") or "").strip())
    assert timer and int(timer) != pid
    r = ap.service("stop")
    assert r.returncode == 0, r.stderr
    log = ap.dev.read_file(AGENT_LOG)
    assert "TIMER-TERM %s" % timer in log
    # the stand-in was ended by its timer (SIGKILL), not by procd's TERM
    assert ap.signals(pid) == []
    assert ap.agents() == []


def test_stop_leaves_a_stale_timer_id_alone(ap):
    assert ap.service("start").returncode == 0
    pid, _ = started(ap)
    # a number that names no thread of the agent (here: pid 1, the device's
    # init, which is not the agent)
    ap.dev.write_file("/tmp/cloud_timer_pid", "1\n")
    r = ap.service("stop")
    assert r.returncode == 0, r.stderr
    assert ap.signals(pid) == ["TERM"]
    assert ap.agents() == []


def test_stop_kills_agent_ignoring_sigterm_after_timeout(ap):
    ap.dev.write_file("/tmp/fake-agent.ignore-term", "")
    assert ap.service("start").returncode == 0
    pid, _ = started(ap)
    p = ap.service_bg("stop")
    assert wait_for(lambda: ap.signals(pid) == ["TERM"])
    t0 = time.time()
    time.sleep(10)
    assert ap.alive(pid), "killed before term_timeout"
    p.wait(timeout=30)
    assert p.returncode == 0
    assert time.time() - t0 > 12   # term_timeout 15 s after the TERM
    assert ap.agents() == []
    assert "procd signal korvatCloud instance1 KILL %d" % pid in \
        ap.dev.journal()


def test_respawn_after_crash(ap):
    assert ap.service("start").returncode == 0
    pid, _ = started(ap)
    ap.dev.signal(pid, signal.SIGKILL)
    new, argv = started(ap, 2, timeout=15)
    assert new != pid and argv == ["wss://cloud.example.net:443/device", MAC]
    j = ap.dev.journal()
    assert "procd exit korvatCloud instance1 %d 137" % pid in j
    assert "procd respawn korvatCloud instance1" in j


def test_reload_restarts_only_on_changed_command_line(ap):
    assert ap.service("start").returncode == 0
    pid, _ = started(ap)
    # a setting the agent keeps up to date itself: agent keeps running
    ap.configure(auto_update="300")
    assert ap.service("reload").returncode == 0
    time.sleep(0.3)
    assert ap.agents() == [pid] and len(ap.starts()) == 1
    # a new port: new command line, new process
    ap.configure(port_number="8443")
    assert ap.service("reload").returncode == 0
    new, argv = started(ap, 2)
    assert argv == ["wss://cloud.example.net:8443/device", MAC]
    assert ap.signals(pid) == ["TERM"] and ap.agents() == [new]
    # no server any more: the agent is stopped
    ap.configure(server_url="")
    assert ap.service("reload").returncode != 0
    assert ap.signals(new) == ["TERM"]
    assert ap.agents() == []


@pytest.mark.parametrize("option,value", [
    ("ts_autoUpdate", "1_DAY"),
    ("remote_access_timeout", "300"),
    ("beta_mode", "1"),
])
def test_reload_restarts_on_a_setting_read_only_at_start(ap, option, value):
    """A local `uci set` of a setting the agent reads only when it starts
    and reload_config: the agent restarts to take it up."""
    assert ap.service("start").returncode == 0
    pid, _ = started(ap)
    ap.configure(**{option: value})
    assert ap.service("reload").returncode == 0
    new, argv = started(ap, 2)
    assert argv == ["wss://cloud.example.net:443/device", MAC]
    assert ap.signals(pid) == ["TERM"] and ap.agents() == [new]
    # reloaded again without a change: kept
    assert ap.service("reload").returncode == 0
    time.sleep(0.3)
    assert ap.agents() == [new] and len(ap.starts()) == 2
    assert "procd keep korvatCloud instance1" in ap.dev.journal()


def test_status_and_running(ap):
    assert ap.service("running").returncode != 0
    assert ap.service("start").returncode == 0
    started(ap)
    r = ap.service("status")
    assert r.returncode == 0 and r.stdout.strip() == "running"
    assert ap.service("stop").returncode == 0
    assert ap.service("status").stdout.strip() == "inactive"


def test_enable_links_start_and_stop_priorities(ap):
    assert ap.service("enable").returncode == 0
    out = ap.dev.sh("ls /etc/rc.d; readlink /etc/rc.d/S99korvatCloud").stdout
    assert out.split() == ["K10korvatCloud", "S99korvatCloud",
                           "../init.d/korvatCloud"]
    assert ap.service("enabled").returncode == 0
    assert ap.service("disable").returncode == 0
    assert ap.service("enabled").returncode != 0


def test_agent_output_goes_to_the_log(ap):
    assert ap.service("start").returncode == 0
    pid, _ = started(ap)
    spec = ap.dev.read_file("/tmp/run/procd/korvatCloud/instance1.spec")
    assert "stdout='1'" in spec and "stderr='1'" in spec
    assert "term_timeout='15'" in spec
    assert "respawn='3600 5 0'" in spec
    log = wait_for(lambda: ap.dev.read_file(
        "/tmp/run/procd/korvatCloud/instance1.log"))
    assert "stand-in agent %d running" % pid in log
    assert "stand-in agent %d stderr line" % pid in log


def test_host_untouched(ap):
    """Start, restart and stop signal only processes of the device."""
    with HostGuard(ap.dev, decoys=("korvat-cloud", "sleep", "sh")) as guard:
        assert ap.service("start").returncode == 0
        started(ap)
        assert ap.service("restart").returncode == 0
        started(ap, 2)
        assert ap.service("stop").returncode == 0
        assert ap.agents() == []
        assert guard.problems() == []
