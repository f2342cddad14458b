/*
 * WebSocket framing on an open connection whose peer is the test: frame
 * headers and masks of sent frames (including the 14-byte header whose
 * payload is masked with key bytes 3 and 4), pings answered inside the
 * receive, control and reserved frames skipped, the capacity limit, the
 * refused 64-bit length form and fragments, the server's close, and the
 * single close callback per teardown.
 */
#include <gtest/gtest.h>

#include <thread>

#include "test_support.h"

using namespace kctest;

namespace {

/* Sends length bytes of a recognisable pattern and returns the frame the
 * peer received (header and payload), with the payload sent. */
struct SentFrame {
    int result;
    std::string wire;
    std::string payload;
};

SentFrame sendAndCapture(PairConnection &pc, unsigned int length, int opcode = WBS_OPCODE_TEXT,
                         uint32_t seed = 777)
{
    SentFrame f;
    f.payload.resize(length);
    for (unsigned int i = 0; i < length; i++)
        f.payload[i] = (char)('a' + i % 26);
    std::string buffer = f.payload;
    unsigned int header = length < 126 ? 6 : length < 65536 ? 8 : 14;
    seedRandom(seed);
    std::thread sender([&] { f.result = wbsSendFrame(pc.conn, opcode, &buffer[0], length); });
    f.wire = readSome(pc.peer, header + length, 5000);
    sender.join();
    return f;
}

std::string unmask(const std::string &data, const unsigned char key[4])
{
    std::string out = data;
    for (size_t i = 0; i < out.size(); i++)
        out[i] = (char)(out[i] ^ key[i % 4]);
    return out;
}

void expectKeyIsNextRandom(const std::string &wire, size_t at, uint32_t seed)
{
    ReferenceRandom ref(seed);
    uint32_t k = ref.next();
    EXPECT_EQ(bytes({(int)(k >> 24), (int)((k >> 16) & 0xff), (int)((k >> 8) & 0xff),
                     (int)(k & 0xff)}),
              wire.substr(at, 4));
}

} // namespace

TEST(FrameSend, A125ByteTextGetsASixByteHeader)
{
    PairConnection pc;
    SentFrame f = sendAndCapture(pc, 125);
    EXPECT_EQ(125, f.result);
    ASSERT_EQ(6u + 125u, f.wire.size());
    EXPECT_EQ(0x81, (unsigned char)f.wire[0]);
    EXPECT_EQ(0x80 | 125, (unsigned char)f.wire[1]);
    expectKeyIsNextRandom(f.wire, 2, 777);
    const unsigned char *key = reinterpret_cast<const unsigned char *>(f.wire.data() + 2);
    EXPECT_EQ(f.payload, unmask(f.wire.substr(6), key));
}

TEST(FrameSend, A126ByteTextGetsAnEightByteHeaderWithLengthCode126)
{
    PairConnection pc;
    SentFrame f = sendAndCapture(pc, 126);
    EXPECT_EQ(126, f.result);
    ASSERT_EQ(8u + 126u, f.wire.size());
    EXPECT_EQ(bytes({0x81, 0xfe, 0x00, 0x7e}), f.wire.substr(0, 4));
    expectKeyIsNextRandom(f.wire, 4, 777);
    const unsigned char *key = reinterpret_cast<const unsigned char *>(f.wire.data() + 4);
    EXPECT_EQ(f.payload, unmask(f.wire.substr(8), key));
}

TEST(FrameSend, A65535ByteTextStillGetsAnEightByteHeader)
{
    PairConnection pc;
    SentFrame f = sendAndCapture(pc, 65535);
    EXPECT_EQ(65535, f.result);
    ASSERT_EQ(8u + 65535u, f.wire.size());
    EXPECT_EQ(bytes({0x81, 0xfe, 0xff, 0xff}), f.wire.substr(0, 4));
    const unsigned char *key = reinterpret_cast<const unsigned char *>(f.wire.data() + 4);
    EXPECT_EQ(f.payload, unmask(f.wire.substr(8), key));
}

TEST(FrameSend, A65536ByteTextGetsAFourteenByteHeaderAndIsMaskedWithKeyBytesThreeAndFour)
{
    PairConnection pc;
    SentFrame f = sendAndCapture(pc, 65536);
    EXPECT_EQ(65536, f.result);
    ASSERT_EQ(14u + 65536u, f.wire.size());
    EXPECT_EQ(bytes({0x81, 0xff, 0, 0, 0, 0, 0, 0x01, 0x00, 0x00}), f.wire.substr(0, 10));
    // The header carries the whole key ...
    expectKeyIsNextRandom(f.wire, 10, 777);
    const unsigned char *k = reinterpret_cast<const unsigned char *>(f.wire.data() + 10);
    // ... but the payload is masked with k3 k4 k3 k4.
    const unsigned char repeated[4] = {k[2], k[3], k[2], k[3]};
    EXPECT_EQ(f.payload, unmask(f.wire.substr(14), repeated));
    ASSERT_FALSE(k[0] == k[2] && k[1] == k[3]) << "pick another seed: the two halves agree";
    EXPECT_NE(f.payload, unmask(f.wire.substr(14), k));
}

TEST(FrameSend, EmptyAndBinaryAndPongFrames)
{
    PairConnection pc;
    SentFrame empty = sendAndCapture(pc, 0);
    EXPECT_EQ(0, empty.result);
    ASSERT_EQ(6u, empty.wire.size());
    EXPECT_EQ(bytes({0x81, 0x80}), empty.wire.substr(0, 2));

    SentFrame binary = sendAndCapture(pc, 3, WBS_OPCODE_BINARY);
    ASSERT_EQ(9u, binary.wire.size());
    EXPECT_EQ(bytes({0x82, 0x83}), binary.wire.substr(0, 2));
}

TEST(FrameSend, PayloadIsMaskedInPlaceInTheCallersBuffer)
{
    PairConnection pc;
    char text[] = "hello";
    seedRandom(5);
    ASSERT_EQ(5, wbsSendFrame(pc.conn, WBS_OPCODE_TEXT, text, 5));
    std::string wire = readSome(pc.peer, 11);
    ASSERT_EQ(11u, wire.size());
    EXPECT_EQ(wire.substr(6), std::string(text, 5));
    const unsigned char *key = reinterpret_cast<const unsigned char *>(wire.data() + 2);
    EXPECT_EQ("hello", unmask(wire.substr(6), key));
}

TEST(FrameSend, PingIsSixBytesWithAFreshKey)
{
    PairConnection pc;
    seedRandom(99);
    EXPECT_EQ(1, wbsSendPing(pc.conn));
    std::string wire = readSome(pc.peer, 6);
    ASSERT_EQ(6u, wire.size());
    EXPECT_EQ(bytes({0x89, 0x80}), wire.substr(0, 2));
    expectKeyIsNextRandom(wire, 2, 99);
}

TEST(FrameSend, SendOnAClosedConnectionWritesNothing)
{
    PairConnection pc;
    wbsClose(pc.conn);
    EXPECT_EQ(6u, readSome(pc.peer, 6).size()); // the close frame
    ASSERT_EQ(1, g_closeCalls.load());

    char text[] = "hello";
    EXPECT_EQ(-1, wbsSendFrame(pc.conn, WBS_OPCODE_TEXT, text, 5));
    EXPECT_STREQ("hello", text); // not even masked
    EXPECT_EQ(0, wbsSendPing(pc.conn));
    EXPECT_TRUE(atEndOfStream(pc.peer));
    EXPECT_EQ(1, g_closeCalls.load());
}

TEST(FrameSend, FailedWriteClosesAndCallsBackOnce)
{
    PairConnection pc;
    pc.closePeer();
    char text[] = "hello";
    EXPECT_EQ(-1, wbsSendFrame(pc.conn, WBS_OPCODE_TEXT, text, 5));
    EXPECT_EQ(-1, pc.conn->fd);
    EXPECT_EQ(WBS_STATE_CLOSED, pc.conn->state);
    EXPECT_EQ(1, g_closeCalls.load());

    // A second failure finds the connection closed and does not call back.
    EXPECT_EQ(-1, wbsSendFrame(pc.conn, WBS_OPCODE_TEXT, text, 5));
    char buf[8];
    EXPECT_EQ(-1, wbsReadMessage(pc.conn, buf, sizeof buf));
    wbsClose(pc.conn);
    EXPECT_EQ(1, g_closeCalls.load());
}

namespace {
/* A peer that takes the frame header and then stops: every later write
 * fails. */
struct HeaderOnlyPeer {
    int writes = 0;
    std::string written;
};
int noRead(void *, void *, unsigned int) { return -1; }
int headerOnlyWrite(void *context, const void *buf, unsigned int n)
{
    HeaderOnlyPeer *peer = static_cast<HeaderOnlyPeer *>(context);
    if (peer->writes++ > 0)
        return -1;
    peer->written.append(static_cast<const char *>(buf), n);
    return (int)n;
}
} // namespace

TEST(FrameSend, FailedPayloadWriteClosesTheConnection)
{
    HeaderOnlyPeer peer;
    WbsConnection *conn = initWebsocketConnection("ws://127.0.0.1:1/", "m", countPing, countClose);
    ASSERT_NE(nullptr, conn);
    WbsTransport transport = {noRead, headerOnlyWrite, &peer};
    wbsAttachTransport(conn, &transport);
    g_closeCalls = 0;
    char text[] = "hello";
    EXPECT_EQ(-1, wbsSendFrame(conn, WBS_OPCODE_TEXT, text, 5));
    // the header went out, the payload did not: the connection is closed
    EXPECT_EQ(6u, peer.written.size());
    EXPECT_EQ(-1, conn->fd);
    EXPECT_EQ(WBS_STATE_CLOSED, conn->state);
    EXPECT_EQ(1, g_closeCalls.load());
    EXPECT_EQ(-1, wbsSendFrame(conn, WBS_OPCODE_TEXT, text, 5));
    EXPECT_EQ(1, g_closeCalls.load());
    freeWebsocketConnection(conn);
}

TEST(FrameSend, FailedPingClosesTheConnection)
{
    PairConnection pc;
    pc.closePeer();
    EXPECT_EQ(0, wbsSendPing(pc.conn));
    EXPECT_EQ(-1, pc.conn->fd);
    EXPECT_EQ(1, g_closeCalls.load());
}

TEST(FrameReceive, UnmaskedTextIsDelivered)
{
    PairConnection pc;
    pc.send(bytes({0x81, 0x05}) + "hello");
    char buf[64];
    EXPECT_EQ(5, wbsReadMessage(pc.conn, buf, sizeof buf));
    EXPECT_EQ("hello", std::string(buf, 5));
}

TEST(FrameReceive, MaskedTextIsUnmasked)
{
    PairConnection pc;
    const unsigned char key[4] = {0x11, 0x22, 0x33, 0x44};
    pc.send(bytes({0x81, 0x85, 0x11, 0x22, 0x33, 0x44}) + unmask("hello", key));
    char buf[64];
    EXPECT_EQ(5, wbsReadMessage(pc.conn, buf, sizeof buf));
    EXPECT_EQ("hello", std::string(buf, 5));
}

TEST(FrameReceive, SixteenBitLengthAndBinary)
{
    PairConnection pc;
    std::string payload(300, 'z');
    pc.send(bytes({0x82, 0x7e, 0x01, 0x2c}) + payload);
    std::vector<char> buf(RECEIVE_BUFFER_SIZE);
    EXPECT_EQ(300, wbsReadMessage(pc.conn, buf.data(), (unsigned int)buf.size()));
    EXPECT_EQ(payload, std::string(buf.data(), 300));
}

TEST(FrameReceive, EmptyTextIsDelivered)
{
    PairConnection pc;
    pc.send(bytes({0x81, 0x00}));
    char buf[4];
    EXPECT_EQ(0, wbsReadMessage(pc.conn, buf, sizeof buf));
    EXPECT_EQ(0, g_closeCalls.load());
}

TEST(FrameReceive, PingIsAnsweredWithAMaskedPongAndTheReadGoesOn)
{
    PairConnection pc;
    pc.send(bytes({0x89, 0x03}) + "abc" + bytes({0x81, 0x02}) + "hi");
    char buf[64];
    seedRandom(31337);
    EXPECT_EQ(2, wbsReadMessage(pc.conn, buf, sizeof buf));
    EXPECT_EQ("hi", std::string(buf, 2));
    EXPECT_EQ(1, g_pingCalls.load());

    std::string pong = readSome(pc.peer, 9);
    ASSERT_EQ(9u, pong.size());
    EXPECT_EQ(bytes({0x8a, 0x83}), pong.substr(0, 2));
    expectKeyIsNextRandom(pong, 2, 31337);
    const unsigned char *key = reinterpret_cast<const unsigned char *>(pong.data() + 2);
    EXPECT_EQ("abc", unmask(pong.substr(6), key));
    EXPECT_TRUE(staysSilent(pc.peer));
}

TEST(FrameReceive, MaskedPingIsUnmaskedBeforeTheAnswer)
{
    PairConnection pc;
    const unsigned char key[4] = {0xa0, 0xb0, 0xc0, 0xd0};
    pc.send(bytes({0x89, 0x83, 0xa0, 0xb0, 0xc0, 0xd0}) + unmask("abc", key) +
            bytes({0x81, 0x01}) + "x");
    char buf[16];
    EXPECT_EQ(1, wbsReadMessage(pc.conn, buf, sizeof buf));
    std::string pong = readSome(pc.peer, 9);
    ASSERT_EQ(9u, pong.size());
    const unsigned char *sent = reinterpret_cast<const unsigned char *>(pong.data() + 2);
    EXPECT_EQ("abc", unmask(pong.substr(6), sent));
}

TEST(FrameReceive, PongContinuationAndReservedOpcodesAreSkipped)
{
    PairConnection pc;
    pc.send(bytes({0x8a, 0x01}) + "p" +        // pong
            bytes({0x00, 0x02}) + "cc" +       // continuation
            bytes({0x83, 0x03}) + "333" +      // reserved 3
            bytes({0x8b, 0x00}) +              // reserved 11
            bytes({0x81, 0x04}) + "data");
    char buf[16];
    EXPECT_EQ(4, wbsReadMessage(pc.conn, buf, sizeof buf));
    EXPECT_EQ("data", std::string(buf, 4));
    EXPECT_EQ(0, g_pingCalls.load());
    EXPECT_EQ(0, g_closeCalls.load());
    EXPECT_TRUE(staysSilent(pc.peer)); // nothing was answered
}

TEST(FrameReceive, FrameOfExactlyCapacityIsDelivered)
{
    PairConnection pc;
    pc.send(bytes({0x81, 0x0a}) + "0123456789");
    char buf[10];
    EXPECT_EQ(10, wbsReadMessage(pc.conn, buf, 10));
    EXPECT_EQ("0123456789", std::string(buf, 10));
    EXPECT_EQ(0, g_closeCalls.load());
}

TEST(FrameReceive, FrameOneByteOverCapacityClosesTheConnection)
{
    PairConnection pc;
    pc.send(bytes({0x81, 0x0b}) + "0123456789A");
    char buf[11];
    EXPECT_EQ(-1, wbsReadMessage(pc.conn, buf, 10));
    EXPECT_EQ(-1, pc.conn->fd);
    EXPECT_EQ(WBS_STATE_CLOSED, pc.conn->state);
    EXPECT_EQ(1, g_closeCalls.load());
    EXPECT_EQ(bytes({0x88, 0x80}), readSome(pc.peer, 6).substr(0, 2));
}

TEST(FrameReceive, SixtyFourBitLengthFormClosesWhateverTheLength)
{
    for (uint64_t length : {5ull, 126ull, 65536ull}) {
        PairConnection pc;
        std::string frame = bytes({0x81, 0x7f});
        for (int i = 7; i >= 0; i--)
            frame.push_back((char)((length >> (8 * i)) & 0xff));
        frame += std::string((size_t)std::min<uint64_t>(length, 200), 'q');
        pc.send(frame);
        std::vector<char> buf(RECEIVE_BUFFER_SIZE);
        EXPECT_EQ(-1, wbsReadMessage(pc.conn, buf.data(), RECEIVE_BUFFER_SIZE)) << length;
        EXPECT_EQ(1, g_closeCalls.load()) << length;
    }
}

TEST(FrameReceive, TextWithFinClearClosesTheConnection)
{
    PairConnection pc;
    pc.send(bytes({0x01, 0x02}) + "hi");
    char buf[8];
    EXPECT_EQ(-1, wbsReadMessage(pc.conn, buf, sizeof buf));
    EXPECT_EQ(1, g_closeCalls.load());
}

TEST(FrameReceive, BinaryWithFinClearClosesTheConnection)
{
    PairConnection pc;
    pc.send(bytes({0x02, 0x02}) + "hi");
    char buf[8];
    EXPECT_EQ(-1, wbsReadMessage(pc.conn, buf, sizeof buf));
    EXPECT_EQ(1, g_closeCalls.load());
}

TEST(FrameReceive, ServerCloseIsAnsweredWithAnEmptyMaskedClose)
{
    PairConnection pc;
    pc.send(bytes({0x88, 0x02, 0x03, 0xe8}));
    char buf[8];
    seedRandom(2024);
    EXPECT_EQ(-1, wbsReadMessage(pc.conn, buf, sizeof buf));
    EXPECT_EQ(-1, pc.conn->fd);
    EXPECT_EQ(WBS_STATE_CLOSED, pc.conn->state);
    EXPECT_EQ(1, g_closeCalls.load());

    std::string wire = readSome(pc.peer, 6);
    ASSERT_EQ(6u, wire.size());
    EXPECT_EQ(bytes({0x88, 0x80}), wire.substr(0, 2));
    expectKeyIsNextRandom(wire, 2, 2024);
    EXPECT_TRUE(atEndOfStream(pc.peer)); // and nothing else: the socket is shut
}

TEST(FrameReceive, PeerClosingMidHeaderClosesTheConnection)
{
    PairConnection pc;
    pc.send(bytes({0x81}));
    shutdown(pc.peer, SHUT_WR);
    char buf[8];
    EXPECT_EQ(-1, wbsReadMessage(pc.conn, buf, sizeof buf));
    EXPECT_EQ(1, g_closeCalls.load());
}

TEST(FrameReceive, PeerClosingMidPayloadClosesTheConnection)
{
    PairConnection pc;
    pc.send(bytes({0x81, 0x05}) + "he");
    shutdown(pc.peer, SHUT_WR);
    char buf[8];
    EXPECT_EQ(-1, wbsReadMessage(pc.conn, buf, sizeof buf));
    EXPECT_EQ(1, g_closeCalls.load());
}

TEST(FrameReceive, PeerClosingInTheExtendedLengthClosesTheConnection)
{
    PairConnection pc;
    pc.send(bytes({0x81, 0xfe, 0x00}));
    shutdown(pc.peer, SHUT_WR);
    char buf[8];
    EXPECT_EQ(-1, wbsReadMessage(pc.conn, buf, sizeof buf));
    EXPECT_EQ(1, g_closeCalls.load());
}

TEST(FrameReceive, ReadOnAClosedConnectionReturnsAtOnce)
{
    PairConnection pc;
    wbsClose(pc.conn);
    ASSERT_EQ(1, g_closeCalls.load());
    char buf[8];
    EXPECT_EQ(-1, wbsReadMessage(pc.conn, buf, sizeof buf));
    EXPECT_EQ(1, g_closeCalls.load());
}

TEST(FrameReceive, TwoConsecutiveFailuresCallBackOnce)
{
    PairConnection pc;
    pc.send(bytes({0x88, 0x00}));
    char buf[8];
    EXPECT_EQ(-1, wbsReadMessage(pc.conn, buf, sizeof buf));
    EXPECT_EQ(-1, wbsReadMessage(pc.conn, buf, sizeof buf));
    char text[] = "x";
    EXPECT_EQ(-1, wbsSendFrame(pc.conn, WBS_OPCODE_TEXT, text, 1));
    EXPECT_EQ(1, g_closeCalls.load());
}

TEST(FrameReceive, PongThatCannotBeWrittenClosesTheConnection)
{
    PairConnection pc;
    pc.send(bytes({0x89, 0x03}) + "abc");
    // The peer hangs up after its ping: the answer cannot go out.
    shutdown(pc.peer, SHUT_RD);
    close(pc.peer);
    pc.peer = -1;
    char buf[8];
    EXPECT_EQ(-1, wbsReadMessage(pc.conn, buf, sizeof buf));
    EXPECT_EQ(1, g_closeCalls.load());
    EXPECT_EQ(0, g_pingCalls.load());
}

TEST(FrameClose, CloseRunsTheCallbackAfterTearingDown)
{
    static WbsConnection *seen = nullptr;
    static int fdAtCallback = 0;
    static int stateAtCallback = 0;
    PairConnection pc;
    seen = pc.conn;
    pc.conn->onClose = [] {
        fdAtCallback = seen->fd;
        stateAtCallback = seen->state;
    };
    wbsClose(pc.conn);
    EXPECT_EQ(-1, fdAtCallback);
    EXPECT_EQ(WBS_STATE_CLOSED, stateAtCallback);
    EXPECT_EQ(bytes({0x88, 0x80}), readSome(pc.peer, 6).substr(0, 2));
}

TEST(FrameClose, FreeingAnOpenRecordSendsACloseWithoutTheCallback)
{
    PairConnection pc;
    freeWebsocketConnection(pc.conn);
    pc.conn = nullptr;
    EXPECT_EQ(bytes({0x88, 0x80}), readSome(pc.peer, 6).substr(0, 2));
    EXPECT_TRUE(atEndOfStream(pc.peer));
    EXPECT_EQ(0, g_closeCalls.load());
}
