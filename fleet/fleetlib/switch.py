"""The fleet's network: one switch namespace and a private link per device.

    device namespace (one per device)            switch namespace (one)
      lo      127.0.0.1                             lo   127.0.0.1, 10.64.0.1/32
      br-lan  10.64.x.y/32, the device's MAC  <-veth->  dN (no address)
      10.64.0.1 on the link; default via it         route 10.64.x.y/32 dev dN

The server (or the forward to the user's own server) listens on 10.64.0.1
in the switch namespace; a device reaches that one address over its own
veth pair and nothing else: the switch does not forward (its ip_forward is
0), answers ARP for its own address only, and no device shares a link or a
broadcast domain with another.  Multicast a device sends (SSDP) ends at its
link.  The host has no interface in any of these namespaces, and nothing is
routed to or from its network.

The namespaces are held by descriptors of the runner's process (a network
namespace lives while a descriptor names it), made by a thread that
unshares its own network namespace, opens it and returns to the one it
came from.  When the runner ends, so do they.  Paths handed to other
programs are /proc/<runner>/fd/N.
"""
import ctypes
import ipaddress
import os
import subprocess
import threading

CLONE_NEWNET = 0x40000000
NETWORK = ipaddress.ip_network("10.64.0.0/10")
SWITCH_IP = str(NETWORK.network_address + 1)
FIRST_DEVICE = 2          # device index 0 gets 10.64.0.2
DEVICE_IF = "br-lan"

_libc = ctypes.CDLL(None, use_errno=True)
_lock = threading.Lock()


def _check(ret, what):
    if ret != 0:
        err = ctypes.get_errno()
        raise OSError(err, "%s: %s" % (what, os.strerror(err)))


def _write_sysctl(name, value):
    try:
        with open("/proc/sys/net/" + name, "w") as f:
            f.write(value)
    except OSError:
        pass


def new_netns():
    """Descriptor of a new network namespace (loopback down, IPv6 off).
    The calling thread is back in its own namespace afterwards."""
    with _lock:
        back = os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
        try:
            _check(_libc.unshare(CLONE_NEWNET), "unshare(net)")
            try:
                # no IPv6 on the links: no router solicitations, no
                # duplicate address detection, nothing a device needs
                _write_sysctl("ipv6/conf/all/disable_ipv6", "1")
                _write_sysctl("ipv6/conf/default/disable_ipv6", "1")
                fd = os.open("/proc/thread-self/ns/net",
                             os.O_RDONLY | os.O_CLOEXEC)
            finally:
                _check(_libc.setns(back, CLONE_NEWNET), "setns back")
        finally:
            os.close(back)
    return fd


def fd_path(fd):
    return "/proc/%d/fd/%d" % (os.getpid(), fd)


def ns_argv(path, argv):
    return ["nsenter", "--net=" + path, "--"] + list(argv)


def _ip_batch(ns_path, lines):
    r = subprocess.run(ns_argv(ns_path, ["ip", "-batch", "-"]),
                       input="".join(l + "\n" for l in lines), text=True,
                       stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    if r.returncode != 0:
        raise OSError("ip in the fleet's network failed: %s"
                      % r.stderr.strip())


def device_ip(index):
    return str(NETWORK.network_address + FIRST_DEVICE + index)


def link_name(index):
    return "d%d" % index


class DeviceLink:
    """The network of one device, as simdevice.Device wants it (net=):
    its own namespace (device_ns) and, as its gateway, the switch."""

    gateway_ip = SWITCH_IP

    def __init__(self, switch, index, mac, fd):
        self.switch = switch
        self.index = index
        self.mac = mac
        self.device_ip = device_ip(index)
        self._fd = fd
        self.device_ns = fd_path(fd)
        self.gateway_ns = switch.ns
        self.ifname = link_name(index)

    def gateway_argv(self, argv):
        return ns_argv(self.gateway_ns, argv)

    def device_argv(self, argv):
        return ns_argv(self.device_ns, argv)

    def close(self):
        """The device's namespace goes once no process is in it."""
        fd, self._fd = self._fd, None
        if fd is not None:
            os.close(fd)


class Switch:
    """The switch namespace and its links (see the top of this file)."""

    ip = SWITCH_IP

    def __init__(self):
        self._fd = new_netns()
        self.ns = fd_path(self._fd)
        _ip_batch(self.ns, ["link set lo up",
                            "addr add %s/32 dev lo" % SWITCH_IP])
        # (a new namespace forwards nothing: ip_forward is 0 there)

    def add(self, devices):
        """Makes the links of devices [(index, mac)]; returns their
        DeviceLink objects, in order."""
        links = []
        try:
            for index, mac in devices:
                link = DeviceLink(self, index, mac, new_netns())
                links.append(link)
                _ip_batch(link.device_ns, [
                    "link set lo up",
                    "link add %s address %s type veth peer name %s netns %s"
                    % (DEVICE_IF, mac, link.ifname, self.ns),
                    "addr add %s/32 dev %s" % (link.device_ip, DEVICE_IF),
                    "link set %s up" % DEVICE_IF,
                    "route add %s dev %s scope link" % (SWITCH_IP, DEVICE_IF),
                    "route add default via %s dev %s" % (SWITCH_IP, DEVICE_IF)])
            lines = []
            for link in links:
                lines += ["link set %s up" % link.ifname,
                          "route add %s/32 dev %s" % (link.device_ip, link.ifname)]
            if lines:
                _ip_batch(self.ns, lines)
        except BaseException:
            for link in links:
                link.close()
            raise
        return links

    def set_link(self, links, up):
        """Takes the links of these devices down (their network is lost:
        the device sees no carrier) or brings them up again."""
        lines = []
        for link in links:
            lines.append("link set %s %s" % (link.ifname, "up" if up else "down"))
            if up:
                lines.append("route replace %s/32 dev %s"
                             % (link.device_ip, link.ifname))
        if lines:
            _ip_batch(self.ns, lines)

    def argv(self, argv):
        """argv run in the switch namespace."""
        return ns_argv(self.ns, argv)

    def in_switch(self):
        """Sockets this thread makes inside the block belong to the switch."""
        import contextlib

        @contextlib.contextmanager
        def block():
            with _lock:
                back = os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
            try:
                _check(_libc.setns(self._fd, CLONE_NEWNET), "setns switch")
                try:
                    yield
                finally:
                    _check(_libc.setns(back, CLONE_NEWNET), "setns back")
            finally:
                os.close(back)
        return block()

    def close(self):
        fd, self._fd = self._fd, None
        if fd is not None:
            os.close(fd)
