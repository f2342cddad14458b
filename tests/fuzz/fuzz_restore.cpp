/*
 * Fuzzes the restore of a queue from its backup file (restore_queue), the
 * file the agent finds in /etc at start-up: a count line, then one JSON
 * tree a line.
 *
 * Input: the whole file.  It is written to a private temporary file and
 * restored into a private queue of 10 slots whose refusals are counted.
 *
 * A line that is not JSON stops the agent with an assertion by design
 * (the unit tests show it), so the target keeps to the other inputs: it
 * works out first, independently, which lines the restore will read and
 * skips any input where one of them does not parse.  The reading it
 * models: the count is atoi of the first fgets chunk (at most 9
 * characters, or up to and including the first newline); then whole lines,
 * each up to and including its newline (the last one may lack it), each
 * parsed as a C string (up to a NUL byte), until the number read equals
 * the count or the file ends.
 *
 * No command runs: a recorded shell records; the restore's only command
 * is the removal of its file.
 *
 * Oracles: the queue holds the first 10 of those trees in file order
 * (printed as cJSON prints each line), the rest were refused; the one
 * command is "rm -f <file>".  Nothing leaks.
 */
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <cjson/cJSON.h>

#include "fuzz_oracles.h"
#include "linux/sem.h"
#include "sdk/queue_backup.h"
#include "recorded_shell.h"
#include "sdk/queue_manager.h"

namespace {

char s_dir[] = "/tmp/kc-fuzz-restore-XXXXXX";
std::string s_file;
JsonQueue s_queue;
int s_refused = 0;
kctest::RecordedShell *s_shell = nullptr;

void removeDir(void)
{
    unlink(s_file.c_str());
    rmdir(s_dir);
}

void countRefused(cJSON *tree)
{
    s_refused++;
    cJSON_Delete(tree);
}

using kcfuzz::printed;

/* The trees the restore will read, printed; false when one of the lines it
 * reads does not parse (the assertion path). */
bool expectedTrees(const char *data, size_t size, std::vector<std::string> *trees)
{
    // first line: fgets into 10 bytes
    size_t first = 0;
    while (first < size && first < 9) {
        first++;
        if (data[first - 1] == '\n')
            break;
    }
    std::string firstText(data, first);
    int count = atoi(firstText.c_str());
    size_t at = first;
    int restored = 0;
    while (at < size) {
        const char *nl = static_cast<const char *>(memchr(data + at, '\n', size - at));
        size_t len = nl != nullptr ? (size_t)(nl - (data + at)) + 1 : size - at;
        std::string line(data + at, len);
        at += len;
        cJSON *tree = cJSON_Parse(line.c_str());
        if (tree == nullptr)
            return false;
        trees->push_back(printed(tree));
        cJSON_Delete(tree);
        if (++restored == count)
            break;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    if (mkdtemp(s_dir) == nullptr)
        abort();
    s_file = std::string(s_dir) + "/cloud_recv_cmd.backup";
    atexit(removeDir);
    s_shell = new kctest::RecordedShell;
    s_shell->readsAllowed = false; // the restore reads no command's output
    initQueue(&s_queue, QUEUE_CAPACITY);
    setQueueRefusal(&s_queue, countRefused);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const char *bytes = reinterpret_cast<const char *>(data);
    std::vector<std::string> expected;
    if (!expectedTrees(bytes, size, &expected))
        return 0;

    FILE *out = fopen(s_file.c_str(), "wb");
    if (out == nullptr || fwrite(bytes, 1, size, out) != size || fclose(out) != 0)
        abort();
    s_shell->clearRecord();
    s_refused = 0;

    restore_queue(s_file.c_str(), &s_queue);

    std::vector<std::string> queued;
    int value = 0;
    while (sem_getvalue(&s_queue.filledSlots, &value) == 0 && value > 0) {
        cJSON *tree = nullptr;
        consumeObject(&s_queue, &tree);
        queued.push_back(printed(tree));
        cJSON_Delete(tree);
    }
    size_t kept = expected.size() < QUEUE_CAPACITY ? expected.size() : QUEUE_CAPACITY;
    if (queued.size() != kept || (size_t)s_refused != expected.size() - kept)
        abort();
    for (size_t i = 0; i < kept; i++)
        if (queued[i] != expected[i])
            abort();
    if (s_shell->commands.size() != 1 || s_shell->commands[0] != "rm -f " + s_file)
        abort();
    unlink(s_file.c_str());
    return 0;
}
