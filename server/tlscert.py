"""Self-signed TLS material for the test device server and the raw test peer.

make_self_signed() writes a fresh key and certificate for CN=localhost into a
directory (a new temporary one by default) with the openssl command-line tool;
server_context() builds a server-side SSLContext that keeps issuing session
tickets and caching session ids, so that a client can resume its sessions.
"""
import atexit
import os
import shutil
import ssl
import subprocess
import tempfile

CERT_NAME = "server.crt"
KEY_NAME = "server.key"


def make_self_signed(directory=None, days=2):
    """Create (or reuse) a self-signed certificate; return (certfile, keyfile)."""
    if directory is None:
        directory = tempfile.mkdtemp(prefix="korvat-cert-")
        # the process loaded the files into its contexts; drop them at exit
        atexit.register(shutil.rmtree, directory, True)
    os.makedirs(directory, exist_ok=True)
    cert = os.path.join(directory, CERT_NAME)
    key = os.path.join(directory, KEY_NAME)
    if not (os.path.exists(cert) and os.path.exists(key)):
        subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes",
             "-subj", "/CN=localhost", "-days", str(days),
             "-keyout", key, "-out", cert],
            check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return cert, key


_VERSIONS = {
    None: None,
    "1.2": ssl.TLSVersion.TLSv1_2,
    "1.3": ssl.TLSVersion.TLSv1_3,
}


def server_context(certfile=None, keyfile=None, max_version=None, min_version=None):
    """Server SSLContext with session resumption enabled.

    max_version / min_version: None, "1.2" or "1.3" (pin "1.2" to exercise
    resumption by session id instead of TLS 1.3 tickets).
    """
    if certfile is None:
        certfile, keyfile = make_self_signed()
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    ctx.load_cert_chain(certfile, keyfile)
    # Older clients may still offer TLS 1.0/1.1 first; the default floor is fine.
    if _VERSIONS[max_version] is not None:
        ctx.maximum_version = _VERSIONS[max_version]
    if _VERSIONS[min_version] is not None:
        ctx.minimum_version = _VERSIONS[min_version]
    # Stateless tickets (the default) can be offered again and again, which is
    # what a client that keeps its first session for every reconnection does.
    ctx.options &= ~ssl.OP_NO_TICKET
    try:
        ctx.num_tickets = 2
    except (AttributeError, ValueError):
        pass
    return ctx


def client_context():
    """Client SSLContext that, like the agent, accepts any certificate."""
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    ctx.check_hostname = False
    ctx.verify_mode = ssl.CERT_NONE
    return ctx
