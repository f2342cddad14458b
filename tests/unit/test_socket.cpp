/*
 * The plain socket layer: exact-length reads (n = 0, a peer that hangs up
 * part-way), full writes, the readiness wait used for the read time-out,
 * the socket options of a new connection, and connection to a name that
 * resolves to several addresses (first accepting address, resolver order).
 *
 * The wait itself is exercised with a one-second bound; the 40-second read
 * time-out through a select() that stands for the silence (SilentSelect),
 * and for real in the end-to-end suite.
 */
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netdb.h>
#include <netinet/tcp.h>

#include <chrono>
#include <string>
#include <thread>

#include "linux/socket.h"
#include "test_support.h"

using namespace kctest;

/*
 * Name resolution seen by the code under test.  The one test name
 * "several.korvat.test" resolves to 127.0.0.2 and then 127.0.0.1, in that
 * order (two IPv4 loopback addresses: every Linux machine has them, so
 * these tests never depend on an IPv6 loopback); every other name goes to
 * the C library.
 */
static const char kSeveral[] = "several.korvat.test";
static const char kFirst[] = "127.0.0.2";
static const char kSecond[] = "127.0.0.1";

extern "C" int getaddrinfo(const char *node, const char *service, const struct addrinfo *hints,
                           struct addrinfo **res)
{
    typedef int (*Real)(const char *, const char *, const struct addrinfo *, struct addrinfo **);
    static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "getaddrinfo"));
    if (node == nullptr || strcmp(node, kSeveral) != 0)
        return real(node, service, hints, res);
    struct addrinfo numeric;
    memset(&numeric, 0, sizeof numeric);
    numeric.ai_socktype = hints != nullptr ? hints->ai_socktype : SOCK_STREAM;
    numeric.ai_flags = AI_NUMERICHOST;
    numeric.ai_family = AF_INET;
    struct addrinfo *first = nullptr, *second = nullptr;
    int rc = real(kFirst, service, &numeric, &first);
    if (rc != 0)
        return rc;
    rc = real(kSecond, service, &numeric, &second);
    if (rc != 0) {
        freeaddrinfo(first);
        return rc;
    }
    struct addrinfo *last = first;
    while (last->ai_next != nullptr)
        last = last->ai_next;
    last->ai_next = second;
    *res = first;
    return 0;
}

namespace {

/* The peer's IPv4 address as text ("" when there is none). */
std::string peerAddress(int fd)
{
    struct sockaddr_in sin;
    socklen_t len = sizeof sin;
    if (getpeername(fd, (struct sockaddr *)&sin, &len) != 0 || sin.sin_family != AF_INET)
        return "";
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &sin.sin_addr, text, sizeof text) ? text : "";
}

struct Pair {
    int a, b;
    Pair()
    {
        int sv[2];
        socketpair(AF_UNIX, SOCK_STREAM, 0, sv);
        a = sv[0];
        b = sv[1];
    }
    ~Pair()
    {
        if (a != -1)
            close(a);
        if (b != -1)
            close(b);
    }
};

/* Listeners on the two addresses of kSeveral sharing one port. */
bool listenOnBoth(int *first, int *second, int *port)
{
    for (int attempt = 0; attempt < 20; attempt++) {
        *second = listenOn(kSecond, port);
        if (*second < 0)
            return false;
        *first = listenOn(kFirst, port, AF_INET, *port);
        if (*first >= 0)
            return true;
        close(*second);
    }
    return false;
}

} // namespace

TEST(SocketRead, ZeroBytesReturnsAtOnce)
{
    Pair p;
    auto start = std::chrono::steady_clock::now();
    char buf[1];
    EXPECT_EQ(0, readSocket(p.a, buf, 0));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST(SocketRead, ReadsExactlyNBytesAcrossSeveralWrites)
{
    Pair p;
    std::thread writer([&] {
        writeAll(p.b, "abc");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        writeAll(p.b, "defgh");
    });
    char buf[8];
    EXPECT_EQ(8, readSocket(p.a, buf, 8));
    EXPECT_EQ("abcdefgh", std::string(buf, 8));
    writer.join();
}

TEST(SocketRead, PeerClosingMidReadGivesTheShortCount)
{
    Pair p;
    writeAll(p.b, "abc");
    close(p.b);
    p.b = -1;
    char buf[10];
    EXPECT_EQ(3, readSocket(p.a, buf, 10));
    EXPECT_EQ("abc", std::string(buf, 3));
}

TEST(SocketRead, PeerClosingBeforeAnyByteGivesZero)
{
    Pair p;
    close(p.b);
    p.b = -1;
    char buf[10];
    EXPECT_EQ(0, readSocket(p.a, buf, 10));
}

TEST(SocketRead, ErrorOnTheDescriptorGivesMinusOne)
{
    int fd = open("/dev/null", O_WRONLY);
    ASSERT_GE(fd, 0);
    char buf[4];
    EXPECT_EQ(-1, readSocket(fd, buf, 4)); // ready, but not readable
    close(fd);
}

TEST(SocketWait, SilenceEndsTheWaitWithATimeOut)
{
    Pair p;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, waitSocketReadable(p.a, 1));
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(900));
    EXPECT_LT(waited, std::chrono::seconds(5 * kcTestTimeScale()));
    writeAll(p.b, "x");
    EXPECT_EQ(1, waitSocketReadable(p.a, 1));
}

TEST(SocketRead, FortySecondsOfSilenceGiveMinusOne)
{
    Pair p;
    writeAll(p.b, "ab");
    SilentSelect silence(p.a);
    char buf[5];
    // the two bytes there are no result: the read as a whole failed
    EXPECT_EQ(-1, readSocket(p.a, buf, 5));
    EXPECT_EQ(40, g_silentSelectSeconds.load());
}

TEST(SocketWrite, WritesEverything)
{
    Pair p;
    std::string big(300000, 'w');
    std::string got;
    std::thread reader([&] { got = readSome(p.b, big.size(), 3000); });
    EXPECT_EQ((int)big.size(), writeSocket(p.a, big.data(), (unsigned int)big.size()));
    reader.join();
    EXPECT_EQ(big, got);
}

TEST(SocketWrite, ClosedPeerGivesMinusOne)
{
    Pair p;
    close(p.b);
    p.b = -1;
    EXPECT_EQ(-1, writeSocket(p.a, "abc", 3));
}

TEST(SocketClose, MinusOneIsIgnored)
{
    // -1 reaches no system call: close(-1) or shutdown(-1) would leave EBADF
    Pair p;
    errno = 0;
    closeSocket(-1);
    EXPECT_EQ(0, errno) << strerror(errno);
    errno = 0;
    shutdownSocket(-1);
    EXPECT_EQ(0, errno) << strerror(errno);
    // ... and no other descriptor was touched: the pair still carries data
    writeAll(p.a, "x");
    EXPECT_EQ("x", readSome(p.b, 1));
}

TEST(SocketClose, CloseWakesTheOtherSide)
{
    Pair p;
    closeSocket(p.a);
    p.a = -1;
    EXPECT_TRUE(atEndOfStream(p.b));
}

TEST(SocketNonBlocking, SetsTheFlag)
{
    Pair p;
    setSocketNonBlocking(p.a);
    EXPECT_NE(0, fcntl(p.a, F_GETFL) & O_NONBLOCK);
}

TEST(SocketConnect, NewConnectionHasNoDelayAndKeepAlive)
{
    int port = 0;
    int listener = listenOn("127.0.0.1", &port);
    ASSERT_GE(listener, 0);
    int fd = connectSocket("127.0.0.1", port);
    ASSERT_GE(fd, 0);
    int value = 0;
    socklen_t len = sizeof value;
    ASSERT_EQ(0, getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &value, &len));
    EXPECT_NE(0, value);
    value = 0;
    len = sizeof value;
    ASSERT_EQ(0, getsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &value, &len));
    EXPECT_NE(0, value);
    EXPECT_EQ(0, fcntl(fd, F_GETFL) & O_NONBLOCK);

    int served = acceptWithin(listener);
    ASSERT_GE(served, 0);
    writeAll(fd, "ping");
    EXPECT_EQ("ping", readSome(served, 4));
    close(served);
    closeSocket(fd);
    close(listener);
}

TEST(SocketConnect, LocalhostByName)
{
    int port = 0;
    int listener = listenOn("127.0.0.1", &port);
    ASSERT_GE(listener, 0);
    int fd = connectSocket("localhost", port);
    EXPECT_GE(fd, 0);
    closeSocket(fd);
    close(listener);
}

TEST(SocketConnect, RefusedConnectionGivesMinusOne)
{
    int port = 0;
    int listener = listenOn("127.0.0.1", &port);
    ASSERT_GE(listener, 0);
    close(listener); // nobody listens there any more
    EXPECT_EQ(-1, connectSocket("127.0.0.1", port));
}

TEST(SocketConnect, FirstAddressThatAcceptsIsUsed)
{
    int first = -1, second = -1, port = 0;
    ASSERT_TRUE(listenOnBoth(&first, &second, &port));
    close(first); // the first address now refuses; the second still listens
    int fd = connectSocket(kSeveral, port);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(kSecond, peerAddress(fd));
    int served = acceptWithin(second);
    EXPECT_GE(served, 0);
    if (served >= 0)
        close(served);
    closeSocket(fd);
    close(second);
}

TEST(SocketConnect, AddressesAreTriedInResolverOrder)
{
    int first = -1, second = -1, port = 0;
    ASSERT_TRUE(listenOnBoth(&first, &second, &port));
    int fd = connectSocket(kSeveral, port);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(kFirst, peerAddress(fd));
    EXPECT_TRUE(staysSilent(second, 50)); // nobody knocked at the second address
    closeSocket(fd);
    close(first);
    close(second);
}

TEST(SocketConnect, NoAcceptingAddressGivesMinusOne)
{
    int first = -1, second = -1, port = 0;
    ASSERT_TRUE(listenOnBoth(&first, &second, &port));
    close(first);
    close(second);
    EXPECT_EQ(-1, connectSocket(kSeveral, port));
}
