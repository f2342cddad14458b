/*
 * Server URL forms accepted by initWebsocketConnection: host, port, path and
 * transport for each of the eight forms, the fall-through of a non-numeric
 * port, upper-case schemes and over-long hosts refused, and the origin copy.
 */
#include <gtest/gtest.h>

#include <string>

#include "websocket/connection.h"

namespace {

struct Parsed {
    bool ok;
    std::string host;
    int port;
    std::string path;
    int useTls;
};

Parsed parse(const std::string &url)
{
    Parsed p{false, "", -1, "", -1};
    WbsConnection *conn = initWebsocketConnection(url.c_str(), "origin", nullptr, nullptr);
    if (conn == nullptr)
        return p;
    p.ok = true;
    p.host = conn->host;
    p.port = conn->port;
    p.path = conn->path;
    p.useTls = conn->useTls;
    EXPECT_EQ(-1, conn->fd);
    EXPECT_EQ(WBS_STATE_CONNECTING, conn->state);
    freeWebsocketConnection(conn);
    return p;
}

} // namespace

TEST(WebsocketUrl, HostPortAndPath)
{
    Parsed p = parse("ws://example:8080/path/x");
    ASSERT_TRUE(p.ok);
    EXPECT_EQ("example", p.host);
    EXPECT_EQ(8080, p.port);
    EXPECT_EQ("path/x", p.path);
    EXPECT_EQ(0, p.useTls);
}

TEST(WebsocketUrl, HostOnlyTakesPort80AndAnEmptyPath)
{
    Parsed p = parse("ws://example");
    ASSERT_TRUE(p.ok);
    EXPECT_EQ("example", p.host);
    EXPECT_EQ(80, p.port);
    EXPECT_EQ("", p.path);
}

TEST(WebsocketUrl, HostAndPathTakePort80)
{
    Parsed p = parse("ws://10.0.0.1/cloud");
    ASSERT_TRUE(p.ok);
    EXPECT_EQ("10.0.0.1", p.host);
    EXPECT_EQ(80, p.port);
    EXPECT_EQ("cloud", p.path);
}

TEST(WebsocketUrl, HostAndPortLeaveThePathEmpty)
{
    Parsed p = parse("ws://example:9000");
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(9000, p.port);
    EXPECT_EQ("", p.path);
}

TEST(WebsocketUrl, SecureFormsTakePort443AndTls)
{
    Parsed p = parse("wss://example");
    ASSERT_TRUE(p.ok);
    EXPECT_EQ("example", p.host);
    EXPECT_EQ(443, p.port);
    EXPECT_EQ("", p.path);
    EXPECT_EQ(1, p.useTls);

    p = parse("wss://example/a/b");
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(443, p.port);
    EXPECT_EQ("a/b", p.path);
    EXPECT_EQ(1, p.useTls);

    p = parse("wss://example:8443/ws");
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(8443, p.port);
    EXPECT_EQ("ws", p.path);
    EXPECT_EQ(1, p.useTls);

    p = parse("wss://example:8443");
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(8443, p.port);
    EXPECT_EQ("", p.path);
}

TEST(WebsocketUrl, NonNumericPortFallsThroughToTheHostOnlyForm)
{
    Parsed p = parse("ws://example:abc");
    ASSERT_TRUE(p.ok);
    EXPECT_EQ("example", p.host);
    EXPECT_EQ(80, p.port);
    EXPECT_EQ("", p.path);

    p = parse("wss://example:abc");
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(443, p.port);
}

TEST(WebsocketUrl, PathStopsAtTheFirstBlank)
{
    Parsed p = parse("ws://example:81/one two");
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(81, p.port);
    EXPECT_EQ("one", p.path);
}

TEST(WebsocketUrl, UpperCaseSchemeIsRefused)
{
    EXPECT_FALSE(parse("WSS://example").ok);
    EXPECT_FALSE(parse("WS://example").ok);
    EXPECT_FALSE(parse("Ws://example").ok);
}

TEST(WebsocketUrl, OtherSchemesAndEmptyHostsAreRefused)
{
    EXPECT_FALSE(parse("http://example").ok);
    EXPECT_FALSE(parse("example:80").ok);
    EXPECT_FALSE(parse("").ok);
    EXPECT_FALSE(parse("ws://").ok);
    EXPECT_FALSE(parse("ws:///path").ok);
    EXPECT_EQ(nullptr, initWebsocketConnection(nullptr, "o", nullptr, nullptr));
}

TEST(WebsocketUrl, OverLongHostIsRefusedNotCut)
{
    std::string host127(127, 'h');
    Parsed p = parse("ws://" + host127 + ":1/x");
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(host127, p.host);

    std::string host128(128, 'h');
    EXPECT_FALSE(parse("ws://" + host128).ok);
    EXPECT_FALSE(parse("wss://" + host128 + ":443/x").ok);
}

TEST(WebsocketUrl, OverLongPathIsRefusedNotCut)
{
    std::string path127(127, 'p');
    Parsed p = parse("ws://h/" + path127);
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(path127, p.path);
    EXPECT_FALSE(parse("ws://h/" + std::string(128, 'p')).ok);
}

static void noop(void) {}

TEST(WebsocketUrl, OriginAndCallbacksAreKept)
{
    WbsConnection *conn = initWebsocketConnection("ws://h", "00:11:22:33:44:55", noop, nullptr);
    ASSERT_NE(nullptr, conn);
    EXPECT_STREQ("00:11:22:33:44:55", conn->origin);
    EXPECT_EQ(noop, conn->onPing);
    EXPECT_EQ(nullptr, conn->onClose);
    freeWebsocketConnection(conn);

    // An origin of 128 characters or more is cut to 128 and stays terminated.
    std::string longOrigin(200, 'o');
    conn = initWebsocketConnection("ws://h", longOrigin.c_str(), nullptr, nullptr);
    ASSERT_NE(nullptr, conn);
    EXPECT_EQ(std::string(128, 'o'), std::string(conn->origin));
    freeWebsocketConnection(conn);
}
