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
#
#   with IgdStandIn(net, confirm=False) as gw:  # a gateway of its own, for
#       gw.actions                             # answers miniupnpd never gives
import http.server
import os
import re
import socket
import subprocess
import threading
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


# ---- a stand-in gateway for answers miniupnpd never gives -------------------

IGD = "urn:schemas-upnp-org:device:InternetGatewayDevice:1"
WANIP = "urn:schemas-upnp-org:service:WANIPConnection:1"
STAND_IN_PORT = 5001

_ROOT_DESC = """<?xml version="1.0"?>
<root xmlns="urn:schemas-upnp-org:device-1-0">
<specVersion><major>1</major><minor>0</minor></specVersion>
<device>
<deviceType>%(igd)s</deviceType>
<friendlyName>Stand-in gateway</friendlyName>
<UDN>uuid:0d6a3c1e-5b7f-4e2a-9c84-2f1e6b7a9d01</UDN>
<deviceList><device>
<deviceType>urn:schemas-upnp-org:device:WANDevice:1</deviceType>
<UDN>uuid:0d6a3c1e-5b7f-4e2a-9c84-2f1e6b7a9d02</UDN>
<serviceList><service>
<serviceType>urn:schemas-upnp-org:service:WANCommonInterfaceConfig:1</serviceType>
<serviceId>urn:upnp-org:serviceId:WANCommonIFC1</serviceId>
<controlURL>/ctl/CmnIfCfg</controlURL><eventSubURL>/evt/CmnIfCfg</eventSubURL>
<SCPDURL>/WANCfg.xml</SCPDURL>
</service></serviceList>
<deviceList><device>
<deviceType>urn:schemas-upnp-org:device:WANConnectionDevice:1</deviceType>
<UDN>uuid:0d6a3c1e-5b7f-4e2a-9c84-2f1e6b7a9d03</UDN>
<serviceList><service>
<serviceType>%(wanip)s</serviceType>
<serviceId>urn:upnp-org:serviceId:WANIPConn1</serviceId>
<controlURL>/ctl/IPConn</controlURL><eventSubURL>/evt/IPConn</eventSubURL>
<SCPDURL>/WANIPCn.xml</SCPDURL>
</service></serviceList>
</device></deviceList>
</device></deviceList>
</device>
</root>
""" % {"igd": IGD, "wanip": WANIP}

_ENVELOPE = ('<?xml version="1.0"?>\r\n<s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/'
             'envelope/" s:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/">'
             '<s:Body>%s</s:Body></s:Envelope>\r\n')
_FAULT = ('<s:Fault><faultcode>s:Client</faultcode><faultstring>UPnPError</faultstring>'
          '<detail><UPnPError xmlns="urn:schemas-upnp-org:control-1-0"><errorCode>%d'
          '</errorCode><errorDescription>%s</errorDescription></UPnPError></detail></s:Fault>')


class IgdStandIn:
    """A small UPnP Internet Gateway Device of this file's own (Python),
    for the answers miniupnpd never gives.  In the gateway namespace it
    answers SSDP searches on lan0 and serves its description and the
    WANIPConnection actions the agent uses on 192.168.1.1:5001.

      confirm=False: a mapping is added, but the entry query never finds
          it (error 714, NoSuchEntryInArray)
      external_ip: the address GetExternalIPAddress answers ("" an empty
          one; None: error 501, Action Failed)

    .actions lists (action, {argument: value}) as asked for, .searches the
    search targets of the SSDP searches it answered, .mappings the mappings
    it holds ({external port: (client, internal port, lease)}).  Needs no
    uplink: DeviceNet() is enough."""

    def __init__(self, net, external_ip=simnet.WAN_IP, confirm=True, port=STAND_IN_PORT):
        self.net = net
        self.external_ip = external_ip
        self.confirm = confirm
        self.port = port
        self.actions = []
        self.searches = []
        self.mappings = {}
        self._lock = threading.Lock()
        self._stop = threading.Event()
        self._threads = []
        self._http = None
        self._ssdp = None

    # ---- SSDP ----
    def _answer_searches(self):
        location = "http://%s:%d/rootDesc.xml" % (simnet.GATEWAY_IP, self.port)
        while not self._stop.is_set():
            try:
                data, peer = self._ssdp.recvfrom(4096)
            except socket.timeout:
                continue
            except OSError:
                return
            text = data.decode("latin-1")
            if not text.startswith("M-SEARCH"):
                continue
            st = ""
            for line in text.split("\r\n"):
                name, _, value = line.partition(":")
                if name.strip().lower() == "st":
                    st = value.strip()
            if st not in (IGD, WANIP, "upnp:rootdevice", "ssdp:all"):
                continue
            with self._lock:
                self.searches.append(st)
            st = IGD if st == "ssdp:all" else st
            reply = ("HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=120\r\nST: %s\r\n"
                     "USN: uuid:0d6a3c1e-5b7f-4e2a-9c84-2f1e6b7a9d01::%s\r\nEXT:\r\n"
                     "SERVER: Linux/6 UPnP/1.1 StandIn/1.0\r\nLOCATION: %s\r\n\r\n"
                     % (st, st, location))
            try:
                self._ssdp.sendto(reply.encode(), peer)
            except OSError:
                pass

    # ---- SOAP ----
    def _act(self, action, args):
        with self._lock:
            self.actions.append((action, args))
            if action == "GetStatusInfo":
                return ("<NewConnectionStatus>Connected</NewConnectionStatus>"
                        "<NewLastConnectionError>ERROR_NONE</NewLastConnectionError>"
                        "<NewUptime>1000</NewUptime>")
            if action == "GetExternalIPAddress":
                if self.external_ip is None:
                    return 501, "Action Failed"
                return "<NewExternalIPAddress>%s</NewExternalIPAddress>" % self.external_ip
            port = int(args.get("NewExternalPort") or 0)
            if action == "AddPortMapping":
                self.mappings[port] = (args.get("NewInternalClient", ""),
                                       int(args.get("NewInternalPort") or 0),
                                       int(args.get("NewLeaseDuration") or 0))
                return ""
            if action == "GetSpecificPortMappingEntry":
                if not self.confirm or port not in self.mappings:
                    return 714, "NoSuchEntryInArray"
                client, internal, lease = self.mappings[port]
                return ("<NewInternalPort>%d</NewInternalPort>"
                        "<NewInternalClient>%s</NewInternalClient><NewEnabled>1</NewEnabled>"
                        "<NewPortMappingDescription>nimb:UPnP:port</NewPortMappingDescription>"
                        "<NewLeaseDuration>%d</NewLeaseDuration>" % (internal, client, lease))
            if action == "DeletePortMapping":
                if self.mappings.pop(port, None) is None:
                    return 714, "NoSuchEntryInArray"
                return ""
            return 401, "Invalid Action"

    def _handler(self):
        owner = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def log_message(self, *args):
                pass

            def _send(self, status, body, kind):
                data = body.encode()
                self.send_response(status)
                self.send_header("Content-Type", kind)
                self.send_header("Content-Length", str(len(data)))
                self.send_header("Connection", "close")
                self.end_headers()
                self.wfile.write(data)

            def do_GET(self):
                if self.path == "/rootDesc.xml":
                    self._send(200, _ROOT_DESC, 'text/xml; charset="utf-8"')
                else:
                    self._send(404, "", "text/plain")

            def do_POST(self):
                body = self.rfile.read(int(self.headers.get("Content-Length") or 0))
                soap_action = (self.headers.get("SOAPAction") or "").strip('"')
                action = soap_action.partition("#")[2]
                args = dict(re.findall(r"<(New\w+)>([^<]*)</\1>", body.decode("latin-1")))
                answer = owner._act(action, args)
                if isinstance(answer, tuple):
                    self._send(500, _ENVELOPE % (_FAULT % answer), 'text/xml; charset="utf-8"')
                else:
                    self._send(200, _ENVELOPE % ('<u:%sResponse xmlns:u="%s">%s</u:%sResponse>'
                                                 % (action, WANIP, answer, action)),
                               'text/xml; charset="utf-8"')
        return Handler

    def start(self):
        with self.net.in_gateway():
            self._ssdp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            self._ssdp.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            self._ssdp.bind(("", 1900))
            self._ssdp.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                                  socket.inet_aton("239.255.255.250") +
                                  socket.inet_aton(simnet.GATEWAY_IP))
            self._ssdp.settimeout(0.2)
            self._http = http.server.ThreadingHTTPServer((simnet.GATEWAY_IP, self.port),
                                                         self._handler())
        self._threads = [threading.Thread(target=self._answer_searches, daemon=True),
                         threading.Thread(target=self._http.serve_forever,
                                          kwargs={"poll_interval": 0.1}, daemon=True)]
        for t in self._threads:
            t.start()
        return self

    def stop(self):
        """The gateway goes away: it answers nothing from now on."""
        self._stop.set()
        if self._http is not None:
            self._http.shutdown()
            self._http.server_close()
        for t in self._threads:
            t.join(5)
        if self._ssdp is not None:
            self._ssdp.close()
        self._http = self._ssdp = None
        self._threads = []

    def action_names(self):
        with self._lock:
            return [name for name, _ in self.actions]

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()
