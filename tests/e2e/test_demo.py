"""The README's demonstration: one tour (--once) in which the agent in the
simulated device answers the bundled device server request by request --
settings, time, wireless networks, telemetry, a reset with its reboot and,
with --upnp, remote access through the UPnP gateway -- with the device's
UCI changes printed along the way, and reports itself connected; and the
endless run that Ctrl-C ends."""
import os
import pty
import re
import select
import signal
import subprocess

from conftest import AGENT, ROOT, Deadline, scaled, wait_for

DEMO_MAC = "02:4b:56:31:30:01"
ISO = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d\d:\d\d"
SUCCESS = '{"jsonrpc":"2.0","id":"%s","result":{"deviceId":"' + DEMO_MAC + '"}}'
NETWORK = ('{"jsonrpc":"2.0","id":"%s","result":{"deviceId":"' + DEMO_MAC + '",'
           '"deviceName":"VK310-AP","deviceIpAddress":"192.168.1.2",'
           '"deviceSubnetMask":"255.255.255.0","deviceDefaultGateway":"192.168.1.1",'
           '"dhcpEnabled":false,"dnsServer1":"192.168.1.1"}}')
TITLES = ["=== dxGetAbout", "=== unknown method", "=== envelope without params",
          "=== network settings:", "=== time settings:", "=== wireless networks:",
          "=== telemetry: a periodic status update", "=== telemetry: an event",
          "=== telemetry: the system log", "=== reset:", "=== remote access over UPnP",
          "=== waiting for an answered ping"]


def run_demo(*flags):
    env = dict(os.environ, KC_AGENT=AGENT)
    proc = subprocess.run([os.path.join(ROOT, "scripts", "demo.sh"), "--once"] + list(flags),
                          env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          timeout=scaled(600))
    return proc.returncode, proc.stdout.decode("utf-8", "replace")


class Output(object):
    """The demo's output, checked line by line in the order of the tour."""

    def __init__(self, text):
        self.text = text
        self.lines = text.splitlines()
        self.at = 0

    def tail(self):
        return "\n".join(self.lines[max(0, self.at - 20):self.at + 40])[-6000:]

    def next(self, line):
        """The exact line, after the one found last."""
        for i in range(self.at, len(self.lines)):
            if self.lines[i] == line:
                self.at = i + 1
                return line
        raise AssertionError("missing after line %d: %r\n%s" % (self.at, line, self.tail()))

    def next_match(self, pattern):
        """The first later line the pattern matches as a whole; the match."""
        regex = re.compile(pattern)
        for i in range(self.at, len(self.lines)):
            m = regex.fullmatch(self.lines[i])
            if m:
                self.at = i + 1
                return m
        raise AssertionError("no line after %d matching %r\n%s" % (self.at, pattern, self.tail()))

    def section(self, start, end):
        """The lines from the title starting `start` up to the one starting `end`."""
        first = next(i for i, l in enumerate(self.lines) if l.startswith("[server] " + start))
        last = next(i for i, l in enumerate(self.lines)
                    if i > first and l.startswith("[server] " + end))
        return self.lines[first:last]


def server_lines(section):
    """The tour's own lines of a section: no frame log, no agent output."""
    return [l[len("[server] "):] for l in section
            if l.startswith("[server] ") and not re.match(r"\[server\] \d\d:\d\d:\d\d\.\d+ ", l)]


def check_first_steps(out):
    assert "[agent] Recieved text frame: 90" in out.text
    assert "[agent] Sending text frame:" in out.text
    assert '"method":"\x1b[1;33mdxGetAbout\x1b[m"' in out.text
    assert "[agent] Command handler not yet implemented for: dxNoSuchMethod" in out.text
    titles = [l for l in out.lines if l.startswith("[server] === ")]
    assert [next((t for t in TITLES if l[len("[server] "):].startswith(t)), l)
            for l in titles] == TITLES, titles
    out.next("[server] === dxGetAbout")
    out.next_match(r'\[server\] <-- \{"jsonrpc":"2\.0","id":"1","result":\{"deviceId":"%s",'
                   r'"macAddress":"%s",.*\}\}' % (DEMO_MAC, DEMO_MAC))
    out.next('[server] <-- {"jsonrpc":"2.0","id":"2","error":{"code":-32601,'
             '"message":"The method is not available","data":""}}')
    out.next('[server] <-- {"jsonrpc":"2.0","id":"3","error":{"code":-32600,'
             '"message":"The JSON sent is not a valid Request object","data":""}}')


def check_network_settings(out):
    out.next("[server] === network settings: read them, add a second name server, "
             "the device's UCI before and after")
    out.next("[server] device UCI before (uci show network.lan):")
    out.next("[server]     network.lan.dns='192.168.1.1 8.8.8.8'")
    out.next('[server] --> {"jsonrpc":"2.0","id":"4","method":"dxGetNetworkSettings",'
             '"params":{"deviceId":"%s"}}' % DEMO_MAC)
    out.next("[server] <-- " + NETWORK % "4")
    # the values read, with a second name server: the address stays
    out.next('[server] --> {"jsonrpc":"2.0","id":"5","method":"dxSetNetworkSettings",'
             '"params":{"deviceId":"%s","deviceName":"VK310-AP","deviceIpAddress":"192.168.1.2",'
             '"deviceSubnetMask":"255.255.255.0","deviceDefaultGateway":"192.168.1.1",'
             '"dhcpEnabled":false,"dnsServer1":"192.168.1.1","dnsServer2":"9.9.9.9"}}' % DEMO_MAC)
    out.next("[server] <-- " + SUCCESS % "5")
    out.next("[server] device UCI after the apply step:")
    out.next("[server]     network.lan.ipaddr='192.168.1.2'")
    out.next("[server]     network.lan.dns='192.168.1.1 9.9.9.9'")
    section = server_lines(out.section("=== network settings", "=== time settings"))
    # the one change, and nothing else
    assert [l for l in section if l.startswith("    changed:")] == [
        "    changed: network.lan.dns: '192.168.1.1 8.8.8.8' -> '192.168.1.1 9.9.9.9'"]


def check_time_settings(out):
    out.next("[server] === time settings: read them, move the zone to +2:00, "
             "the device's UCI before and after")
    out.next("[server]     system.system.timezone='UTC0'")
    out.next_match(r'\[server\] <-- \{"jsonrpc":"2\.0","id":"6","result":\{"deviceId":"%s",'
                   r'"timeZone":"\+0:00","currentTime":"%s","daylightSavings":"disabled"\}\}'
                   % (DEMO_MAC, ISO))
    out.next('[server] --> {"jsonrpc":"2.0","id":"7","method":"dxSetTimeSettings",'
             '"params":{"deviceId":"%s","timeZone":"+2:00"}}' % DEMO_MAC)
    out.next("[server] <-- " + SUCCESS % "7")
    out.next("[server]     system.system.timezone='UTC-2'")
    out.next("[server]     changed: system.system.timezone: 'UTC0' -> 'UTC-2'")
    out.next_match(r'\[server\] <-- \{"jsonrpc":"2\.0","id":"8","result":\{"deviceId":"%s",'
                   r'"timeZone":"\+2:00","currentTime":"%s","daylightSavings":"disabled"\}\}'
                   % (DEMO_MAC, ISO))
    section = server_lines(out.section("=== time settings", "=== wireless"))
    assert [l for l in section if l.startswith("    changed:")] == [
        "    changed: system.system.timezone: 'UTC0' -> 'UTC-2'"]


def check_wireless(out):
    out.next("[server] === wireless networks: the radios and networks, add a network on both "
             "radios, change it, delete it, the device's UCI along the way")
    # the utility script's answers (its own device id)
    out.next('[server] <-- {"jsonrpc":"2.0","id":"9","result":{"deviceId":"00:11:22:33:44:55",'
             '"interface":"2.4GHz","enabled":true,"opMode":"ap","wirelessMode":"11ng"}}')
    out.next('[server] <-- {"jsonrpc":"2.0","id":"10","result":{"deviceId":"00:11:22:33:44:55",'
             '"interface":"5GHz","enabled":true,"opMode":"ap","wirelessMode":"11ac"}}')
    out.next('[server] <-- {"jsonrpc":"2.0","id":"11","result":{"deviceId":"00:11:22:33:44:55",'
             '"networkIndex":0,"mac":"00:11:22:33:46:00","ssid":"Korvat","interface":"2.4GHz",'
             '"enabled":true,"security":"WPA2-PSK","password":"korvat1234","vlanId":"",'
             '"broadcastEnabled":true,"separationEnabled":false}}')
    out.next('[server] <-- {"jsonrpc":"2.0","id":"12","result":{"deviceId":"00:11:22:33:44:55",'
             '"networkIndex":50,"mac":"00:11:22:33:47:00","ssid":"Korvat","interface":"5GHz",'
             '"enabled":true,"security":"WPA2-PSK","password":"korvat1234","vlanId":"",'
             '"broadcastEnabled":true,"separationEnabled":false}}')
    out.next("[server] device UCI before (radio lists):")
    out.next("[server]     wireless.wifi0.network_profile='w0_index0:w1_index0,w0_index1'")
    out.next('[server] --> {"jsonrpc":"2.0","id":"13","method":"vekAddNetwork","params":'
             '{"deviceId":"%s","interface":"BOTH","ssid":"Demo-Both","security":"WPA2-PSK",'
             '"password":"demo-pass-1","broadcastEnabled":true}}' % DEMO_MAC)
    out.next("[server] <-- " + SUCCESS % "13")
    # the free slot of each radio, paired in the profile
    for line in ("changed: wireless.wifi0.enlist: '1,1' -> '1,1,1'",
                 "changed: wireless.wifi0.network_profile: 'w0_index0:w1_index0,w0_index1' -> "
                 "'w0_index0:w1_index0,w0_index1,w0_index2:w1_index1'",
                 "changed: wireless.wifi0.wlanlist: '0,1' -> '0,1,2'",
                 "changed: wireless.wifi1.enlist: '1' -> '1,1'",
                 "changed: wireless.wifi1.wlanlist: '0' -> '0,1'"):
        out.next("[server]     " + line)
    out.next("[server] the new network: sections w0_index2 and w1_index1 (networkIndex 2)")
    for section in ("w0_index2", "w1_index1"):
        out.next("[server]     wireless.%s.ssid='Demo-Both'" % section)
        out.next("[server]     wireless.%s.encryption='psk2 aes'" % section)
        out.next("[server]     wireless.%s.key='demo-pass-1'" % section)
    out.next('[server] --> {"jsonrpc":"2.0","id":"14","method":"vekSetNetworkConfig","params":'
             '{"deviceId":"%s","networkIndex":2,"ssid":"Demo-Renamed","enabled":true,'
             '"security":"WPA2-PSK","password":"demo-pass-2","broadcastEnabled":false}}'
             % DEMO_MAC)
    out.next("[server] <-- " + SUCCESS % "14")
    # both halves of the pair changed
    for line in ("changed: wireless.w0_index2.hidden: '0' -> '1'",
                 "changed: wireless.w0_index2.key: 'demo-pass-1' -> 'demo-pass-2'",
                 "changed: wireless.w0_index2.ssid: 'Demo-Both' -> 'Demo-Renamed'",
                 "changed: wireless.w1_index1.hidden: '0' -> '1'",
                 "changed: wireless.w1_index1.key: 'demo-pass-1' -> 'demo-pass-2'",
                 "changed: wireless.w1_index1.ssid: 'Demo-Both' -> 'Demo-Renamed'"):
        out.next("[server]     " + line)
    out.next('[server] --> {"jsonrpc":"2.0","id":"15","method":"vekDeleteNetwork","params":'
             '{"deviceId":"%s","networkIndex":2}}' % DEMO_MAC)
    out.next("[server] <-- " + SUCCESS % "15")
    # the lists as they were, both sections gone
    for line in ("changed: wireless.wifi0.network_profile: "
                 "'w0_index0:w1_index0,w0_index1,w0_index2:w1_index1' -> "
                 "'w0_index0:w1_index0,w0_index1'",
                 "changed: wireless.wifi0.wlanlist: '0,1,2' -> '0,1'",
                 "changed: wireless.wifi1.wlanlist: '0,1' -> '0'"):
        out.next("[server]     " + line)
    out.next("[server] device UCI of the deleted network:")
    out.next("[server]     uci: Entry not found")
    out.next("[server]     uci: Entry not found")


def check_telemetry(out):
    out.next("[server] === telemetry: a periodic status update from the agent")
    out.next_match(r'\[server\] <-- \{"jsonrpc":"2\.0","method":"dsLogStatusUpdates",'
                   r'"params":\{"deviceId":"%s","version":0,"updates":\[\{"dateTime":"%s",'
                   r'"system":\{"cpu":\d+,"memFree":\d+,"memUsed":\d+\},'
                   r'"lan":\{"rx":\d+,"tx":\d+\},"radios":\[\{"interface":"2\.4GHz",.*'
                   r'\{"interface":"5GHz",.*\}\]\}\]\}\}' % (DEMO_MAC, ISO))
    out.next("[server] === telemetry: an event written in the device")
    out.next("[server] device $ add_a_notification 7 INFO Demo tour event")
    out.next_match(r'\[server\] <-- \{"jsonrpc":"2\.0","method":"dsEventNotifications",'
                   r'"params":\{"deviceId":"%s","version":0,"events":\[\{"number":7,'
                   r'"dateTime":"%s","type":"INFO","event":"Demo tour event"\}\]\}\}'
                   % (DEMO_MAC, ISO))
    out.next("[server] === telemetry: the system log streamed while it is on")
    out.next('[server] --> {"jsonrpc":"2.0","id":"16","method":"dxStreamSystemLogs",'
             '"params":{"deviceId":"%s","enable":true}}' % DEMO_MAC)
    line = r'\{"dateTime":"%s","level":20,"location":" ","message":"%%s "\}' % ISO
    out.next_match(r'\[server\] <-- \{"jsonrpc":"2\.0","id":"16","stream":true,"result":'
                   r'\{"deviceId":"%s","logs":\[%s,%s,%s\]\}\}' % (
                       DEMO_MAC, line % "hello from the device", line % "a second line",
                       line % "and a third"))
    out.next('[server] --> {"jsonrpc":"2.0","id":"17","method":"dxStreamSystemLogs",'
             '"params":{"deviceId":"%s","enable":false}}' % DEMO_MAC)
    out.next("[server] (no reply: streaming is off; the agent stopped its capture and removed it)")


def check_reset(out):
    out.next("[server] === reset: the device reboots, the agent starts again at boot and "
             "restores the requests it had saved")
    out.next("[server] device $ touch /tmp/luci_reload_cmd   (the web configuration reloads)")
    out.next('[server] --> {"jsonrpc":"2.0","id":"19","method":"dxResetDevice",'
             '"params":{"deviceId":"%s"}}' % DEMO_MAC)
    out.next('[server] --> {"jsonrpc":"2.0","id":"20","method":"dxGetNetworkSettings",'
             '"params":{"deviceId":"%s"}}' % DEMO_MAC)
    out.next('[server] --> {"jsonrpc":"2.0","id":"21","method":"dxGetTimeSettings",'
             '"params":{"deviceId":"%s"}}' % DEMO_MAC)
    out.next("[server] <-- " + SUCCESS % "19")
    out.next_match(r'\[server\] <-- \{"jsonrpc":"2\.0","method":"dsEventNotifications",'
                   r'"params":\{"deviceId":"%s","version":0,"events":\[\{"number":2,'
                   r'"dateTime":"%s","type":"INFO","event":"Reboot"\}\]\}\}' % (DEMO_MAC, ISO))
    # the device went down by its own `reboot`, and the demo started the
    # agent again at the boot
    down = out.next_match(r"\[device\] the device went down after reboot \(status (\d+)\); "
                          r"it boots and starts the agent again")
    assert down.group(1) in ("137", "143")
    out.next("[device] starting: korvat-cloud -d %s %s" % (
        re.search(r"\[device\] starting: korvat-cloud -d (\S+) ", out.text).group(1), DEMO_MAC))
    out.next("[server] the device booted")
    out.next_match(r"\[server\] agent connected again after the boot: connection \d+")
    for line in ("kapri_util.lua add_a_notification 2 INFO Reboot", "reboot",
                 "kapri_util.lua backup_cloud_files", "mount -t jffs2 /dev/mtdblock2 /mnt/_sys1",
                 "umount /mnt/_sys1"):
        out.next("[server]     " + line)
    # the two requests saved at the reset came back from flash: two
    # objects restored, each answered on the new connection
    assert "[agent] [PID 2][FUNC kapri_util.cpp::restore_queue][LINE 1694]: obj_num = 2" \
        in out.lines
    out.next("[server] <-- (restored and answered after the boot) " + NETWORK % "20")
    out.next_match(r'\[server\] <-- \(restored and answered after the boot\) '
                   r'\{"jsonrpc":"2\.0","id":"21","result":\{"deviceId":"%s",'
                   r'"timeZone":"\+2:00","currentTime":"%s","daylightSavings":"disabled"\}\}'
                   % (DEMO_MAC, ISO))


def check_end(out):
    out.next("[server] === waiting for an answered ping")
    out.next("[server] ping answered; tour complete")
    assert "[device] /tmp/cloud_conn_state = 1" in out.lines
    out.next("[device] connection state reached 1 during the tour")
    out.next("demo: tour complete")
    assert "!!!" not in out.text and "tour failed" not in out.text


def test_demo_tour_runs_once_and_exits_0():
    status, text = run_demo()
    assert status == 0, text[-6000:]
    out = Output(text)
    check_first_steps(out)
    check_network_settings(out)
    check_time_settings(out)
    check_wireless(out)
    check_telemetry(out)
    check_reset(out)
    out.next("[server] === remote access over UPnP: skipped (run the demo with --upnp)")
    check_end(out)


def test_demo_tour_over_tls_with_remote_access_through_the_upnp_gateway():
    status, text = run_demo("--tls", "--upnp")
    assert status == 0, text[-6000:]
    out = Output(text)
    assert re.search(r"\[server\] \S+ listening on wss://192\.168\.1\.1:\d+", text)
    out.next_match(r"\[gateway\] UPnP gateway listening: http://192\.168\.1\.1:5000/"
                   r"rootDesc\.xml, WAN address 45\.67\.89\.10")
    check_first_steps(out)
    check_reset(out)
    out.next("[server] === remote access over UPnP: open the web interface, the gateway's "
             "mappings, close it")
    out.next("[server] gateway's port mappings (upnpc -l):")
    out.next("[server]     (none)")
    port = out.next_match(
        r'\[server\] <-- \{"jsonrpc":"2\.0","id":"22","result":\{"deviceId":"%s",'
        r'"protocol":"http","ipAddress":"45\.67\.89\.10","port":"(\d+)"\}\}' % DEMO_MAC).group(1)
    assert 49152 <= int(port) <= 65534
    out.next("[server] gateway's port mappings (upnpc -l):")
    out.next("[server]     TCP %s -> 192.168.1.2:80 'nimb:UPnP:port'" % port)
    out.next('[server] --> {"jsonrpc":"2.0","id":"23","method":"dxDisableRemoteWebUiAccess",'
             '"params":{"deviceId":"%s","ipAddress":"45.67.89.10","port":"%s"}}'
             % (DEMO_MAC, port))
    out.next("[server] <-- " + SUCCESS % "23")
    out.next("[server] gateway's port mappings (upnpc -l):")
    out.next("[server]     (none)")
    check_end(out)


def _read_until(fd, buf, done, timeout):
    """Read the terminal fd into buf until done(buf) or timeout (scaled);
    returns whether done(buf) held.  EOF ends the wait too."""
    deadline = Deadline(timeout)
    while not done(buf):
        left = deadline.left()
        if left <= 0:
            return False
        r, _, _ = select.select([fd], [], [], min(left, 0.2))
        if not r:
            continue
        try:
            data = os.read(fd, 65536)
        except OSError:  # EIO: the terminal's last user has gone
            return done(buf)
        if not data:
            return done(buf)
        buf += data
    return True


def _processes_mentioning(text):
    found = []
    for pid in os.listdir("/proc"):
        if not pid.isdigit():
            continue
        try:
            with open("/proc/%s/cmdline" % pid, "rb") as f:
                if text.encode() in f.read():
                    found.append(int(pid))
        except OSError:
            pass
    return found


def test_demo_runs_until_ctrl_c_and_leaves_nothing_behind(tmp_path):
    """Without --once the demo keeps running; Ctrl-C on its terminal ends
    it, together with the device server and the agent it started."""
    env = dict(os.environ, KC_AGENT=AGENT, TMPDIR=str(tmp_path))
    pid, fd = pty.fork()
    if pid == 0:
        try:
            signal.signal(signal.SIGINT, signal.SIG_DFL)
            os.execve(os.path.join(ROOT, "scripts", "demo.sh"), ["demo.sh"], env)
        finally:
            os._exit(127)
    buf = bytearray()
    try:
        connected = _read_until(
            fd, buf, lambda b: b"[device] /tmp/cloud_conn_state = 1" in b, 60)
        assert connected, bytes(buf[-3000:]).decode("utf-8", "replace")
        # still running well after the tour's requests were answered: the
        # server keeps pinging and the agent keeps answering
        pongs = bytes(buf).count(b" RECV PONG")
        assert _read_until(fd, buf, lambda b: bytes(b).count(b" RECV PONG") >= pongs + 2, 15), \
            bytes(buf[-3000:]).decode("utf-8", "replace")
        assert os.waitpid(pid, os.WNOHANG) == (0, 0)
        assert _processes_mentioning(str(tmp_path)), "server not found"
        os.write(fd, b"\x03")
        _read_until(fd, buf, lambda b: False, 20)

        def reaped():
            done, status = os.waitpid(pid, os.WNOHANG)
            return (done, status) if done else None
        done, status = wait_for(reaped, 10, interval=0.1) or (0, 0)
        out = bytes(buf[-3000:]).decode("utf-8", "replace")
        assert done == pid, "demo still running after Ctrl-C:\n" + out
        pid = 0
        assert os.WIFEXITED(status) and os.WEXITSTATUS(status) == 130, (status, out)
        assert _processes_mentioning(str(tmp_path)) == []
        assert os.listdir(tmp_path) == []
    finally:
        if pid:
            os.kill(pid, signal.SIGKILL)
            os.waitpid(pid, 0)
        os.close(fd)
