# The device's own network: the device reaches its gateway namespace over
# the veth pair, and nothing it sends reaches the host's namespace.
import json
import socket
import struct
import threading
import time

import pytest

import simnet

from conftest import run_sh

SSDP_GROUP = "239.255.255.250"
SSDP_PORT = 1900

CONNECT = """python3 -c '
import socket
try:
    socket.create_connection(("%s", %d), 2)
    print("connected")
except OSError as e:
    print("refused", e.errno)'"""

MULTICAST = """python3 -c '
import socket
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 4)
for i in range(5):
    s.sendto(b"M-SEARCH * HTTP/1.1\\r\\nMARKER: %s\\r\\n\\r\\n", ("%s", %d))
print("sent")'"""


def listener_tcp():
    srv = socket.socket()
    srv.bind(("127.0.0.1", 0))
    srv.listen(1)
    return srv


def test_the_host_loopback_cannot_be_reached_from_the_device(device):
    srv = listener_tcp()
    port = srv.getsockname()[1]
    try:
        status, out, err = run_sh(device, CONNECT % ("127.0.0.1", port))
        assert status == 0, err
        assert out.startswith("refused"), out
        # the host listener saw nothing
        srv.settimeout(0.2)
        with pytest.raises(socket.timeout):
            srv.accept()
    finally:
        srv.close()


def test_the_gateway_namespace_is_reached_over_the_lan_link(device):
    with device.net.in_gateway():
        srv = socket.socket()
    srv.bind((device.net.gateway_ip, 0))
    srv.listen(1)
    try:
        status, out, err = run_sh(
            device, CONNECT % (device.net.gateway_ip, srv.getsockname()[1]))
        assert out == "connected\n", err
        srv.settimeout(2)
        conn, addr = srv.accept()
        assert addr[0] == device.net.device_ip
        conn.close()
    finally:
        srv.close()


def multicast_listener(marker_seen, ready):
    """Thread body: a UDP socket joined to the SSDP group in the thread's
    network namespace; records datagrams carrying the marker."""
    def body(sock, marker):
        sock.settimeout(0.2)
        ready.set()
        end = time.monotonic() + 6
        while time.monotonic() < end:
            try:
                data, _ = sock.recvfrom(2048)
            except socket.timeout:
                continue
            if marker in data:
                marker_seen.append(data)
    return body


def open_ssdp_socket(interface_ip):
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    s.bind(("", SSDP_PORT))
    mreq = struct.pack("4s4s", socket.inet_aton(SSDP_GROUP),
                       socket.inet_aton(interface_ip))
    s.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, mreq)
    return s


def test_ssdp_multicast_from_the_device_stays_off_the_host(device):
    marker = b"kc-%d" % time.monotonic_ns()
    # the host listener joins the group on every interface it can
    host_sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    host_sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    host_sock.bind(("", SSDP_PORT))
    host_sock.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                         struct.pack("4s4s", socket.inet_aton(SSDP_GROUP),
                                     socket.inet_aton("0.0.0.0")))
    with device.net.in_gateway():
        gw_sock = open_ssdp_socket(device.net.gateway_ip)
    seen_host, seen_gw = [], []
    ready = [threading.Event(), threading.Event()]
    threads = [threading.Thread(target=multicast_listener(seen_host, ready[0]),
                                args=(host_sock, marker)),
               threading.Thread(target=multicast_listener(seen_gw, ready[1]),
                                args=(gw_sock, marker))]
    for t in threads:
        t.start()
    for r in ready:
        r.wait(5)
    try:
        status, out, err = run_sh(
            device, MULTICAST % (marker.decode(), SSDP_GROUP, SSDP_PORT))
        assert out == "sent\n", err
        deadline = time.monotonic() + 5
        while not seen_gw and time.monotonic() < deadline:
            time.sleep(0.05)
    finally:
        for t in threads:
            t.join()
        host_sock.close()
        gw_sock.close()
    # the datagrams did leave the device (the gateway namespace saw them)...
    assert seen_gw, "the multicast never left the device"
    # ...and none reached the host's namespace
    assert seen_host == []


def test_every_run_has_a_network_of_its_own(device):
    other = simnet.DeviceNet()
    try:
        assert other.device_ns != device.net.device_ns
        import os
        ino = lambda p: os.stat(p).st_ino
        assert ino(other.device_ns) != ino(device.net.device_ns)
        assert ino(device.net.device_ns) != ino("/proc/self/ns/net")
        assert ino(device.net.gateway_ns) != ino("/proc/self/ns/net")
    finally:
        other.close()


def test_the_agent_process_sees_only_its_lan_link(device):
    status, out, err = run_sh(device, "cat /proc/net/dev")
    names = sorted(line.split(":")[0].strip() for line in out.splitlines()[2:])
    assert names == ["br-lan", "lo"]


def test_the_cli_runs_servers_in_the_gateway_namespace(tmp_path):
    import os
    import subprocess
    cli = os.path.join(os.path.dirname(__file__), "..", "..", "device",
                       "run-device")
    run = str(tmp_path / "dev")
    up = subprocess.run([cli, "net-up", run], capture_output=True, text=True)
    assert up.returncode == 0, up.stderr
    info = json.loads(up.stdout)
    try:
        srv = subprocess.Popen(
            [cli, "gateway", run, "--", "python3", "-c",
             "import socket; s = socket.socket(); "
             "s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1); "
             "s.bind(('192.168.1.1', 8999)); s.listen(1); print('up', flush=True); "
             "c, a = s.accept(); print(a[0], flush=True)"],
            stdout=subprocess.PIPE, text=True)
        assert srv.stdout.readline() == "up\n"
        r = subprocess.run([cli, run, "--", "sh", "-c",
                            CONNECT % ("192.168.1.1", 8999)],
                           capture_output=True, text=True, timeout=30)
        assert r.stdout == "connected\n", r.stderr
        assert srv.stdout.readline() == "192.168.1.2\n"
        srv.wait(5)
    finally:
        subprocess.run([cli, "net-down", run])
    deadline = time.monotonic() + 5
    while os.path.exists("/proc/%d" % info["holder"]) and time.monotonic() < deadline:
        time.sleep(0.05)
    assert not os.path.exists("/proc/%d/ns/net" % info["device"])
