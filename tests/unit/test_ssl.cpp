/*
 * The TLS client layer against a small TLS server running in the test on
 * loopback with a certificate made on the spot: connect, read and write;
 * a server close notification ending a read with the count so far; a
 * failed handshake leaving nothing for disconnect to do; the first saved
 * session offered again on every later connection; and a wss connection
 * carrying the opening handshake and a frame.
 */
#include <gtest/gtest.h>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/sha.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <functional>
#include <thread>

#include "linux/socket.h"
#include "linux/ssl.h"
#include "test_support.h"

using namespace kctest;

namespace {

/* A TLS server on 127.0.0.1 that runs one behaviour per accepted
 * connection, for a fixed number of connections. */
class TlsServer {
public:
    typedef std::function<void(SSL *)> Behaviour;

    TlsServer()
    {
        EVP_PKEY *key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
        X509 *cert = X509_new();
        X509_set_version(cert, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
        X509_gmtime_adj(X509_getm_notBefore(cert), -60);
        X509_gmtime_adj(X509_getm_notAfter(cert), 3600);
        X509_set_pubkey(cert, key);
        X509_NAME *name = X509_get_subject_name(cert);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char *>("device-server.test"),
                                   -1, -1, 0);
        X509_set_issuer_name(cert, name);
        X509_sign(cert, key, EVP_sha256());

        ctx = SSL_CTX_new(TLS_server_method());
        SSL_CTX_use_certificate(ctx, cert);
        SSL_CTX_use_PrivateKey(ctx, key);
        SSL_CTX_set_session_id_context(ctx, reinterpret_cast<const unsigned char *>("kc"), 2);
        X509_free(cert);
        EVP_PKEY_free(key);
        listener = listenOn("127.0.0.1", &port);
    }
    ~TlsServer()
    {
        if (thread.joinable())
            thread.join();
        close(listener);
        SSL_CTX_free(ctx);
    }

    void serve(std::vector<Behaviour> behaviours)
    {
        thread = std::thread([this, behaviours] {
            for (const Behaviour &b : behaviours) {
                int fd = acceptWithin(listener, 5000);
                if (fd < 0)
                    return;
                SSL *ssl = SSL_new(ctx);
                SSL_set_fd(ssl, fd);
                if (SSL_accept(ssl) == 1)
                    b(ssl);
                SSL_free(ssl);
                close(fd);
            }
        });
    }
    void join() { thread.join(); }

    SSL_CTX *ctx = nullptr;
    int listener = -1;
    int port = 0;
    std::thread thread;
};

/* Reads n bytes (or until the client goes) on the server side. */
std::string serverRead(SSL *ssl, size_t n)
{
    std::string got;
    char buf[512];
    while (got.size() < n) {
        int r = SSL_read(ssl, buf, (int)std::min(sizeof buf, n - got.size()));
        if (r <= 0)
            break;
        got.append(buf, (size_t)r);
    }
    return got;
}

/* Waits for the client's close notification or the end of the stream. */
void awaitClientClose(SSL *ssl)
{
    char buf[64];
    while (SSL_read(ssl, buf, sizeof buf) > 0) {
    }
}

void echoFive(SSL *ssl)
{
    std::string got = serverRead(ssl, 5);
    SSL_write(ssl, got.data(), (int)got.size());
    awaitClientClose(ssl);
}

class TlsClient {
public:
    TlsClient()
    {
        memset(&s, 0, sizeof s);
        s.fd = -1;
        initSslSocket(&s);
    }
    ~TlsClient()
    {
        if (fd != -1)
            closeSocket(fd);
        deinitSslSocket(&s);
    }
    int connect(int port)
    {
        fd = connectSocket("127.0.0.1", port);
        if (fd == -1)
            return -1;
        return connectSslSocket(&s, fd);
    }
    void disconnect()
    {
        disconnectSslSocket(&s);
        closeSocket(fd);
        fd = -1;
    }
    SslSocket s;
    int fd = -1;
};

} // namespace

TEST(TlsSocket, InitialisedRecordHasNoSession)
{
    TlsClient c;
    EXPECT_NE(nullptr, c.s.ctx);
    EXPECT_EQ(nullptr, c.s.ssl);
    EXPECT_EQ(nullptr, c.s.session);
    EXPECT_EQ(-1, c.s.fd);
    long mode = SSL_CTX_get_mode(c.s.ctx);
    EXPECT_EQ(SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                  SSL_MODE_AUTO_RETRY,
              mode & 7);
    EXPECT_EQ(SSL_VERIFY_NONE, SSL_CTX_get_verify_mode(c.s.ctx));
}

TEST(TlsSocket, ConnectWriteAndRead)
{
    TlsServer server;
    ASSERT_GE(server.listener, 0);
    server.serve({echoFive});
    TlsClient c;
    ASSERT_EQ(1, c.connect(server.port));
    EXPECT_EQ(c.fd, c.s.fd);
    EXPECT_EQ(5, writeSslSocket(&c.s, "hello", 5));
    char buf[5];
    EXPECT_EQ(5, readSslSocket(&c.s, buf, 5));
    EXPECT_EQ("hello", std::string(buf, 5));
    c.disconnect();
    EXPECT_EQ(-1, c.s.fd);
    EXPECT_EQ(nullptr, c.s.ssl);
    EXPECT_NE(nullptr, c.s.session);
    server.join();
}

TEST(TlsSocket, ReadOfZeroBytesReturnsAtOnce)
{
    TlsServer server;
    server.serve({awaitClientClose});
    TlsClient c;
    ASSERT_EQ(1, c.connect(server.port));
    char buf[1];
    EXPECT_EQ(0, readSslSocket(&c.s, buf, 0));
    c.disconnect();
    server.join();
}

TEST(TlsSocket, CloseNotifyEndsTheReadWithNothingRead)
{
    TlsServer server;
    server.serve({[](SSL *ssl) {
        SSL_shutdown(ssl);
        awaitClientClose(ssl);
    }});
    TlsClient c;
    ASSERT_EQ(1, c.connect(server.port));
    char buf[5];
    EXPECT_EQ(0, readSslSocket(&c.s, buf, 5));
    c.disconnect();
    server.join();
}

TEST(TlsSocket, CloseNotifyEndsTheReadWithTheCountSoFar)
{
    TlsServer server;
    server.serve({[](SSL *ssl) {
        SSL_write(ssl, "ab", 2);
        SSL_shutdown(ssl);
        awaitClientClose(ssl);
    }});
    TlsClient c;
    ASSERT_EQ(1, c.connect(server.port));
    char buf[5];
    EXPECT_EQ(2, readSslSocket(&c.s, buf, 5));
    EXPECT_EQ("ab", std::string(buf, 2));
    c.disconnect();
    server.join();
}

TEST(TlsSocket, PeerVanishingEndsTheReadWithTheCountSoFar)
{
    TlsServer server;
    server.serve({[](SSL *ssl) {
        SSL_write(ssl, "xyz", 3);
        // The TCP connection is dropped without a close notification.
    }});
    TlsClient c;
    ASSERT_EQ(1, c.connect(server.port));
    char buf[8];
    EXPECT_EQ(3, readSslSocket(&c.s, buf, 8));
    c.disconnect();
    server.join();
}

TEST(TlsSocket, FortySecondsOfSilenceGiveMinusOne)
{
    TlsServer server;
    server.serve({[](SSL *ssl) {
        SSL_write(ssl, "ab", 2);
        awaitClientClose(ssl);
    }});
    TlsClient c;
    ASSERT_EQ(1, c.connect(server.port));
    struct pollfd pfd = {c.fd, POLLIN, 0};
    ASSERT_EQ(1, poll(&pfd, 1, 5000)); // the record with "ab" has arrived
    char buf[5];
    {
        SilentSelect silence(c.fd);
        EXPECT_EQ(-1, readSslSocket(&c.s, buf, 5));
        EXPECT_EQ(40, g_silentSelectSeconds.load());
    }
    EXPECT_EQ("ab", std::string(buf, 2));
    c.disconnect();
    server.join();
}

TEST(TlsSocket, FailedHandshakeLeavesNothingToDisconnect)
{
    int port = 0;
    int listener = listenOn("127.0.0.1", &port);
    ASSERT_GE(listener, 0);
    std::thread plain([listener] {
        int fd = acceptWithin(listener);
        if (fd < 0)
            return;
        readSome(fd, 5, 2000);
        writeAll(fd, "HTTP/1.1 400 Bad Request\r\n\r\n");
        close(fd);
    });
    TlsClient c;
    EXPECT_EQ(0, c.connect(port));
    plain.join();
    close(listener);
    EXPECT_EQ(-1, c.s.fd);
    SSL *stale = c.s.ssl;
    disconnectSslSocket(&c.s);
    EXPECT_EQ(stale, c.s.ssl);
    EXPECT_EQ(nullptr, c.s.session);
    EXPECT_EQ(-1, c.s.fd);
    // Without a session up, reads and writes report at once.
    char buf[4];
    EXPECT_EQ(-1, writeSslSocket(&c.s, "abc", 3));
    EXPECT_EQ(0, readSslSocket(&c.s, buf, 4));
}

TEST(TlsSocket, WriteAfterThePeerHasGoneFails)
{
    TlsServer server;
    server.serve({[](SSL *) {}});
    TlsClient c;
    ASSERT_EQ(1, c.connect(server.port));
    server.join();
    std::string big(1 << 20, 'x');
    int result = 0;
    for (int i = 0; i < 20 && result != -1; i++)
        result = writeSslSocket(&c.s, big.data(), (unsigned int)big.size());
    EXPECT_EQ(-1, result);
    c.disconnect();
}

TEST(TlsSocket, LaterConnectionsOfferTheFirstSavedSession)
{
    TlsServer server;
    server.serve({echoFive, echoFive, echoFive});
    TlsClient c;

    ASSERT_EQ(1, c.connect(server.port));
    EXPECT_EQ(0, SSL_session_reused(c.s.ssl));
    EXPECT_EQ(5, writeSslSocket(&c.s, "one..", 5));
    char buf[5];
    EXPECT_EQ(5, readSslSocket(&c.s, buf, 5)); // also takes in the session ticket
    c.disconnect();
    SSL_SESSION *first = c.s.session;
    ASSERT_NE(nullptr, first);

    ASSERT_EQ(1, c.connect(server.port));
    EXPECT_EQ(1, SSL_session_reused(c.s.ssl));
    EXPECT_EQ(5, writeSslSocket(&c.s, "two..", 5));
    EXPECT_EQ(5, readSslSocket(&c.s, buf, 5));
    c.disconnect();
    EXPECT_EQ(first, c.s.session) << "the saved session was replaced";

    ASSERT_EQ(1, c.connect(server.port));
    EXPECT_EQ(1, SSL_session_reused(c.s.ssl));
    EXPECT_EQ(5, writeSslSocket(&c.s, "three", 5));
    EXPECT_EQ(5, readSslSocket(&c.s, buf, 5));
    c.disconnect();
    EXPECT_EQ(first, c.s.session);

    server.join();
    EXPECT_EQ(2, SSL_CTX_sess_hits(server.ctx));
}

namespace {

std::string acceptFor(const std::string &keyText)
{
    std::string text = keyText + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest);
    unsigned char out[64];
    int n = EVP_EncodeBlock(out, digest, SHA_DIGEST_LENGTH);
    return std::string(reinterpret_cast<char *>(out), (size_t)n);
}

} // namespace

TEST(SecureWebsocket, HandshakeAndFramesRunOverTls)
{
    TlsServer server;
    std::string request, closing;
    server.serve({[&](SSL *ssl) {
        char c;
        while (request.find("\r\n\r\n") == std::string::npos && SSL_read(ssl, &c, 1) == 1)
            request.push_back(c);
        size_t at = request.find("Sec-WebSocket-Key: ");
        std::string key = at == std::string::npos ? "" : request.substr(at + 19, 24);
        std::string answer = "HTTP/1.1 101 Switching Protocols\r\nSec-WebSocket-Accept: " +
                             acceptFor(key) + "\r\n\r\n" + bytes({0x81, 0x03}) + "tls";
        SSL_write(ssl, answer.data(), (int)answer.size());
        closing = serverRead(ssl, 6);
        awaitClientClose(ssl);
    }});
    std::string url = "wss://127.0.0.1:" + std::to_string(server.port) + "/secure";
    WbsConnection *conn = initWebsocketConnection(url.c_str(), "o", nullptr, nullptr);
    ASSERT_NE(nullptr, conn);
    ASSERT_EQ(1, conn->useTls);
    ASSERT_EQ(1, connectWebsocket(conn));
    char buf[8];
    EXPECT_EQ(3, wbsReadMessage(conn, buf, sizeof buf));
    EXPECT_EQ("tls", std::string(buf, 3));
    wbsClose(conn);
    EXPECT_EQ(-1, conn->tls.fd);
    EXPECT_NE(nullptr, conn->tls.session);
    freeWebsocketConnection(conn);
    server.join();
    EXPECT_EQ(0u, request.find("GET /secure HTTP/1.1\r\nHost: 127.0.0.1:" +
                               std::to_string(server.port) + "\r\n"));
    ASSERT_EQ(6u, closing.size());
    EXPECT_EQ(bytes({0x88, 0x80}), closing.substr(0, 2));
}

TEST(SecureWebsocket, FailedTlsHandshakeFailsTheConnection)
{
    int port = 0;
    int listener = listenOn("127.0.0.1", &port);
    ASSERT_GE(listener, 0);
    std::thread plain([listener] {
        int fd = acceptWithin(listener);
        if (fd < 0)
            return;
        readSome(fd, 5, 2000);
        close(fd);
    });
    std::string url = "wss://127.0.0.1:" + std::to_string(port);
    WbsConnection *conn = initWebsocketConnection(url.c_str(), "o", nullptr, nullptr);
    ASSERT_NE(nullptr, conn);
    EXPECT_EQ(0, connectWebsocket(conn));
    EXPECT_EQ(-1, conn->tls.fd);
    EXPECT_EQ(nullptr, conn->tls.session);
    plain.join();
    freeWebsocketConnection(conn);
    close(listener);
}

/* A server (or a proxy in front of it) that refuses the upgrade after the
 * TLS handshake: each attempt ends its TLS session, so that a device
 * retrying against a proxy that answers 503 does not leave one TLS object
 * behind per retry. */
TEST(SecureWebsocket, ARefusedUpgradeEndsItsTlsSession)
{
    TlsServer server;
    auto refuse = [](SSL *ssl) {
        std::string request;
        char c;
        while (request.find("\r\n\r\n") == std::string::npos && SSL_read(ssl, &c, 1) == 1)
            request.push_back(c);
        const char answer[] = "HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\n\r\n";
        SSL_write(ssl, answer, (int)strlen(answer));
        awaitClientClose(ssl);
    };
    server.serve({refuse, refuse, refuse});
    std::string url = "wss://127.0.0.1:" + std::to_string(server.port) + "/";
    WbsConnection *conn = initWebsocketConnection(url.c_str(), "o", nullptr, nullptr);
    ASSERT_NE(nullptr, conn);
    for (int attempt = 0; attempt < 3; attempt++) {
        EXPECT_EQ(0, connectWebsocket(conn)) << attempt;
        EXPECT_EQ(nullptr, conn->tls.ssl) << attempt;
        EXPECT_EQ(-1, conn->tls.fd) << attempt;
        // the session of the first attempt is kept for resumption
        EXPECT_NE(nullptr, conn->tls.session) << attempt;
    }
    freeWebsocketConnection(conn);
    server.join();
    EXPECT_GE(SSL_CTX_sess_hits(server.ctx), 1);
}
