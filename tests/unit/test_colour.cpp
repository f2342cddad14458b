/*
 * Colouring of the "method" value in the frame dumps: the colour goes right
 * after the value's opening quote and the reset right before its closing
 * quote; texts without the key, or without room, are left as they are.
 */
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "util/kapri_util.h"

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
