# Access-point model of the simulated device: the three device profiles
# (how the run's wireless configuration differs from the template) and the
# live state that UCI does not hold: associated clients, traffic counters
# and the LAN link.  The utility script reads the model from
# RUN/sim/ap_model.json (the default below when the file is missing); the
# host side (simdevice.Device.set_profile / set_clients / set_traffic)
# writes it.  Only pure functions here: no file is opened.
import copy
import json

from ucilib import export_config, parse_config

MODEL_FILE = "sim/ap_model.json"   # relative to the run directory
PROFILES = ("dual-band", "single-band", "not-ap")

DEFAULT_MODEL = {
    # the device's own MAC address (the "deviceId" of the script's answers)
    "mac": "00:11:22:33:44:55",
    # eth0: byte counters and link
    "lan": {"rx": 123456789, "tx": 987654321, "speed": "1000Mbps",
            "duplexMode": "Full"},
    # byte counters of each network by interface section; a radio's
    # counters are the sums over its networks (guest network included)
    "networks": {"w0_index0": {"rx": 120000, "tx": 640000},
                 "w0_index1": {"rx": 3456, "tx": 14321},
                 "w1_index0": {"rx": 223344, "tx": 443322}},
    # associated clients: "cmac" and "network" (interface section); every
    # other member is printed as given ("rx"/"tx" as text)
    "clients": [
        {"cmac": "A0:B1:C2:D3:E4:01", "network": "w0_index0",
         "name": "laptop", "ip": "192.168.1.101", "rx": "1234",
         "tx": "4321", "signal": -61.5, "uptime": 3600},
        {"cmac": "A0:B1:C2:D3:E4:02", "network": "w1_index0",
         "name": "phone", "ip": "192.168.1.102", "rx": "5678",
         "tx": "8765", "signal": -48, "uptime": 120},
        {"cmac": "A0:B1:C2:D3:E4:03", "network": "w0_index1",
         "name": "tablet", "ip": "192.168.1.103", "rx": "42",
         "tx": "24", "signal": -70, "uptime": 60},
    ],
}


def check_profile(name):
    if name not in PROFILES:
        raise ValueError("unknown device profile %r (one of %s)"
                         % (name, ", ".join(PROFILES)))


def on_radio1(section_name):
    return section_name.startswith("w1_")


def profile_wireless(template_text, name):
    """The wireless configuration of a profile, from the template's text:
    "dual-band" is the template; "single-band" has no wifi1 radio, no w1_*
    networks and no w1_* halves in wifi0's network_profile; "not-ap" has
    wireless.wifi0.opmode "sta"."""
    check_profile(name)
    pkg = parse_config("wireless", template_text)
    if name == "single-band":
        pkg.sections = [s for s in pkg.sections
                        if s.name != "wifi1" and
                        s.options.get("device") != "wifi1"]
        radio0 = pkg.find("wifi0")
        if radio0 is not None and "network_profile" in radio0.options:
            entries = []
            for entry in radio0.options["network_profile"].split(","):
                halves = [h for h in entry.split(":") if h and not on_radio1(h)]
                if halves:
                    entries.append(":".join(halves))
            radio0.options["network_profile"] = ",".join(entries)
    elif name == "not-ap":
        radio0 = pkg.find("wifi0")
        if radio0 is not None:
            radio0.options["opmode"] = "sta"
    return export_config(pkg)


def profile_model(name):
    """The client and traffic model a profile starts with."""
    check_profile(name)
    model = copy.deepcopy(DEFAULT_MODEL)
    if name == "single-band":
        model["clients"] = [c for c in model["clients"]
                            if not on_radio1(c["network"])]
        model["networks"] = {k: v for k, v in model["networks"].items()
                             if not on_radio1(k)}
    return model


def parse_model(text):
    """The model from its file text (missing members from the default)."""
    model = copy.deepcopy(DEFAULT_MODEL)
    if text:
        model.update(json.loads(text))
    return model


def dump_model(model):
    return json.dumps(model, indent=1, sort_keys=True) + "\n"


def with_clients(model, clients):
    """The model with the client list replaced (each needs "cmac" and
    "network")."""
    out = copy.deepcopy(model)
    listed = []
    for c in clients:
        c = dict(c)
        if "cmac" not in c or "network" not in c:
            raise ValueError("a client needs \"cmac\" and \"network\": %r" % c)
        listed.append(c)
    out["clients"] = listed
    return out


def with_traffic(model, lan=None, networks=None, link=None):
    """The model with new counters: lan=(rx, tx) of eth0, networks=
    {section: (rx, tx)} (merged into the present ones), link=(speed,
    duplexMode) of eth0 (None in either place: that value prints
    nothing)."""
    out = copy.deepcopy(model)
    if lan is not None:
        out["lan"]["rx"], out["lan"]["tx"] = lan
    if link is not None:
        out["lan"]["speed"], out["lan"]["duplexMode"] = link
    for section, (rx, tx) in (networks or {}).items():
        out["networks"][section] = {"rx": rx, "tx": tx}
    return out
