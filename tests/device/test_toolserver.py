# The device's tools run through a compiled front end and the device's
# warm tool server (device/README.md, "Tool cost"): the same output, exit
# status, journal and process as the tool's own Python program per call
# (SIMDEVICE_TOOLSERVER=0), and a killed call stops at once.
import os
import re
import signal
import subprocess
import time

import safefs
import simdevice
from conftest import DEVICE_DIR, run_sh

DIRECT = {"SIMDEVICE_TOOLSERVER": "0"}
TOOLS = os.path.join(DEVICE_DIR, "sim")

# One line per call; each call's status follows it.  Only what gives the
# same answer twice (no clock in the output).
CALLS = r"""
uci get upnpc.http.enable
uci get no.such.option
uci
uci -q get nothing.here
uci set network.lan.ipaddr=10.0.0.5
uci changes
uci set korvatCloud.korvatCloud.name='Café ünï'
uci get korvatCloud.korvatCloud.name
uci set korvatCloud.korvatCloud.raw="$(printf 'a\377b')"
uci get korvatCloud.korvatCloud.raw | od -c | head -1
uci add korvatCloud extra
uci commit network
cd /etc/config && uci -c . get network.lan.ipaddr; cd /
umask 077; uci set led.led.x=1; ls -l /tmp/.uci/led | cut -c1-10; umask 022
uci get upnpc.http.enable <&-
free >&-
free; top -bn1; sntool; ifconfig br-lan; ifconfig eth9; ip route
TZ=UTC0 date -d 11.15-23:12:24 +%Y-%m-%dT%H:%M:%S%z
echo hello | logger -t x -s
printf 'a\r\nb\n\nc' | logger -s -p 3
logread | head -3
/usr/sbin/kapri_util.lua WifiInfo
/usr/sbin/kapri_util.lua vekGetClientList result -999
/usr/sbin/kapri_util.lua getNetwordId 192.168.1.77 255.255.255.0
/usr/sbin/kapri_util.lua no_such_command
lua
lua /nonexistent
/usr/bin/lua /usr/sbin/session_timeout.lua 600
luci-reload ntpclient; halt; udhcpc -i br-lan; /bin/cli.sh a b
/etc/init.d/upnpc restart
free
sntool one two
killall -0 nothing-here
mount -t jffs2 /dev/mtdblock2 /mnt; mount -t jffs2 /dev/mtdblock2 /mnt; umount /mnt; umount /mnt
LANG=C.UTF-8 uci get korvatCloud.korvatCloud.name
uci get upnpc.http.enable >&-
uci get upnpc.http.enable 2>&-
uci get network.lan.ipaddr | tr -d '\n'
uci get 'network.lan.ipaddr,x'
(sleep 0.3; uci get upnpc.http.enable) | true
SIMDEVICE_NOJOURNAL=1 uci get network.lan.ipaddr
"""


def script(calls):
    return "".join("%s; echo \"[$?]\"\n" % line
                   for line in calls.strip().split("\n"))


def servers(device):
    return [p for p in device.processes()
            if p["cmdline"][2:3] == [simdevice.SIM_MOUNT + "/lib/toolserver.py"]]


def calls_in(device, env):
    device.set_output("free", "canned\n", rc=3)
    device.set_script("sntool", "echo s-$#-$1 >&2; exit 4\n", "one")
    device.start(["/bin/sh", "-c", "{\n%s} > /tmp/out 2> /tmp/err\n"
                  ": > /tmp/done; sleep 1000" % script(CALLS)], env=env)
    assert wait_for(lambda: device.exists("/tmp/done"), 60)
    running = servers(device)
    device.stop()
    return (safefs.read_bytes(device.run, "tmp/out"),
            safefs.read_bytes(device.run, "tmp/err"), device.journal(),
            running)


def test_served_calls_answer_as_the_tools_own_python_does():
    with simdevice.Device() as direct, simdevice.Device() as served:
        want = calls_in(direct, DIRECT)
        got = calls_in(served, None)
    assert want[3] == []   # no server there
    assert got[3] != []    # and the calls went to one here
    assert got[0].decode() == want[0].decode()
    assert got[1].decode() == want[1].decode()
    assert got[2] == want[2]
    # what the calls printed, spot checks of the comparison's reach
    out = got[0].decode()
    assert "[0]\n0\n[0]\n" in out and "Café ünï\n[0]" in out
    assert "-rw-------\n[0]" in out and "\ncanned\n[3]\n" in out
    assert "-11-15T23:12:24+0000\n[0]" in out
    err = got[1].decode()
    assert "uci: Entry not found" in err and "x: hello\n" in err
    assert "root: a\r\nroot: b\nroot: c\n" in err
    assert "FileNotFoundError" in err and "s-2-one\n" in err


def server_children_cpu(device):
    """CPU ticks of the processes the device's tool servers forked and
    waited for (their workers): cutime + cstime."""
    total = 0
    for p in servers(device):
        with open("/proc/%d/stat" % p["host_pid"], "rb") as f:
            data = f.read()
        fields = data[data.rindex(b")") + 2:].split()
        total += int(fields[13]) + int(fields[14])
    return total


def test_uci_get_is_answered_by_the_server_itself(device):
    """The timer's once-a-second `uci get` forks no worker: the server's
    workers' CPU does not grow over many of them, while other calls fork
    one each."""
    device.start(["/bin/sh", "-c", "uci get upnpc.http.enable; : > /tmp/ready; "
                  "sleep 1000"])
    assert wait_for(lambda: device.exists("/tmp/ready"))
    before = server_children_cpu(device)
    r = device.sh("i=0; while [ $i -lt 100 ]; do uci get upnpc.http.enable >/dev/null; "
                  "i=$((i+1)); done; uci get upnpc.http.enable")
    assert (r.returncode, r.stdout) == (0, "0\n"), r.stderr
    assert server_children_cpu(device) == before
    assert device.journal().count("uci get upnpc.http.enable") == 102
    r = device.sh("i=0; while [ $i -lt 100 ]; do uci show upnpc >/dev/null; "
                  "i=$((i+1)); done")
    assert r.returncode == 0, r.stderr
    assert server_children_cpu(device) > before
    device.stop()


def follower(device, signal_cmd):
    """A `logread -f` writing into a pipe; signal_cmd ends it.  Returns
    (what the reader got, the follower's status)."""
    p = device.start(["/bin/sh", "-c", """
mkfifo /tmp/p
{ cat /tmp/p > /tmp/got; echo eof > /tmp/eof; } &
logread -f > /tmp/p &
pid=$!
until grep -qx 'logread -f' /simrun/journal.log; do sleep 0.05; done
echo $pid > /tmp/pid
until [ -e /tmp/go ]; do sleep 0.05; done
%s
wait $pid; echo "status $?"
until [ -e /tmp/eof ]; do sleep 0.05; done
cat /tmp/got
""" % signal_cmd])
    assert wait_for(lambda: device.exists("/tmp/pid"))
    return p


def wait_for(test, timeout=20.0):
    end = time.monotonic() + timeout
    while not test():
        if time.monotonic() > end:
            return False
        time.sleep(0.05)
    return True


def test_killall_ends_a_served_follower_and_its_pipe_at_once(device):
    p = follower(device, "killall logread")
    followers = device.find("logread")
    assert [f["cmdline"] for f in followers] == [
        ["/usr/bin/python3", "-S", "/simdevice/bin/logread", "-f"]]
    device.append_syslog("Nov 15 23:12:24 VK310 user.notice root: first")
    assert wait_for(lambda: "first" in device.read_file("/tmp/got", ""))
    device.write_file("/tmp/go", "")
    out, err = p.communicate(timeout=30)
    assert out.decode().endswith("status 143\n"
                                 "Nov 15 23:12:24 VK310 user.notice root: "
                                 "first\n")
    assert not device.find("logread")


def test_a_front_end_killed_outright_takes_its_worker_with_it(device):
    p = follower(device, "")
    pid = int(device.read_file("/tmp/pid"))
    workers = len(servers(device))
    assert workers == 2  # the server and the follower's worker
    device.signal(pid, signal.SIGKILL)
    # the reader sees the end of the pipe: nothing holds it any more
    assert wait_for(lambda: device.exists("/tmp/eof"))
    assert len(servers(device)) == 1
    device.append_syslog("Nov 15 23:12:24 VK310 user.notice root: late")
    device.write_file("/tmp/go", "")
    out, err = p.communicate(timeout=30)
    assert out.decode() == "status 137\n"
    # the server's log names the worker that died of a signal, and its call
    log = safefs.read_text(device.run, ".simtools/server.log")
    assert re.search(r"worker \d+ \(\S*logread -f\) ended by signal %d" % signal.SIGIO, log), log


def test_signals_reach_the_tool_as_they_reach_its_own_python(device):
    for env in (DIRECT, None):
        status, out, err = run_sh(device, """
logread -f > /dev/null &
until grep -qx 'logread -f' /simrun/journal.log; do sleep 0.05; done
kill -USR1 $!; wait $!; echo "usr1 $?"
: > /simrun/journal.log
""", env=env)
        assert out == "usr1 138\n", env


def test_the_server_keeps_no_descriptor_of_its_first_caller(device):
    # fd 7, open in the shell, is inherited by the first tool call, which
    # starts the server: the reader sees the end once the shell closes it
    status, out, err = run_sh(device, """
mkfifo /tmp/p
{ cat /tmp/p; echo eof; } &
exec 7>/tmp/p
uci get upnpc.http.enable
exec 7>&-
wait
""", timeout=30)
    assert out == "0\neof\n"


def test_a_device_started_again_after_a_reboot_starts_its_server_again(device):
    p = device.start(["/bin/sh", "-c", "uci get upnpc.http.enable; reboot; "
                                       "sleep 100"])
    assert device.wait_rebooted(20)
    assert p.stdout.read() == b"0\n"
    status, out, err = run_sh(device, "uci get upnpc.http.enable")
    assert (status, out, err) == (0, "0\n", "")


def test_a_front_end_built_from_another_source_is_built_again(device):
    status, out, err = run_sh(device, "uci get upnpc.http.enable")
    front = os.path.join(device.run, ".simtools", "front")
    st = os.stat(os.path.join(TOOLS, "lib", "toolfront.c"))
    key = b"%d:%d:%d" % (st.st_size, int(st.st_mtime), st.st_ino)
    with open(front, "rb") as f:
        data = f.read()
    assert key in data
    with open(front, "wb") as f:  # the same program, another source's key
        f.write(data.replace(key, b"0" * len(key)))
    status, out, err = run_sh(device, "uci get upnpc.http.enable")
    assert (status, out, err) == (0, "0\n", "")
    with open(front, "rb") as f:
        assert key in f.read()


def test_the_tool_files_refuse_to_run_on_the_host():
    env = {k: v for k, v in os.environ.items() if k != "SIMDEVICE_RUN"}
    for tool in ("bin/uci", "bin/kapri_util.lua", "bin/free", "bin/reboot"):
        r = subprocess.run([os.path.join(TOOLS, tool), "get", "x.y.z"],
                           env=env, capture_output=True, text=True)
        assert r.returncode == 2, tool
        assert r.stderr == ("simdevice: not inside a simulated device "
                            "(set SIMDEVICE_RUN)\n"), tool


def test_a_run_directory_without_a_front_end_runs_each_tool_as_python(device):
    # what a machine without cc (or another than x86_64) leaves behind
    os.makedirs(os.path.join(device.run, ".simtools"))
    with open(os.path.join(device.run, ".simtools", "no-front"), "w"):
        pass
    p = follower(device, "killall logread")
    assert [(f["comm"], f["cmdline"]) for f in device.find("logread")] == [
        ("logread", ["/usr/bin/python3", "-S", "/simdevice/bin/logread",
                     "-f"])]
    assert servers(device) == []
    device.append_syslog("Nov 15 23:12:24 VK310 user.notice root: first")
    assert wait_for(lambda: "first" in device.read_file("/tmp/got", ""))
    device.write_file("/tmp/go", "")
    out, err = p.communicate(timeout=30)
    assert out.decode().endswith("status 143\nNov 15 23:12:24 VK310 "
                                 "user.notice root: first\n")
    assert not os.path.exists(os.path.join(device.run, ".simtools", "front"))


STUCK = """import glob, socket, time
s = socket.socket(socket.AF_UNIX)
s.connect(glob.glob("/simrun/.simtools/srv-*.sock")[0])
open("/tmp/connected", "w").close()
time.sleep(1000)
"""


def test_a_connection_that_sends_nothing_does_not_hold_the_calls(device):
    device.write_file("/tmp/stuck.py", STUCK)
    status, out, err = run_sh(device, """
uci get upnpc.http.enable
/usr/bin/python3 /tmp/stuck.py &
until [ -e /tmp/connected ]; do sleep 0.05; done
uci get upnpc.http.enable
kill $!
""", timeout=60)
    assert (status, out, err) == (0, "0\n0\n", "")
