# A real UPnP Internet Gateway Device for the simulated device: Debian's
# miniupnpd running in the device network's gateway namespace (the
# device's upstream router, 192.168.1.1 on lan0), with its WAN interface
# wan0 (45.67.89.10) towards the run's own internet namespace
# (DeviceNet(wan=True), see simnet.py) and its port-mapping backend in that
# namespace's own nftables rule set.  Nothing of it touches the host: the
# rule set, the daemon's sockets and its SSDP multicast all live in the
# run's namespaces, and its files in the run's work directory.
#
#   net = simnet.DeviceNet(wan=True)
#   with UpnpGateway(net, workdir) as gw:      # gw.refuse=True: a gateway
#       gw.mappings()                          # that refuses every mapping
#       gw.rules()                             # its nftables rules (text)
import os
import re
import socket
import subprocess
import time

import simnet

HTTP_PORT = 5000
ROOT_DESC = "http://%s:%d/rootDesc.xml" % (simnet.GATEWAY_IP, HTTP_PORT)

RULESET = """\
table inet filter {
    chain forward {
        type filter hook forward priority 0; policy drop;
        jump miniupnpd;
    }
    chain miniupnpd {
    }
    chain prerouting {
        type nat hook prerouting priority -100; policy accept;
        jump prerouting_miniupnpd;
    }
    chain postrouting {
        type nat hook postrouting priority 100; policy accept;
        jump postrouting_miniupnpd;
    }
    chain prerouting_miniupnpd {
    }
    chain postrouting_miniupnpd {
    }
}
"""

CONFIG = """\
ext_ifname=%(wan)s
listening_ip=%(lan)s
http_port=%(port)d
enable_natpmp=no
enable_upnp=yes
secure_mode=yes
system_uptime=yes
notify_interval=60
uuid=7b1c3e58-2f4a-4d3e-9a61-5c0d2e8f9a10
friendly_name=Simulated gateway
model_number=1
serial=00000001
%(rules)s
"""

LAN_NETWORK = simnet.GATEWAY_IP.rsplit(".", 1)[0] + ".0/24"
ALLOW = ("allow 1024-65535 %s 1-65535\n"
         "deny 0-65535 0.0.0.0/0 0-65535" % LAN_NETWORK)
REFUSE = "deny 0-65535 0.0.0.0/0 0-65535"

# " 0 TCP 55555->192.168.1.2:80  'nimb:UPnP:port' '' 600"
_MAPPING = re.compile(r"^\s*\d+\s+(TCP|UDP)\s+(\d+)->([\d.]+):(\d+)\s+'([^']*)'\s+'([^']*)'\s+(\d+)")


class UpnpGateway:
    """miniupnpd as the device's upstream router (see the top of the file).
    refuse=True makes it refuse every port mapping."""

    def __init__(self, net, workdir, refuse=False):
        if net.internet_ns is None:
            raise ValueError("the gateway needs a network with an uplink "
                             "(simnet.DeviceNet(wan=True))")
        self.net = net
        self.dir = os.path.join(workdir, "gateway")
        self.refuse = refuse
        self.proc = None
        self.log = os.path.join(self.dir, "miniupnpd.log")

    def _run(self, argv, **kw):
        kw.setdefault("stdout", subprocess.PIPE)
        kw.setdefault("stderr", subprocess.PIPE)
        return subprocess.run(self.net.gateway_argv(argv), text=True, **kw)

    def start(self, timeout=10.0):
        os.makedirs(self.dir, exist_ok=True)
        rules = os.path.join(self.dir, "rules.nft")
        with open(rules, "w") as f:
            f.write(RULESET)
        r = self._run(["nft", "-f", rules])
        if r.returncode != 0:
            raise RuntimeError("nft: " + r.stderr)
        conf = os.path.join(self.dir, "miniupnpd.conf")
        with open(conf, "w") as f:
            f.write(CONFIG % {"wan": simnet.WAN_IF, "lan": simnet.GATEWAY_IF,
                              "port": HTTP_PORT,
                              "rules": REFUSE if self.refuse else ALLOW})
        log = open(self.log, "w")
        self.proc = subprocess.Popen(
            self.net.gateway_argv(["miniupnpd", "-f", conf, "-d", "-P",
                                   os.path.join(self.dir, "miniupnpd.pid")]),
            stdout=log, stderr=subprocess.STDOUT)
        log.close()
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if self.proc.poll() is not None:
                raise RuntimeError("miniupnpd ended:\n" + self.log_text())
            if self._listening():
                return self
            time.sleep(0.1)
        raise RuntimeError("miniupnpd does not listen:\n" + self.log_text())

    def _listening(self):
        with self.net.in_gateway():
            s = socket.socket()
        s.settimeout(0.5)
        try:
            s.connect((simnet.GATEWAY_IP, HTTP_PORT))
            return True
        except OSError:
            return False
        finally:
            s.close()

    def log_text(self):
        try:
            with open(self.log) as f:
                return f.read()
        except OSError:
            return ""

    def mappings(self):
        """The gateway's own list of port mappings, as upnpc lists it:
        dicts with protocol, external (port), client, internal (port),
        description and lease."""
        r = self._run(["upnpc", "-u", ROOT_DESC, "-l"], timeout=30)
        out = []
        for line in r.stdout.splitlines():
            m = _MAPPING.match(line)
            if m:
                out.append({"protocol": m.group(1), "external": int(m.group(2)),
                            "client": m.group(3), "internal": int(m.group(4)),
                            "description": m.group(5), "lease": int(m.group(7))})
        return out

    def rules(self):
        """Text of the mapping chains of the gateway's rule set."""
        return self._run(["nft", "list", "chain", "inet", "filter",
                          "prerouting_miniupnpd"]).stdout

    def stop(self):
        if self.proc is not None and self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(5)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.proc = None

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()
