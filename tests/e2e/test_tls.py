"""wss:// against a TLS device server: replies flow and every reconnection
offers the session of the first connection."""
from conftest import MAC


def test_requests_flow_over_tls(tls_server, start_agent):
    agent = start_agent(tls_server.url)
    conn = tls_server.wait_for_connection(20)
    assert tls_server.url.startswith("wss://")
    assert conn.header("Host") == "%s:%d" % (tls_server.host, tls_server.port)
    reply = tls_server.request("dxGetAbout", {"deviceId": MAC}, id="t1")
    assert reply.data["result"]["macAddress"] == MAC
    assert tls_server.ping("abc") == b"abc"
    agent.wait_state("1")


def test_reconnections_resume_the_first_session(device, tls_server, start_agent):
    device.uci_ok("set", "korvatCloud.korvatCloud.conn_retry=1")
    device.uci_ok("commit", "korvatCloud")
    agent = start_agent(tls_server.url)
    tls_server.wait_for_connection(20)
    tls_server.request("dxGetAbout", {"deviceId": MAC}, id="s1")
    assert tls_server.tls_session_hits == 0
    tls_server.close()
    tls_server.wait_for_connection(20)
    assert tls_server.request("dxGetAbout", {"deviceId": MAC}, id="s2").data["result"]
    assert tls_server.tls_session_hits == 1
    tls_server.close()
    tls_server.wait_for_connection(20)
    assert tls_server.request("dxGetAbout", {"deviceId": MAC}, id="s3").data["result"]
    assert tls_server.tls_session_hits == 2


def test_tls_reconnection_after_server_drop(device, tls_server, start_agent):
    device.uci_ok("set", "korvatCloud.korvatCloud.conn_retry=1")
    device.uci_ok("commit", "korvatCloud")
    agent = start_agent(tls_server.url)
    tls_server.wait_for_connection(20)
    tls_server.drop()
    tls_server.wait_for_connection(20)
    reply = tls_server.request("dxNoSuchMethod", {"deviceId": MAC}, id="d1")
    assert reply.data["error"]["code"] == -32601
