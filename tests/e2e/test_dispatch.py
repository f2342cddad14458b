"""Requests through the real socket: envelope faults, unknown methods and
"dxGetAbout", with the exact reply bytes and the lines the agent prints."""
import json
import re

from conftest import MAC, request_text

# the device's LAN address (device/template: network.lan.ipaddr)
LAN_ADDRESS = "192.168.1.2"


def about_facts(device):
    """Gives the device known facts; the exact dxGetAbout result for them."""
    device.write_file("/etc/version", "2.0.1.7-rc1 build 1234\n")
    # the product line: one leading character, the quoted product word
    device.write_file("/etc/mDNSResponder.conf", '# services\n\t"VK310-ap"\n_http._tcp\n')
    device.set_output("sntool", "SVC-TAG-0042\n")
    return {"deviceId": MAC, "macAddress": MAC, "firmware": "2.0.1", "model": "VK310-AP",
            "serviceTag": "SVC-TAG-0042", "lanAddress": LAN_ADDRESS}


def error_text(id_text, code, message):
    return ('{"jsonrpc":"2.0","id":%s,"error":{"code":%d,"message":"%s","data":""}}'
            % (id_text, code, message))


def test_request_without_params_is_an_invalid_request(connected):
    agent, server = connected
    reply = server.request("dxGetAbout", id="7", omit=("params",))
    assert reply.raw == error_text('"7"', -32600, "The JSON sent is not a valid Request object")
    agent.out.wait_for("Invalid JSON command.")


def test_other_jsonrpc_version_is_an_internal_error(connected):
    agent, server = connected
    reply = server.request("dxGetAbout", {"deviceId": MAC}, id="7", jsonrpc="1.0")
    assert reply.raw == error_text('"7"', -32603, "Internal JSON-RPC error")
    agent.out.wait_for("Invalid JSONRPC version.")


def test_method_names_are_case_sensitive(connected):
    agent, server = connected
    reply = server.request("DxGetAbout", {"deviceId": MAC}, id="8")
    assert reply.raw == error_text('"8"', -32601, "The method is not available")
    agent.out.wait_for("Command handler not yet implemented for: DxGetAbout")


def test_numeric_id_is_an_invalid_request_answered_with_null_id(connected):
    agent, server = connected
    reply = server.request_raw(
        '{"jsonrpc":"2.0","id":7,"method":"dxGetAbout","params":{"deviceId":"x"}}',
        expect_id=None)
    assert reply.raw == error_text("null", -32600, "The JSON sent is not a valid Request object")
    agent.out.wait_for("Invalid JSON command.")


def test_server_bound_method_names_are_unknown_methods(connected):
    agent, server = connected
    for i, method in enumerate(("dsLogStatusUpdates", "dsEventNotifications")):
        reply = server.request(method, {"deviceId": MAC}, id="n%d" % i)
        assert reply.raw == error_text('"n%d"' % i, -32601, "The method is not available")
        agent.out.wait_for("Command handler not yet implemented for: " + method)


def test_unknown_method_keeps_the_connection_usable(connected):
    agent, server = connected
    server.request("dxNoSuchMethod", {"deviceId": MAC}, id="1")
    reply = server.request("dxGetAbout", {"deviceId": MAC}, id="2")
    assert reply.data["result"]["deviceId"] == MAC


def test_get_about_reports_the_device_field_by_field(device, connected):
    agent, server = connected
    about_facts(device)
    reply = server.request("dxGetAbout", {"deviceId": "anything"}, id="17")
    # Members in this order, all strings.
    expected = ('{"jsonrpc":"2.0","id":"17","result":{"deviceId":"%s","macAddress":"%s",'
                '"firmware":"2.0.1","model":"VK310-AP","serviceTag":"SVC-TAG-0042",'
                '"lanAddress":"%s"}}' % (MAC, MAC, LAN_ADDRESS))
    assert reply.raw == expected
    journal = device.journal()
    assert "sntool" in journal
    assert "ifconfig br-lan" in journal


def test_get_about_firmware_without_version_file_is_unknown(device, connected):
    agent, server = connected
    device.remove_file("/etc/version")
    reply = server.request("dxGetAbout", {"deviceId": MAC}, id="3")
    assert reply.data["result"]["firmware"] == "UnKnown"


def test_get_about_firmware_with_fewer_parts_is_kept_whole(device, connected):
    agent, server = connected
    device.write_file("/etc/version", "3.1 beta\n")
    reply = server.request("dxGetAbout", {"deviceId": MAC}, id="4")
    assert reply.data["result"]["firmware"] == "3.1"


def test_get_about_without_device_id_is_an_invalid_parameter(device, connected):
    agent, server = connected
    device.clear_journal()
    reply = server.request("dxGetAbout", {"deviceid_missing": 1}, id="5")
    assert reply.raw == error_text('"5"', -32602, "Invalid method parameter")
    assert "sntool" not in device.journal()


def test_device_id_member_name_is_matched_case_insensitively(connected):
    agent, server = connected
    reply = server.request("dxGetAbout", {"DEVICEID": "x"}, id="6")
    assert "result" in reply.data


def test_frame_dumps_colour_the_method(device, connected):
    agent, server = connected
    result = about_facts(device)
    request = request_text("dxGetAbout", {"deviceId": MAC}, "9")
    reply = server.request_raw(request, expect_id="9")
    # the reply, on the wire and in the dump of the frame sent, is the one
    # these device facts give
    expected = {"jsonrpc": "2.0", "id": "9", "result": result}
    assert reply.raw == json.dumps(expected, separators=(",", ":"))
    # the received frame's dump gives its length in bytes
    i = agent.out.wait_for("Recieved text frame: %d" % len(request.encode()))
    j, text = agent.sent_frame("9", start=i)
    assert json.loads(text) == expected
    dash = "-" * 77
    assert agent.out.lines[i - 2] == dash
    assert re.match(r"^\[\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d\d:\d\d\]\[Thread\]\[Func queueWriter\]$",
                    agent.out.lines[i - 1])
    agent.out.wait_for(re.compile(re.escape('"method":"\x1b[1;33mdxGetAbout\x1b[m"')), timeout=5,
                       start=i)
    assert agent.out.lines[j - 1].endswith("[Thread][Func queueReader]")


def test_reply_without_method_is_dumped_uncoloured(connected):
    agent, server = connected
    server.request("dxGetAbout", {"deviceId": MAC}, id="10")
    _, text = agent.sent_frame("10")
    assert json.loads(text)["result"]["deviceId"] == MAC
    assert "\x1b[" not in text


def test_deeply_nested_request_is_answered_not_crashed(connected):
    agent, server = connected
    # nearly as deep as the JSON parser accepts (1000 levels in all),
    # which the worker threads' stacks must hold
    depth = 998
    text = '{"jsonrpc":"2.0","id":"deep","method":"dxNoSuchMethod","params":%s}' % (
        "[" * depth + "]" * depth)
    reply = server.request_raw(text, expect_id="deep", timeout=15)
    assert reply.data["error"]["code"] == -32601
    nested_array = "[" * depth + "]" * depth
    reply = server.request_raw(nested_array, expect_id=None, timeout=15)
    assert reply.raw == error_text("null", -32600, "The JSON sent is not a valid Request object")
    assert agent.alive()
