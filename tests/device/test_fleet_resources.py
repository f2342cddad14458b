# What many devices on one host share (fleet/): the link tree of /usr/bin
# and /usr/sbin, the tools' front end built once, the host's /etc/ssl and
# /etc/alternatives bound read-only; and the one way out of a device's
# network to a server the user names (simforward.py, run-device --forward).
import os
import shutil
import socket
import subprocess
import sys
import threading

import pytest

from conftest import DEVICE_DIR, run_sh
import simdevice  # noqa: E402

RUN_DEVICE = os.path.join(os.path.abspath(DEVICE_DIR), "run-device")

LISTING = """for d in /usr/bin /usr/sbin; do
  for f in $d/* $d/.[!.]*; do
    [ -e "$f" ] || [ -L "$f" ] || continue
    printf '%s %s\\n' "$f" "$(readlink "$f")"
  done
done"""


@pytest.fixture
def usr_links(tmp_path):
    return simdevice.make_usr_links(str(tmp_path / "usr"), front=True)


def listing(out):
    """{path: link target} of the listing, the shared tree's own files
    (the front end, the agent's mount point) left out."""
    rows = dict(line.split(" ", 1) if " " in line else (line, "")
                for line in out.splitlines())
    for extra in ("/usr/bin/" + simdevice.SHARED_FRONT, "/usr/bin/korvat-cloud"):
        rows.pop(extra, None)
    return rows


def test_shared_link_tree_is_the_per_device_one(tmp_path, usr_links):
    own = simdevice.Device()
    shared = simdevice.Device(usr_links=usr_links)
    try:
        status, mine, err = run_sh(own, LISTING)
        assert status == 0, err
        status, theirs, err = run_sh(shared, LISTING)
        assert status == 0, err
        assert listing(theirs) == listing(mine)
        assert len(listing(mine)) > 100
        # read-only inside, whoever the device is
        status, out, _ = run_sh(shared, "touch /usr/bin/new 2>/dev/null || echo ro; "
                                "rm -f /usr/sbin/uci 2>/dev/null; [ -L /usr/sbin/uci ] && echo kept")
        assert out == "ro\nkept\n"
        # the agent's binary is bound where the tree has its mount point
        fake = tmp_path / "agent"
        shutil.copy2("/bin/echo", fake)
        p = shared.start(["/usr/bin/korvat-cloud", "agent-here"], agent=str(fake))
        out, _ = p.communicate(timeout=30)
        assert out == b"agent-here\n"
        shared.stop()
    finally:
        own.close()
        shared.close()
    assert not os.path.exists(os.path.join(usr_links, "bin", "new"))


def test_a_tree_made_for_another_shell_is_refused(tmp_path):
    tree = simdevice.make_usr_links(str(tmp_path / "usr"), shell="host")
    with simdevice.Device(usr_links=tree) as dev:
        with pytest.raises(ValueError):
            dev.start(["/bin/true"])


def test_shared_front_end_is_used_and_nothing_is_built(usr_links):
    import platform
    if platform.machine() != "x86_64" or not shutil.which("cc"):
        pytest.skip("this machine builds no front end (not x86_64, or no cc)")
    assert os.access(os.path.join(usr_links, "bin", simdevice.SHARED_FRONT), os.X_OK)
    dev = simdevice.Device(usr_links=usr_links)
    try:
        assert simdevice.use_shared_front(dev.run, usr_links)
        status, out, err = run_sh(dev, "uci get network.lan.ipaddr; "
                                  "uci get network.lan.proto | tr -d '\\n'; echo")
        assert (status, err) == (0, ""), err
        assert out.splitlines() == ["192.168.1.2", "static"]
        assert dev.journal()[-2:] == ["uci get network.lan.ipaddr",
                                      "uci get network.lan.proto"]
        tools = os.path.join(dev.run, ".simtools")
        # the calls went through the shared front end and a tool server
        assert os.readlink(os.path.join(tools, "front")) == \
            "/usr/bin/" + simdevice.SHARED_FRONT
        assert any(n.startswith("srv-") for n in os.listdir(tools))
        assert not os.path.exists(os.path.join(tools, "build.log"))
        assert not os.path.exists(os.path.join(tools, "no-front"))
    finally:
        dev.close()


def test_without_the_shared_front_a_device_builds_its_own():
    with simdevice.Device() as dev:
        status, out, err = run_sh(dev, "uci get network.lan.ipaddr")
        assert (status, out) == (0, "192.168.1.2\n"), err
        front = os.path.join(dev.run, ".simtools", "front")
        assert os.path.isfile(front) and not os.path.islink(front)


def test_shared_etc_binds_the_hosts_read_only():
    if not os.path.isdir("/etc/ssl"):
        pytest.skip("no /etc/ssl on this host")
    host = sorted(os.listdir("/etc/ssl"))
    with simdevice.Device(shared_etc=True) as dev:
        assert os.listdir(os.path.join(dev.run, "etc", "ssl")) == []
        status, out, err = run_sh(dev, "ls -A /etc/ssl; touch /etc/ssl/x 2>/dev/null "
                                  "|| echo ro; echo y > /etc/y && echo etc-rw")
        assert status == 0, err
        lines = out.splitlines()
        assert lines[:-2] == host
        assert lines[-2:] == ["ro", "etc-rw"]
        assert os.listdir(os.path.join(dev.run, "etc", "ssl")) == []
    assert not os.path.exists("/etc/ssl/x")


# ---- the forward to a server the user names -------------------------------------

class HostServer:
    """A TCP server on the host's loopback that answers each connection
    with one line and counts them."""

    def __init__(self, addr="127.0.0.1"):
        self.sock = socket.socket()
        self.sock.bind((addr, 0))
        self.sock.listen(8)
        self.port = self.sock.getsockname()[1]
        self.accepted = 0
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        while True:
            try:
                conn, _ = self.sock.accept()
            except OSError:
                return
            self.accepted += 1
            conn.sendall(b"hello from the host\n")
            conn.close()

    def close(self):
        self.sock.close()


PROBE = r'''
import socket, sys
port = int(sys.argv[1])
def reach(host, p):
    try:
        s = socket.create_connection((host, p), 3)
        data = s.recv(100).decode().strip()
        s.close()
        return data or "connected"
    except OSError as e:
        return "no: %s" % type(e).__name__
print(reach(sys.argv[2], port))
print(reach("192.168.1.1", port + 1))
print(reach("127.0.0.1", port))
'''


def test_run_forward_reaches_the_named_server_and_nothing_else(tmp_path):
    srv = HostServer()
    try:
        run = str(tmp_path / "run")
        r = subprocess.run([RUN_DEVICE, "run", "--forward", "127.0.0.1:%d" % srv.port, run,
                            "--", "/usr/bin/python3", "-c", PROBE, str(srv.port),
                            "192.168.1.1"],
                           stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                           timeout=60)
        assert r.returncode == 0, r.stderr
        lines = r.stdout.splitlines()
        # the forward leads to the named port; the next port and the
        # device's own loopback are not the host's
        assert lines[0] == "hello from the host"
        assert lines[1].startswith("no:")
        assert lines[2].startswith("no:")
        assert srv.accepted == 1
        # the forward ended with the device: the port no longer answers
        # from a fresh device's network
        r = subprocess.run([RUN_DEVICE, "run", run, "--", "/usr/bin/python3", "-c",
                            PROBE, str(srv.port), "192.168.1.1"],
                           stdout=subprocess.PIPE, text=True, timeout=60)
        assert r.stdout.splitlines()[0].startswith("no:")
        assert srv.accepted == 1
    finally:
        srv.close()


def test_net_up_forward_until_net_down(tmp_path):
    srv = HostServer()
    run = str(tmp_path / "run")
    try:
        r = subprocess.run([RUN_DEVICE, "net-up", "--forward", "127.0.0.1:%d" % srv.port, run],
                           stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=60)
        assert r.returncode == 0, r.stderr
        for _ in range(2):
            r = subprocess.run([RUN_DEVICE, "run", run, "--", "/usr/bin/python3", "-c", PROBE,
                                str(srv.port), "192.168.1.1"],
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                               timeout=60)
            assert r.stdout.splitlines()[0] == "hello from the host", r.stderr
        assert srv.accepted == 2
        rec = os.path.join(simdevice.control_dir(run), "forward.json")
        assert os.path.exists(rec)
        subprocess.run([RUN_DEVICE, "net-down", run], check=True, timeout=30)
        assert not os.path.exists(rec)
        r = subprocess.run([RUN_DEVICE, "run", run, "--", "/usr/bin/python3", "-c", PROBE,
                            str(srv.port), "192.168.1.1"],
                           stdout=subprocess.PIPE, text=True, timeout=60)
        assert r.stdout.splitlines()[0].startswith("no:")
        assert srv.accepted == 2
    finally:
        subprocess.run([RUN_DEVICE, "net-down", run], timeout=30)
        srv.close()


def test_forward_by_name_resolves_to_the_gateway_inside(tmp_path):
    """A server named by a host name: inside the device the name leads to
    the gateway, where the forward listens (so the agent keeps the
    server's own URL: Host header, TLS name); the forward resolves it on
    the host."""
    name = socket.gethostname()
    try:
        addr = socket.gethostbyname(name)
    except OSError:
        pytest.skip("the host's name does not resolve here")
    srv = HostServer(addr)
    run = str(tmp_path / "run")
    try:
        r = subprocess.run([RUN_DEVICE, "run", "--forward", "%s:%d" % (name, srv.port), run,
                            "--", "/usr/bin/python3", "-c", PROBE, str(srv.port), name],
                           stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                           timeout=60)
        assert r.returncode == 0, r.stderr
        assert r.stdout.splitlines()[0] == "hello from the host"
        hosts = simdevice.safefs.read_text(run, "etc/hosts").splitlines()
        assert hosts[0].split() == ["192.168.1.1", name]
    finally:
        srv.close()


def test_named_tools_answer_as_the_tools_own_python_does(tmp_path):
    """With the link tree's tool names leading to the shared front end
    (named_tools), every call of the tool server's comparison gives the
    same output, status and journal as each tool's own Python program."""
    import platform
    if platform.machine() != "x86_64" or not shutil.which("cc"):
        pytest.skip("this machine builds no front end (not x86_64, or no cc)")
    import test_toolserver as ts
    tree = simdevice.make_usr_links(str(tmp_path / "usr"), front=True, named_tools=True)
    assert simdevice.read_usr_links(tree)["named_tools"]
    assert os.readlink(os.path.join(tree, "bin", "uci")) == simdevice.SHARED_FRONT
    assert os.readlink(os.path.join(tree, "sbin", "kapri_util.lua")) == \
        "../bin/" + simdevice.SHARED_FRONT
    with simdevice.Device() as direct, simdevice.Device(usr_links=tree) as named:
        simdevice.use_shared_front(named.run, tree)
        want = ts.calls_in(direct, ts.DIRECT)
        got = ts.calls_in(named, None)
    assert got[3] != []    # the calls went to a tool server
    assert got[0].decode() == want[0].decode()
    assert got[1].decode() == want[1].decode()
    assert got[2] == want[2]


def test_named_tools_run_no_header_shell(tmp_path):
    """A named tool is the front end from its start: its process is the
    tool (command name and line as the caller gave them), with no shell
    before it."""
    import platform
    if platform.machine() != "x86_64" or not shutil.which("cc"):
        pytest.skip("this machine builds no front end (not x86_64, or no cc)")
    tree = simdevice.make_usr_links(str(tmp_path / "usr"), front=True, named_tools=True)
    with simdevice.Device(usr_links=tree) as dev:
        simdevice.use_shared_front(dev.run, tree)
        status, out, err = run_sh(dev, "echo $PATH; logread -f > /dev/null & sleep 0.5; "
                                  "cat /proc/$!/cmdline | tr '\\0' ' '; echo; "
                                  "readlink /proc/$!/exe; cat /proc/$!/comm; kill $!")
        assert status == 0, err
        lines = out.splitlines()
        assert lines[0] == simdevice.NAMED_TOOLS_PATH
        assert lines[1:] == ["logread -f ", "/usr/bin/" + simdevice.SHARED_FRONT, "logread"]
