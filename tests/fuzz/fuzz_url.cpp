/*
 * Fuzzes the server URL parser: the input, as text, is given to
 * initWebsocketConnection.
 *
 * Oracle: the expectation is worked out with sscanf itself, trying the
 * eight accepted forms in their order and taking the first that fills all
 * of its fields:
 *   ws://%[^:/]:%d/%s   ws://%[^:/]/%s (port 80)   ws://%[^:/]:%d (no path)
 *   ws://%[^:/] (port 80, no path), and the same four for wss:// (port
 *   443 where none is given)
 * No form matching, or a host or path of 128 characters or more (the
 * parser refuses rather than cut them), must give NULL.  Otherwise the
 * record has exactly that host, port and path, TLS exactly for wss://, the
 * origin given (its first 128 bytes), and is not connected.  A port
 * beyond the int range is left to the parser (sscanf's %d does not define
 * it) and only its host and path are compared.
 */
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "websocket/connection.h"

namespace {

struct Expected {
    bool matched = false;
    std::string host;
    std::string path;
    int port = 0;
    bool portKnown = true; // false for a port beyond int
    bool tls = false;
};

/* The digits sscanf's %d would take at p (blanks, sign, digits), as a
 * long long; false when the value does not fit an int. */
bool portFits(const char *p)
{
    while (*p == ' ' || (*p >= '\t' && *p <= '\r'))
        p++;
    if (*p == '+' || *p == '-')
        p++;
    while (*p == '0')
        p++;
    size_t digits = 0;
    while (p[digits] >= '0' && p[digits] <= '9')
        digits++;
    if (digits > 10)
        return false;
    long long v = atoll(std::string(p, digits).c_str());
    return v <= INT_MAX; // a negative one down to INT_MIN fits too
}

Expected expect(const char *url)
{
    Expected e;
    size_t n = strlen(url) + 1;
    std::vector<char> host(n), path(n);
    int port = 0;
    struct Form {
        const char *pattern;
        int fields;  // conversions that must succeed
        bool hasPort;
        bool hasPath;
        bool tls;
    };
    static const Form kForms[] = {
        {"ws://%[^:/]:%d/%s", 3, true, true, false},
        {"ws://%[^:/]/%s", 2, false, true, false},
        {"ws://%[^:/]:%d", 2, true, false, false},
        {"ws://%[^:/]", 1, false, false, false},
        {"wss://%[^:/]:%d/%s", 3, true, true, true},
        {"wss://%[^:/]/%s", 2, false, true, true},
        {"wss://%[^:/]:%d", 2, true, false, true},
        {"wss://%[^:/]", 1, false, false, true},
    };
    for (const Form &form : kForms) {
        int got;
        if (form.hasPort && form.hasPath)
            got = sscanf(url, form.pattern, host.data(), &port, path.data());
        else if (form.hasPort)
            got = sscanf(url, form.pattern, host.data(), &port);
        else if (form.hasPath)
            got = sscanf(url, form.pattern, host.data(), path.data());
        else
            got = sscanf(url, form.pattern, host.data());
        if (got != form.fields)
            continue;
        e.matched = true;
        e.tls = form.tls;
        e.host = host.data();
        e.path = form.hasPath ? path.data() : "";
        if (form.hasPort) {
            e.port = port;
            // the port's text: after the host and its colon
            const char *colon = url + (form.tls ? 6 : 5) + e.host.size();
            e.portKnown = portFits(colon + 1);
        } else {
            e.port = form.tls ? 443 : 80;
        }
        return e;
    }
    return e;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string url(reinterpret_cast<const char *>(data), size);
    Expected want = expect(url.c_str());
    WbsConnection *conn = initWebsocketConnection(url.c_str(), url.c_str(), nullptr, nullptr);
    bool refused = !want.matched || want.host.size() >= 128 || want.path.size() >= 128;
    if (refused) {
        if (conn != nullptr)
            abort();
        return 0;
    }
    if (conn == nullptr)
        abort();
    if (memchr(conn->host, '\0', sizeof conn->host) == nullptr ||
        memchr(conn->path, '\0', sizeof conn->path) == nullptr)
        abort();
    if (want.host != conn->host || want.path != conn->path)
        abort();
    if (want.portKnown && want.port != conn->port)
        abort();
    if (conn->useTls != (want.tls ? 1 : 0))
        abort();
    // the origin: a bounded copy of 128 bytes (a longer text fills the
    // field without a terminator)
    size_t originBytes = strlen(url.c_str()) + 1;
    if (memcmp(conn->origin, url.c_str(), originBytes < 128 ? originBytes : 128) != 0)
        abort();
    if (conn->fd != -1 || conn->state != WBS_STATE_CONNECTING)
        abort();
    freeWebsocketConnection(conn);
    return 0;
}
