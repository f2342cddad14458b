/*
 * A recorded shell for unit tests and fuzz targets: a shell backend
 * (util/shell.h) that runs nothing.  It records every command in order,
 * answers the commands whose output is read (run_shell_command) from
 * memory, and gives the commands run for their effect
 * (run_system_command) a status.  It is put in with setShellBackend for
 * the life of the object (one at a time); the real backend is put back
 * when it goes.
 *
 * What a read command prints, the first that applies:
 *   - outputs: the entry of exactly that command;
 *   - answer: a callback, when set and it returns true;
 *   - prefixOutputs: the entry of the longest key the command begins with;
 *   - nothing.
 * The status of a run command: the callback run when set, else runStatus.
 * onCommand is called with each command as it is recorded (before it is
 * answered), to note the state of the code under test at that moment.
 *
 * A read where readsAllowed is false, a run where runsAllowed is false, or
 * a read in a mode other than "r" (the runner only reads) aborts.
 * Commands may come from several threads: each is recorded and answered
 * under `mutex`, which the callbacks run under and which a test takes to
 * look at the record while such threads may run.
 */
#ifndef KC_TESTS_COMMON_RECORDED_SHELL_H
#define KC_TESTS_COMMON_RECORDED_SHELL_H

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "util/shell.h"

/* In a fuzz target the recorder is not what is being fuzzed: its
 * comparisons are kept out of the coverage feedback (clang; other
 * compilers build it plainly). */
#if defined(__clang__)
#define KC_RECORDED_SHELL_NOT_COVERED __attribute__((no_sanitize("coverage")))
#else
#define KC_RECORDED_SHELL_NOT_COVERED
#endif

namespace kctest {

/* One command as the recorded shell saw it. */
struct RanCommand {
    std::string command;
    bool read;          /* its output was read (run_shell_command), else it was run */
    std::string output; /* what a read command printed */
};

class RecordedShell {
public:
    RecordedShell()
    {
        if (current() != nullptr)
            abort(); // one recorded shell at a time
        current() = this;
        static const ShellBackend backend = {open, close, runCommand};
        setShellBackend(&backend);
    }
    ~RecordedShell()
    {
        setShellBackend(nullptr);
        current() = nullptr;
    }
    RecordedShell(const RecordedShell &) = delete;
    RecordedShell &operator=(const RecordedShell &) = delete;

    /* ---- what the device answers ---- */
    std::map<std::string, std::string> outputs;       /* by exact command */
    std::map<std::string, std::string> prefixOutputs; /* by prefix, longest wins */
    std::function<bool(const std::string &cmd, std::string *output)> answer;
    std::function<int(const std::string &cmd)> run;
    int runStatus = 0;
    std::function<void(const std::string &cmd)> onCommand;
    bool readsAllowed = true;
    bool runsAllowed = true;

    /* ---- the record ---- */
    std::vector<std::string> commands; /* every command, oldest first */
    std::vector<RanCommand> ran;       /* the same, with how each came */
    int opened = 0;                    /* streams handed out and closed */
    int closed = 0;
    std::mutex mutex;

    /* The commands that begin with prefix, in order. */
    std::vector<std::string> commandsStartingWith(const std::string &prefix) const
    {
        std::vector<std::string> out;
        for (const std::string &c : commands)
            if (c.compare(0, prefix.size(), prefix) == 0)
                out.push_back(c);
        return out;
    }
    /* The read commands, and the run ones, in order. */
    std::vector<std::string> reads() const { return ofKind(true); }
    std::vector<std::string> runs() const { return ofKind(false); }

    /* The first read command that contains text: its output into *output;
     * false when none ran. */
    bool outputOf(const std::string &text, std::string *output) const
    {
        for (const RanCommand &r : ran) {
            if (r.read && r.command.find(text) != std::string::npos) {
                *output = r.output;
                return true;
            }
        }
        return false;
    }

    /* Forgets the commands (the answers stay). */
    void clearRecord()
    {
        commands.clear();
        ran.clear();
        opened = 0;
        closed = 0;
    }

    /* The text read command cmd prints (as the recorder answers it, without
     * recording it). */
    KC_RECORDED_SHELL_NOT_COVERED std::string outputFor(const std::string &cmd)
    {
        auto exact = outputs.find(cmd);
        if (exact != outputs.end())
            return exact->second;
        std::string text;
        if (answer && answer(cmd, &text))
            return text;
        const std::string *best = nullptr;
        size_t bestSize = 0;
        for (const auto &entry : prefixOutputs) {
            if (cmd.compare(0, entry.first.size(), entry.first) == 0 &&
                (best == nullptr || entry.first.size() >= bestSize)) {
                best = &entry.second;
                bestSize = entry.first.size();
            }
        }
        return best != nullptr ? *best : std::string();
    }

private:
    static RecordedShell *&current()
    {
        static RecordedShell *shell = nullptr;
        return shell;
    }

    std::vector<std::string> ofKind(bool read) const
    {
        std::vector<std::string> out;
        for (const RanCommand &r : ran)
            if (r.read == read)
                out.push_back(r.command);
        return out;
    }

    KC_RECORDED_SHELL_NOT_COVERED void record(const char *cmd)
    {
        commands.push_back(cmd);
        if (onCommand)
            onCommand(commands.back());
    }

    KC_RECORDED_SHELL_NOT_COVERED static FILE *open(const char *cmd, const char *mode)
    {
        RecordedShell *self = current();
        std::lock_guard<std::mutex> hold(self->mutex);
        if (cmd == nullptr || mode == nullptr || strcmp(mode, "r") != 0 || !self->readsAllowed)
            abort();
        self->record(cmd);
        std::string text = self->outputFor(cmd);
        self->ran.push_back({cmd, true, text});
        FILE *stream = fmemopen(nullptr, text.size() + 1, "w+");
        if (stream == nullptr)
            abort();
        if (fwrite(text.data(), 1, text.size(), stream) != text.size())
            abort();
        rewind(stream);
        self->opened++;
        return stream;
    }

    KC_RECORDED_SHELL_NOT_COVERED static int close(FILE *stream)
    {
        RecordedShell *self = current();
        std::lock_guard<std::mutex> hold(self->mutex);
        if (!self->readsAllowed)
            abort();
        self->closed++;
        fclose(stream);
        return 0;
    }

    KC_RECORDED_SHELL_NOT_COVERED static int runCommand(const char *cmd)
    {
        RecordedShell *self = current();
        std::lock_guard<std::mutex> hold(self->mutex);
        if (cmd == nullptr || !self->runsAllowed)
            abort();
        self->record(cmd);
        self->ran.push_back({cmd, false, std::string()});
        return self->run ? self->run(cmd) : self->runStatus;
    }
};

} // namespace kctest

#endif
