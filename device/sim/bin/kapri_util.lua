#!/usr/bin/busybox sh
''':'
# Shell first: inside a device the call goes through the compiled front
# end to the device's warm tool server (device/README.md, "Tool cost");
# elsewhere Python runs this file.
F=/simrun/.simtools/bin/${0##*/}
[ -x "$F" ] && exec -a /usr/bin/python3 "$F" -S "$0" "$@"
[ -r /simdevice/lib/toolfront.sh ] && . /simdevice/lib/toolfront.sh
exec /usr/bin/python3 -S "$0" "$@"
'''
# Platform utility script of the simulated device (installed as
# /usr/sbin/kapri_util.lua).  Each sub-command is journalled; its answer
# can be replaced per run with RUN/sim/kapri_util/<sub>[_args].out (or .sh;
# see simcommon.override).  Unknown sub-commands print nothing.
#
# The access-point answers come from the device's own UCI state (radios,
# networks, SSIDs, security, enable flags, the slot lists wlanlist / enlist
# / network_profile) and from the model of what UCI does not hold
# (associated clients, traffic counters, the LAN link: apmodel.py, file
# RUN/sim/ap_model.json).  The status sub-commands describe the running
# device, so they read the committed configuration; the configuration
# sub-commands read UCI as `uci get` does, staged changes included.  Their
# JSON carries more members than the agent passes on, as the firmware's
# does.
import fcntl
import json
import os
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)),
                                "..", "lib"))
import apmodel  # noqa: E402
import simcommon  # noqa: E402
from ucilib import Store, UciError  # noqa: E402

TOOL = "kapri_util.lua"
SEC_NAMES = {"psk2 aes": "WPA2-PSK", "psk-mixed tkip+aes": "WPA-PSK MIXED",
             "none": "OPEN", "wpa2 aes": "WPA2",
             "wpa-mixed tkip+aes": "WPA MIXED"}
ENTERPRISE = ("WPA2", "WPA MIXED")
BANDS = ("2.4GHz", "5GHz")
GUEST_SLOT = 25
ALL_CLIENTS = "00:00:00:00:00:00"


def uci_locked(action):
    """Run action(store) under the uci tool's lock, without journalling (the
    script's own UCI work is not a call of the uci tool)."""
    st = store()
    os.makedirs(st.savedir, mode=0o700, exist_ok=True)
    fd = os.open(os.path.join(st.savedir, ".lock"), os.O_RDWR | os.O_CREAT,
                 0o600)
    try:
        fcntl.flock(fd, fcntl.LOCK_EX)
        action(st)
    except (UciError, OSError):
        pass
    finally:
        os.close(fd)


def store():
    return Store(simcommon.device_path("/etc/config"),
                 simcommon.device_path("/tmp/.uci"))


def package(name, staged):
    """A UCI package: with staged changes (as `uci get` shows it) or as
    committed (the running device).  None when it cannot be read."""
    try:
        return store().load(name, with_delta=staged)
    except (UciError, OSError):
        return None


def options(pkg, section):
    s = pkg.find(section) if pkg is not None else None
    return dict(s.options) if s is not None else None


def dumps(obj):
    return json.dumps(obj, separators=(",", ":")) + "\n"


def model():
    path = os.path.join(simcommon.run_dir(), apmodel.MODEL_FILE)
    try:
        with open(path) as f:
            text = f.read()
    except OSError:
        text = ""
    try:
        return apmodel.parse_model(text)
    except ValueError:
        return apmodel.parse_model("")


# ---- the wireless configuration ------------------------------------------

def section_name(radio, slot):
    return "w%d_index%d" % (radio, slot)


def network_index(radio, slot):
    return radio * 50 + slot


def slot_of_index(index):
    """(radio, slot) of a request's networkIndex (0..7, 50..57, and the
    guest networks 25 and 75), or None."""
    if 0 <= index <= 7 or index == GUEST_SLOT:
        return 0, index
    if 50 <= index <= 57 or index == 50 + GUEST_SLOT:
        return 1, index - 50
    return None


def radios(wifi):
    """Radio numbers the device has (wifi0: 2.4 GHz, wifi1: 5 GHz)."""
    return [r for r in (0, 1) if options(wifi, "wifi%d" % r) is not None]


def list_entries(text):
    """Entries of wlanlist / enlist: every character but "," and " "."""
    return [c for c in (text or "") if c not in ", "]


def slots(wifi, radio):
    """[(slot, enlist flag)] of the radio's wlanlist, in its order."""
    dev = options(wifi, "wifi%d" % radio) or {}
    used = list_entries(dev.get("wlanlist"))
    flags = list_entries(dev.get("enlist"))
    out = []
    for i, c in enumerate(used):
        if c.isdigit():
            out.append((int(c), flags[i] if i < len(flags) else "1"))
    return out


def radio_up(wifi, radio):
    return (options(wifi, "wifi%d" % radio) or {}).get("disabled") != "1"


def network_up(wifi, radio, slot, flag="1"):
    """The network is on the air: its radio is on, WLANEnable is 1 and its
    enlist flag is not 0."""
    o = options(wifi, section_name(radio, slot))
    return (o is not None and radio_up(wifi, radio) and
            o.get("WLANEnable") == "1" and flag != "0")


def bssid(mdl, radio, slot):
    """BSSID of a network: the device MAC with its fifth byte raised by
    2 + radio and the slot as last byte."""
    try:
        b = [int(x, 16) for x in mdl["mac"].split(":")]
    except (ValueError, AttributeError):
        b = [0, 0x11, 0x22, 0x33, 0x44, 0x55]
    b = (b + [0] * 6)[:6]
    b[4] = (b[4] + 2 + radio) & 0xFF
    b[5] = slot & 0xFF
    return ":".join("%02X" % x for x in b)


def ifname(radio, slot):
    if slot == GUEST_SLOT:
        return "ath%d" % (16 + radio)
    return "ath%d" % (radio * 8 + slot)


def security_name(o):
    enc = o.get("encryption", "none")
    return SEC_NAMES.get(enc, enc)


def counter(value):
    """A byte counter as the firmware prints it: text (null stays null)."""
    if value is None or isinstance(value, str):
        return value
    if isinstance(value, float):
        return "%.15g" % value
    return str(value)


def traffic(mdl, section):
    t = mdl["networks"].get(section) or {}
    return t.get("rx", 0), t.get("tx", 0)


def clients_on_air(mdl, wifi):
    """Model clients whose network is in use and up (the guest network
    needs no slot): [(client, radio, slot)]."""
    out = []
    for c in mdl["clients"]:
        sec = str(c.get("network", ""))
        if len(sec) < 9 or not sec.startswith("w") or sec[2:8] != "_index":
            continue
        try:
            radio, slot = int(sec[1]), int(sec[8:])
        except ValueError:
            continue
        if radio not in radios(wifi):
            continue
        used = dict(slots(wifi, radio))
        if slot != GUEST_SLOT and slot not in used:
            continue
        if network_up(wifi, radio, slot, used.get(slot, "1")):
            out.append((c, radio, slot))
    return out


def client_entry(mdl, wifi, c, radio, slot):
    o = options(wifi, section_name(radio, slot)) or {}
    entry = {"cmac": c["cmac"], "mac": bssid(mdl, radio, slot),
             "networkIndex": network_index(radio, slot),
             "ssid": o.get("ssid", ""), "interface": BANDS[radio],
             "name": c.get("name", ""), "ip": c.get("ip", ""),
             "rx": counter(c.get("rx", 0)), "tx": counter(c.get("tx", 0)),
             "signal": c.get("signal", -60), "uptime": c.get("uptime", 0)}
    for k, v in c.items():
        if k not in ("network", "rx", "tx"):
            entry[k] = v
    return entry


# ---- status sub-commands (the running device) ----------------------------

def wifi_info():
    wifi, mdl = package("wireless", False), model()
    info = {"RadioNum": len(radios(wifi))}
    on_air = clients_on_air(mdl, wifi)
    for radio in radios(wifi):
        dev = options(wifi, "wifi%d" % radio)
        rx = tx = 0
        for slot in [s for s, _ in slots(wifi, radio)] + [GUEST_SLOT]:
            r, t = traffic(mdl, section_name(radio, slot))
            rx, tx = rx + int(float(r or 0)), tx + int(float(t or 0))
        info["Dev2G" if radio == 0 else "Dev5G"] = {
            "RxByte": str(rx), "TxByte": str(tx),
            "NetworkNum": sum(1 for s, f in slots(wifi, radio)
                              if network_up(wifi, radio, s, f)),
            "ClientNum": sum(1 for _, r, _ in on_air if r == radio),
            "Status": "Enabled" if radio_up(wifi, radio) else "Disabled",
            "Channel": dev.get("channel", "auto"),
            "HwMode": dev.get("hwmode", "")}
    return dumps(info)


def guest_network_info():
    wifi, mdl = package("wireless", False), model()
    on_air = clients_on_air(mdl, wifi)
    info = {"GuestNetworkNum": 0}
    for radio in radios(wifi):
        sec = section_name(radio, GUEST_SLOT)
        o = options(wifi, sec)
        if o is None:
            continue
        info["GuestNetworkNum"] += 1
        rx, tx = traffic(mdl, sec)
        info["Dev2G" if radio == 0 else "Dev5G"] = {
            "NetworkIndex": network_index(radio, GUEST_SLOT),
            "Status": ("Enabled" if network_up(wifi, radio, GUEST_SLOT)
                       else "Disabled"),
            "Mac": bssid(mdl, radio, GUEST_SLOT), "SSID": o.get("ssid", ""),
            "Interface": BANDS[radio],
            "ClientNum": sum(1 for _, r, s in on_air
                             if (r, s) == (radio, GUEST_SLOT)),
            "RxByte": counter(rx), "TxByte": counter(tx),
            "Ifname": ifname(radio, GUEST_SLOT),
            "Security": security_name(o)}
    return dumps(info)


def sys_tx_rx(args):
    """GetSysTxRx IFNAME UNIT rx|tx bytes|packets: eth0 is the LAN port,
    athN a network's interface."""
    a = list(args) + [""] * 4
    mdl = model()
    if a[0] == "eth0":
        value = mdl["lan"].get(a[2])
    else:
        value = None
        wifi = package("wireless", False)
        for radio in radios(wifi):
            for slot in [s for s, _ in slots(wifi, radio)] + [GUEST_SLOT]:
                if ifname(radio, slot) == a[0]:
                    rx, tx = traffic(mdl, section_name(radio, slot))
                    value = {"rx": rx, "tx": tx}.get(a[2])
    if value is None or a[2] not in ("rx", "tx"):
        return ""
    if a[3] == "packets":
        value = int(float(value)) // 512
    return counter(value) + "\n"


def lan_status(what):
    value = model()["lan"].get(what) if what in (
        "speed", "duplexMode", "rx", "tx") else None
    return "" if value is None else counter(value) + "\n"


def network_status():
    wifi, mdl = package("wireless", False), model()
    on_air = clients_on_air(mdl, wifi)
    nets = []
    for radio in radios(wifi):
        for slot, flag in slots(wifi, radio):
            o = options(wifi, section_name(radio, slot))
            if o is None:
                continue
            rx, tx = traffic(mdl, section_name(radio, slot))
            nets.append({
                "networkIndex": network_index(radio, slot),
                "enabled": network_up(wifi, radio, slot, flag),
                "mac": bssid(mdl, radio, slot), "ssid": o.get("ssid", ""),
                "interface": BANDS[radio],
                "clients": sum(1 for _, r, s in on_air
                               if (r, s) == (radio, slot)),
                "rx": counter(rx), "tx": counter(tx),
                "ifname": ifname(radio, slot),
                "security": security_name(o)})
    return dumps({"deviceId": mdl["mac"], "networkNum": len(nets),
                  "networks": nets})


def client_status(cmac):
    wifi, mdl = package("wireless", False), model()
    every = cmac in ("", ALL_CLIENTS)
    cl = [client_entry(mdl, wifi, c, r, s)
          for c, r, s in clients_on_air(mdl, wifi)
          if every or str(c["cmac"]).lower() == cmac.lower()]
    return dumps({"deviceId": mdl["mac"], "clientNum": len(cl),
                  "clients": cl})


def client_list(index):
    wifi, mdl = package("wireless", False), model()
    try:
        idx = int(index)
    except ValueError:
        idx = -999
    cl = [client_entry(mdl, wifi, c, r, s)
          for c, r, s in clients_on_air(mdl, wifi)
          if idx == -999 or network_index(r, s) == idx]
    return dumps({"deviceId": mdl["mac"], "clientNum": len(cl),
                  "clients": cl})


# ---- configuration sub-commands (UCI, staged changes included) ----------

def radio_config(radio_text):
    wifi, mdl = package("wireless", True), model()
    radio = 1 if radio_text == "1" else 0 if radio_text == "0" else None
    dev = options(wifi, "wifi%d" % radio) if radio is not None else None
    if dev is None:
        return ""
    return dumps({"deviceId": mdl["mac"], "interface": BANDS[radio],
                  "enabled": dev.get("disabled", "0") != "1",
                  "opMode": dev.get("opmode", "ap"),
                  "wirelessMode": dev.get("hwmode", ""),
                  "channel": dev.get("channel", "auto"),
                  "txPower": dev.get("txpower", "auto"),
                  "networkNum": len(slots(wifi, radio))})


def network_config(index_text):
    """The settings of one network.  A personal network also shows RADIUS
    settings left in its section from an earlier enterprise setting; an
    enterprise network never shows a pass-phrase."""
    wifi, mdl = package("wireless", True), model()
    try:
        where = slot_of_index(int(index_text))
    except ValueError:
        where = None
    if where is None or options(wifi, "wifi%d" % where[0]) is None:
        return ""
    radio, slot = where
    o = options(wifi, section_name(radio, slot))
    if o is None:
        return ""
    sec = security_name(o)
    vlan = o.get("WLANVLANID", "")
    res = {"deviceId": mdl["mac"], "networkIndex": network_index(radio, slot),
           "mac": bssid(mdl, radio, slot), "ssid": o.get("ssid", ""),
           "interface": BANDS[radio], "enabled": o.get("WLANEnable") == "1",
           "security": sec}
    radius = {"radiusServer": o.get("server", ""),
              "radiusPort": int(o["port"]) if o.get("port", "").isdigit()
              else 1812,
              "radiusSecret": o.get("WLANWpaRadiusSrvSecret", "")}
    if sec in ENTERPRISE:
        res.update(radius)
    else:
        res["password"] = o.get("key", "")
        if "server" in o or "WLANWpaRadiusSrvSecret" in o:
            res.update(radius)
    res.update({"vlanId": int(vlan) if (o.get("WLANVLANEnable") == "1" and
                                        vlan.isdigit()) else None,
                "broadcastEnabled": o.get("hidden") != "1",
                "separationEnabled": o.get("isolate") == "1",
                "ifname": ifname(radio, slot),
                "encryption": o.get("encryption", "none")})
    return dumps(res)


def guest_config(band):
    """The guest network of a band ("2.4GHz" or "5GHz") with the guest
    addressing of the network and dhcp packages."""
    bands = [b.upper() for b in BANDS]
    if band.upper() not in bands:
        return ""
    radio = bands.index(band.upper())
    wifi, mdl = package("wireless", True), model()
    o = options(wifi, section_name(radio, GUEST_SLOT))
    if o is None or options(wifi, "wifi%d" % radio) is None:
        return ""
    net = options(package("network", True), "guest") or {}
    dhcp = options(package("dhcp", True), "guest") or {}
    return dumps({"deviceId": mdl["mac"], "interface": BANDS[radio],
                  "ssid": o.get("ssid", ""),
                  "guestEnabled": o.get("WLANEnable") == "1",
                  "broadcastEnabled": o.get("hidden") != "1",
                  "security": security_name(o),
                  "password": o.get("key", ""),
                  "separationEnabled": o.get("isolate") == "1",
                  "gatewayIp": net.get("ipaddr", ""),
                  "subnetMask": net.get("netmask", ""),
                  "startingIp": dhcp.get("start", ""),
                  "endingIp": dhcp.get("dhcp_stop_addr", ""),
                  "mac": bssid(mdl, radio, GUEST_SLOT),
                  "networkIndex": network_index(radio, GUEST_SLOT),
                  "leaseTime": dhcp.get("leasetime", "")})


def support_radio():
    wifi = package("wireless", False)
    return dumps({"wifi%d" % r: ("2.4G" if r == 0 else "5G")
                  for r in radios(wifi)})


def network_id(ip, mask):
    try:
        a = [int(x) for x in ip.split(".")]
        m = [int(x) for x in mask.split(".")]
        return ".".join(str(x & y) for x, y in zip(a, m)) + "\n"
    except ValueError:
        return "0.0.0.0\n"


def add_notification(args):
    """Appends "number:N dateTime:YYYY-MM-DDTHH:MM:SS+HHMM type:T event:TEXT"
    (local time, zone as +0100) to /tmp/cEvtLog, which the agent sends."""
    num = args[0] if args else "0"
    etype = args[1] if len(args) > 1 else "INFO"
    text = " ".join(args[2:])
    line = "number:%s dateTime:%s type:%s event:%s\n" % (
        num, time.strftime("%Y-%m-%dT%H:%M:%S%z"), etype, text)
    with open(simcommon.device_path("/tmp/cEvtLog"), "a") as f:
        f.write(line)
    return ""


# The agent's queue backups, carried across a reboot on the flash partition.
CLOUD_BACKUPS = ("cloud_recv_cmd.backup", "cloud_sent_cmd.backup",
                 "cloud_sent_status_cmd.backup", "cloud_sent_event_cmd.backup")


def backup_cloud_files():
    """Copies the agent's four queue backups that exist in /etc to the flash
    partition (RUN/flash, what `mount -t jffs2 /dev/mtdblock2 DIR` shows);
    a flash copy whose /etc file is missing is left as it is."""
    import shutil  # here only: every sub-command starts this program
    flash = os.path.join(simcommon.run_dir(), "flash")
    os.makedirs(flash, exist_ok=True)
    for name in CLOUD_BACKUPS:
        src = simcommon.device_path("/etc/" + name)
        if os.path.isfile(src):
            shutil.copyfile(src, os.path.join(flash, name))
    return ""


def answer(sub, args):
    """Output of a sub-command (text), or None for unknown ones."""
    a = list(args) + [""] * 3
    if sub == "get_support_radio":
        return support_radio()
    if sub == "cloud_action_apply":
        uci_locked(lambda st: st.commit())
        return ""
    if sub == "add_a_notification":
        return add_notification(args)
    if sub == "backup_cloud_files":
        return backup_cloud_files()
    if sub == "WifiInfo":
        return wifi_info()
    if sub == "GuestNetworkInfo":
        return guest_network_info()
    if sub == "GetSysTxRx":
        return sys_tx_rx(args)
    if sub == "vekGetLanStatus":
        return lan_status(a[0])
    if sub == "getNetwordId":
        return network_id(a[0], a[1])
    if sub == "vekGetNetworkConfig":
        return network_config(a[1] or "0")
    if sub == "vekGetGuestNetworkConfig":
        return guest_config(a[1] or "2.4GHz")
    if sub == "vekGetRadioConfig":
        return radio_config(a[1] or "0")
    if sub == "vekGetNetworkStatus":
        return network_status()
    if sub == "vekGetClientStatus":
        return client_status(a[1])
    if sub == "vekGetClientList":
        return client_list(a[1] or "-999")
    if sub == "rm_wifi_config":
        if a[0]:
            uci_locked(lambda st: st.delete("wireless." + a[0]))
        return ""
    if sub == "setVlan":
        return ""
    return None


def main(argv):
    simcommon.journal(TOOL, argv)
    sub, args = (argv[0], argv[1:]) if argv else ("", [])
    ov = simcommon.override(sub, args, "kapri_util") if sub else None
    if ov is not None:
        os.write(1, ov[0])
        return ov[1]
    text = answer(sub, args)
    if text:
        sys.stdout.write(text)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
