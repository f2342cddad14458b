"""Output caps at the sizes a real access point reaches: utility-script
answers of a busy access point right at the 16 KiB cap (sixteen networks,
about seventy clients), byte counters of 11 and 20 digits against the
20-character cap of a one-value answer, "uci get" values at the 256-byte
cap (a 63-character pass-phrase copied to the 5 GHz guest network when band
steering is switched on), and event and system-log lines of 1023 bytes and
longer against the 1024-byte line buffer."""
import time

import pytest

from conftest import CET, MAC, request_text, settings, wait_for, wait_radios_known

# Updates and streamed results may be more than 40 s apart on a loaded
# machine.
SERVER_PING_INTERVAL = 15
# The agent's local time is CET (connected).
AGENT_ENV = CET

REFUSED = ('{"jsonrpc":"2.0","id":"%s","error":{"code":-32602,'
           '"message":"Invalid method parameter","data":""}}')
SUCCESS = '{"jsonrpc":"2.0","id":"%s","result":{"deviceId":"%s"}}'
APPLY = "kapri_util.lua cloud_action_apply"
ALL_CLIENTS = "00:00:00:00:00:00"


def wait_both_radios_known(agent):
    """wait_radios_known, and the device has both radios."""
    line = wait_radios_known(agent)
    assert line.endswith("=== support2G=1, support5G=1"), line


@pytest.fixture
def connected_with_both_radios(connected):
    wait_both_radios_known(connected[0])
    return connected


# ---- utility-script answers at the 16 KiB cap ------------------------------------------

NETWORKS = ["w%d_index%d" % (radio, slot) for radio in (0, 1) for slot in range(8)]


def all_networks_on(device):
    """Eight networks on each radio, every one on the air."""
    for radio in (0, 1):
        device.uci_ok("set", "wireless.wifi%d.wlanlist=0,1,2,3,4,5,6,7" % radio)
        device.uci_ok("set", "wireless.wifi%d.enlist=1,1,1,1,1,1,1,1" % radio)
    for n, section in enumerate(NETWORKS):
        device.uci_ok("set", "wireless.%s.WLANEnable=1" % section)
        device.uci_ok("set", "wireless.%s.ssid=Korvat-%s" % (section, "Staff Guest IoT Lab"
                                                               .split()[n % 4]))
    device.uci_ok("commit", "wireless")


def clients(count, last_name=None):
    """Clients spread over the sixteen networks, as a busy office has them."""
    out = []
    for i in range(count):
        out.append({"cmac": "A4:83:E7:%02X:%02X:%02X" % (i // 256, i % 256, (i * 7) % 256),
                    "network": NETWORKS[i % len(NETWORKS)],
                    "name": "%s-%03d" % (("iPhone", "Galaxy-S23", "ThinkPad-X1",
                                          "Chromecast")[i % 4], i),
                    "ip": "192.168.1.%d" % (20 + i), "rx": str(123456789 + i * 1000003),
                    "tx": str(987654321 + i * 999983), "signal": -40 - (i % 45) - 0.5,
                    "uptime": 3600 + i * 61})
    if last_name is not None:
        out[-1]["name"] = last_name
    return out


QUERIES = {
    "vekGetClientStatus": ({"deviceId": MAC},
                           ["/usr/sbin/kapri_util.lua", "vekGetClientStatus", "result",
                            ALL_CLIENTS]),
    "vekGetClientList": ({"deviceId": MAC},
                         ["/usr/sbin/kapri_util.lua", "vekGetClientList", "result", "-999"]),
}


def answer_length(device, argv):
    """Bytes of the script's answer (its JSON and the newline after it)."""
    r = device.exec(argv)
    assert r.returncode == 0, r.stderr
    assert r.stdout.endswith("}\n") and r.stdout.count("\n") == 1
    return len(r.stdout.encode())


def clients_answering_with(device, argv, size):
    """Sets as many clients as fit into a JSON answer of exactly `size`
    bytes (newline not counted), the last one's name padded to make up the
    rest; the client count."""
    def length(count):
        device.set_clients(clients(count))
        return answer_length(device, argv) - 1

    low, high = length(10), length(20)
    count = 10 + (size - low) * 10 // (high - low)
    while length(count) > size:
        count -= 1
    while length(count + 1) <= size:
        count += 1
    short = size - length(count)
    listed = clients(count, last_name=clients(count)[-1]["name"] + "." * short)
    device.set_clients(listed)
    assert answer_length(device, argv) - 1 == size
    return listed


@pytest.mark.parametrize("method", sorted(QUERIES))
def test_an_answer_of_16384_bytes_comes_whole_and_one_byte_more_is_cut(device,
                                                                       connected_with_both_radios,
                                                                       method):
    agent, server = connected_with_both_radios
    params, argv = QUERIES[method]
    all_networks_on(device)
    listed = clients_answering_with(device, argv, 16384)
    assert len(listed) >= 60
    reply = server.request(method, params, id="full", timeout=30)
    got = reply.data["result"]["clients"]
    assert [(c["cmac"], c["name"]) for c in got] == [(c["cmac"], c["name"]) for c in listed]
    # one byte more: the answer is cut at the cap and is no JSON any more
    clients_answering_with(device, argv, 16385)
    reply = server.request(method, params, id="cut", timeout=30)
    assert reply.raw == REFUSED % "cut"


# ---- byte counters ---------------------------------------------------------------------

ELEVEN = 12345678901
TWENTY = 98765432109876543210
TWENTY_ONE = 123456789012345678901


def test_counters_of_11_and_20_digits_reach_the_server(device, server, start_agent):
    settings(device, auto_update=1)
    device.set_traffic(lan=(ELEVEN, TWENTY), networks={"w0_index0": (TWENTY, ELEVEN)})
    agent = start_agent(server.url, env=CET)
    server.wait_for_connection(15)
    wait_both_radios_known(agent)
    status = server.request("vekGetStatus", {"deviceId": MAC}, id="s", timeout=30)
    assert status.data["result"]["lan"] == {"rx": ELEVEN, "tx": float(TWENTY)}
    # the 11 digits as they are, the 20 as the nearest double
    assert '"lan":{"rx":12345678901,"tx":9.8765432109876543e+19}' in status.raw
    lan = server.request("vekGetLanStatus", {"deviceId": MAC}, id="l", timeout=30)
    assert (lan.data["result"]["rx"], lan.data["result"]["tx"]) == (ELEVEN, float(TWENTY))
    nets = server.request("vekGetNetworkStatus", {"deviceId": MAC}, id="n", timeout=30)
    first = nets.data["result"]["networks"][0]
    assert (first["networkIndex"], first["rx"], first["tx"]) == (0, float(TWENTY), ELEVEN)
    update = server.next_message(40, method="dsLogStatusUpdates")
    assert update.data["params"]["updates"][0]["lan"] == {"rx": ELEVEN, "tx": float(TWENTY)}


def test_a_counter_of_21_digits_is_cut_to_its_first_20(device, connected_with_both_radios):
    agent, server = connected_with_both_radios
    device.set_traffic(lan=(TWENTY, TWENTY_ONE))
    lan = server.request("vekGetLanStatus", {"deviceId": MAC}, id="l", timeout=30)
    assert lan.data["result"]["rx"] == float(TWENTY)
    assert lan.data["result"]["tx"] == float(str(TWENTY_ONE)[:20])
    assert lan.data["result"]["tx"] != float(TWENTY_ONE)


# ---- uci get at its 256-byte cap -------------------------------------------------------

PASS_PHRASE = "Correct-Horse-Battery-Staple-2026/visitors+lobby@korvat.example!"[:63]


def test_a_63_character_pass_phrase_is_copied_whole_when_steering_goes_on(
        device, connected_with_both_radios):
    agent, server = connected_with_both_radios
    assert len(PASS_PHRASE) == 63
    device.uci_ok("set", "wireless.w0_index25.ssid=Korvat Visitors 2.4/5 GHz lobby")
    device.uci_ok("set", "wireless.w0_index25.encryption=psk2 aes")
    device.uci_ok("set", "wireless.w0_index25.key=" + PASS_PHRASE)
    device.uci_ok("set", "clientcontrol.bandsteer.enable=0")
    device.uci_ok("commit")
    device.clear_journal()
    reply = server.request("vekSetSystemConfig",
                           {"deviceId": MAC, "name": "VK310", "steeringEnabled": True},
                           id="on", timeout=30)
    assert reply.raw == SUCCESS % ("on", MAC)
    assert device.wait_journal(APPLY)
    assert "uci set wireless.w1_index25.key=" + PASS_PHRASE in device.journal()
    assert wait_for(lambda: device.uci_committed("wireless.w1_index25.key") == PASS_PHRASE, 15)
    assert device.uci_committed("wireless.w1_index25.ssid") == "Korvat Visitors 2.4/5 GHz lobby"


def test_a_value_of_256_bytes_is_read_whole_and_a_longer_one_cut(device,
                                                                 connected_with_both_radios):
    agent, server = connected_with_both_radios
    name = "".join("%s-%d " % (w, i) for i, w in enumerate(
        "Korvat access point third floor east wing meeting rooms".split() * 8))
    for length in (256, 257, 300):
        device.uci_ok("set", "system.system.SystemName=" + name[:length])
        device.uci_ok("commit", "system")
        reply = server.request("vekGetSystemConfig", {"deviceId": MAC}, id="n%d" % length,
                               timeout=30)
        assert reply.data["result"]["name"] == name[:256], length


# ---- event and system-log lines of 1023 bytes and longer ------------------------------

EVENT_HEAD = "number:%d dateTime:2026-11-15T10:00:00+0100 type:SECURITY event:"
PHRASE = "blocked port scan from 203.0.113.7 on wan0; "


def text_of(length):
    return (PHRASE * (length // len(PHRASE) + 1))[:length]


def event_line(number, length):
    """An event line of `length` characters before its newline."""
    head = EVENT_HEAD % number
    return head + text_of(length - len(head))


def test_event_lines_of_1023_characters_and_more_are_cut_to_the_line_buffer(
        device, connected_with_both_radios):
    agent, server = connected_with_both_radios
    lines = [event_line(1, 1022), event_line(2, 1023), event_line(3, 2000),
             "number:4 dateTime:2026-11-15T10:00:09+0100 type:INFO event:after"]
    device.write_file("/tmp/cEvtLog.new", "".join(line + "\n" for line in lines))
    assert device.sh("mv /tmp/cEvtLog.new /tmp/cEvtLog").returncode == 0
    message = server.next_message(30, method="dsEventNotifications")
    events = message.data["params"]["events"]
    # 1022 characters and the newline fill the 1024-byte buffer: whole;
    # from 1023 on, a read takes 1023 characters and the last one goes as
    # if it were the newline; the rest of the line holds no event
    assert [e["number"] for e in events] == [1, 2, 3, 4]
    head = len(EVENT_HEAD % 1)
    assert events[0]["event"] == text_of(1022 - head)
    assert events[1]["event"] == text_of(1023 - head)[:-1]
    assert events[2]["event"] == text_of(1023 - head)[:-1]
    assert events[3] == {"number": 4, "dateTime": "2026-11-15T10:00:09+01:00",
                         "type": "INFO", "event": "after"}
    assert wait_for(lambda: device.read_file("/tmp/cEvtLog") == "\n", 15)


LOG_HEAD = "Nov 15 23:12:24 VK310 kern.warn kernel: "


def log_line(length):
    return LOG_HEAD + text_of(length - len(LOG_HEAD))


def test_log_lines_of_1023_characters_and_more_are_cut_to_the_line_buffer(
        device, connected_with_both_radios):
    agent, server = connected_with_both_radios
    year = time.strftime("%Y")
    server.send_text(request_text("dxStreamSystemLogs", {"deviceId": MAC, "enable": True},
                                  "abc"))
    assert device.wait_journal("logread -f")
    device.append_syslog("\n".join([log_line(1022), log_line(1023), log_line(2000),
                                    "Nov 15 23:12:25 VK310 user.notice root: after"]))
    message = server.next_message(30, predicate=lambda m: m.data.get("id") == "abc")
    logs = message.data["result"]["logs"]
    head = len(LOG_HEAD)
    # a whole line ends in the blank that stands for its newline; a line
    # of 1023 characters or more is taken up to the buffer's end, and the
    # rest of it is no log line
    assert [log["message"] for log in logs] == [
        text_of(1022 - head) + " ", text_of(1023 - head), text_of(1023 - head), "after "]
    assert [log["dateTime"] for log in logs] == (
        ["%s-11-15T23:12:24+01:00" % year] * 3 + ["%s-11-15T23:12:25+01:00" % year])
    # one date a line sent
    assert len([line for line in device.journal() if line.startswith("date -d")]) == 4
