"""TLS tests of the test device server: wss:// and session resumption."""
import os
import subprocess
import tempfile

import pytest

import device_server
from fakeagent import FakeAgent, MAC


@pytest.mark.parametrize("version", [None, "1.2"])
def test_wss_and_session_reuse(cert_dir, version):
    srv = device_server.DeviceServer(tls=True, ping_interval=None, cert_dir=cert_dir,
                                     tls_max_version=version)
    with srv:
        assert srv.url.startswith("wss://127.0.0.1:")
        agent = FakeAgent(srv.url).connect()
        conn = srv.wait_for_connection(5)
        assert conn.tls and conn.tls_session_reused is False
        assert srv.request("dxGetAbout", {"deviceId": MAC})[0]["result"]["deviceId"] == MAC
        saved = agent.tls_session          # taken at the first disconnect
        agent.close()
        assert srv.tls_session_hits == 0
        # Offer the first session on every later connection.
        for n in (1, 2):
            again = FakeAgent(srv.url, session=saved).connect()
            conn = srv.wait_for_connection(5)
            assert again.session_reused
            assert conn.tls_session_reused is True
            assert srv.tls_session_hits == n
            assert srv.ping(b"p") == b"p"
            srv.drop()
            again.closed.wait(5)


def test_drop_with_tls_close_notify(cert_dir):
    with device_server.DeviceServer(tls=True, ping_interval=None, cert_dir=cert_dir) as srv:
        agent = FakeAgent(srv.url, answer=False).connect()
        conn = srv.wait_for_connection(5)
        srv.drop(tls_close_notify=True)
        assert agent.closed.wait(5) and not agent.close_frame_seen
        assert conn.wait_closed(5) and conn.close_code == 1006
        again = FakeAgent(srv.url, session=agent.saved_session).connect()
        assert srv.wait_for_connection(5).tls_session_reused
        assert again.session_reused and srv.tls_session_hits == 1
        again.close()


def _openssl_connect(port, sess_opt, sess_file):
    # One short s_client run that sends a tiny upgrade request and quits.
    req = ("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\n"
           "Connection: Upgrade\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
           "Sec-WebSocket-Protocol: nimb-protocol\r\nSec-WebSocket-Version: 13\r\n"
           "Origin: %s\r\n\r\n" % MAC)
    proc = subprocess.run(
        ["openssl", "s_client", "-connect", "127.0.0.1:%d" % port, "-quiet",
         "-ign_eof", sess_opt, sess_file],
        input=req.encode(), stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=20)
    return proc


def test_openssl_client_resumes(cert_dir):
    srv = device_server.DeviceServer(tls=True, ping_interval=None, cert_dir=cert_dir,
                                     close_timeout=0.5)
    with srv, tempfile.TemporaryDirectory() as tmp:
        sess = os.path.join(tmp, "sess.pem")

        def run(opt):
            # The server closes after the handshake so that s_client exits.
            import threading
            closer = threading.Thread(target=lambda: (srv.wait_for_connection(10), srv.close()))
            closer.start()
            proc = _openssl_connect(srv.port, opt, sess)
            closer.join(15)
            return proc

        first = run("-sess_out")
        assert b"101 Switching Protocols" in first.stdout, first.stderr
        assert os.path.getsize(sess) > 0
        for n in (1, 2):
            proc = run("-sess_in")
            assert b"101 Switching Protocols" in proc.stdout
            assert srv.tls_session_hits == n
        assert srv.connections[-1].tls_session_reused is True
