#!/usr/bin/python3 -S
# Platform utility script of the simulated device (installed as
# /usr/sbin/kapri_util.lua).  Each sub-command is journalled; its canned
# answer can be replaced per run with RUN/sim/kapri_util/<sub>[_args].out
# (or .sh; see simcommon.override).  Unknown sub-commands print nothing.
import fcntl
import glob
import json
import os
import shutil
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)),
                                "..", "lib"))
import simcommon  # noqa: E402
from ucilib import Store, UciError  # noqa: E402

TOOL = "kapri_util.lua"
SEC_NAMES = {"psk2 aes": "WPA2-PSK", "psk-mixed tkip+aes": "WPA-PSK MIXED",
             "none": "OPEN", "wpa2 aes": "WPA2",
             "wpa-mixed tkip+aes": "WPA MIXED"}


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


def wireless(section):
    try:
        pkg = store().load("wireless")
    except (UciError, OSError):
        return {}
    s = pkg.find(section)
    return dict(s.options) if s else {}


def dumps(obj):
    return json.dumps(obj, separators=(",", ":")) + "\n"


def network_config(index):
    idx = int(index)
    sec = "w0_index%d" % idx if idx < 8 else "w1_index%d" % (idx % 10)
    o = wireless(sec)
    sec_name = SEC_NAMES.get(o.get("encryption", "none"), "OPEN")
    res = {"deviceId": "00:11:22:33:44:55", "networkIndex": idx,
           "mac": "00:11:22:33:44:%02X" % (0x56 + idx % 64),
           "ssid": o.get("ssid", ""),
           "interface": "2.4GHz" if idx < 8 else "5GHz",
           "enabled": o.get("WLANEnable") == "1", "security": sec_name,
           "vlanId": int(o.get("WLANVLANID") or 0),
           "broadcastEnabled": o.get("hidden") != "1",
           "separationEnabled": o.get("isolate") == "1"}
    if sec_name in ("WPA2", "WPA MIXED"):
        res.update(radiusServer=o.get("server", ""),
                   radiusPort=int(o.get("port") or 1812),
                   radiusSecret=o.get("WLANWpaRadiusSrvSecret", ""))
    else:
        res["password"] = o.get("key", "")
    return dumps(res)


def guest_config(band):
    sec = "w0_index25" if band.startswith("2") else "w1_index25"
    o = wireless(sec)
    return dumps({"deviceId": "00:11:22:33:44:55", "interface": band,
                  "ssid": o.get("ssid", ""),
                  "guestEnabled": o.get("WLANEnable") == "1",
                  "broadcastEnabled": o.get("hidden") != "1",
                  "security": SEC_NAMES.get(o.get("encryption", "none"),
                                            "OPEN"),
                  "password": o.get("key", ""),
                  "separationEnabled": o.get("isolate") == "1",
                  "gatewayIp": "10.10.10.1", "subnetMask": "255.255.255.0",
                  "startingIp": "10.10.10.100", "endingIp": "10.10.10.200",
                  "mac": "00:11:22:33:44:70", "interface_name": sec})


def network_id(ip, mask):
    try:
        a = [int(x) for x in ip.split(".")]
        m = [int(x) for x in mask.split(".")]
        return ".".join(str(x & y) for x, y in zip(a, m)) + "\n"
    except ValueError:
        return "0.0.0.0\n"


def add_notification(args):
    num = args[0] if args else "0"
    etype = args[1] if len(args) > 1 else "INFO"
    text = " ".join(args[2:])
    line = "number:%s dateTime:%s type:%s event:%s\n" % (
        num, time.strftime("%Y-%m-%dT%H:%M:%S%z"), etype, text)
    with open(simcommon.device_path("/tmp/cEvtLog"), "a") as f:
        f.write(line)
    return ""


def backup_cloud_files():
    flash = os.path.join(simcommon.run_dir(), "flash")
    os.makedirs(flash, exist_ok=True)
    for f in glob.glob(simcommon.device_path("/etc") + "/cloud_*.backup"):
        shutil.copy2(f, os.path.join(flash, os.path.basename(f)))
    return ""


WIFI_INFO = {"RadioNum": 2,
             "Dev2G": {"RxByte": "123456", "TxByte": "654321",
                       "NetworkNum": 2, "ClientNum": 3, "Status": "Enabled"},
             "Dev5G": {"RxByte": "223344", "TxByte": "443322",
                       "NetworkNum": 1, "ClientNum": 1, "Status": "Enabled"}}
GUEST_INFO = {"GuestNetworkNum": 2,
              "Dev2G": {"NetworkIndex": 25, "Status": "Disabled",
                        "Mac": "00:11:22:33:44:70", "SSID": "Korvat-Guest",
                        "Interface": "2.4GHz", "ClientNum": 0,
                        "RxByte": "0", "TxByte": "0"},
              "Dev5G": {"NetworkIndex": 75, "Status": "Disabled",
                        "Mac": "00:11:22:33:44:71", "SSID": "Korvat-Guest",
                        "Interface": "5GHz", "ClientNum": 0,
                        "RxByte": "0", "TxByte": "0"}}
CLIENTS = [{"cmac": "A0:B1:C2:D3:E4:01", "mac": "00:11:22:33:44:56",
            "networkIndex": 0, "ssid": "Korvat", "interface": "2.4GHz",
            "name": "laptop", "rx": "1234", "tx": "4321", "signal": -61.5},
           {"cmac": "A0:B1:C2:D3:E4:02", "mac": "00:11:22:33:44:57",
            "networkIndex": 50, "ssid": "Korvat", "interface": "5GHz",
            "name": "phone", "rx": "5678", "tx": "8765", "signal": -48}]


def answer(sub, args):
    """Default output of a sub-command (text), or None for unknown ones."""
    a = list(args) + [""] * 3
    if sub == "get_support_radio":
        return dumps({"wifi0": "2.4G", "wifi1": "5G"})
    if sub == "cloud_action_apply":
        uci_locked(lambda st: st.commit())
        return ""
    if sub == "add_a_notification":
        return add_notification(args)
    if sub == "backup_cloud_files":
        return backup_cloud_files()
    if sub == "WifiInfo":
        return dumps(WIFI_INFO)
    if sub == "GuestNetworkInfo":
        return dumps(GUEST_INFO)
    if sub == "GetSysTxRx":
        return "123456789\n" if a[2] == "rx" else "987654321\n"
    if sub == "vekGetLanStatus":
        return {"speed": "1000Mbps\n", "duplexMode": "Full\n",
                "rx": "123456789\n", "tx": "987654321\n"}.get(a[0], "")
    if sub == "getNetwordId":
        return network_id(a[0], a[1])
    if sub == "vekGetNetworkConfig":
        return network_config(a[1] or 0)
    if sub == "vekGetGuestNetworkConfig":
        return guest_config(a[1] or "2.4GHz")
    if sub == "vekGetRadioConfig":
        radio = 1 if a[1] == "1" else 0
        dev = wireless("wifi%d" % radio)
        return dumps({"deviceId": "00:11:22:33:44:55",
                      "interface": "5GHz" if radio else "2.4GHz",
                      "enabled": dev.get("disabled", "0") != "1",
                      "opMode": dev.get("opmode", "ap"),
                      "wirelessMode": dev.get("hwmode", "")})
    if sub == "vekGetNetworkStatus":
        nets = [{"networkIndex": 0, "enabled": True,
                 "mac": "00:11:22:33:44:56", "ssid": "Korvat",
                 "interface": "2.4GHz", "clients": 1, "rx": "1234",
                 "tx": "4321"}]
        return dumps({"deviceId": "00:11:22:33:44:55", "networks": nets})
    if sub == "vekGetClientStatus":
        mac = a[1]
        cl = [c for c in CLIENTS if mac in ("", "00:00:00:00:00:00")
              or c["cmac"].lower() == mac.lower()]
        return dumps({"deviceId": "00:11:22:33:44:55", "clients": cl})
    if sub == "vekGetClientList":
        idx = int(a[1]) if a[1].lstrip("-").isdigit() else -999
        cl = [c for c in CLIENTS if idx == -999 or c["networkIndex"] == idx]
        return dumps({"deviceId": "00:11:22:33:44:55", "clients": cl})
    if sub == "rm_wifi_config":
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
