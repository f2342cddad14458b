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

#include <dlfcn.h>
#include <netdb.h>
#include <netinet/tcp.h>

#include <chrono>
#include <thread>

#include "linux/socket.h"
#include "test_support.h"

using namespace kctest;

/*
 * Name resolution seen by the code under test.  The one test name
 * "several.korvat.test" resolves to ::1 and then 127.0.0.1, in that order;
 * every other name goes to the C library.
 */
static const char kSeveral[] = "several.korvat.test";

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
    struct addrinfo *v6 = nullptr, *v4 = nullptr;
    numeric.ai_family = AF_INET6;
    int rc = real("::1", service, &numeric, &v6);
    if (rc != 0)
        return rc;
    numeric.ai_family = AF_INET;
    rc = real("127.0.0.1", service, &numeric, &v4);
    if (rc != 0) {
        freeaddrinfo(v6);
        return rc;
    }
    struct addrinfo *last = v6;
    while (last->ai_next != nullptr)
        last = last->ai_next;
    last->ai_next = v4;
    *res = v6;
    return 0;
}

namespace {

int peerFamily(int fd)
{
    struct sockaddr_storage ss;
    socklen_t len = sizeof ss;
    if (getpeername(fd, (struct sockaddr *)&ss, &len) != 0)
        return -1;
    return ss.ss_family;
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

bool ipv6LoopbackAvailable()
{
    int port = 0;
    int fd = listenOn("::1", &port, AF_INET6);
    if (fd < 0)
        return false;
    close(fd);
    return true;
}

/* Listeners on ::1 and 127.0.0.1 sharing one port. */
bool listenOnBoth(int *v6, int *v4, int *port)
{
    for (int attempt = 0; attempt < 20; attempt++) {
        *v4 = listenOn("127.0.0.1", port);
        if (*v4 < 0)
            return false;
        *v6 = listenOn("::1", port, AF_INET6, *port);
        if (*v6 >= 0)
            return true;
        close(*v4);
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
    EXPECT_LT(waited, std::chrono::seconds(5));
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
    closeSocket(-1);
    shutdownSocket(-1);
    SUCCEED();
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
    int v6 = -1, v4 = -1, port = 0;
    if (!ipv6LoopbackAvailable())
        GTEST_SKIP() << "no IPv6 loopback here";
    ASSERT_TRUE(listenOnBoth(&v6, &v4, &port));
    close(v6); // ::1 now refuses; 127.0.0.1 still listens
    int fd = connectSocket(kSeveral, port);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(AF_INET, peerFamily(fd));
    int served = acceptWithin(v4);
    EXPECT_GE(served, 0);
    if (served >= 0)
        close(served);
    closeSocket(fd);
    close(v4);
}

TEST(SocketConnect, AddressesAreTriedInResolverOrder)
{
    int v6 = -1, v4 = -1, port = 0;
    if (!ipv6LoopbackAvailable())
        GTEST_SKIP() << "no IPv6 loopback here";
    ASSERT_TRUE(listenOnBoth(&v6, &v4, &port));
    int fd = connectSocket(kSeveral, port);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(AF_INET6, peerFamily(fd));
    EXPECT_TRUE(staysSilent(v4, 50)); // nobody knocked at the second address
    closeSocket(fd);
    close(v6);
    close(v4);
}

TEST(SocketConnect, NoAcceptingAddressGivesMinusOne)
{
    int v6 = -1, v4 = -1, port = 0;
    if (!ipv6LoopbackAvailable())
        GTEST_SKIP() << "no IPv6 loopback here";
    ASSERT_TRUE(listenOnBoth(&v6, &v4, &port));
    close(v6);
    close(v4);
    EXPECT_EQ(-1, connectSocket(kSeveral, port));
}
