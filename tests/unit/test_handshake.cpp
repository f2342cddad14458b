/*
 * The opening handshake: the exact upgrade request the client writes, the
 * checks of the server's answer (status 101, subprotocol, accept value),
 * the line reader's quirks, a peer that hangs up mid-answer, and a full
 * connectWebsocket against a loopback server.
 */
#include <gtest/gtest.h>

#include <openssl/evp.h>
#include <openssl/sha.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "test_support.h"

using namespace kctest;

namespace {

const char kGuid[] = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";

std::string base64(const unsigned char *data, int n)
{
    unsigned char out[128];
    int len = EVP_EncodeBlock(out, data, n);
    return std::string(reinterpret_cast<char *>(out), (size_t)len);
}

std::string acceptFor(const std::string &keyText)
{
    std::string text = keyText + kGuid;
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest);
    return base64(digest, SHA_DIGEST_LENGTH);
}

/* Reads the request from the peer: everything up to the empty line. */
std::string readRequest(int fd)
{
    std::string got;
    while (got.find("\r\n\r\n") == std::string::npos) {
        std::string part = readSome(fd, 1, 3000);
        if (part.empty())
            break;
        got += part;
    }
    return got;
}

std::string headerValue(const std::string &request, const std::string &name)
{
    size_t at = request.find("\r\n" + name + ": ");
    if (at == std::string::npos)
        return "<absent>";
    at += 2 + name.size() + 2;
    return request.substr(at, request.find("\r\n", at) - at);
}

/* The RFC 6455 sample nonce and its accept value. */
void useSampleKey(WbsConnection *conn)
{
    memcpy(conn->key, "the sample nonce", 16);
}
const char kSampleAccept[] = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=";

int answer(PairConnection &pc, const std::string &text)
{
    pc.send(text);
    return readServerHandshake(pc.conn);
}

} // namespace

TEST(ClientHandshake, RequestWithPortAndPath)
{
    PairConnection pc("ws://example:8080/path/x", "00:11:22:33:44:55");
    seedRandom(4242);
    ASSERT_EQ(1, sendClientHandshake(pc.conn));
    std::string request = readRequest(pc.peer);

    ReferenceRandom ref(4242);
    unsigned char key[16];
    for (int i = 0; i < 16; i++)
        key[i] = (unsigned char)(ref.next() & 0xff);
    std::string keyText = base64(key, 16);
    ASSERT_EQ(24u, keyText.size());
    EXPECT_EQ(0, memcmp(key, pc.conn->key, 16));

    EXPECT_EQ("GET /path/x HTTP/1.1\r\n"
              "Host: example:8080\r\n"
              "Upgrade: websocket\r\n"
              "Connection: Upgrade\r\n"
              "Sec-WebSocket-Key: " + keyText + "\r\n"
              "Sec-WebSocket-Protocol: nimb-protocol\r\n"
              "Sec-WebSocket-Version: 13\r\n"
              "Origin: 00:11:22:33:44:55\r\n"
              "\r\n",
              request);
    EXPECT_EQ(request, std::string(lastClientHandshake()));
}

TEST(ClientHandshake, KeyIsTwentyFourCharactersDecodingToSixteenBytes)
{
    PairConnection pc("ws://example/");
    ASSERT_EQ(1, sendClientHandshake(pc.conn));
    std::string keyText = headerValue(readRequest(pc.peer), "Sec-WebSocket-Key");
    ASSERT_EQ(24u, keyText.size());
    EXPECT_EQ("==", keyText.substr(22));
    unsigned char decoded[32];
    int n = EVP_DecodeBlock(decoded, reinterpret_cast<const unsigned char *>(keyText.data()), 24);
    ASSERT_EQ(18, n); // EVP_DecodeBlock counts the two padding bytes
    EXPECT_EQ(0, memcmp(decoded, pc.conn->key, 16));
}

TEST(ClientHandshake, Port80IsLeftOutOfTheHostLine)
{
    PairConnection pc("ws://example");
    ASSERT_EQ(1, sendClientHandshake(pc.conn));
    std::string request = readRequest(pc.peer);
    EXPECT_EQ(0u, request.find("GET / HTTP/1.1\r\nHost: example\r\n"));

    PairConnection explicit80("ws://example:80/x");
    ASSERT_EQ(1, sendClientHandshake(explicit80.conn));
    EXPECT_EQ(0u, readRequest(explicit80.peer).find("GET /x HTTP/1.1\r\nHost: example\r\n"));
}

TEST(ClientHandshake, Port443IsKeptInTheHostLine)
{
    PairConnection plain("ws://example:443");
    ASSERT_EQ(1, sendClientHandshake(plain.conn));
    EXPECT_EQ("example:443", headerValue(readRequest(plain.peer), "Host"));

    // A wss record writes through TLS, which is not up here: the request is
    // still assembled, and the failed write is reported.
    WbsConnection *secure = initWebsocketConnection("wss://example", "o", nullptr, nullptr);
    ASSERT_NE(nullptr, secure);
    EXPECT_EQ(0, sendClientHandshake(secure));
    std::string request = lastClientHandshake();
    EXPECT_EQ(0u, request.find("GET / HTTP/1.1\r\nHost: example:443\r\n"));
    freeWebsocketConnection(secure);
}

TEST(ClientHandshake, WriteFailureIsReported)
{
    PairConnection pc;
    int fd = pc.conn->fd;
    pc.conn->fd = -1;
    EXPECT_EQ(0, sendClientHandshake(pc.conn));
    pc.conn->fd = fd;
    EXPECT_TRUE(staysSilent(pc.peer));
}

TEST(ServerHandshake, SwitchingProtocolsWithoutAcceptIsAccepted)
{
    PairConnection pc;
    EXPECT_EQ(1, answer(pc, "HTTP/1.1 101 Switching Protocols\r\n"
                            "Upgrade: websocket\r\nConnection: Upgrade\r\n\r\n"));
}

TEST(ServerHandshake, BareStatusLineIsEnough)
{
    PairConnection pc;
    EXPECT_EQ(1, answer(pc, "HTTP/1.1 101\r\n\r\n"));
}

TEST(ServerHandshake, CorrectAcceptIsAccepted)
{
    PairConnection pc;
    useSampleKey(pc.conn);
    ASSERT_EQ(std::string(kSampleAccept), acceptFor("dGhlIHNhbXBsZSBub25jZQ=="));
    EXPECT_EQ(1, answer(pc, std::string("HTTP/1.1 101 Switching Protocols\r\n"
                                        "Sec-WebSocket-Accept: ") +
                                kSampleAccept + "\r\n\r\n"));
}

TEST(ServerHandshake, AcceptOfTheRandomKeyIsAccepted)
{
    PairConnection pc;
    ASSERT_EQ(1, sendClientHandshake(pc.conn));
    std::string keyText = headerValue(readRequest(pc.peer), "Sec-WebSocket-Key");
    EXPECT_EQ(1, answer(pc, "HTTP/1.1 101 Switching Protocols\r\n"
                            "Sec-WebSocket-Accept: " + acceptFor(keyText) + "\r\n"
                            "Sec-WebSocket-Protocol: nimb-protocol\r\n\r\n"));
}

TEST(ServerHandshake, WrongAcceptIsRefused)
{
    PairConnection pc;
    useSampleKey(pc.conn);
    EXPECT_EQ(0, answer(pc, "HTTP/1.1 101\r\n"
                            "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOO=\r\n\r\n"));
}

TEST(ServerHandshake, AcceptIsComparedCaseSensitively)
{
    PairConnection pc;
    useSampleKey(pc.conn);
    EXPECT_EQ(0, answer(pc, "HTTP/1.1 101\r\n"
                            "Sec-WebSocket-Accept: S3PPLMBITXAQ9KYGZZHZRBK+XOO=\r\n\r\n"));
}

TEST(ServerHandshake, AcceptWithoutItsBlankIsRefused)
{
    PairConnection pc;
    useSampleKey(pc.conn);
    EXPECT_EQ(0, answer(pc, std::string("HTTP/1.1 101\r\nSec-WebSocket-Accept:") +
                                kSampleAccept + "\r\n\r\n"));
}

TEST(ServerHandshake, ExactSubprotocolIsAccepted)
{
    PairConnection pc;
    EXPECT_EQ(1, answer(pc, "HTTP/1.1 101\r\nSec-WebSocket-Protocol: nimb-protocol\r\n\r\n"));
}

TEST(ServerHandshake, SubprotocolWithoutItsBlankIsRefused)
{
    PairConnection pc;
    EXPECT_EQ(0, answer(pc, "HTTP/1.1 101\r\nSec-WebSocket-Protocol:nimb-protocol\r\n\r\n"));
}

TEST(ServerHandshake, SubprotocolListIsRefused)
{
    PairConnection pc;
    EXPECT_EQ(0,
              answer(pc, "HTTP/1.1 101\r\nSec-WebSocket-Protocol: nimb-protocol, x\r\n\r\n"));
}

TEST(ServerHandshake, OtherSubprotocolIsRefused)
{
    PairConnection pc;
    EXPECT_EQ(0, answer(pc, "HTTP/1.1 101\r\nSec-WebSocket-Protocol: chat\r\n\r\n"));
}

TEST(ServerHandshake, HeaderNamesAreCaseSensitive)
{
    // A differently spelt header is just another header and is ignored.
    PairConnection pc;
    EXPECT_EQ(1, answer(pc, "HTTP/1.1 101\r\nsec-websocket-protocol: chat\r\n"
                            "sec-websocket-accept: nonsense\r\n\r\n"));
}

TEST(ServerHandshake, StatusOtherThan101IsRefused)
{
    for (const char *status : {"HTTP/1.1 200 OK\r\n\r\n", "HTTP/1.1 400 Bad Request\r\n\r\n",
                               "HTTP/1.0 101 Switching Protocols\r\n\r\n",
                               "HTTP/1.1 1010\r\n\r\n", "http/1.1 101\r\n\r\n",
                               "HTTP/1.1 abc\r\n\r\n"}) {
        PairConnection pc;
        EXPECT_EQ(0, answer(pc, status)) << status;
    }
}

TEST(ServerHandshake, LineEndingInNewlineAloneLosesItsLastTwoCharacters)
{
    // "nimb-protocolX\n": the two characters cut are "X\n".
    PairConnection accepted;
    EXPECT_EQ(1, answer(accepted, "HTTP/1.1 101\r\nSec-WebSocket-Protocol: nimb-protocolX\n\r\n"));

    // "nimb-protocol\n" loses "l\n" and no longer matches.
    PairConnection refused;
    EXPECT_EQ(0, answer(refused, "HTTP/1.1 101\r\nSec-WebSocket-Protocol: nimb-protocol\n\r\n"));
}

TEST(ServerHandshake, LineEndsOneByteAfterACarriageReturn)
{
    // The line ends as soon as the byte before the last is "\r": "\rZ" is
    // the cut pair, and the next line starts right after it.
    PairConnection pc;
    EXPECT_EQ(1, answer(pc, "HTTP/1.1 101\r\nSec-WebSocket-Protocol: nimb-protocol\rZ\r\n"));
}

TEST(ServerHandshake, StatusLineWithoutAnEndWithin255BytesIsRefused)
{
    PairConnection pc;
    std::string status = "HTTP/1.1 101 " + std::string(300, 'x') + "\r\n\r\n";
    EXPECT_EQ(0, answer(pc, status));
}

TEST(ServerHandshake, StatusLineOf254BytesIsAccepted)
{
    PairConnection pc;
    std::string status = "HTTP/1.1 101 ";
    status += std::string(254 - status.size() - 2, 'x') + "\r\n";
    ASSERT_EQ(254u, status.size());
    EXPECT_EQ(1, answer(pc, status + "\r\n"));
}

TEST(ServerHandshake, LongHeaderLineIsTakenInPieces)
{
    // A header line of 255 bytes without an end is taken as it is; the
    // rest of it is read as the next line.
    PairConnection pc;
    std::string header = "X-Long: " + std::string(400, 'y') + "\r\n";
    EXPECT_EQ(1, answer(pc, "HTTP/1.1 101\r\n" + header + "\r\n"));
}

TEST(ServerHandshake, PeerClosingDuringHeadersEndsTheHandshake)
{
    auto *pc = new PairConnection();
    pc->send("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n");
    shutdown(pc->peer, SHUT_WR);
    std::promise<int> result;
    std::future<int> done = result.get_future();
    std::thread([pc, &result] { result.set_value(readServerHandshake(pc->conn)); }).detach();
    if (done.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
        ADD_FAILURE() << "the handshake kept reading after the peer had closed";
        return; // the record stays with the stuck thread
    }
    EXPECT_EQ(0, done.get());
    // What the header loop met: every one-byte read now gives 0, so it
    // takes a zero-byte read as the end instead of reading on forever.
    char byte;
    EXPECT_EQ(0, wbsReadBytes(pc->conn, &byte, 1));
    EXPECT_EQ(0, wbsReadBytes(pc->conn, &byte, 1));
    delete pc;
}

TEST(ServerHandshake, PeerClosingBeforeAnyAnswerFails)
{
    PairConnection pc;
    pc.closePeer();
    EXPECT_EQ(0, readServerHandshake(pc.conn));
}

TEST(ServerHandshake, ClosedRecordFailsAtOnce)
{
    PairConnection pc;
    int fd = pc.conn->fd;
    pc.conn->fd = -1;
    EXPECT_EQ(0, readServerHandshake(pc.conn));
    pc.conn->fd = fd;
}

TEST(ServerHandshake, ProtocolAndAcceptChecksDirectly)
{
    EXPECT_TRUE(checkServerProtocol("Sec-WebSocket-Protocol: nimb-protocol\r\n"));
    EXPECT_FALSE(checkServerProtocol("Sec-WebSocket-Protocol: nimb-protocol"));
    EXPECT_FALSE(checkServerProtocol("Sec-WebSocket-Protocol: nimb-protocoL\r\n"));
    EXPECT_FALSE(checkServerProtocol("Sec-WebSocket-Protocol:\r\n"));
    EXPECT_FALSE(checkServerProtocol(""));

    PairConnection pc;
    useSampleKey(pc.conn);
    EXPECT_TRUE(verifyServerResponse(
        pc.conn, (std::string("Sec-WebSocket-Accept: ") + kSampleAccept + "\r\n").c_str()));
    EXPECT_FALSE(verifyServerResponse(
        pc.conn, (std::string("Sec-WebSocket-Accept: ") + kSampleAccept).c_str()));
    EXPECT_FALSE(verifyServerResponse(pc.conn, "Sec-WebSocket-Accept: \r\n"));
}

namespace {

/* A loopback WebSocket server that answers one upgrade correctly and then
 * sends one text frame. */
void serveOneUpgrade(int listener, std::string *request)
{
    int fd = acceptWithin(listener);
    if (fd < 0)
        return;
    *request = readRequest(fd);
    std::string key = headerValue(*request, "Sec-WebSocket-Key");
    writeAll(fd, "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n"
                 "Connection: Upgrade\r\nSec-WebSocket-Accept: " + acceptFor(key) +
                     "\r\nSec-WebSocket-Protocol: nimb-protocol\r\n\r\n");
    writeAll(fd, bytes({0x81, 0x02}) + "ok");
    readSome(fd, 6, 3000); // the client's close frame
    close(fd);
}

} // namespace

TEST(ConnectWebsocket, OpensAndVerifiesAgainstALoopbackServer)
{
    int port = 0;
    int listener = listenOn("127.0.0.1", &port);
    ASSERT_GE(listener, 0);
    std::string request;
    std::thread server(serveOneUpgrade, listener, &request);

    std::string url = "ws://127.0.0.1:" + std::to_string(port) + "/agent";
    WbsConnection *conn = initWebsocketConnection(url.c_str(), "aa:bb", countPing, countClose);
    ASSERT_NE(nullptr, conn);
    g_closeCalls = 0;
    EXPECT_EQ(1, connectWebsocket(conn));
    EXPECT_EQ(WBS_STATE_OPEN, conn->state);
    EXPECT_NE(-1, conn->fd);

    char buf[16];
    EXPECT_EQ(2, wbsReadMessage(conn, buf, sizeof buf));
    EXPECT_EQ("ok", std::string(buf, 2));

    freeWebsocketConnection(conn); // closes without the close callback
    server.join();
    close(listener);
    EXPECT_EQ(0, g_closeCalls.load());
    EXPECT_EQ(0u, request.find("GET /agent HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                               "\r\n"));
    EXPECT_EQ("aa:bb", headerValue(request, "Origin"));
}

TEST(ConnectWebsocket, RefusedConnectionFailsAndStaysConnecting)
{
    // A bound socket that does not listen refuses connections.
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in a;
    memset(&a, 0, sizeof a);
    a.sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.0.1", &a.sin_addr);
    ASSERT_EQ(0, bind(fd, (struct sockaddr *)&a, sizeof a));
    socklen_t len = sizeof a;
    getsockname(fd, (struct sockaddr *)&a, &len);
    std::string url = "ws://127.0.0.1:" + std::to_string(ntohs(a.sin_port));

    WbsConnection *conn = initWebsocketConnection(url.c_str(), "o", nullptr, nullptr);
    ASSERT_NE(nullptr, conn);
    EXPECT_EQ(0, connectWebsocket(conn));
    EXPECT_EQ(-1, conn->fd);
    EXPECT_EQ(WBS_STATE_CONNECTING, conn->state);
    freeWebsocketConnection(conn);
    close(fd);
}

TEST(ConnectWebsocket, RefusedAnswerLeavesTheRecordOpenForTheNextAttempt)
{
    int port = 0;
    int listener = listenOn("127.0.0.1", &port);
    ASSERT_GE(listener, 0);
    std::thread server([listener] {
        int fd = acceptWithin(listener);
        if (fd < 0)
            return;
        readRequest(fd);
        writeAll(fd, "HTTP/1.1 403 Forbidden\r\n\r\n");
        readSome(fd, 64, 500);
        close(fd);
    });
    std::string url = "ws://127.0.0.1:" + std::to_string(port);
    WbsConnection *conn = initWebsocketConnection(url.c_str(), "o", nullptr, nullptr);
    ASSERT_NE(nullptr, conn);
    EXPECT_EQ(0, connectWebsocket(conn));
    // The TCP connection stood, so the record counts as open.
    EXPECT_EQ(WBS_STATE_OPEN, conn->state);
    freeWebsocketConnection(conn);
    server.join();
    close(listener);
}
