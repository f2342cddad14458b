"""The fleet's runner: starts the devices, runs a scenario, measures, reports.

Runs as pid 2 of the fleet's own PID namespace (isolate.py): whatever it
starts ends with it.  Layout on the fleet's tmpfs (isolate.TMPFS_AT):

    fleet/shared/       the link tree and front end every device shares
    fleet/devices/MAC   one run directory per device (MAC.ctl: its control
                        files and the agent's output, agent.log)
    fleet/control.sock  the bundled server's control socket
"""
import concurrent.futures
import json
import os
import signal
import statistics
import subprocess
import sys
import threading
import time
import urllib.parse

from . import accounting, agentlog, isolate, profiles, report, switch
from .control import Control
from .fleetdevice import FleetDevice, signal_name
from .shared import Shared
from .summary import Summary

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(os.path.dirname(HERE))
if os.path.join(TOP, "device") not in sys.path:
    sys.path.insert(0, os.path.join(TOP, "device"))
import simforward  # noqa: E402
SERVER = os.path.join(TOP, "server", "fleet_server.py")
FORWARD = os.path.join(TOP, "device", "simforward.py")
PYTHON = "/usr/bin/python3"
SERVER_PORT = 8765
BASE = os.path.join(isolate.TMPFS_AT, "fleet")


class Interrupted(Exception):
    pass


percentile = report.percentile


class Runner:
    def __init__(self, opts, spec):
        self.o = opts
        self.spec = spec
        self.first, self.count = spec.shard(*opts.shard) if opts.shard else (0, spec.devices)
        self.summary = Summary(interactive=opts.interactive)
        self.devices = []
        self.switch = None
        self.server_proc = None
        self.control = None
        self.monitor_control = None
        self.forward_proc = None
        self.shared = None
        self.interrupt = threading.Event()   # Ctrl-C, SIGTERM, SIGHUP
        self.done = threading.Event()        # the monitor's end
        self.hurry = False
        self.steady_from = None              # every device connected
        self.steady_until = None             # the scenario's first disruption
        self.cpu_from = self.cpu_until = None  # CPU samples at those moments
        self.phase = "setting up"
        self.t0 = time.time()
        self.samples = []            # timeline rows (see report.TIMELINE_FIELDS)
        self.cpu_samples = []        # (time, accounting.Sample)
        self.mem = None              # last memory figures
        self.mem_peak = None
        self.events = []             # (time, what) of the scenario's steps
        self.probes = []             # results of request rounds
        self.scenario_result = {}
        self.sent = {}               # mac -> agentlog.SentCounts
        self.server_counts = {}
        self.interrupted = False
        self.errors = []
        self._monitor = None
        self._lock = threading.Lock()
        # Every sandbox is started from this one thread: a sandbox's
        # launcher gets SIGKILL when the thread that started it ends
        # (bubblewrap's --die-with-parent), so no short-lived thread may.
        self.spawner = concurrent.futures.ThreadPoolExecutor(1, thread_name_prefix="spawner")

    # ---- helpers -------------------------------------------------------------
    def now(self):
        return time.time() - self.t0

    def note(self, what):
        self.events.append((time.time(), what))
        self.summary.say("%7.1fs  %s" % (self.now(), what))

    def check_stop(self):
        if self.interrupt.is_set():
            raise Interrupted()

    def sleep(self, seconds):
        if self.interrupt.wait(max(0.0, seconds)):
            raise Interrupted()

    @property
    def bundled(self):
        return self.o.server_url is None

    # ---- the server ------------------------------------------------------------
    def agent_url(self):
        if self.bundled:
            scheme = "wss" if self.o.tls else "ws"
            return "%s://%s:%d/" % (scheme, switch.SWITCH_IP, SERVER_PORT)
        u = urllib.parse.urlsplit(self.o.server_url)
        port = u.port or (443 if u.scheme == "wss" else 80)
        host = u.hostname
        if not simforward.needs_name(host):
            # an address literal would be the device's own: the switch's
            # address takes its place (the forward listens there)
            host = switch.SWITCH_IP
        netloc = host if (u.port is None) else "%s:%d" % (host, port)
        return urllib.parse.urlunsplit((u.scheme, netloc, u.path or "/", u.query, ""))

    def start_server(self):
        sock = os.path.join(BASE, "control.sock")
        argv = self.switch.argv([PYTHON, SERVER, "--control", sock, "--host", switch.SWITCH_IP,
                                 "--port", str(SERVER_PORT),
                                 "--ping-interval", str(self.o.ping_interval)] +
                                (["--tls", "--cert-dir", os.path.join(BASE, "cert")]
                                 if self.o.tls else []))
        if self.o.tls:
            os.makedirs(os.path.join(BASE, "cert"), exist_ok=True)
        self.server_proc = subprocess.Popen(argv, stdout=subprocess.PIPE, stdin=subprocess.DEVNULL)
        line = self.server_proc.stdout.readline().decode()
        if not line.startswith("ready"):
            raise RuntimeError("the fleet server did not start")
        self.control = Control(sock).connect()
        # the monitor's own connection: a request round may hold the other
        # for as long as it spreads its sends
        self.monitor_control = Control(sock).connect()
        self.note("bundled device server at %s" % line.split()[1])

    def start_forward(self):
        u = urllib.parse.urlsplit(self.o.server_url)
        port = u.port or (443 if u.scheme == "wss" else 80)
        r, w = os.pipe()
        argv = [PYTHON, FORWARD, "--netns", self.switch.ns,
                "--listen", "%s:%d" % (switch.SWITCH_IP, port),
                "--to", "%s:%d" % (u.hostname, port), "--ready-fd", str(w),
                "--parent-pipe", "0"]
        self.forward_proc = subprocess.Popen(argv, pass_fds=(w,), stdin=subprocess.PIPE)
        os.close(w)
        ready = os.read(r, 16)
        os.close(r)
        if not ready.startswith(b"ready"):
            raise RuntimeError("the forward to %s:%d did not start" % (u.hostname, port))
        self.note("forward from the switch's %s:%d to %s:%d (nothing else is routed)"
                  % (switch.SWITCH_IP, port, u.hostname, port))

    # ---- devices -------------------------------------------------------------------
    def make_devices(self):
        run_root = os.path.join(BASE, "devices")
        os.makedirs(run_root, exist_ok=True)
        env = {}
        preload = []
        if self.o.fastsleep:
            preload = [self.o.fastsleep_so]
            env.update({"FASTSLEEP_SCALE": str(self.o.fastsleep), "FASTSLEEP_LOG": "/tmp/fastsleep.log",
                        "ASAN_OPTIONS": "verify_asan_link_order=0"})
        url = self.agent_url()
        for k in range(self.count):
            index = self.first + k
            mac = profiles.mac_at(self.spec.mac_base, index)
            d = FleetDevice(index, mac, self.spec.profile_of(index), run_root,
                            self.o.agent, url, shared=self.shared, preload=preload,
                            env=env, debug=self.o.agent_debug)
            d.spawner = self.spawner
            self.devices.append(d)
            self.sent[mac] = agentlog.SentCounts()

    def prepare_devices(self):
        total = len(self.devices)
        batch = 32
        for i in range(0, total, batch):
            self.check_stop()
            group = self.devices[i:i + batch]
            links = self.switch.add([(d.index - self.first, d.mac) for d in group])
            for d, link in zip(group, links):
                d.prepare(link)
                if not self.bundled:
                    self._point_hosts(d)
            self.summary.progress("preparing", min(i + batch, total), total)

    def _point_hosts(self, d):
        """The user's server by name: the device resolves it to the switch
        (where the forward listens), so that Host and SNI stay its own."""
        host = urllib.parse.urlsplit(self.o.server_url).hostname
        if host and simforward.needs_name(host):
            simforward.point_name(d.run, host, switch.SWITCH_IP)

    def start_devices(self):
        total = len(self.devices)
        rate = self.o.start_rate
        done = [0]
        failed = []
        t_start = time.monotonic()

        def start_one(d):
            try:
                d._start()
            except Exception as exc:
                d.state = "failed"
                d.error = "%s: %s" % (type(exc).__name__, exc)
                failed.append(d)
            done[0] += 1

        futures = []
        for i, d in enumerate(self.devices):
            if self.interrupt.is_set():
                break
            if rate:
                wait = t_start + i / rate - time.monotonic()
                if wait > 0 and self.interrupt.wait(wait):
                    break
            futures.append(self.spawner.submit(start_one, d))
            self.summary.progress("starting", done[0], total,
                                  "connected %s" % self.connected_count())
        for f in futures:
            while not f.done():
                if self.interrupt.wait(0.2):
                    break
                self.summary.progress("starting", done[0], total,
                                      "connected %s" % self.connected_count())
        self.check_stop()
        self.summary.progress("starting", done[0], total,
                              "connected %s" % self.connected_count())
        if failed:
            self.note("%d devices did not start: %s" % (len(failed), failed[0].error))
        self.note("%d devices started in %.1f s" % (total - len(failed),
                                                   time.monotonic() - t_start))

    def stop_devices(self):
        def stop_one(d):
            try:
                d.close()
            except Exception:
                pass
        with concurrent.futures.ThreadPoolExecutor(8) as pool:
            list(pool.map(stop_one, self.devices))

    # ---- watching ----------------------------------------------------------------
    def connected_count(self):
        if self.bundled:
            return self.server_counts.get("connected", 0)
        n = 0
        for d in self.devices:
            if d.dev is not None and d.state == "running":
                try:
                    if (d.dev.read_file("/tmp/cloud_conn_state") or "").strip() == "1":
                        n += 1
                except OSError:
                    pass
        return n

    def monitor(self):
        """Once a second: the server's counts, the agents, the timeline;
        CPU every 5 s, memory every 15 s."""
        last_cpu = last_mem = 0.0
        known = None
        while not self.done.is_set():
            t = time.time()
            try:
                if self.monitor_control is not None:
                    self.server_counts = self.monitor_control.call("counts")
            except Exception as exc:
                self.errors.append("counts: %s" % exc)
            for d in self.devices:
                d.poll()
                if d.state == "down" and self.o.respawn and not self.interrupt.is_set():
                    if time.time() - d.exits[-1][0] >= self.o.respawn:
                        try:
                            self.note("agent of %s ended (%s): started again"
                                      % (d.mac, signal_name(d.exits[-1][1])))
                            d.start()
                        except Exception as exc:
                            d.state = "failed"
                            d.error = str(exc)
                if d.dev is not None:
                    agentlog.read_new(os.path.join(d.dev.ctl, "agent.log"), self.sent[d.mac])
            if t - last_cpu >= 5.0:
                last_cpu = t
                s = accounting.take_sample(known)
                known = s.pids
                self.cpu_samples.append((t, s))
                if len(self.cpu_samples) > 2000:
                    del self.cpu_samples[1:500]
            if t - last_mem >= 15.0 and known is not None:
                last_mem = t
                self.sample_memory(known)
            self.record_row(t)
            self.summary.table(self.figures())
            self.done.wait(max(0.05, 1.0 - (time.time() - t)))

    def sample_memory(self, known):
        s = accounting.Sample()
        s.pids = known
        pss = accounting.memory(s)
        tmpfs = accounting.tmpfs_used_kib(isolate.TMPFS_AT)
        total = sum(pss.values()) + (tmpfs or 0)
        self.mem = {"pss_kib": pss, "tmpfs_kib": tmpfs, "total_kib": total,
                    "at": time.time()}
        if self.mem_peak is None or total > self.mem_peak["total_kib"]:
            self.mem_peak = dict(self.mem)

    def cpu_pct(self):
        if len(self.cpu_samples) < 2:
            return None
        (ta, a), (tb, b) = self.cpu_samples[-2], self.cpu_samples[-1]
        used = sum(accounting.cpu_between(a, b).values())
        return round(100.0 * used / max(0.001, b.at - a.at))

    def totals_sent(self):
        out = {"frames": 0, "status_updates": 0, "events": 0, "replies": 0}
        for c in self.sent.values():
            out["frames"] += c.frames
            out["status_updates"] += c.status_updates
            out["events"] += c.events
            out["replies"] += c.replies
        return out

    def running_count(self):
        return sum(1 for d in self.devices if d.state in ("running", "rebooting"))

    def figures(self):
        sent = self.totals_sent()
        connected = self.connected_count()
        return {"devices": len(self.devices), "phase": self.phase,
                "elapsed": round(self.now(), 1),
                "connected": connected,
                "reconnecting": max(0, self.running_count() - connected),
                "answered": self.server_counts.get("replies") if self.bundled else sent["replies"],
                "status_updates": sent["status_updates"],
                "events": sent["events"],
                "memory_mib": None if self.mem is None else round(self.mem["total_kib"] / 1024),
                "cpu_pct": self.cpu_pct()}

    def record_row(self, t):
        f = self.figures()
        self.samples.append([round(t, 3), f["connected"], f["reconnecting"],
                             f["answered"] or 0, f["status_updates"], f["events"],
                             f["memory_mib"], f["cpu_pct"]])

    def wait_for(self, condition, timeout, what=None, every=0.5):
        end = time.monotonic() + timeout
        while True:
            self.check_stop()
            value = condition()
            if value:
                return value
            if time.monotonic() > end:
                if what:
                    self.note("%s: not within %.0f s" % (what, timeout))
                return value
            self.sleep(every)

    def wait_connected(self, timeout, what="all devices connected"):
        want = self.running_count()
        t = time.monotonic()
        ok = self.wait_for(lambda: self.connected_count() >= want, timeout, what)
        if ok:
            self.note("%s (%d) in %.1f s" % (what, want, time.monotonic() - t))
        return ok

    # ---- request rounds (bundled server) --------------------------------------------
    def probe(self, label, method="dxGetAbout", wait=None, spread=0.0):
        """Sends `method` to every connected device and waits for the
        replies: per-device round trip, and for dxGetAbout whether each
        answered with its own MAC.  spread: the sends go out evenly over
        this many seconds instead of at once."""
        if not self.bundled:
            return None
        rid = "%s-%d" % (label, int(time.time()))
        sent = self.control.call("request_all", method=method, params={"deviceId": None},
                                 id=rid, spread=spread)
        n = len(sent["sent"])
        wait = wait if wait is not None else self.o.reply_timeout
        self.wait_for(lambda: self._answered(rid) >= n, wait)
        res = self.request_stats(rid, method, sent)
        res["spread_s"] = spread
        self.probes.append(res)
        self.note("%s: %s to %d devices%s, %d answered, median %s ms, p90 %s ms%s" % (
            label, method, n, (" over %.0f s" % spread) if spread else " at once",
            res["answered"], res["rtt_ms"]["median"], res["rtt_ms"]["p90"],
            "" if not res["wrong"] else ", %d with a wrong MAC" % len(res["wrong"])))
        return res

    def _answered(self, rid):
        got = self.control.call("replies", id=rid)
        return sum(1 for r in got.values() if r["replies"])

    def request_stats(self, rid, method, sent):
        got = self.control.call("replies", id=rid)
        rtts, wrong, missing, dup = [], [], [], []
        for mac in sent["sent"]:
            r = got.get(mac)
            if not r or not r["replies"]:
                missing.append(mac)
                continue
            if len(r["replies"]) > 1:
                dup.append(mac)
            at, _, summary = r["replies"][0]
            rtts.append((at - r["sent"]) * 1000.0)
            res = (summary or {}).get("result") or {}
            if method == "dxGetAbout" and (res.get("deviceId") != mac or
                                           res.get("macAddress") != mac):
                wrong.append(mac)
        return {"id": rid, "method": method, "sent": len(sent["sent"]),
                "skipped": len(sent["skipped"]), "answered": len(rtts),
                "missing": missing, "duplicated": dup, "wrong": wrong,
                "send_took_s": round(sent["took"], 3),
                "rtt_ms": {"median": _r(percentile(rtts, 0.5)), "p90": _r(percentile(rtts, 0.9)),
                           "p99": _r(percentile(rtts, 0.99)), "max": _r(max(rtts) if rtts else None)},
                "rtts_ms": [round(x, 1) for x in rtts]}

    # ---- scenarios -----------------------------------------------------------------
    def scenario_steady(self):
        """--duration seconds; a dxGetAbout round every --probe-every
        seconds, its sends spread over --probe-spread seconds (0: at once);
        the last round at once."""
        self.phase = "steady"
        end = time.monotonic() + self.o.duration
        rounds = []
        while True:
            t = time.monotonic()
            if end - t <= 1:
                break
            spread = min(self.o.probe_spread, max(0.0, end - t - 1))
            rounds.append(self.probe("probe", spread=spread))
            left = end - time.monotonic()
            if left <= 0:
                break
            self.sleep(min(left, max(0.0, t + self.o.probe_every - time.monotonic())))
        self.steady_until = time.time()
        self.cpu_until = accounting.take_sample()
        self.probe("final")
        rtts = [x for r in rounds if r for x in r["rtts_ms"]]
        self.scenario_result = {
            "duration_s": self.o.duration, "rounds": len(rounds),
            "probe_spread_s": self.o.probe_spread,
            "answered": sum(r["answered"] for r in rounds if r),
            "sent": sum(r["sent"] for r in rounds if r),
            "rtt_ms": {"median": _r(percentile(rtts, 0.5)), "p90": _r(percentile(rtts, 0.9)),
                       "p99": _r(percentile(rtts, 0.99)),
                       "max": _r(max(rtts) if rtts else None)}}

    def scenario_restart(self):
        if not self.bundled:
            raise SystemExit("fleet: the restart scenario restarts the bundled server; "
                             "with --server-url restart your own")
        self.phase = "before the restart"
        self.probe("before")
        self.sleep(self.o.settle)
        # close: a request right before each connection's close frame;
        # the agents take it and its reply waits in their queues during
        # the outage.  drop: the reset would discard a request still on
        # its way, so the requests go first (a quick device may answer
        # before the reset: counted as before the outage)
        rid = "queued-%d" % int(time.time())
        request = {"method": "dxGetAbout", "params": {"deviceId": None}, "id": rid}
        if self.o.outage_mode == "drop":
            sent = self.control.call("request_all", **request)
            request = None
        self.steady_until = time.time()
        self.cpu_until = accounting.take_sample()
        away = self.control.call("go_away", seconds=self.o.outage, mode=self.o.outage_mode,
                                 request=request)
        if request is not None:
            sent = {"sent": away["sent"], "skipped": away["skipped"]}
        self.phase = "server away"
        self.note("server away for %.0f s (%d requests in flight)" % (self.o.outage,
                                                                      len(sent["sent"])))
        self.wait_for(lambda: self.control.call("counts")["away"][-1][1] is not None,
                      self.o.outage + 30)
        back = self.control.call("counts")["away"][-1][1]
        self.phase = "reconnecting"
        self.note("server back after %.1f s" % (back - away["went"]))
        n = self.running_count()
        limit = self.o.reconnect_timeout
        self.wait_for(lambda: self.connected_count() >= n, limit, "reconnection")
        self.wait_for(lambda: self._answered(rid) >= len(sent["sent"]), self.o.reply_timeout,
                      "queued replies")
        self.sleep(2.0)     # a duplicate would come right after
        devices = self.control.call("devices")
        wave = report.wave(devices, away["went"], back)
        queued = self.queued_stats(rid, sent)
        self.note("wave: %d back, peak %s connections/s, 99%% back after %s s; queued replies: "
                  "%d sent, %d delivered after the reconnection, %d lost, %d duplicated" % (
                      wave["back"], wave["peak_per_s"], wave["t99_s"], queued["sent"],
                      queued["after_reconnection"], len(queued["lost"]),
                      len(queued["duplicated"])))
        self.phase = "after the restart"
        self.probe("after")
        self.scenario_result = {"outage_s": self.o.outage, "mode": self.o.outage_mode,
                                "went": away["went"], "back": back,
                                "wave": wave, "queued": queued,
                                "seed_groups": report.seed_groups(devices, away["went"]),
                                "seed_groups_after": report.seed_groups_after(devices, back)}
        if self.o.fastsleep:
            self.scenario_result["backoff"] = report.backoff_groups(self.sleep_logs())
            b = self.scenario_result["backoff"]
            self.note("random back-off: %d devices drew it, %d distinct sequences, "
                      "the largest shared by %d" % (b["devices"], b["distinct_sequences"],
                                                    b["largest_group"]))

    def sleep_logs(self):
        """Each device's sleeps as the fastsleep shim logged them
        (seconds the agent asked for, in order)."""
        import safefs
        out = {}
        for d in self.devices:
            try:
                text = safefs.read_bytes(d.run, "tmp/fastsleep.log").decode()
            except (OSError, ValueError):
                continue
            out[d.mac] = [int(w[1]) for w in (l.split() for l in text.splitlines())
                          if len(w) == 2 and w[0] == "sleep" and w[1].isdigit()]
        return out

    def queued_stats(self, rid, sent):
        got = self.control.call("replies", id=rid)
        lost, dup, after, before, wrong = [], [], 0, 0, []
        for mac in sent["sent"]:
            r = got.get(mac) or {"replies": [], "sent_conn": None}
            reps = r["replies"]
            if not reps:
                lost.append(mac)
                continue
            if len(reps) > 1:
                dup.append(mac)
            if reps[0][1] != r["sent_conn"]:
                after += 1
            else:
                before += 1
            res = (reps[0][2] or {}).get("result") or {}
            if res.get("deviceId") != mac:
                wrong.append(mac)
        return {"id": rid, "sent": len(sent["sent"]), "after_reconnection": after,
                "before_outage": before, "lost": lost, "duplicated": dup, "wrong": wrong}

    def scenario_rolling_reboot(self):
        self.phase = "rolling reboot"
        self.probe("before")
        batch = max(1, self.o.reboot_batch)
        rebooted = []
        t0 = self.steady_until = time.time()
        self.cpu_until = accounting.take_sample()
        with concurrent.futures.ThreadPoolExecutor(batch) as pool:
            for i in range(0, len(self.devices), batch):
                self.check_stop()
                group = [d for d in self.devices[i:i + batch] if d.state == "running"]
                at = time.time()
                for d, err in zip(group, pool.map(_reboot, group)):
                    rebooted.append((d.mac, at, err, d.started_at))
                self.summary.progress("rebooting", min(i + batch, len(self.devices)),
                                      len(self.devices))
                self.sleep(self.o.reboot_interval)
        self.phase = "after the reboots"
        self.wait_connected(self.o.reconnect_timeout)
        devices = self.control.call("devices") if self.bundled else {}
        # from the connection's loss after `reboot` to the first connection
        # of the agent started at boot; connections the server saw in
        # between (the stopping agent reconnects until it is killed)
        downtimes, between, after_boot = [], [], []
        for mac, at, err, booted in rebooted:
            dev = devices.get(mac)
            if not dev or err:
                continue
            closes = [c for c in dev["closed"] if c >= at]
            opens = [o for o in dev["opened"] if o >= booted]
            if closes and opens:
                downtimes.append(opens[0] - closes[0])
                after_boot.append(opens[0] - booted)
                between.append(len([o for o in dev["opened"] if closes[0] < o < booted]))
        self.probe("after")
        self.scenario_result = {
            "batch": batch, "interval_s": self.o.reboot_interval,
            "rebooted": len(rebooted), "failed": [m for m, _, e, _ in rebooted if e],
            "took_s": round(time.time() - t0, 1),
            "downtime_s": {"median": _r(percentile(downtimes, 0.5)),
                           "p90": _r(percentile(downtimes, 0.9)),
                           "max": _r(max(downtimes) if downtimes else None)},
            "connected_after_boot_s": {"median": _r(percentile(after_boot, 0.5)),
                                       "max": _r(max(after_boot) if after_boot else None)},
            "connections_while_going_down": sum(between)}

    def scenario_net_loss(self):
        self.phase = "network loss"
        self.probe("before")
        k = max(1, int(round(len(self.devices) * self.o.net_loss_fraction)))
        chosen = self.devices[:k]
        links = [d.link for d in chosen]
        went = self.steady_until = time.time()
        self.cpu_until = accounting.take_sample()
        self.switch.set_link(links, False)
        self.note("%d devices lost their network for %.0f s" % (k, self.o.net_loss))
        self.sleep(self.o.net_loss)
        self.switch.set_link(links, True)
        back = time.time()
        self.note("their network is back")
        self.phase = "network back"
        self.wait_connected(self.o.reconnect_timeout)
        devices = self.control.call("devices") if self.bundled else {}
        noticed, again = [], []
        for d in chosen:
            dev = devices.get(d.mac)
            if not dev:
                continue
            closes = [c for c in dev["closed"] if c >= went]
            if closes:
                noticed.append(closes[0] - went)
            opens = [o for o in dev["opened"] if o >= back]
            if opens:
                again.append(opens[0] - back)
        self.probe("after")
        self.scenario_result = {
            "devices": k, "loss_s": self.o.net_loss, "went": went, "back": back,
            "server_noticed_after_s": {"median": _r(percentile(noticed, 0.5)),
                                       "max": _r(max(noticed) if noticed else None),
                                       "count": len(noticed)},
            "reconnected_after_s": {"median": _r(percentile(again, 0.5)),
                                    "p99": _r(percentile(again, 0.99)),
                                    "max": _r(max(again) if again else None),
                                    "count": len(again)}}

    # ---- the whole run --------------------------------------------------------------
    def run(self):
        self._install_signals()
        rc = 0
        try:
            self.setup()
            self.phase = "connecting"
            self.wait_connected(self.o.connect_timeout)
            self.steady_from = time.time()
            self.cpu_from = accounting.take_sample()
            self.sleep(self.o.settle)
            getattr(self, "scenario_" + self.o.scenario.replace("-", "_"))()
            self.phase = "done"
        except Interrupted:
            self.interrupted = True
            rc = 130
            self.summary.say("interrupted: stopping the fleet")
        except SystemExit as e:
            self.errors.append(str(e.code))
            self.summary.say(str(e.code))
            rc = 2
        except Exception as exc:
            import traceback
            self.errors.append(traceback.format_exc())
            self.summary.say("fleet: %s: %s" % (type(exc).__name__, exc))
            rc = 1
        finally:
            rc = self.finish(rc)
        return rc

    def setup(self):
        os.makedirs(BASE, exist_ok=True)
        self.phase = "preparing"
        self.shared = Shared(os.path.join(BASE, "shared"), share=not self.o.no_share)
        self.switch = switch.Switch()
        if self.bundled:
            self.start_server()
        else:
            self.start_forward()
        self.make_devices()
        self._monitor = threading.Thread(target=self.monitor, name="monitor", daemon=True)
        self._monitor.start()
        self.prepare_devices()
        self.phase = "starting"
        self.start_devices()

    def finish(self, rc):
        self.phase = "stopping"
        # the last figures, fresh (the monitor reads them once a second)
        try:
            if self.control is not None:
                self.server_counts = self.control.call("counts")
        except Exception:
            pass
        for d in self.devices:
            if d.dev is not None:
                agentlog.read_new(os.path.join(d.dev.ctl, "agent.log"), self.sent[d.mac])
        final_figures = self.figures()
        devices = {}
        timeline = []
        try:
            if self.control is not None:
                devices = self.control.call("devices")
                timeline = self.control.call("timeline")
        except Exception as exc:
            self.errors.append("final state: %s" % exc)
        cpu = self.cpu_report()
        self.done.set()
        if self._monitor is not None:
            self._monitor.join(5)
        self.stop_devices()
        if self.o.logs:
            self.copy_logs(self.o.logs)
        for proc in (self.server_proc, self.forward_proc):
            if proc is not None:
                try:
                    if proc is self.server_proc and self.control is not None:
                        try:
                            self.control.call("stop")
                        except Exception:
                            pass
                    proc.terminate()
                    proc.wait(5)
                except Exception:
                    proc.kill()
        self.spawner.shutdown(wait=False)
        if self.switch is not None:
            self.switch.close()
        doc = report.build(self, final_figures, devices, timeline, cpu)
        paths = report.write(doc, self.o.report, self.o.plot)
        self.summary.final(final_figures)
        for p in paths:
            self.summary.say("wrote %s" % p)
        if self.o.report_stdout:
            sys.stdout.write(report.STDOUT_PREFIX + json.dumps(doc, separators=(",", ":")) + "\n")
            sys.stdout.flush()
        if rc == 0 and doc["problems"] and self.o.strict:
            rc = 3
        return rc

    def copy_logs(self, dest):
        """Each device's agent output, tool journal and system log, out of
        the tmpfs (which goes with the fleet)."""
        import safefs
        for d in self.devices:
            if d.dev is None:
                continue
            out = os.path.join(dest, d.mac.replace(":", ""))
            os.makedirs(out, exist_ok=True)
            try:
                with open(os.path.join(d.dev.ctl, "agent.log"), "rb") as f, \
                        open(os.path.join(out, "agent.log"), "wb") as g:
                    g.write(f.read())
                for rel in ("journal.log", "syslog.log", "tmp/fastsleep.log"):
                    if safefs.is_file(d.run, rel):
                        with open(os.path.join(out, os.path.basename(rel)), "wb") as g:
                            g.write(safefs.read_bytes(d.run, rel))
            except OSError:
                pass

    def cpu_report(self):
        """CPU by kind while the fleet was steady (from when every device
        had connected to the scenario's first disruption, or the end),
        per device and minute."""
        start = self.cpu_from
        end = self.cpu_until or accounting.take_sample()
        if start is None or end.at - start.at < 1.0:
            return None
        used = accounting.cpu_between(start, end)
        seconds = end.at - start.at
        minutes = seconds / 60.0
        n = max(1, len(self.devices))
        return {"window_s": round(seconds, 1), "devices": n,
                "total_cpu_s": round(sum(used.values()), 2),
                "cores_busy": round(sum(used.values()) / seconds, 3),
                "per_device_per_minute_s": {k: round(v / n / minutes, 4) for k, v in used.items()},
                "per_device_per_minute_total_s": round(sum(used.values()) / n / minutes, 4)}

    def _install_signals(self):
        def handler(sig, _frame):
            if self.interrupt.is_set():
                self.hurry = True
                return
            self.interrupt.set()
        for sig in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(sig, handler)


def _reboot(d):
    try:
        d.reboot()
        return None
    except Exception as exc:
        return "%s: %s" % (type(exc).__name__, exc)


def _r(x, nd=1):
    return None if x is None else round(x, nd)
