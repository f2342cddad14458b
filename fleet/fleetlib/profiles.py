"""The fleet description file: how many devices, their MACs, their profiles.

A small YAML (or JSON) file:

    devices: 200                      # the whole fleet (shards split it)
    mac_base: "02:4b:56:00:00:00"     # the first device's MAC; the others count up
    profiles:                         # optional; default: all "dual-band"
      - name: office
        weight: 3                     # share of the fleet, relative to the others
        bands: dual-band              # dual-band | single-band
        firmware: "2.0.1.7-rc1 build 1234"    # /etc/version
        beta: false                   # korvatCloud beta_mode (model "...-BETA")
        uci:                          # any further UCI options, committed
          korvatCloud.korvatCloud.auto_update: "60"
      - name: old-single
        weight: 1
        bands: single-band
        firmware: "1.9.4.2 build 1001"

Devices get their profile in MAC order, interleaved by weight (with weights
3 and 1: office, office, office, old-single, ...), so that every shard (a
MAC range) holds the same mix.  Command-line options override `devices`
and `mac_base`.
"""
import json
import os
import re

BANDS = ("dual-band", "single-band")
DEFAULT_MAC_BASE = "02:4b:56:00:00:00"
DEFAULT_FIRMWARE = "2.0.1.7-rc1 build 1234"   # the device template's
_MAC_RE = re.compile(r"^[0-9a-fA-F]{2}(:[0-9a-fA-F]{2}){5}$")
_UCI_PATH_RE = re.compile(r"^[A-Za-z0-9_]+\.[A-Za-z0-9_@\[\]-]+\.[A-Za-z0-9_]+$")


class SpecError(ValueError):
    pass


class Profile:
    def __init__(self, name, weight=1, bands="dual-band", firmware=None,
                 beta=False, uci=None):
        self.name = name
        self.weight = weight
        self.bands = bands
        self.firmware = firmware
        self.beta = bool(beta)
        self.uci = dict(uci or {})

    def settings(self):
        """UCI options (path -> value) this profile commits."""
        out = {}
        if self.beta:
            out["korvatCloud.korvatCloud.beta_mode"] = "1"
        out.update(self.uci)
        return out

    def to_json(self):
        return {"name": self.name, "weight": self.weight, "bands": self.bands,
                "firmware": self.firmware or DEFAULT_FIRMWARE,
                "beta": self.beta, "uci": self.uci}


def mac_to_int(mac):
    if not _MAC_RE.match(mac or ""):
        raise SpecError("not a MAC address: %r" % (mac,))
    return int(mac.replace(":", ""), 16)


def int_to_mac(value):
    if not 0 <= value < 1 << 48:
        raise SpecError("MAC out of range")
    text = "%012x" % value
    return ":".join(text[i:i + 2] for i in range(0, 12, 2))


def mac_at(base, index):
    """The MAC of device `index` (0 = base)."""
    return int_to_mac(mac_to_int(base) + index)


def check_mac_base(base, count):
    first = mac_to_int(base)
    if first >> 40 & 1:
        raise SpecError("mac_base %s is a multicast address (its first octet "
                        "is odd): an interface cannot have it" % base)
    if first + count > 1 << 48 or (first >> 40) != ((first + count - 1) >> 40):
        raise SpecError("%d devices from %s leave the first octet" % (count, base))


def _load_text(path):
    with open(path) as f:
        text = f.read()
    if path.endswith(".json"):
        return json.loads(text)
    try:
        import yaml
    except ImportError:
        # JSON is YAML too; without PyYAML only that form is read
        return json.loads(text)
    return yaml.safe_load(text)


class FleetSpec:
    def __init__(self, devices=20, mac_base=DEFAULT_MAC_BASE, profiles=None):
        self.devices = devices
        self.mac_base = mac_base
        self.profiles = profiles or [Profile("dual-band")]
        self.validate()

    def validate(self):
        if not isinstance(self.devices, int) or self.devices < 1:
            raise SpecError("devices must be a positive number")
        check_mac_base(self.mac_base, self.devices)
        names = set()
        for p in self.profiles:
            if p.name in names:
                raise SpecError("profile %r twice" % p.name)
            names.add(p.name)
            if p.bands not in BANDS:
                raise SpecError("profile %r: bands must be one of %s"
                                % (p.name, ", ".join(BANDS)))
            if not isinstance(p.weight, (int, float)) or p.weight <= 0:
                raise SpecError("profile %r: weight must be above 0" % p.name)
            if p.firmware is not None and (not isinstance(p.firmware, str) or
                                           "\n" in p.firmware):
                raise SpecError("profile %r: firmware must be one line" % p.name)
            for path, value in p.uci.items():
                if not _UCI_PATH_RE.match(str(path)) or "\n" in str(value):
                    raise SpecError("profile %r: bad UCI option %r" % (p.name, path))

    @classmethod
    def load(cls, path):
        data = _load_text(path) or {}
        if not isinstance(data, dict):
            raise SpecError("%s: the description is not a mapping" % path)
        unknown = set(data) - {"devices", "mac_base", "profiles"}
        if unknown:
            raise SpecError("%s: unknown keys %s" % (path, ", ".join(sorted(unknown))))
        profiles = []
        for entry in data.get("profiles") or []:
            if not isinstance(entry, dict) or "name" not in entry:
                raise SpecError("%s: every profile needs a name" % path)
            extra = set(entry) - {"name", "weight", "bands", "firmware", "beta", "uci"}
            if extra:
                raise SpecError("%s: profile %r: unknown keys %s"
                                % (path, entry["name"], ", ".join(sorted(extra))))
            uci = {str(k): str(v) for k, v in (entry.get("uci") or {}).items()}
            profiles.append(Profile(str(entry["name"]), entry.get("weight", 1),
                                    entry.get("bands", "dual-band"),
                                    entry.get("firmware"), entry.get("beta", False),
                                    uci))
        return cls(devices=data.get("devices", 20),
                   mac_base=str(data.get("mac_base", DEFAULT_MAC_BASE)),
                   profiles=profiles or None)

    def profile_of(self, index):
        """The profile of device `index`: interleaved by weight, the same
        for a given index whatever the shard."""
        return self._order()[index % len(self._order())]

    def _order(self):
        cached = getattr(self, "_cycle", None)
        if cached is not None:
            return cached
        # one cycle of the interleave; weights are made whole numbers
        scale = 1
        while any(abs(p.weight * scale - round(p.weight * scale)) > 1e-9
                  for p in self.profiles) and scale < 1000:
            scale *= 10
        counts = [int(round(p.weight * scale)) for p in self.profiles]
        total = sum(counts)
        given = [0] * len(counts)
        cycle = []
        for n in range(1, total + 1):
            # the profile furthest behind its share after n devices
            i = max(range(len(counts)),
                    key=lambda k: (counts[k] * n / total - given[k], -k))
            given[i] += 1
            cycle.append(self.profiles[i])
        self._cycle = cycle
        return cycle

    def shard(self, i, n):
        """(first index, count) of shard i of n: a contiguous MAC range."""
        if not (0 <= i < n):
            raise SpecError("shard %d/%d: want 0 <= i < n" % (i, n))
        lo = self.devices * i // n
        hi = self.devices * (i + 1) // n
        return lo, hi - lo

    def to_json(self):
        return {"devices": self.devices, "mac_base": self.mac_base,
                "profiles": [p.to_json() for p in self.profiles]}


def parse_shard(text):
    """'i/n' -> (i, n)."""
    m = re.match(r"^(\d+)/(\d+)$", text or "")
    if not m or int(m.group(2)) < 1 or int(m.group(1)) >= int(m.group(2)):
        raise SpecError("--shard wants i/n with 0 <= i < n, got %r" % (text,))
    return int(m.group(1)), int(m.group(2))


def example_path():
    return os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))),
                        "examples", "fleet.yaml")
