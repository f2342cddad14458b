"""One device of the fleet: its run directory, its sandbox, its agent.

Each device is the simulated access point of device/ (simdevice.Device):
its own run directory (on the fleet's tmpfs), UCI, flash, MAC, PID, mount
and network namespaces, running the real, unmodified agent.  What the
fleet adds is only how it is made and started cheaply:

- the run directory is made fresh, with the profile's wireless
  configuration, firmware version, UCI options and access-point model
  written directly (the directory is new: nothing in it is the device's
  yet), instead of one-shot `uci` sandboxes;
- (with Device's fleet options) the host's /etc/ssl and /etc/alternatives
  are bound read-only instead of copied, /usr/bin and /usr/sbin come from
  one link tree shared by every device instead of a tmpfs of links each,
  and the tools' front end is built once for the fleet;
- the agent's output goes to a file of the device's control directory.
"""
import os
import signal
import subprocess
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(os.path.dirname(HERE))
DEVICE_DIR = os.path.join(TOP, "device")
if DEVICE_DIR not in sys.path:
    sys.path.insert(0, DEVICE_DIR)
import simdevice  # noqa: E402
import safefs  # noqa: E402
import apmodel  # noqa: E402
import ucilib  # noqa: E402

AGENT_LOG = "agent.log"


def make_run_dir(path, profile, mac, index, shared=None):
    """A fresh run directory for one device of `profile`."""
    kw = {}
    if shared is not None and shared.share_etc:
        kw["shared_etc"] = True
    run = simdevice.create_run_dir(path, **kw)
    etc = os.path.join(run, "etc")
    with open(os.path.join(simdevice.TEMPLATE, "etc", "config", "wireless")) as f:
        wireless = apmodel.profile_wireless(f.read(), profile.bands)
    safefs.write_text(run, "etc/config/wireless", wireless)
    model = apmodel.profile_model(profile.bands)
    model["mac"] = mac.upper()
    safefs.write_text(run, apmodel.MODEL_FILE, apmodel.dump_model(model))
    if profile.firmware:
        safefs.write_text(run, "etc/version", profile.firmware + "\n")
    # a service tag of its own (the canned `sntool` answer)
    safefs.write_text(run, "sim/sntool.out", "F%07X\n" % (index & 0xFFFFFFF))
    settings = profile.settings()
    if settings:
        # the directory is new and the device has never run: the files
        # are the template's, so the library may work on them directly
        store = ucilib.Store(confdir=os.path.join(etc, "config"),
                             savedir=os.path.join(simdevice.control_dir(run), "uci"))
        packages = set()
        for path, value in settings.items():
            store.set("%s=%s" % (path, value))
            packages.add(path.split(".", 1)[0])
        for name in sorted(packages):
            store.commit(name)
    if shared is not None:
        shared.prepare_run(run)
    simdevice.give_run_dir(run)
    return run


class FleetDevice:
    """A device of the fleet and the state the runner keeps of it."""

    def __init__(self, index, mac, profile, run_root, agent, url, shared=None,
                 preload=(), env=None, debug=False):
        self.index = index
        self.mac = mac
        self.profile = profile
        self.run = os.path.join(run_root, mac.replace(":", ""))
        self.agent = agent
        self.url = url
        self.shared = shared
        self.preload = list(preload)
        self.env = dict(env or {})
        self.debug = debug
        self.link = None
        self.dev = None
        self.proc = None
        self.spawner = None
        self.log = None
        self.state = "new"           # new, starting, running, rebooting, down, failed
        self.started_at = None       # of the current agent process
        self.starts = 0              # agent processes started
        self.exits = []              # (time, status) of unexpected ends
        self.error = None
        self._lock = threading.Lock()
        self._expected_end = False

    # ---- life ------------------------------------------------------------
    def prepare(self, link):
        self.link = link
        make_run_dir(self.run, self.profile, self.mac, self.index, self.shared)
        self.dev = simdevice.Device(self.run, net=link,
                                    **(self.shared.device_kw() if self.shared else {}))

    def start(self):
        """Starts (or, after a reboot, boots) the device with its agent.
        The sandbox's launcher dies with the thread that started it (its
        parent-death signal is the thread's): with a spawner (a thread
        pool of one thread that lives as long as the fleet), the start
        runs there."""
        if self.spawner is not None:
            return self.spawner.submit(self._start).result()
        return self._start()

    def _start(self):
        with self._lock:
            if self.proc is not None and self.proc.poll() is None:
                return
            cmd = [simdevice.AGENT_PATH] + (["-d"] if self.debug else []) + \
                [self.url, self.mac]
            log_path = os.path.join(self.dev.ctl, AGENT_LOG)
            log = open(log_path, "ab")
            try:
                self._expected_end = False
                self.proc = self.dev.start(
                    cmd, agent=self.agent, env=self.env, preload=self.preload,
                    stdout=log, stderr=subprocess.STDOUT,
                    **(self.shared.start_kw() if self.shared else {}))
            finally:
                log.close()
            self.started_at = time.time()
            self.starts += 1
            self.state = "running"

    def poll(self):
        """Status of the device's sandbox: None while it runs.  An end the
        runner did not ask for is recorded once."""
        proc = self.proc
        if proc is None:
            return None
        status = proc.poll()
        if status is not None and not self._expected_end and self.state == "running":
            self.exits.append((time.time(), status))
            self.state = "down"
        return status

    def sandbox_pid(self):
        return None if self.dev is None else self.dev.sandbox_pid(timeout=0)

    def stop(self, timeout=5.0):
        with self._lock:
            self._expected_end = True
            if self.dev is not None:
                try:
                    self.dev.stop(timeout)
                except Exception:
                    pass
            if self.state in ("running", "starting", "rebooting"):
                self.state = "stopped"

    def reboot(self, timeout=20.0):
        """`reboot` inside the device (as the device's own reboot: the
        agent gets SIGTERM, saves its queues, the device goes down), then
        a boot of the same run directory with the agent started again."""
        self._expected_end = True
        self.state = "rebooting"
        r = self.dev.exec(["reboot"], timeout=timeout)
        if r.returncode != 0:
            raise RuntimeError("reboot failed: %s" % r.stderr.strip())
        if not self.dev.wait_rebooted(timeout):
            self.dev.stop()
        self.start()

    def close(self):
        self.stop()
        if self.dev is not None:
            try:
                self.dev.close()
            except Exception:
                pass
        if self.link is not None:
            self.link.close()

    def agent_log(self, tail=4000):
        try:
            with open(os.path.join(self.dev.ctl, AGENT_LOG), "rb") as f:
                f.seek(0, os.SEEK_END)
                size = f.tell()
                f.seek(max(0, size - tail))
                return f.read().decode("utf-8", "replace")
        except (OSError, AttributeError):
            return ""


def signal_name(status):
    if status is None:
        return None
    if status < 0:
        try:
            return signal.Signals(-status).name
        except ValueError:
            return "signal %d" % -status
    if status > 128:
        try:
            return signal.Signals(status - 128).name
        except ValueError:
            pass
    return "exit %d" % status
