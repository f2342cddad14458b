/*
 * Shared helpers of the unit tests: a private temporary directory, a PATH
 * that holds fake device tools, the reply queue drained into texts, a
 * connection record whose socket is one end of a socketpair, and bounded
 * reads from the peer end so that no test can hang.
 */
#ifndef KC_TESTS_UNIT_TEST_SUPPORT_H
#define KC_TESTS_UNIT_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <cjson/cJSON.h>

#include "sdk/sdk_private.h"
#include "websocket/connection.h"
#include "linux/sem.h"
#include "sdk/nimb_sdk.h"
#include "sdk/queue_manager.h"
#include "websocket/connection.h"
#include "websocket/framing.h"
#include "websocket/handshake.h"
#include "websocket/url.h"
#include "websocket/base64.h"
#include "util/random.h"

namespace kctest {

/* KC_TIMEOUT_SCALE (default 1): waits for something to happen are that
 * many times longer on a loaded machine, under the sanitizers or under
 * emulation.  A wait that succeeds still ends as soon as it does. */
inline int kcTestTimeScale()
{
    const char *text = getenv("KC_TIMEOUT_SCALE");
    int scale = text != nullptr ? atoi(text) : 1;
    return scale > 0 ? scale : 1;
}

/* Polls condition every 5 ms for up to ms milliseconds (times
 * KC_TIMEOUT_SCALE); its last value. */
inline bool waitFor(const std::function<bool()> &condition, int ms = 3000)
{
    ms *= kcTestTimeScale();
    for (int waited = 0; waited < ms; waited += 5) {
        if (condition())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

/* A bound in milliseconds for a wait for something to happen, scaled like
 * waitFor's. */
inline int scaledMs(int ms)
{
    return ms * kcTestTimeScale();
}

/* The kernel's id of the calling thread. */
inline long currentTid()
{
    return (long)syscall(SYS_gettid);
}

/* True while thread tid of this process sleeps in the kernel (state S: it
 * waits for a futex, a descriptor ...); false while it runs, and once it
 * has ended. */
inline bool threadSleeps(long tid)
{
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t name = stat.rfind(')');
    return name != std::string::npos && name + 2 < stat.size() && stat[name + 2] == 'S';
}

/*
 * A thread that makes one call which the test expects to block.  blocked()
 * proves it without a fixed sleep: it waits until the thread has reached
 * the call and sleeps in the kernel, or until the call has returned.  A
 * negative check made after blocked() ("the call has not returned") thus
 * always looks at a thread that really got that far.
 *
 *     BlockingCall producer([&] { produceObject(&q, tree, PRODUCE_BLOCKING); });
 *     ASSERT_TRUE(producer.blocked()) << "went past a full queue";
 *     ... free a slot ...
 *     EXPECT_TRUE(producer.returnsSoon());
 */
class BlockingCall {
public:
    explicit BlockingCall(std::function<void()> call)
        : call_(std::move(call)), thread_([this] {
              tid_ = currentTid();
              reached_ = true;
              call_();
              returned_ = true;
          })
    {
    }
    /* A call that never returns would hang the whole run here: it ends
     * the run with a message instead. */
    ~BlockingCall()
    {
        if (!thread_.joinable())
            return;
        if (!waitFor([&] { return returned_.load(); })) {
            fprintf(stderr, "a call under test never returned (thread %ld)\n", tid_.load());
            abort();
        }
        thread_.join();
    }
    BlockingCall(const BlockingCall &) = delete;
    BlockingCall &operator=(const BlockingCall &) = delete;

    /* True when the thread sleeps inside the call; false when the call
     * returned (or the thread never got there within the wait). */
    bool blocked()
    {
        waitFor([&] { return returned_.load() || sleepsInCall(); });
        return !returned_.load() && sleepsInCall();
    }
    bool returned() const { return returned_.load(); }
    /* Waits (bounded) for the call to return, then joins the thread. */
    bool returnsSoon()
    {
        bool done = waitFor([&] { return returned_.load(); });
        if (done)
            thread_.join();
        return done;
    }
    long tid() const { return tid_.load(); }

private:
    bool sleepsInCall() const { return reached_.load() && threadSleeps(tid_.load()); }

    std::atomic<long> tid_{0};
    std::atomic<bool> reached_{false};
    std::atomic<bool> returned_{false};
    std::function<void()> call_;
    std::thread thread_; /* last: starts once the members above exist */
};

/* A directory made with mkdtemp, removed with everything in it. */
class TempDir {
public:
    TempDir()
    {
        char pattern[] = "/tmp/kc-unit-XXXXXX";
        char *made = mkdtemp(pattern);
        if (made == nullptr)
            abort();
        path_ = made;
    }
    ~TempDir()
    {
        std::string cmd = "/bin/rm -rf '" + path_ + "'";
        int ignored = system(cmd.c_str());
        (void)ignored;
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

    void write(const std::string &name, const std::string &text, mode_t mode = 0644) const
    {
        std::string full = file(name);
        std::string dir = full.substr(0, full.rfind('/'));
        std::string mk = "/bin/mkdir -p '" + dir + "'";
        int ignored = system(mk.c_str());
        (void)ignored;
        std::ofstream out(full, std::ios::binary | std::ios::trunc);
        out << text;
        out.close();
        chmod(full.c_str(), mode);
    }

    std::string read(const std::string &name) const { return readFile(file(name)); }
    bool exists(const std::string &name) const { return access(file(name).c_str(), F_OK) == 0; }

    static std::string readFile(const std::string &full)
    {
        std::ifstream in(full, std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

private:
    std::string path_;
};

/*
 * A directory of fake tools placed first in PATH for the life of the
 * object.  With keepSystemPath the ordinary tools (tr, sed, awk ...) stay
 * reachable behind the fakes; without it only the fakes exist, so any
 * other command fails harmlessly.
 */
class FakeTools {
public:
    explicit FakeTools(bool keepSystemPath = true)
    {
        const char *old = getenv("PATH");
        hadPath_ = old != nullptr;
        if (hadPath_)
            oldPath_ = old;
        std::string path = dir_.path() + "/bin";
        std::string mk = "/bin/mkdir -p '" + path + "'";
        int ignored = system(mk.c_str());
        (void)ignored;
        if (keepSystemPath)
            path += ":" + (hadPath_ ? oldPath_ : std::string("/usr/bin:/bin"));
        setenv("PATH", path.c_str(), 1);
    }
    ~FakeTools()
    {
        if (hadPath_)
            setenv("PATH", oldPath_.c_str(), 1);
        else
            unsetenv("PATH");
    }
    FakeTools(const FakeTools &) = delete;
    FakeTools &operator=(const FakeTools &) = delete;

    /* A /bin/sh script named name whose body is body. */
    void tool(const std::string &name, const std::string &body) const
    {
        dir_.write("bin/" + name, "#!/bin/sh\n" + body + "\n", 0755);
    }
    /* A tool that appends its arguments, joined by "|", to calls.log, prints
     * output (a printf format) and exits with status. */
    void recorder(const std::string &name, const std::string &output = "",
                  int status = 0) const
    {
        std::string body = "printf '%s|' \"$@\" >> '" + dir_.file("calls.log") +
                           "'\necho >> '" + dir_.file("calls.log") + "'\n";
        if (!output.empty())
            body += "printf '" + output + "'\n";
        body += "exit " + std::to_string(status);
        tool(name, body);
    }
    std::string calls() const { return dir_.exists("calls.log") ? dir_.read("calls.log") : ""; }
    const TempDir &dir() const { return dir_; }

private:
    TempDir dir_;
    bool hadPath_ = false;
    std::string oldPath_;
};

/* Texts of every tree waiting in the reply queue, oldest first; the trees
 * are deleted. */
inline std::vector<std::string> drainReplies(JsonQueue &queue = g_sendQueues[SEND_QUEUE_REPLY])
{
    std::vector<std::string> texts;
    int value = 0;
    /* trees handed over to a next start are not taken: forget the mark */
    queue.handedOver = 0;
    while (sem_getvalue(&queue.filledSlots, &value) == 0 && value > 0) {
        cJSON *tree = nullptr;
        consumeObject(&queue, &tree);
        char *text = cJSON_PrintUnformatted(tree);
        texts.push_back(text != nullptr ? text : "");
        cJSON_free(text);
        cJSON_Delete(tree);
    }
    return texts;
}

inline int filledCount(JsonQueue &queue)
{
    int value = 0;
    sem_getvalue(&queue.filledSlots, &value);
    return value;
}

/* Reads up to n bytes from fd, waiting at most timeoutMs (scaled) for each
 * part; stops early at end of stream or time-out. */
inline std::string readSome(int fd, size_t n, int timeoutMs = 3000)
{
    timeoutMs = scaledMs(timeoutMs);
    std::string out;
    std::vector<char> buf(n);
    while (out.size() < n) {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, timeoutMs) <= 0)
            break;
        ssize_t got = read(fd, buf.data(), n - out.size());
        if (got <= 0)
            break;
        out.append(buf.data(), (size_t)got);
    }
    return out;
}

/* True when fd has nothing to read and is not at end of stream within
 * timeoutMs. */
inline bool staysSilent(int fd, int timeoutMs = 100)
{
    struct pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, timeoutMs) == 0;
}

/* True when the peer has closed (or shut down) its side within timeoutMs
 * (scaled). */
inline bool atEndOfStream(int fd, int timeoutMs = 3000)
{
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, scaledMs(timeoutMs)) <= 0)
        return false;
    char c;
    return read(fd, &c, 1) == 0;
}

inline void writeAll(int fd, const std::string &bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t put = write(fd, bytes.data() + done, bytes.size() - done);
        if (put <= 0)
            return;
        done += (size_t)put;
    }
}

inline std::string bytes(std::initializer_list<int> list)
{
    std::string s;
    for (int b : list)
        s.push_back((char)(unsigned char)b);
    return s;
}

/* The process-wide random generator worked out independently. */
struct ReferenceRandom {
    uint32_t z, w;
    explicit ReferenceRandom(uint32_t seed)
    {
        w = seed != 0 ? seed : 1;
        z = w + 3412;
    }
    uint32_t next()
    {
        z = 36969u * (z & 65535u) + (z >> 16);
        w = 18000u * (w & 65535u) + (w >> 16);
        return (z << 16) + w;
    }
};

/* Counters of the connection callbacks. */
extern std::atomic<int> g_pingCalls;
extern std::atomic<int> g_closeCalls;
void countPing(void);
void countClose(void);

/*
 * A connection record in the open state whose socket is one end of a
 * socketpair; the test plays the server on the other end.
 */
class PairConnection {
public:
    explicit PairConnection(const char *url = "ws://127.0.0.1:1/",
                            const char *origin = "00:11:22:33:44:55")
    {
        conn = initWebsocketConnection(url, origin, countPing, countClose);
        if (conn == nullptr)
            abort();
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0)
            abort();
        conn->fd = sv[0];
        conn->state = WBS_STATE_OPEN;
        peer = sv[1];
        g_pingCalls = 0;
        g_closeCalls = 0;
    }
    ~PairConnection()
    {
        if (conn != nullptr)
            freeWebsocketConnection(conn);
        if (peer != -1)
            close(peer);
    }
    PairConnection(const PairConnection &) = delete;
    PairConnection &operator=(const PairConnection &) = delete;

    void send(const std::string &data) const { writeAll(peer, data); }
    void closePeer()
    {
        close(peer);
        peer = -1;
    }

    WbsConnection *conn = nullptr;
    int peer = -1;
};

/* A listening TCP socket on a loopback address with an ephemeral port. */
inline int listenOn(const char *address, int *port, int family = AF_INET, int wantedPort = 0)
{
    int fd = socket(family, SOCK_STREAM, 0);
    if (fd < 0)
        return -1;
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    int rc;
    if (family == AF_INET6) {
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
        struct sockaddr_in6 a;
        memset(&a, 0, sizeof a);
        a.sin6_family = AF_INET6;
        a.sin6_port = htons((uint16_t)wantedPort);
        inet_pton(AF_INET6, address, &a.sin6_addr);
        rc = bind(fd, (struct sockaddr *)&a, sizeof a);
    } else {
        struct sockaddr_in a;
        memset(&a, 0, sizeof a);
        a.sin_family = AF_INET;
        a.sin_port = htons((uint16_t)wantedPort);
        inet_pton(AF_INET, address, &a.sin_addr);
        rc = bind(fd, (struct sockaddr *)&a, sizeof a);
    }
    if (rc != 0 || listen(fd, 8) != 0) {
        close(fd);
        return -1;
    }
    struct sockaddr_storage ss;
    socklen_t len = sizeof ss;
    getsockname(fd, (struct sockaddr *)&ss, &len);
    if (ss.ss_family == AF_INET6)
        *port = ntohs(((struct sockaddr_in6 *)&ss)->sin6_port);
    else
        *port = ntohs(((struct sockaddr_in *)&ss)->sin_port);
    return fd;
}

/* accept() bounded by timeoutMs (scaled); -1 when nobody came. */
inline int acceptWithin(int listener, int timeoutMs = 3000)
{
    struct pollfd p = {listener, POLLIN, 0};
    if (poll(&p, 1, scaledMs(timeoutMs)) <= 0)
        return -1;
    return accept(listener, nullptr, nullptr);
}

/*
 * Stand-in for a long silence (silent_select.cpp): while g_silentSelectFd
 * is a descriptor, waiting for it to become readable ends at once with a
 * time-out unless data is already there, and the bound that was asked for
 * (in seconds) is kept in g_silentSelectSeconds.
 */
extern std::atomic<int> g_silentSelectFd;
extern std::atomic<long> g_silentSelectSeconds;

class SilentSelect {
public:
    explicit SilentSelect(int fd)
    {
        g_silentSelectSeconds = -1;
        g_silentSelectFd = fd;
    }
    ~SilentSelect() { g_silentSelectFd = -1; }
    SilentSelect(const SilentSelect &) = delete;
    SilentSelect &operator=(const SilentSelect &) = delete;
};

} // namespace kctest

#endif
