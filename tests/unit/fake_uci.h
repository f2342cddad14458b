/*
 * An in-memory device for the wireless helpers and handlers: a UCI store
 * that answers "uci get PATH [| tr -d '\n']" and takes "uci set PATH=..."
 * (quoted values unescaped as the shell would), the utility script's
 * "getNetwordId" (the masked address) and canned answers for other
 * commands.  It is put in with setShellBackend for the life of the object,
 * so no device command runs.  Every command is recorded in order, with the
 * number of replies waiting in the reply queue when it ran.
 */
#ifndef KC_TESTS_UNIT_FAKE_UCI_H
#define KC_TESTS_UNIT_FAKE_UCI_H

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "test_support.h"
#include "util/shell.h"

namespace kctest {

class FakeUci {
public:
    FakeUci()
    {
        current() = this;
        static const ShellBackend backend = {open, close, run};
        setShellBackend(&backend);
    }
    ~FakeUci()
    {
        setShellBackend(nullptr);
        current() = nullptr;
    }
    FakeUci(const FakeUci &) = delete;
    FakeUci &operator=(const FakeUci &) = delete;

    /* The store: path -> value. */
    std::map<std::string, std::string> uci;
    /* Output of commands that start with the key (longest key wins). */
    std::map<std::string, std::string> canned;
    /* Every command, oldest first, and the replies queued when it ran. */
    std::vector<std::string> commands;
    std::vector<int> repliesQueued;

    bool has(const std::string &path) const { return uci.count(path) != 0; }
    std::string get(const std::string &path) const
    {
        auto it = uci.find(path);
        return it == uci.end() ? "<unset>" : it->second;
    }
    /* Commands starting with prefix, in order. */
    std::vector<std::string> commandsStartingWith(const std::string &prefix) const
    {
        std::vector<std::string> out;
        for (const std::string &c : commands)
            if (c.compare(0, prefix.size(), prefix) == 0)
                out.push_back(c);
        return out;
    }
    std::vector<std::string> sets() const { return commandsStartingWith("uci set "); }
    void clearRecord()
    {
        commands.clear();
        repliesQueued.clear();
    }

    /* The text a command prints on this device. */
    std::string output(const std::string &cmd)
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
                return "";
            return stripped ? it->second : it->second + "\n";
        }
        const std::string networkId = std::string(KAPRI_UTIL_SCRIPT) + " getNetwordId ";
        if (cmd.compare(0, networkId.size(), networkId) == 0) {
            std::vector<std::string> words = splitWords(cmd.substr(networkId.size()));
            words.resize(2);
            return maskedAddress(words[0], words[1]) + "\n";
        }
        std::string best;
        std::string text;
        for (const auto &entry : canned) {
            if (cmd.compare(0, entry.first.size(), entry.first) == 0 &&
                entry.first.size() >= best.size()) {
                best = entry.first;
                text = entry.second;
            }
        }
        return text;
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
    static FakeUci *&current()
    {
        static FakeUci *device = nullptr;
        return device;
    }

    void record(const char *cmd)
    {
        commands.push_back(cmd);
        repliesQueued.push_back(filledCount(g_sendQueues[SEND_QUEUE_REPLY]));
    }

    static FILE *open(const char *cmd, const char *mode)
    {
        (void)mode;
        FakeUci *self = current();
        self->record(cmd);
        std::string text = self->output(cmd);
        FILE *stream = fmemopen(nullptr, text.size() + 1, "w+");
        if (stream == nullptr)
            abort();
        fwrite(text.data(), 1, text.size(), stream);
        rewind(stream);
        return stream;
    }
    static int close(FILE *stream) { return fclose(stream); }
    static int run(const char *cmd)
    {
        FakeUci *self = current();
        self->record(cmd);
        self->apply(cmd);
        return 0;
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

} // namespace kctest

#endif
