/* The readers of the device-side files: capture lines of the system log. */
#include <gtest/gtest.h>

#include "client/events.h"

TEST(OwnLogLine, TheAgentsOwnOutputIsKnownByItsTag)
{
    // what the service manager logs from the agent's standard output
    EXPECT_TRUE(log_line_is_own("Nov 15 23:12:24 VK310 daemon.info korvat-cloud[1234]: "
                                "Sending text frame:\n"));
    EXPECT_TRUE(log_line_is_own("Nov 15 23:12:24 VK310 daemon.err korvat-cloud[7]: x"));
    EXPECT_TRUE(log_line_is_own("Nov  5 08:01:02 VK310 user.notice korvat-cloud: x"));
    // the message may say anything, the tag decides
    EXPECT_TRUE(log_line_is_own("Nov 15 23:12:24 VK310 daemon.info korvat-cloud[12]: a: b"));
}

TEST(OwnLogLine, EveryOtherLineIsStreamed)
{
    for (const char *line : {
             "Nov 15 23:12:24 VK310 user.notice root: korvat-cloud[12]: quoted",
             "Nov 15 23:12:24 VK310 daemon.info korvat-cloud-helper[12]: x",
             "Nov 15 23:12:24 VK310 daemon.info my-korvat-cloud[12]: x",
             "Nov 15 23:12:24 VK310 daemon.info korvat-cloud[]: x",
             "Nov 15 23:12:24 VK310 daemon.info korvat-cloud[12x]: x",
             "Nov 15 23:12:24 VK310 daemon.info korvat-cloud[12: x",
             "Nov 15 23:12:24 VK310 kern.info kernel no message start",
             "Nov 15 23:12:24 korvat-cloud",
             "korvat-cloud: x",
             "",
         })
        EXPECT_FALSE(log_line_is_own(line)) << line;
    EXPECT_FALSE(log_line_is_own(nullptr));
}

TEST(LogLine, TheMessageStartsAfterTheFirstColonAndBlankFromPosition14)
{
    LogLine out;
    ASSERT_EQ(1, parse_log_line("Nov 15 23:12:24 VK310 user.notice root: say \"hi\"\n", &out));
    EXPECT_EQ(11, out.month);
    EXPECT_STREQ("15", out.day);
    EXPECT_STREQ("23:12:24", out.time);
    EXPECT_STREQ("say 'hi' ", out.message);
    EXPECT_EQ(0, parse_log_line("Foo 15 23:12:25 VK310 user.notice root: not a month\n", &out));
}
