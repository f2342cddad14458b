/*
 * Colouring of the "method" value in the frame dumps: the colour goes right
 * after the value's opening quote and the reset right before its closing
 * quote; texts without the key, or without room, are left as they are;
 * the sending thread's dump is coloured while its frame is not.
 */
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <pthread.h>

#include "json/accessors.h"
#include "sdk/nimb_sdk.h"
#include "sdk/queue_manager.h"
#include "sdk/sdk_private.h"
#include "test_support.h"
#include "util/colour.h"

namespace {

const char kYellow[] = "\033[1;33m";
const char kCyan[] = "\033[1;36m";
const char kReset[] = "\033[m";

struct Result {
    int done;
    std::string text;
};

Result colour(const std::string &text, const char *colourSeq, size_t extra = 32,
              const char *key = "method")
{
    std::vector<char> buf(text.size() + extra + 1, '\0');
    memcpy(buf.data(), text.c_str(), text.size() + 1);
    int done = colour_json_value(buf.data(), (unsigned int)buf.size(), key, colourSeq);
    return {done, std::string(buf.data())};
}

} // namespace

TEST(DumpColour, ReceivedMethodIsYellow)
{
    Result r = colour("{\"jsonrpc\":\"2.0\",\"method\":\"dxGetAbout\",\"id\":\"7\"}", kYellow);
    EXPECT_EQ(1, r.done);
    EXPECT_EQ(std::string("{\"jsonrpc\":\"2.0\",\"method\":\"") + kYellow + "dxGetAbout" + kReset +
                  "\",\"id\":\"7\"}",
              r.text);
}

TEST(DumpColour, FormattedSentMethodIsCyan)
{
    std::string text = "{\n\t\"jsonrpc\":\t\"2.0\",\n\t\"method\":\t\"dsLogStatusUpdates\"\n}";
    Result r = colour(text, kCyan);
    EXPECT_EQ(1, r.done);
    EXPECT_EQ(std::string("{\n\t\"jsonrpc\":\t\"2.0\",\n\t\"method\":\t\"") + kCyan +
                  "dsLogStatusUpdates" + kReset + "\"\n}",
              r.text);
}

TEST(DumpColour, TextWithoutTheKeyIsUntouched)
{
    std::string reply = "{\"jsonrpc\":\"2.0\",\"id\":\"7\",\"result\":{}}";
    Result r = colour(reply, kCyan);
    EXPECT_EQ(0, r.done);
    EXPECT_EQ(reply, r.text);
}

TEST(DumpColour, NestedKeyIsColouredAtItsValue)
{
    std::string reply = "{\"jsonrpc\":\"2.0\",\"id\":\"7\",\"result\":{\"method\":\"dhcp\"}}";
    Result r = colour(reply, kCyan);
    EXPECT_EQ(1, r.done);
    EXPECT_EQ(std::string("{\"jsonrpc\":\"2.0\",\"id\":\"7\",\"result\":{\"method\":\"") + kCyan +
                  "dhcp" + kReset + "\"}}",
              r.text);
}

TEST(DumpColour, EmptyValueGetsColourAndReset)
{
    Result r = colour("{\"method\":\"\"}", kYellow);
    EXPECT_EQ(1, r.done);
    EXPECT_EQ(std::string("{\"method\":\"") + kYellow + kReset + "\"}", r.text);
}

TEST(DumpColour, NoRoomLeavesTheTextAsItIs)
{
    std::string text = "{\"method\":\"x\"}";
    Result r = colour(text, kYellow, 5);
    EXPECT_EQ(0, r.done);
    EXPECT_EQ(text, r.text);
    // Exactly enough room: colour, reset and the terminator.
    r = colour(text, kYellow, strlen(kYellow) + strlen(kReset));
    EXPECT_EQ(1, r.done);
}

TEST(DumpColour, MissingArgumentsOrUnendedValuesAreLeftAlone)
{
    char text[64] = "{\"method\":\"x\"}";
    EXPECT_EQ(0, colour_json_value(nullptr, 64, "method", kYellow));
    EXPECT_EQ(0, colour_json_value(text, 64, nullptr, kYellow));
    EXPECT_EQ(0, colour_json_value(text, 64, "method", nullptr));
    EXPECT_STREQ("{\"method\":\"x\"}", text);
    EXPECT_EQ(0, colour("{\"method\":\"x", kYellow).done);
    EXPECT_EQ(0, colour("{\"method\"", kYellow).done);
    EXPECT_EQ(0, colour("{\"method\":\"x\"}", kYellow, 32, std::string(254, 'k').c_str()).done);
}

/*
 * The sending thread itself: a reply whose only "method" is nested is dumped
 * in cyan at that value, while the frame on the wire carries the plain text.
 * The thread never ends; it is left waiting on its own (static) queue.
 */
TEST(DumpColour, SendingThreadColoursANestedMethodInItsDumpOnly)
{
    static JsonQueue queue;
    initQueue(&queue, 10);
    initConnectionLock(nimbConnectionLock());
    kctest::PairConnection pc;
    WbsConnection *saved = g_wbsConnection;
    g_wbsConnection = pc.conn;

    testing::internal::CaptureStdout();
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(&thread, nullptr, queueReader, &queue));
    pthread_detach(thread);
    const char wire[] = "{\"jsonrpc\":\"2.0\",\"id\":\"7\",\"result\":{\"method\":\"dhcp\"}}";
    EXPECT_EQ(1, produceObject(&queue, jsonParse(wire), PRODUCE_BLOCKING));

    // header (text, masked, 54 bytes), masking key, masked payload
    std::string frame = kctest::readSome(pc.peer, 2 + 4 + strlen(wire));
    // Once the write side is ours the thread has left its send, and the
    // connection record can go.
    connectionWriteLock(nimbConnectionLock());
    g_wbsConnection = saved;
    connectionWriteUnlock(nimbConnectionLock());
    std::string out = testing::internal::GetCapturedStdout();

    ASSERT_EQ(2 + 4 + strlen(wire), frame.size());
    EXPECT_EQ("\x81", frame.substr(0, 1));
    EXPECT_EQ((char)(0x80 | strlen(wire)), frame[1]);
    std::string payload = frame.substr(6);
    for (size_t i = 0; i < payload.size(); i++)
        payload[i] = (char)(payload[i] ^ frame[2 + i % 4]);
    EXPECT_EQ(wire, payload);

    EXPECT_NE(std::string::npos, out.find("Sending text frame:\n")) << out;
    EXPECT_NE(std::string::npos,
              out.find(std::string("\"method\":\t\"") + kCyan + "dhcp" + kReset + "\"")) << out;
}
