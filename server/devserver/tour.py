"""The demonstration tour: requests of every family against a connected
agent, what they changed in the simulated device, the agent's own
messages, a reboot and (with a UPnP gateway) remote access.

Each step prints "=== title", every request ("--> ") and reply or message
("<-- "); a reply other than the expected one ends the tour as failed.
Only DeviceServer's public API is used.
"""
import json
import os
import re
import subprocess
import time

from .wire import OP_TEXT

_TOP = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
RUN_DEVICE = os.path.join(_TOP, "device", "run-device")

_ISO = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d\d:\d\d"


class TourFailed(Exception):
    pass


def _envelope(method, params, rid):
    return json.dumps({"jsonrpc": "2.0", "id": rid, "method": method, "params": params},
                      separators=(",", ":"))


def _uci_values(text):
    """{path: value} of `uci show` lines (path='value')."""
    values = {}
    for line in text.splitlines():
        path, sep, value = line.partition("=")
        if sep and path.count(".") >= 1:
            if len(value) >= 2 and value[0] == value[-1] == "'":
                value = value[1:-1]
            values[path] = value
    return values


class _Tour(object):
    def __init__(self, server, timeout, run=None, upnp=None):
        self.server = server
        self.deadline = time.monotonic() + timeout
        self.run = run
        self.upnp = upnp
        self.conn = None
        self.mac = ""

    # ----- printing and time ----------------------------------------------

    def left(self, most=None):
        rest = max(0.1, self.deadline - time.monotonic())
        return rest if most is None else min(rest, most)

    def say(self, text=""):
        # one line at a time with the server's own log lines
        self.server.say(text)

    def title(self, text):
        self.say("=== " + text)

    def fail(self, text):
        self.say("!!! " + text)
        raise TourFailed(text)

    def check(self, raw, expect, what):
        """expect: exact text, or a compiled pattern the whole text matches."""
        if hasattr(expect, "fullmatch"):
            ok = expect.fullmatch(raw) is not None
            shown = expect.pattern
        else:
            ok = raw == expect
            shown = expect
        if not ok:
            self.fail("unexpected %s; wanted %s" % (what, shown))

    # ----- the agent --------------------------------------------------------

    def request(self, method, params, rid, expect, timeout=60):
        text = _envelope(method, params, rid)
        self.say("--> " + text)
        reply = self.server.request_raw(text, expect_id=rid, timeout=self.left(timeout),
                                        conn=self.conn)
        self.say("<-- " + reply.raw)
        self.check(reply.raw, expect, "reply to %s" % method)
        return reply

    def send(self, method, params, rid):
        """A request whose answers come as messages (or not at all)."""
        text = _envelope(method, params, rid)
        self.say("--> " + text)
        self.server.send_text(text, conn=self.conn)

    def take(self, test, what, timeout=30):
        """The first queued message for which test(message) holds (others
        stay queued)."""
        try:
            return self.server.next_message(self.left(timeout) / self.server.timeout_scale,
                                            predicate=test)
        except TimeoutError:
            self.fail("no %s within %.0f s" % (what, timeout))

    def success(self, rid):
        return '{"jsonrpc":"2.0","id":"%s","result":{"deviceId":"%s"}}' % (rid, self.mac)

    # ----- the device (through run-device: nothing is read by following a
    # ----- link the device may have planted) --------------------------------

    def device(self, argv, stdin=None, timeout=30):
        r = subprocess.run([RUN_DEVICE, "exec", self.run, "--"] + list(argv),
                           input=stdin, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                           text=True, timeout=timeout)
        return r.stdout

    def device_sh(self, script, **kw):
        return self.device(["/bin/sh", "-c", script], **kw)

    def device_rebooted(self):
        """True from the device's `reboot` until its next boot."""
        return subprocess.run([RUN_DEVICE, "rebooted", self.run], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, timeout=30).returncode == 0

    def journal(self):
        r = subprocess.run([RUN_DEVICE, "journal", self.run], stdout=subprocess.PIPE,
                           stderr=subprocess.DEVNULL, text=True, timeout=30)
        return r.stdout.splitlines()

    def wait_journal(self, test, start=0, what="", timeout=20):
        end = time.monotonic() + self.left(timeout)
        while True:
            lines = self.journal()
            found = [line for line in lines[start:] if test(line)]
            if found:
                return found
            if time.monotonic() > end:
                self.fail("the device never ran %s" % what)
            time.sleep(0.5)

    def uci_show(self, *paths):
        script = "; ".join("uci show %s 2>&1" % p for p in paths)
        return self.device_sh(script)

    def show_uci(self, label, text, keep=None):
        lines = [line for line in text.splitlines()
                 if keep is None or any(k in line for k in keep)]
        self.say("device UCI %s:" % label)
        for line in lines:
            self.say("    " + line)

    def show_changes(self, before, after):
        changes = {}
        for path in sorted(set(before) | set(after)):
            old, new = before.get(path), after.get(path)
            if old != new:
                changes[path] = (old, new)
                self.say("    changed: %s: %s -> %s" % (
                    path, "(none)" if old is None else "'%s'" % old,
                    "(none)" if new is None else "'%s'" % new))
        if not changes:
            self.say("    (no change)")
        return changes

    def wait_applied(self, package, mark, timeout=30):
        """Waits until the apply step the request started (after journal
        line `mark`) has committed what it staged: no changes of the package
        left in `uci changes`.  (Some handlers reply before they write.)"""
        self.wait_journal(lambda line: line == "kapri_util.lua cloud_action_apply", mark,
                          "the apply step", timeout)
        end = time.monotonic() + self.left(timeout)
        while self.device(["uci", "changes", package]).strip():
            if time.monotonic() > end:
                self.fail("the changes of %s were never committed" % package)
            time.sleep(0.5)

    def expect_changes(self, changes, wanted, what):
        got = {p: changes.get(p) for p in wanted}
        if got != wanted:
            self.fail("unexpected UCI change of %s: %r, wanted %r" % (what, got, wanted))

    # ----- the steps --------------------------------------------------------

    def first_steps(self):
        mac = self.mac
        steps = [
            ("dxGetAbout", _envelope("dxGetAbout", {"deviceId": mac}, "1"), "1",
             re.compile(r'\{"jsonrpc":"2\.0","id":"1","result":\{"deviceId":%s,.*\}\}'
                        % re.escape(json.dumps(mac)))),
            ("unknown method", _envelope("dxNoSuchMethod", {"deviceId": mac}, "2"), "2",
             '{"jsonrpc":"2.0","id":"2","error":{"code":-32601,'
             '"message":"The method is not available","data":""}}'),
            ("envelope without params", '{"jsonrpc":"2.0","id":"3","method":"dxGetAbout"}', "3",
             '{"jsonrpc":"2.0","id":"3","error":{"code":-32600,'
             '"message":"The JSON sent is not a valid Request object","data":""}}'),
        ]
        for title, text, rid, expect in steps:
            self.say("=== %s\n--> %s" % (title, text))
            reply = self.server.request_raw(text, expect_id=rid, timeout=self.left(),
                                            conn=self.conn)
            self.say("<-- %s" % reply.raw)
            self.check(reply.raw, expect, "reply to %s" % title)

    def network_settings(self):
        self.title("network settings: read them, add a second name server, "
                   "the device's UCI before and after")
        before_text = self.uci_show("network.lan")
        self.show_uci("before (uci show network.lan)", before_text)
        got = self.request("dxGetNetworkSettings", {"deviceId": self.mac}, "4", re.compile(
            r'\{"jsonrpc":"2\.0","id":"4","result":\{"deviceId":%s,"deviceName":"[^"]*",'
            r'"deviceIpAddress":"192\.168\.1\.2",.*\}\}' % re.escape(json.dumps(self.mac))))
        params = dict(got.data["result"])
        # the same address, mask and gateway: the connection stays up
        params["dnsServer2"] = "9.9.9.9"
        mark = len(self.journal())
        self.request("dxSetNetworkSettings", params, "5", self.success("5"))
        self.wait_applied("network", mark)
        after_text = self.uci_show("network.lan")
        self.show_uci("after the apply step", after_text)
        changes = self.show_changes(_uci_values(before_text), _uci_values(after_text))
        self.expect_changes(changes, {"network.lan.dns": (
            "192.168.1.1 8.8.8.8", "192.168.1.1 9.9.9.9")}, "network")

    def time_settings(self):
        self.title("time settings: read them, move the zone to +2:00, "
                   "the device's UCI before and after")
        before_text = self.uci_show("system.system")
        self.show_uci("before (uci show system.system)", before_text)
        reply = (r'\{"jsonrpc":"2\.0","id":"%%s","result":\{"deviceId":%s,"timeZone":"%%s",'
                 r'"currentTime":"%s","daylightSavings":"(en|dis)abled"\}\}'
                 % (re.escape(json.dumps(self.mac)), _ISO))
        self.request("dxGetTimeSettings", {"deviceId": self.mac}, "6",
                     re.compile(reply % ("6", r"\+0:00")))
        mark = len(self.journal())
        self.request("dxSetTimeSettings", {"deviceId": self.mac, "timeZone": "+2:00"}, "7",
                     self.success("7"))
        self.wait_applied("system", mark)
        after_text = self.uci_show("system.system")
        self.show_uci("after the apply step", after_text)
        changes = self.show_changes(_uci_values(before_text), _uci_values(after_text))
        self.expect_changes(changes, {"system.system.timezone": ("UTC0", "UTC-2")}, "system")
        self.request("dxGetTimeSettings", {"deviceId": self.mac}, "8",
                     re.compile(reply % ("8", r"\+2:00")))

    WIRELESS_LISTS = ("wlanlist", "enlist", "network_profile")
    SECTION_OPTIONS = ("ssid", "encryption", "key", "WLANEnable", "hidden", "isolate")

    def wireless_lists(self):
        text = self.uci_show("wireless.wifi0", "wireless.wifi1")
        lines = [line for line in text.splitlines()
                 if line.rpartition(".")[2].split("=")[0] in self.WIRELESS_LISTS]
        return "\n".join(lines)

    def wireless_sections(self, sections):
        text = self.uci_show(*["wireless." + s for s in sections])
        lines = []
        for line in text.splitlines():
            name = line.split("=")[0]
            if name.count(".") == 1 or name.rpartition(".")[2] in self.SECTION_OPTIONS \
                    or "not found" in line:
                lines.append(line)
        return "\n".join(lines)

    def wireless(self):
        self.title("wireless networks: the radios and networks, add a network on both "
                   "radios, change it, delete it, the device's UCI along the way")
        # requests on the 5 GHz radio need the radios the agent detects at its start
        self.wait_journal(lambda line: line == "kapri_util.lua get_support_radio",
                          what="get_support_radio")
        for rid, interface in (("9", "2.4GHz"), ("10", "5GHz")):
            self.request("vekGetRadioConfig", {"deviceId": self.mac, "interface": interface},
                         rid, re.compile(r'\{"jsonrpc":"2\.0","id":"%s","result":\{.*'
                                         r'"interface":"%s","enabled":true,"opMode":"ap",.*\}\}'
                                         % (rid, re.escape(interface))))
        for rid, index in (("11", 0), ("12", 50)):
            self.request("vekGetNetworkConfig", {"deviceId": self.mac, "networkIndex": index},
                         rid, re.compile(r'\{"jsonrpc":"2\.0","id":"%s","result":\{.*'
                                         r'"networkIndex":%d,.*"ssid":"[^"]+",.*\}\}'
                                         % (rid, index)))
        lists_before = self.wireless_lists()
        self.show_uci("before (radio lists)", lists_before)
        added = {"deviceId": self.mac, "interface": "BOTH", "ssid": "Demo-Both",
                 "security": "WPA2-PSK", "password": "demo-pass-1", "broadcastEnabled": True}
        mark = len(self.journal())
        self.request("vekAddNetwork", added, "13", self.success("13"))
        self.wait_applied("wireless", mark)
        lists_added = self.wireless_lists()
        self.show_uci("after the apply step (radio lists)", lists_added)
        changes = self.show_changes(_uci_values(lists_before), _uci_values(lists_added))
        profile = changes.get("wireless.wifi0.network_profile")
        pair = (profile[1] or "").rpartition(",")[2] if profile else ""
        m = re.fullmatch(r"w0_index(\d+):w1_index(\d+)", pair)
        if m is None:
            self.fail("no paired network was added to wireless.wifi0.network_profile")
        sections = pair.split(":")
        index = int(m.group(1))
        self.say("the new network: sections %s and %s (networkIndex %d)"
                 % (sections[0], sections[1], index))
        before_set = self.wireless_sections(sections)
        self.show_uci("of the new network", before_set)
        for section in sections:
            self.expect_changes(_uci_values(before_set), {
                "wireless.%s.ssid" % section: "Demo-Both",
                "wireless.%s.encryption" % section: "psk2 aes",
                "wireless.%s.WLANEnable" % section: "1"}, section)
        changed = {"deviceId": self.mac, "networkIndex": index, "ssid": "Demo-Renamed",
                   "enabled": True, "security": "WPA2-PSK", "password": "demo-pass-2",
                   "broadcastEnabled": False}
        mark = len(self.journal())
        self.request("vekSetNetworkConfig", changed, "14", self.success("14"))
        self.wait_applied("wireless", mark)
        after_set = self.wireless_sections(sections)
        self.show_uci("after the apply step", after_set)
        changes = self.show_changes(_uci_values(before_set), _uci_values(after_set))
        for section in sections:
            self.expect_changes(changes, {
                "wireless.%s.ssid" % section: ("Demo-Both", "Demo-Renamed"),
                "wireless.%s.key" % section: ("demo-pass-1", "demo-pass-2"),
                "wireless.%s.hidden" % section: ("0", "1")}, section)
        mark = len(self.journal())
        self.request("vekDeleteNetwork", {"deviceId": self.mac, "networkIndex": index}, "15",
                     self.success("15"))
        self.wait_applied("wireless", mark)
        lists_deleted = self.wireless_lists()
        self.show_uci("after the apply step (radio lists)", lists_deleted)
        self.show_changes(_uci_values(lists_added), _uci_values(lists_deleted))
        gone = self.wireless_sections(sections)
        self.show_uci("of the deleted network", gone)
        if lists_deleted != lists_before:
            self.fail("the radio lists are not back to what they were")
        if any(p.startswith("wireless.%s" % s) for p in _uci_values(gone) for s in sections):
            self.fail("the sections of the deleted network are still there")

    def telemetry(self):
        mac = re.escape(json.dumps(self.mac))
        self.title("telemetry: a periodic status update from the agent")
        update = self.take(lambda m: m.method == "dsLogStatusUpdates", "status update", 60)
        self.say("<-- " + update.raw)
        self.check(update.raw, re.compile(
            r'\{"jsonrpc":"2\.0","method":"dsLogStatusUpdates","params":\{"deviceId":%s,'
            r'"version":0,"updates":\[\{"dateTime":"%s","system":\{"cpu":\d+,"memFree":\d+,'
            r'"memUsed":\d+\},"lan":\{"rx":\d+,"tx":\d+\},"radios":\[.*\]\}\]\}\}'
            % (mac, _ISO)), "status update")

        self.title("telemetry: an event written in the device")
        argv = ["/usr/sbin/kapri_util.lua", "add_a_notification", "7", "INFO",
                "Demo", "tour", "event"]
        self.say("device $ " + " ".join(argv[1:]))
        self.device(argv)
        event = self.take(lambda m: m.method == "dsEventNotifications" and
                          "Demo tour event" in m.raw, "event notification")
        self.say("<-- " + event.raw)
        self.check(event.raw, re.compile(
            r'\{"jsonrpc":"2\.0","method":"dsEventNotifications","params":\{"deviceId":%s,'
            r'"version":0,"events":\[\{"number":7,"dateTime":"%s","type":"INFO",'
            r'"event":"Demo tour event"\}\]\}\}' % (mac, _ISO)), "event notification")

        self.title("telemetry: the system log streamed while it is on")
        mark = len(self.journal())
        self.send("dxStreamSystemLogs", {"deviceId": self.mac, "enable": True}, "16")
        self.wait_journal(lambda line: line == "logread -f", mark, "logread -f")
        self.say("(no reply of its own: streamed results carry the request's id)")
        lines = ["hello from the device", "a second line", "and a third"]
        self.say("device $ logger -t demo  (three lines: %s)" % ", ".join(lines))
        self.device(["logger", "-t", "demo"], stdin="".join(l + "\n" for l in lines))
        wanted = [l + " " for l in lines]
        seen = []
        while not all(w in seen for w in wanted):
            message = self.take(lambda m: isinstance(m.data, dict) and
                                m.data.get("id") == "16", "streamed log lines", 30)
            self.say("<-- " + message.raw)
            self.check(message.raw, re.compile(
                r'\{"jsonrpc":"2\.0","id":"16","stream":true,"result":\{"deviceId":%s,'
                r'"logs":\[.*\]\}\}' % mac), "streamed result")
            seen += [log.get("message") for log in message.data["result"]["logs"]
                     if isinstance(log, dict)]
        if [s for s in seen if s in wanted] != wanted:
            self.fail("streamed lines %r, wanted %r" % (seen, wanted))
        self.send("dxStreamSystemLogs", {"deviceId": self.mac, "enable": False}, "17")
        end = time.monotonic() + self.left(20)
        while self.device_sh("[ -e /tmp/cloud_log_file ] && echo on || echo off").strip() != "off":
            if time.monotonic() > end:
                self.fail("the log capture was never stopped")
            time.sleep(0.5)
        self.say("(no reply: streaming is off; the agent stopped its capture and removed it)")

    def queued_so_far(self):
        """Requests this agent process has put into its receive queue: every
        text frame the server sent it (one process since the tour began)."""
        return sum(1 for f in list(self.server.frames)
                   if f.direction == "send" and f.opcode == OP_TEXT)

    def reset(self):
        self.title("reset: the device reboots, the agent starts again at boot and "
                   "restores the requests it had saved")
        mac = self.mac
        # The receive queue is a ring of 10 requests whose saved copy comes
        # back only when it has not wrapped around: start the reset where
        # it and the two requests behind it fit without wrapping.
        n = self.queued_so_far()
        extra = 0
        while (n + 1) % 10 > 7:
            extra += 1
            n += 1
        if extra:
            self.say("(%d more request%s first, so that the reset and the two requests "
                     "behind it do not wrap around the receive queue's ring of 10)"
                     % (extra, "" if extra == 1 else "s"))
            for i in range(extra):
                rid = "18.%d" % (i + 1)
                self.request("dxGetNetworkSettings", {"deviceId": mac}, rid, re.compile(
                    r'\{"jsonrpc":"2\.0","id":"%s","result":\{.*\}\}' % re.escape(rid)))
        # While the web configuration reloads (/tmp/luci_reload_cmd), the
        # agent holds the request it has taken: the two behind the reset
        # wait in its receive queue and are saved with it.
        self.say("device $ touch /tmp/luci_reload_cmd   (the web configuration reloads)")
        self.device(["touch", "/tmp/luci_reload_cmd"])
        time.sleep(3)  # the agent looks for it every second
        mark = len(self.journal())
        old = self.conn
        self.send("dxResetDevice", {"deviceId": mac}, "19")
        self.send("dxGetNetworkSettings", {"deviceId": mac}, "20")
        self.send("dxGetTimeSettings", {"deviceId": mac}, "21")
        time.sleep(3)

        def reply_on(conn, rid):
            return lambda m: (m.conn is conn and isinstance(m.data, dict) and
                              m.data.get("id") == rid and "method" not in m.data)
        if any(reply_on(old, "19")(m) for m in self.server.messages):
            self.fail("the agent did not wait for the configuration reload")
        self.say("device $ rm /tmp/luci_reload_cmd   (reload over; the agent goes on "
                 "5 s later)")
        self.device(["rm", "-f", "/tmp/luci_reload_cmd"])
        reset = self.take(reply_on(old, "19"), "reply to dxResetDevice", 30)
        self.say("<-- " + reset.raw)
        self.check(reset.raw, self.success("19"), "reply to dxResetDevice")
        event = self.take(lambda m: m.conn is old and m.method == "dsEventNotifications",
                          "the reset's event")
        self.say("<-- " + event.raw)
        self.check(event.raw, re.compile(
            r'\{"jsonrpc":"2\.0","method":"dsEventNotifications","params":\{"deviceId":%s,'
            r'"version":0,"events":\[\{"number":2,"dateTime":"%s","type":"INFO",'
            r'"event":"Reboot"\}\]\}\}' % (re.escape(json.dumps(mac)), _ISO)),
            "event of the reset")
        self.say("waiting for the device to go down and the agent to come back...")
        self.wait_journal(lambda line: line == "reboot", mark, "reboot")
        if not old.wait_closed(self.left(30)):
            self.fail("the connection stayed open: the device did not reboot")
        self.say("connection %d closed" % old.index)
        # `reboot` leaves its mark in the run directory until the next boot;
        # the agent that is stopping may still reconnect for a moment, so
        # the agent of the next boot is the one connected after the boot
        # has read its queues back from flash
        end = time.monotonic() + self.left(60)
        while self.device_rebooted():
            if time.monotonic() > end:
                self.fail("the device did not boot again")
            time.sleep(0.5)
        self.say("the device booted")
        self.wait_journal(lambda line: line == "umount /mnt/_sys1", mark,
                          "umount /mnt/_sys1 (the restore of the queues)", 60)
        end = time.monotonic() + self.left(30)
        while self.server.current is None or self.server.current is old:
            if time.monotonic() > end:
                self.fail("the agent did not come back after the reboot")
            time.sleep(0.2)
        self.conn = self.server.current
        self.say("agent connected again after the boot: connection %d" % self.conn.index)
        journal = self.journal()[mark:]
        self.say("device journal since the reset (the queues saved to flash, the reboot, "
                 "the flash read back at boot):")
        for line in journal:
            if line.startswith(("kapri_util.lua add_a_notification", "kapri_util.lua backup",
                                "reboot", "mount", "umount")):
                self.say("    " + line)
        saved = journal.index("kapri_util.lua backup_cloud_files") \
            if "kapri_util.lua backup_cloud_files" in journal else None
        read = journal.index("mount -t jffs2 /dev/mtdblock2 /mnt/_sys1") \
            if "mount -t jffs2 /dev/mtdblock2 /mnt/_sys1" in journal else None
        if "reboot" not in journal or saved is None or read is None or saved > read:
            self.fail("the device did not save the queues, reboot and read them back")
        for rid, method in (("20", "dxGetNetworkSettings"), ("21", "dxGetTimeSettings")):
            again = self.take(reply_on(self.conn, rid), "restored reply to " + method, 60)
            self.say("<-- (restored and answered after the boot) " + again.raw)
            if "result" not in again.data:
                self.fail("the restored %s was not answered with a result" % method)
            # saved for the next boot means run there only: never twice
            twice = [m for m in self.server.messages
                     if m.conn is not self.conn and reply_on(m.conn, rid)(m)]
            if twice:
                self.fail("%s was answered before the reboot as well: %s"
                          % (method, twice[0].raw))

    def upnp_mappings(self):
        r = subprocess.run(["upnpc", "-u", self.upnp, "-l"], stdout=subprocess.PIPE,
                           stderr=subprocess.STDOUT, text=True, timeout=30)
        found = re.findall(r"^\s*\d+\s+(TCP|UDP)\s+(\d+)->([\d.]+):(\d+)\s+'([^']*)'",
                           r.stdout, re.M)
        self.say("gateway's port mappings (upnpc -l):")
        for proto, ext, client, internal, desc in found:
            self.say("    %s %s -> %s:%s '%s'" % (proto, ext, client, internal, desc))
        if not found:
            self.say("    (none)")
        return found

    def remote_access(self):
        if not self.upnp:
            self.title("remote access over UPnP: skipped (run the demo with --upnp)")
            return
        self.title("remote access over UPnP: open the web interface, the gateway's "
                   "mappings, close it")
        if self.upnp_mappings():
            self.fail("the gateway has mappings before the request")
        reply = self.request(
            "dxEnableRemoteWebUiAccess",
            {"deviceId": self.mac, "protocol": "http", "timeout": 600}, "22", re.compile(
                r'\{"jsonrpc":"2\.0","id":"22","result":\{"deviceId":%s,"protocol":"http",'
                r'"ipAddress":"[\d.]+","port":"\d+"\}\}' % re.escape(json.dumps(self.mac))))
        result = reply.data["result"]
        found = self.upnp_mappings()
        if [(p, e, i) for p, e, _, i, _ in found] != [("TCP", result["port"], "80")]:
            self.fail("the gateway does not map port %s to the web interface" % result["port"])
        self.request("dxDisableRemoteWebUiAccess",
                     {"deviceId": self.mac, "ipAddress": result["ipAddress"],
                      "port": result["port"]}, "23", self.success("23"))
        if self.upnp_mappings():
            self.fail("the mapping is still there")

    def run_all(self):
        self.conn = self.server.wait_for_connection(self.left())
        self.say("agent connected: path=%s origin=%s protocol=%s" % (
            self.conn.path, self.conn.origin, self.conn.protocol))
        self.mac = self.conn.origin or ""
        self.first_steps()
        if self.run:
            self.network_settings()
            self.time_settings()
            self.wireless()
            self.telemetry()
            self.reset()
            self.remote_access()
        self.title("waiting for an answered ping")
        if not self.server.wait_for_pong(self.left(30), conn=self.conn):
            self.fail("no pong received")
        self.say("ping answered; tour complete")


def run_tour(server, timeout, run=None, upnp=None):
    """Run the demonstration exchange; True if every step got its expected
    answer.  run: run directory of the simulated device the agent runs in
    (the device-side steps need it); upnp: root description URL of the
    device's UPnP gateway (the remote-access step needs it)."""
    try:
        _Tour(server, timeout, run, upnp).run_all()
    except TourFailed as exc:
        print("tour failed: %s" % exc, flush=True)
        return False
    return True
