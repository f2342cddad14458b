/*
 * An in-memory device for the wireless helpers and handlers: a recorded
 * shell (recorded_shell.h) with a UCI store that answers "uci get PATH [|
 * tr -d '\n']" and takes "uci set PATH=..." (quoted values unescaped as the
 * shell would), the utility script's "getNetwordId" (the masked address)
 * and canned answers for other commands.  No device command runs while it
 * lives.  Every command is recorded in order, with the number of replies
 * waiting in the reply queue when it ran.  Also how the handler tests call
 * a handler on it: both radios present, the template device's lists, the
 * replies a request gives and their texts.
 */
#ifndef KC_TESTS_UNIT_FAKE_UCI_H
#define KC_TESTS_UNIT_FAKE_UCI_H

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "client/handlers.h"
#include "recorded_shell.h"
#include "test_support.h"
#include "util/radios.h"
#include "util/shell.h"

namespace kctest {

class FakeUci : public RecordedShell {
public:
    FakeUci()
    {
        answer = [this](const std::string &cmd, std::string *text) {
            return storeAnswer(cmd, text);
        };
        run = [this](const std::string &cmd) {
            apply(cmd);
            return 0;
        };
        onCommand = [this](const std::string &) {
            repliesQueued.push_back(filledCount(g_sendQueues[SEND_QUEUE_REPLY]));
        };
    }

    /* The store: path -> value. */
    std::map<std::string, std::string> uci;
    /* Output of commands that start with the key (longest key wins). */
    std::map<std::string, std::string> &canned = prefixOutputs;
    /* The replies queued when each command (commands) ran. */
    std::vector<int> repliesQueued;

    bool has(const std::string &path) const { return uci.count(path) != 0; }
    std::string get(const std::string &path) const
    {
        auto it = uci.find(path);
        return it == uci.end() ? "<unset>" : it->second;
    }
    std::vector<std::string> sets() const { return commandsStartingWith("uci set "); }
    void clearRecord()
    {
        RecordedShell::clearRecord();
        repliesQueued.clear();
    }

    /* "uci set PATH=..." into the store. */
    void apply(const std::string &cmd)
    {
        const std::string set = "uci set ";
        if (cmd.compare(0, set.size(), set) != 0)
            return;
        std::string rest = cmd.substr(set.size());
        size_t eq = rest.find('=');
        if (eq == std::string::npos)
            return;
        std::string path = rest.substr(0, eq);
        std::string raw = rest.substr(eq + 1);
        std::string value;
        if (raw.size() >= 2 && raw.front() == '"' && raw.back() == '"') {
            for (size_t i = 1; i + 1 < raw.size(); i++) {
                if (raw[i] == '\\' && i + 2 < raw.size() && strchr("\"$`\\", raw[i + 1]))
                    i++;
                value.push_back(raw[i]);
            }
        } else {
            value = raw;
        }
        uci[path] = value;
    }

private:
    /* "uci get" from the store, "getNetwordId" computed; false for any
     * other command (the canned answers). */
    bool storeAnswer(const std::string &cmd, std::string *text) const
    {
        const std::string get = "uci get ";
        const std::string tr = " | tr -d '\\n'";
        if (cmd.compare(0, get.size(), get) == 0) {
            std::string rest = cmd.substr(get.size());
            bool stripped = rest.size() >= tr.size() &&
                            rest.compare(rest.size() - tr.size(), tr.size(), tr) == 0;
            std::string path = stripped ? rest.substr(0, rest.size() - tr.size()) : rest;
            auto it = uci.find(path);
            if (it == uci.end())
                *text = "";
            else
                *text = stripped ? it->second : it->second + "\n";
            return true;
        }
        const std::string networkId = std::string(KAPRI_UTIL_SCRIPT) + " getNetwordId ";
        if (cmd.compare(0, networkId.size(), networkId) == 0) {
            std::vector<std::string> words = splitWords(cmd.substr(networkId.size()));
            words.resize(2);
            *text = maskedAddress(words[0], words[1]) + "\n";
            return true;
        }
        return false;
    }

    /* Words of a command line, single quotes taken off. */
    static std::vector<std::string> splitWords(const std::string &text)
    {
        std::vector<std::string> words;
        std::string word;
        bool quoted = false;
        bool any = false;
        for (char c : text) {
            if (c == '\'') {
                quoted = !quoted;
                any = true;
            } else if (c == ' ' && !quoted) {
                if (any)
                    words.push_back(word);
                word.clear();
                any = false;
            } else {
                word.push_back(c);
                any = true;
            }
        }
        if (any)
            words.push_back(word);
        return words;
    }

    static std::string maskedAddress(const std::string &address, const std::string &mask)
    {
        unsigned a[4] = {0, 0, 0, 0};
        unsigned m[4] = {0, 0, 0, 0};
        if (sscanf(address.c_str(), "%u.%u.%u.%u", &a[0], &a[1], &a[2], &a[3]) != 4 ||
            sscanf(mask.c_str(), "%u.%u.%u.%u", &m[0], &m[1], &m[2], &m[3]) != 4)
            return "0.0.0.0";
        char out[32];
        snprintf(out, sizeof out, "%u.%u.%u.%u", a[0] & m[0], a[1] & m[1], a[2] & m[2],
                 a[3] & m[3]);
        return out;
    }
};

/* ---- calling a handler on the device ---- */

/* Both radios present, for the life of the object. */
struct DualBand {
    DualBand() : saved2(g_support2G.load()), saved5(g_support5G.load())
    {
        g_support2G = 1;
        g_support5G = 1;
    }
    ~DualBand()
    {
        g_support2G = saved2;
        g_support5G = saved5;
    }
    int saved2, saved5;
};

/* The template device's wireless lists. */
inline void seed(FakeUci &dev)
{
    dev.uci["wireless.wifi0.wlanlist"] = "0,1";
    dev.uci["wireless.wifi0.enlist"] = "1,1";
    dev.uci["wireless.wifi0.network_profile"] = "w0_index0:w1_index0,w0_index1";
    dev.uci["wireless.wifi1.wlanlist"] = "0";
    dev.uci["wireless.wifi1.enlist"] = "1";
    dev.uci["wireless.wifi0.opmode"] = "ap";
    dev.uci["wireless.wifi1.opmode"] = "ap";
}

/* Calls a handler with a request text; the replies it queued. */
inline std::vector<std::string> handle(void (*handler)(const cJSON *), const std::string &text)
{
    drainReplies();
    cJSON *request = cJSON_Parse(text.c_str());
    EXPECT_NE(nullptr, request);
    handler(request);
    cJSON_Delete(request);
    return drainReplies();
}

/* The texts of a success reply and of a refusal of the parameters. */
inline std::string success(const char *id)
{
    return std::string("{\"jsonrpc\":\"2.0\",\"id\":\"") + id +
           "\",\"result\":{\"deviceId\":\"" + g_deviceMac + "\"}}";
}

inline std::string refusal(const char *id, const char *data)
{
    return std::string("{\"jsonrpc\":\"2.0\",\"id\":\"") + id +
           "\",\"error\":{\"code\":-32602,\"message\":\"Invalid method parameter\",\"data\":\"" +
           data + "\"}}";
}

} // namespace kctest

#endif
