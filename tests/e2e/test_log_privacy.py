"""What the agent prints reaches the system log (the service manager sends
its standard output there, and from there to a remote log server or the
web interface): Wi-Fi pass-phrases and RADIUS secrets read "***" in the
frame dumps and debug lines, while the wire carries them unchanged."""
import re

from conftest import MAC

PASSPHRASE = "Pa55-phrase-of-the-office"
SECRET = "radius-S3cret-value"


def printed(agent):
    return agent.out.text() + "\n" + agent.err.text()


def test_secrets_of_a_request_stay_out_of_the_dumps_and_debug_lines(device,
                                                                    connected_with_radios_known):
    agent, server = connected_with_radios_known
    reply = server.request("vekSetNetworkConfig",
                           {"deviceId": MAC, "networkIndex": 1, "ssid": "Office",
                            "security": "WPA2-PSK", "password": PASSPHRASE, "enabled": True},
                           id="psk", timeout=60)
    assert reply.data["result"] == {"deviceId": MAC}
    reply = server.request("vekSetNetworkConfig",
                           {"deviceId": MAC, "networkIndex": 1, "ssid": "Office",
                            "security": "WPA2", "radiusServer": "10.0.0.5",
                            "radiusSecret": SECRET, "enabled": True},
                           id="radius", timeout=60)
    assert reply.data["result"] == {"deviceId": MAC}
    # the device got the real values
    assert device.wait_journal('uci set wireless.w0_index1.key=%s' % PASSPHRASE)
    assert device.wait_journal(
        'uci set wireless.w0_index1.WLANWpaRadiusSrvSecret=%s' % SECRET)
    # the received frames were dumped, with the secrets hidden
    agent.out.wait_for(re.compile(r'"password":"\*\*\*"'))
    agent.out.wait_for(re.compile(r'"radiusSecret":"\*\*\*"'))
    # and the security writer's debug line shows stars
    agent.out.wait_for(re.compile(
        r"\]: w_idx=w0_index1, security=psk2 aes, password=\*\*\*, r_server=\(null\), "
        r"r_server_secret=\(null\), r_port=-999$"))
    agent.out.wait_for(re.compile(
        r"\]: w_idx=w0_index1, security=wpa2 aes, password=\(null\), r_server=10\.0\.0\.5, "
        r"r_server_secret=\*\*\*, r_port=-999$"))
    text = printed(agent)
    assert PASSPHRASE not in text
    assert SECRET not in text


def test_secrets_of_a_reply_go_out_whole_and_are_dumped_hidden(device,
                                                               connected_with_radios_known):
    agent, server = connected_with_radios_known
    device.uci_ok("set", "wireless.w0_index1.key=%s" % PASSPHRASE)
    device.uci_ok("commit", "wireless")
    reply = server.request("vekGetNetworkConfig", {"deviceId": MAC, "networkIndex": 1},
                           id="get", timeout=60)
    # the wire text is unchanged
    assert reply.data["result"]["password"] == PASSPHRASE
    assert '"password":"%s"' % PASSPHRASE in reply.raw
    # the sending thread's dump (formatted) shows stars
    agent.out.wait_for(re.compile(r'^\t\t"password":\t"\*\*\*",$'))
    assert PASSPHRASE not in printed(agent)
