/*
 * Fuzzes the CPU sampler: calculateCPUUsage reads the aggregate idle time
 * and the sum of the aggregate times of /proc/stat through two commands
 * and sets the CPU figure to the busy share since the previous sample.
 * No command runs: a recorded shell answers them from the input.
 *
 * Input: a run of samples separated by NUL bytes, each the idle command's
 * output, a newline, and the total command's output (a sample without a
 * newline gives the total command no output).  The runner reads the first
 * line of each output.  Before the samples the
 * sampler is brought to a known state with the sample 0, 0.
 *
 * Oracle, for each sample: the two commands run, in this order, and
 * nothing else; when both printed something the sample is taken (each
 * output read as an unsigned decimal, as "%lu" reads it: 0 without
 * digits) and the figure becomes 100 - (idle - previous idle) * 100 /
 * (total - previous total) in unsigned arithmetic, or 0 when the total
 * did not move; with counters that only grow and idle growing no faster
 * than the total it lies in 0..100 and is the whole busy percentage
 * rounded up.  When either printed nothing, the sample and the figure
 * stay as they were.  cpu_usage_between agrees with the same model.
 */
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "recorded_shell.h"
#include "util/facts.h"

namespace {

const char kIdleCommand[] = "grep 'cpu ' /proc/stat | awk '{idle=($5)} END {print idle}'";
const char kTotalCommand[] =
    "grep 'cpu ' /proc/stat | awk '{ttl=($2+$3+$4+$5+$6+$7+$8+$9+$10)} END {print ttl}'";

std::string s_idle, s_total;
kctest::RecordedShell *s_shell = nullptr;

/* "%lu" of a text: blanks, an optional sign, digits (saturating, a minus
 * negating modulo 2^64); 0 without digits. */
unsigned long scanned(const std::string &text)
{
    size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r')))
        i++;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-'))
        negative = text[i++] == '-';
    unsigned long value = 0;
    bool overflow = false;
    size_t digits = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; i++, digits++) {
        unsigned long d = (unsigned long)(text[i] - '0');
        if (value > (ULONG_MAX - d) / 10)
            overflow = true;
        else
            value = value * 10 + d;
    }
    if (digits == 0)
        return 0;
    if (overflow)
        return ULONG_MAX;
    return negative ? 0 - value : value;
}

/* The figure from two samples, as unsigned arithmetic gives it. */
int model(unsigned long idle1, unsigned long total1, unsigned long idle2, unsigned long total2)
{
    unsigned long total = total2 - total1;
    if (total == 0)
        return 0;
    unsigned long idle = idle2 - idle1;
    unsigned long busy = 100 - idle * 100 / total;
    return (int)busy;
}

/* What the runner reads of an output with a cap of 128 bytes: its first
 * line (with the newline).  An output with a NUL byte is read around it,
 * and a first line of 127 bytes or more is cut: such outputs are not
 * judged. */
std::string firstLine(const std::string &text)
{
    size_t newline = text.find('\n');
    return newline == std::string::npos ? text : text.substr(0, newline + 1);
}

bool judged(const std::string &text)
{
    return firstLine(text).size() < 120 && text.find('\0') == std::string::npos;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    s_shell = new kctest::RecordedShell;
    // the first command of each sample prints the idle time, the second the total
    s_shell->answer = [](const std::string &, std::string *output) {
        *output = s_shell->commands.size() % 2 == 1 ? s_idle : s_total;
        return true;
    };
    s_shell->runsAllowed = false; // the sampler only reads
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // the known state: the sample 0, 0 taken twice
    s_idle = "0";
    s_total = "0";
    calculateCPUUsage();
    calculateCPUUsage();
    if (g_cpuUsage != 0)
        abort();
    unsigned long idle = 0, total = 0;
    int figure = 0;

    std::vector<std::string> samples(1);
    for (size_t i = 0; i < size; i++) {
        if (data[i] == '\0')
            samples.emplace_back();
        else
            samples.back() += (char)data[i];
    }
    for (const std::string &sample : samples) {
        size_t newline = sample.find('\n');
        s_idle = sample.substr(0, newline);
        s_total = newline == std::string::npos ? "" : sample.substr(newline + 1);
        s_shell->clearRecord();
        calculateCPUUsage();
        if (s_shell->commands.size() != 2 || s_shell->commands[0] != kIdleCommand ||
            s_shell->commands[1] != kTotalCommand)
            abort();
        if (!judged(s_idle) || !judged(s_total))
            return 0; // the state is no longer known
        if (s_idle.empty() || s_total.empty()) {
            if (g_cpuUsage != figure)
                abort(); // nothing taken
            continue;
        }
        unsigned long newIdle = scanned(firstLine(s_idle));
        unsigned long newTotal = scanned(firstLine(s_total));
        figure = model(idle, total, newIdle, newTotal);
        if (g_cpuUsage != figure)
            abort();
        if (cpu_usage_between(idle, total, newIdle, newTotal) != figure)
            abort();
        // counters that grow, idle no faster than the total: a percentage
        if (newTotal > total && newIdle >= idle && newIdle - idle <= newTotal - total &&
            newTotal - total < ULONG_MAX / 101) { // (no overflow below)
            unsigned long dt = newTotal - total;
            unsigned long busy = dt - (newIdle - idle);
            // the whole busy percentage, rounded up
            unsigned long want = (busy * 100 + dt - 1) / dt;
            if (figure < 0 || figure > 100 || (unsigned long)figure != want)
                abort();
        }
        idle = newIdle;
        total = newTotal;
    }
    return 0;
}
