# Helpers of the package tests: paths of the package files and
# AccessPoint, a simulated device with the package's service script and
# default config installed, the simulated rc.common (procd stand-in) as
# /etc/rc.common, a stand-in agent as /usr/bin/korvat-cloud and a fake
# /sys/class/net with br-lan and eth0.
import os
import shutil
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.abspath(os.path.join(HERE, "..", ".."))
PKG_DIR = os.path.join(ROOT, "openwrt", "korvat-cloud")
INIT_SCRIPT = os.path.join(PKG_DIR, "files", "korvatCloud.init")
DEFAULT_CONFIG = os.path.join(PKG_DIR, "files", "korvatCloud.config")
RC_COMMON = os.path.join(ROOT, "openwrt", "test-support", "rc.common")
FAKE_AGENT = os.path.join(HERE, "fake_agent.sh")

sys.path.insert(0, os.path.join(ROOT, "device"))
import simdevice  # noqa: E402

BR_LAN_MAC = "02:4b:56:a1:b2:c3"
ETH0_MAC = "02:4b:56:a1:b2:c4"
AGENT_LOG = "/tmp/fake-agent.log"
STATE = "/tmp/run/procd/korvatCloud"


def read(path):
    with open(path) as f:
        return f.read()


def wait_for(test, timeout=10.0, interval=0.05):
    """Poll test() until it returns something true; returns that or None."""
    end = time.time() + timeout
    while True:
        v = test()
        if v:
            return v
        if time.time() > end:
            return None
        time.sleep(interval)


class AccessPoint:
    """The simulated device running with the package installed."""

    def __init__(self, tmp):
        self.net = os.path.join(tmp, "net")
        for dev, mac in (("br-lan", BR_LAN_MAC), ("eth0", ETH0_MAC)):
            os.makedirs(os.path.join(self.net, dev))
            with open(os.path.join(self.net, dev, "address"), "w") as f:
                f.write(mac + "\n")
        self.agent = os.path.join(tmp, "korvat-cloud")
        shutil.copy(FAKE_AGENT, self.agent)
        os.chmod(self.agent, 0o755)
        self.dev = simdevice.Device()
        self.dev.write_file("/etc/rc.common", read(RC_COMMON), 0o755)
        self.dev.write_file("/etc/init.d/korvatCloud", read(INIT_SCRIPT),
                            0o755)
        self.dev.write_file("/etc/config/korvatCloud", read(DEFAULT_CONFIG))

    def boot(self):
        # the marker file appears once the sandbox is fully set up
        self.dev.start(["/bin/sh", "-c", "touch /tmp/.booted; exec sleep 3600"],
                       agent=self.agent, binds=[(self.net, "/sys/class/net")])
        assert wait_for(lambda: self.dev.exists("/tmp/.booted")), \
            "device did not boot"
        assert self.dev.sandbox_pid() is not None

    def close(self):
        self.dev.close()

    # ---- configuration ---------------------------------------------------
    def configure(self, **options):
        """Set and commit korvatCloud.korvatCloud options."""
        for k, v in options.items():
            r = self.dev.uci("set", "korvatCloud.korvatCloud.%s=%s" % (k, v))
            assert r.returncode == 0, r.stderr
        assert self.dev.uci("commit", "korvatCloud").returncode == 0

    def set_label_mac(self, mac):
        """The MAC on the device's label, as /etc/board.json gives it."""
        self.dev.write_file("/etc/board.json",
                            '{\n\t"system": {\n\t\t"label_macaddr": "%s"\n'
                            '\t}\n}\n' % mac)

    def set_mac(self, dev, mac):
        """Change (or with None remove) an interface's address file."""
        path = os.path.join(self.net, dev, "address")
        if mac is None:
            os.unlink(path)
        else:
            with open(path, "w") as f:
                f.write(mac + "\n")

    # ---- service script --------------------------------------------------
    def service(self, action, timeout=60):
        """Run /etc/init.d/korvatCloud ACTION inside the device."""
        return self.dev.exec(["/etc/init.d/korvatCloud", action],
                             timeout=timeout)

    def service_bg(self, action):
        """Start /etc/init.d/korvatCloud ACTION inside the device without
        waiting (Popen)."""
        return subprocess.Popen(self.dev.exec_argv(
            ["/etc/init.d/korvatCloud", action]),
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    # ---- the stand-in agent ---------------------------------------------
    def log(self):
        """Lines of the stand-in's log as word lists."""
        text = self.dev.read_file(AGENT_LOG, "")
        return [line.split() for line in text.splitlines() if line]

    def starts(self):
        """(pid, argv) of every start of the stand-in, oldest first."""
        return [(int(w[1]), w[2:]) for w in self.log() if w[0] == "start"]

    def signals(self, pid):
        return [w[0] for w in self.log() if w[0] != "start" and
                int(w[1]) == pid]

    def agents(self):
        """In-device pids of the running stand-in agents."""
        return sorted(p["pid"] for p in self.dev.processes()
                      if p["cmdline"][1:2] == [simdevice.AGENT_PATH] or
                      p["cmdline"][:1] == [simdevice.AGENT_PATH])

    def alive(self, pid):
        return pid in self.agents()

    def instance_pid(self):
        text = self.dev.read_file(STATE + "/instance1.pid")
        return int(text) if text else None
