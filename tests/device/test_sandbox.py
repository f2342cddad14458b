# The sandbox launcher: exit status and output pass-through, the agent
# binary's place, environment and preload, entering the running device,
# per-thread signals and clean-up.
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time

import pytest

import safefs
import simdevice
from conftest import run_sh


def test_status_and_output_pass_through(device):
    assert run_sh(device, "echo out; echo err >&2; exit 3") == \
        (3, "out\n", "err\n")
    assert run_sh(device, "exit 255")[0] == 255
    assert run_sh(device, "python3 -c 'import os; os.abort()'")[0] == 134
    assert run_sh(device, "kill -TERM $$")[0] == 128 + signal.SIGTERM


def test_busybox_shell(device):
    assert run_sh(device, 'echo "a\\nb"; readlink /bin/sh')[1] == \
        "a\\nb\n/simdevice/busybox/sh\n"
    assert run_sh(device, 'echo "a\\nb"', shell="host")[1] == "a\nb\n"


def test_device_layout(device):
    status, out, err = run_sh(device, """
hostname
echo x > /etc/x.backup && echo etc-ok
touch /usr/bin/new 2>/dev/null || echo usr-ro
touch /bin/new 2>/dev/null || echo bin-ro
mount -o remount,rw /usr 2>/dev/null || echo no-remount
echo $PATH
ls /etc/init.d/korvatCloud /bin/cli.sh /usr/sbin/kapri_util.lua \
   /usr/sbin/session_timeout.lua /usr/bin/lua /sbin/uci
""")
    assert out.split("\n")[:6] == ["VK310", "etc-ok", "usr-ro", "bin-ro",
                                   "no-remount",
                                   "/simdevice/bin:/usr/sbin:/usr/bin:"
                                   "/sbin:/bin"]
    assert err == ""
    assert device.read_file("/etc/x.backup") == "x\n"


def test_agent_binary_and_killall(device, tmp_path):
    fake = tmp_path / "build-output"
    shutil.copy2("/bin/sleep", fake)
    p = device.start(["/usr/bin/korvat-cloud", "30"], agent=str(fake))
    time.sleep(0.3)
    procs = device.find("korvat-cloud")
    assert len(procs) == 1 and procs[0]["cmdline"][0] == \
        "/usr/bin/korvat-cloud"
    r = device.exec(["killall", "-9", "korvat-cloud"])
    # The sandbox ends with its main program, and the kernel then kills
    # whatever still runs in it: killall may be taken before it exits.
    assert r.returncode in (0, -9), r
    assert p.wait(10) == 128 + 9
    assert "killall -9 korvat-cloud" in device.journal()


def test_env_and_preload(device, tmp_path):
    if not shutil.which("gcc"):
        pytest.skip("no C compiler")
    src = tmp_path / "shim.c"
    src.write_text('#include <stdio.h>\n#include <stdlib.h>\n'
                   '__attribute__((constructor)) static void hi(void)'
                   '{ fprintf(stderr, "shim:%s\\n", getenv("SHIMTEST")); }\n')
    so = tmp_path / "shim.so"
    subprocess.run(["gcc", "-shared", "-fPIC", "-o", str(so), str(src)],
                   check=True)
    p = device.start(["/bin/true"], env={"SHIMTEST": "on"}, preload=[so])
    out, err = p.communicate(timeout=10)
    assert err == b"shim:on\n" and p.returncode == 0


def test_exec_files_and_processes(device):
    device.start(["/bin/sh", "-c", "sleep 30"])
    assert device.sandbox_pid() is not None
    r = device.sh("echo hi > /tmp/from-inside; grep Cap[EP] /proc/self/status;"
                  " ps")
    assert device.read_file("/tmp/from-inside") == "hi\n"
    assert "CapEff:\t0000000000000000" in r.stdout
    assert "sleep 30" in r.stdout
    device.write_file("/tmp/luci_reload_cmd", "")
    assert device.sh("test -e /tmp/luci_reload_cmd").returncode == 0
    names = [p["comm"] for p in device.processes()]
    assert names[0] == "bwrap" and "sleep" in names


def test_signal_to_one_thread(device):
    script = r"""
import os, signal, threading, time
signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGUSR1])
def body():
    open("/tmp/tid", "w").write(str(threading.get_native_id()))
    time.sleep(30)
threading.Thread(target=body).start()
time.sleep(30)
"""
    device.start(["python3", "-c", script])
    for _ in range(100):
        if device.read_file("/tmp/tid"):
            break
        time.sleep(0.05)
    tid = int(device.read_file("/tmp/tid"))
    tgid, host_tid = device.host_tid(tid)
    assert tgid != host_tid
    device.signal_thread(tid, signal.SIGUSR1)

    def pending(t):
        with open("/proc/%d/task/%d/status" % (tgid, t)) as f:
            return {k: v.strip() for k, v in
                    (line.split(":", 1) for line in f)}
    assert int(pending(host_tid)["SigPnd"], 16) == 1 << (signal.SIGUSR1 - 1)
    assert int(pending(tgid)["SigPnd"], 16) == 0
    assert int(pending(tgid)["ShdPnd"], 16) == 0


def test_stop_kills_everything(device):
    device.start(["/bin/sh", "-c", "sleep 100 & (sleep 100 &) ; sleep 100"])
    time.sleep(0.3)
    hosts = [p["host_pid"] for p in device.processes()]
    assert len(hosts) >= 4
    device.stop()
    time.sleep(0.1)
    for pid in hosts:
        assert not os.path.exists("/proc/%d" % pid) or \
            open("/proc/%d/stat" % pid).read().split(")")[1].split()[0] == "Z"


def test_cli(tmp_path):
    cli = os.path.join(os.path.dirname(__file__), "..", "..", "device",
                       "run-device")
    run = str(tmp_path / "dev")
    r = subprocess.run([cli, run, "--", "sh", "-c", "reboot; exit 7"],
                       capture_output=True, text=True)
    assert r.returncode == 7
    r = subprocess.run([cli, "journal", run], capture_output=True, text=True)
    assert r.stdout == "reboot\n"


def test_cli_exec_and_stop_reach_the_device_the_cli_started(tmp_path):
    cli = os.path.join(os.path.dirname(__file__), "..", "..", "device",
                       "run-device")
    run = str(tmp_path / "dev")
    p = subprocess.Popen([cli, run, "--", "sh", "-c", "echo up; sleep 600"],
                         stdout=subprocess.PIPE, text=True)
    try:
        assert p.stdout.readline() == "up\n"
        r = subprocess.run([cli, "exec", run, "--", "sh", "-c",
                            "echo hi > /tmp/x; ps"],
                           capture_output=True, text=True, timeout=30)
        assert r.returncode == 0, r.stderr
        assert "sleep 600" in r.stdout
        r = subprocess.run([cli, "read", run, "/tmp/x"], capture_output=True,
                           text=True, timeout=30)
        assert r.stdout == "hi\n"
        r = subprocess.run([cli, "stop", run], capture_output=True, text=True,
                           timeout=30)
        assert r.returncode == 0, r.stderr
        assert p.wait(10) == 128 + 9
    finally:
        if p.poll() is None:
            p.kill()
            p.wait()


def test_a_launcher_program_under_tmp_stays_reachable(tmp_path):
    """The launcher lays its staging tmpfs over /tmp of its own mount
    namespace; a program it runs from a tree under /tmp (a clone there,
    whose MIPS runs start through its target/qemu-binfmt.sh) is still
    found, with the files beside it, while the rest of the host's /tmp
    stays hidden."""
    tree = tempfile.mkdtemp(prefix="kc-launch-", dir="/tmp")
    try:
        os.chmod(tree, 0o755)
        os.mkdir(os.path.join(tree, "bin"), 0o755)
        with open(os.path.join(tree, "data.txt"), "w") as f:
            f.write("beside the program\n")
        prog = os.path.join(tree, "bin", "prog.sh")
        with open(prog, "w") as f:
            f.write('#!/bin/sh\ncat "$(dirname "$0")/../data.txt"\nls -A /tmp\n')
        os.chmod(prog, 0o755)
        argv = safefs.launch_argv(simdevice.PYTHON, str(tmp_path), simdevice.sandbox_ids(),
                                  [], [prog])
        r = subprocess.run(argv, capture_output=True, text=True, timeout=60)
        assert r.returncode == 0, r.stderr
        lines = r.stdout.splitlines()
        assert lines[0] == "beside the program", r.stdout
        assert sorted(lines[1:]) == sorted([os.path.basename(safefs.STAGE),
                                            os.path.basename(tree)]), r.stdout
    finally:
        shutil.rmtree(tree)
