"""The command line without a browser: a request to a device named by its
MAC, JSON lines on standard input, the JSON-lines frame history, and a
server started with its own certificate and key."""
import json
import os
import socket
import ssl
import subprocess
import threading
import time

from fakeagent import FakeAgent, MAC

SERVER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..",
                      "server", "device_server.py")


def _start(tmp_path, *args, stdin=None):
    url_file = tmp_path / "url"
    proc = subprocess.Popen(["/usr/bin/python3", SERVER, "--url-file", str(url_file)] + list(args),
                            stdin=subprocess.PIPE if stdin is not None else subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    deadline = time.time() + 10
    while not (url_file.exists() and url_file.read_text().endswith("\n")):
        assert time.time() < deadline and proc.poll() is None, "server did not start"
        time.sleep(0.05)
    return proc, url_file.read_text().strip()


def _agent_later(url, mac=MAC, **kw):
    """Connects a stand-in agent in a moment (the server waits for it)."""
    holder = {}

    def run():
        time.sleep(0.3)
        holder["agent"] = FakeAgent(url, mac=mac, **kw).connect()
    t = threading.Thread(target=run)
    t.start()
    return t, holder


def test_request_to_a_device_named_by_its_mac(tmp_path):
    proc, url = _start(tmp_path, "--request", "dxGetAbout", '{"deviceId":"%s"}' % MAC,
                       "--timeout", "10")
    other = FakeAgent(url, mac="02:00:00:00:00:99").connect()   # not this one
    t, holder = _agent_later(url)
    out, err = proc.communicate(timeout=30)
    t.join()
    holder["agent"].close()
    other.close()
    assert proc.returncode == 0, err
    assert out == '{"jsonrpc":"2.0","id":"cli-1","result":{"deviceId":"%s","model":"fake"}}\n' % MAC
    assert other.texts == []
    assert "device server URL: ws://" in err


def test_request_error_reply_and_no_device(tmp_path):
    proc, url = _start(tmp_path, "--request", "dxNoSuchMethod", '{"deviceId":"%s"}' % MAC)
    t, holder = _agent_later(url)
    out, _ = proc.communicate(timeout=30)
    t.join()
    holder["agent"].close()
    assert proc.returncode == 1
    assert json.loads(out)["error"]["code"] == -32601
    proc, _ = _start(tmp_path, "--request", "dxGetAbout", '{"deviceId":"%s"}' % MAC,
                     "--timeout", "0.5")
    out, _ = proc.communicate(timeout=30)
    assert proc.returncode == 2 and "no device" in json.loads(out)["error"]
    proc, _ = _start(tmp_path, "--request", "dxGetAbout", "{not json")
    out, _ = proc.communicate(timeout=30)
    assert proc.returncode == 2 and "not JSON" in json.loads(out)["error"]


def test_json_lines_on_standard_input(tmp_path):
    lines = ['{"method":"dxGetAbout","params":{"deviceId":"%s"},"id":"a"}' % MAC,
             'this is no JSON',
             '{"method":"dxGetAbout","params":{"deviceId":"%s"}}' % MAC, ""]
    proc, url = _start(tmp_path, "--request", "-", "--timeout", "10", stdin=True)
    t, holder = _agent_later(url)
    out, err = proc.communicate("\n".join(lines), timeout=30)
    t.join()
    holder["agent"].close()
    got = out.splitlines()
    assert len(got) == 3, (out, err)
    assert json.loads(got[0])["id"] == "a" and json.loads(got[0])["result"]["model"] == "fake"
    assert json.loads(got[1])["error"].startswith("line 2:")
    assert json.loads(got[2])["id"] == "cli-3"
    assert proc.returncode == 2


def test_history_has_every_frame_as_a_json_line(tmp_path):
    history = tmp_path / "frames.jsonl"
    proc, url = _start(tmp_path, "--request", "dxGetAbout", '{"deviceId":"%s"}' % MAC,
                       "--history", str(history), "--ping-interval", "0.2")
    t, holder = _agent_later(url)
    out, _ = proc.communicate(timeout=30)
    t.join()
    holder["agent"].close()
    assert proc.returncode == 0
    records = [json.loads(line) for line in history.read_text().splitlines()]
    assert records[0]["type"] == "open" and records[0]["device"] == MAC
    frames = [r for r in records if r["type"] == "frame"]
    sent = [r for r in frames if r["direction"] == "send" and r["opcode"] == "TEXT"]
    recv = [r for r in frames if r["direction"] == "recv" and r["opcode"] == "TEXT"]
    assert [json.loads(r["text"])["method"] for r in sent] == ["dxGetAbout"]
    assert recv[0]["text"] == out.strip()
    assert all(r["conn"] == 1 and r["device"] == MAC and r["fin"] is True for r in frames)
    assert all(isinstance(r["time"], float) for r in records)
    pings = [r for r in frames if r["opcode"] in ("PING", "PONG")]
    assert all("hex" in r and "text" not in r for r in pings)


def test_own_certificate_and_key(tmp_path):
    cert, key = tmp_path / "own.crt", tmp_path / "own.key"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes",
                    "-subj", "/CN=h9-own-server", "-days", "1", "-keyout", str(key),
                    "-out", str(cert)], check=True, capture_output=True)
    proc, url = _start(tmp_path, "--cert", str(cert), "--key", str(key),
                       "--ping-interval", "0")
    try:
        assert url.startswith("wss://127.0.0.1:")
        port = int(url.rsplit(":", 1)[1])
        ctx = ssl.create_default_context(cafile=str(cert))
        ctx.check_hostname = False        # the certificate names h9-own-server
        with socket.create_connection(("127.0.0.1", port), timeout=5) as raw:
            with ctx.wrap_socket(raw) as tls:     # verified against the file given
                der = tls.getpeercert(binary_form=True)
        assert der == ssl.PEM_cert_to_DER_cert(cert.read_text())
        agent = FakeAgent(url).connect()
        assert agent.sock.getpeercert(binary_form=True) == der
        agent.close()
    finally:
        proc.terminate()
        proc.communicate(timeout=10)
    assert proc.returncode == 0
