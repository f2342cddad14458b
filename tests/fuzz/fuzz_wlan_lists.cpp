/*
 * Fuzzes the editing of the wireless lists that the device prints
 * ("uci get wireless.wifi0.network_profile", a radio's "enlist" and
 * "wlanlist"): getBrotherIndex, setEnlistFlag and appendToString.  No
 * command runs: a recorded shell records the command lines.
 *
 * Input: byte 0 chooses the enable flag (bit 0) and the size of the
 * appended text (the byte itself, 0 to 255, so that sizes 0 and 1 are
 * reached); the rest is four texts separated by NUL bytes: a section name,
 * the profile, the enlist, the wlanlist (missing ones are empty).
 *
 * Oracles:
 *   getBrotherIndex  NULL, or a text without newline, comma or colon that
 *                    occurs in the profile once the profile's newlines are
 *                    taken out;
 *   setEnlistFlag    -1 with no command when a list is empty; else 1 and one
 *                    command: uci set PATH="..." (at most 1023 characters)
 *                    whose quoted text stands literally for the enlist with
 *                    at most one character set to the flag and newlines
 *                    dropped;
 *   appendToString   at most size - 1 characters, no newline, a prefix of
 *                    both texts joined with their newlines taken out.
 */
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "recorded_shell.h"
#include "util/wlan_profile.h"

namespace {

kctest::RecordedShell *s_shell = nullptr; // reads print nothing

std::string withoutNewlines(const std::string &text)
{
    std::string out;
    for (char c : text) {
        if (c != '\n')
            out += c;
    }
    return out;
}

void checkBrother(const std::string &section, const std::string &profile)
{
    std::vector<char> buffer(profile.begin(), profile.end());
    buffer.push_back('\0');
    char *brother = getBrotherIndex(section.c_str(), buffer.data());
    if (brother == NULL)
        return;
    std::string got = brother;
    free(brother);
    if (got.find_first_of("\n,:") != std::string::npos)
        abort();
    if (withoutNewlines(profile).find(got) == std::string::npos)
        abort();
}

/*
 * Whether literal is the enlist with its newlines dropped after at most one
 * of its characters (a newline too) was replaced by flag; with cut, a
 * prefix of such a text is enough.  Worked out character by character over
 * the few ways of getting there (no flag set yet, or set).
 */
bool standsForEnlist(const std::string &literal, const std::string &enlist, char flag, bool cut)
{
    struct Way {
        size_t matched;
        bool flagSet;
    };
    std::vector<Way> ways = {{0, false}};
    for (char c : enlist) {
        std::vector<Way> next;
        for (const Way &way : ways) {
            if (way.matched == literal.size()) {
                if (cut)
                    return true;
                if (c == '\n')
                    next.push_back(way);
                continue;
            }
            if (c == '\n')
                next.push_back(way);
            else if (literal[way.matched] == c)
                next.push_back({way.matched + 1, way.flagSet});
            if (!way.flagSet && literal[way.matched] == flag)
                next.push_back({way.matched + 1, true});
        }
        ways.clear();
        for (const Way &way : next) {
            bool seen = false;
            for (const Way &kept : ways)
                seen = seen || (kept.matched == way.matched && kept.flagSet == way.flagSet);
            if (!seen)
                ways.push_back(way);
        }
        if (ways.empty())
            return false;
    }
    for (const Way &way : ways) {
        if (way.matched == literal.size())
            return true;
    }
    return false;
}

void checkEnlist(const std::string &section, const std::string &enlist,
                 const std::string &wlanlist, int enabled)
{
    s_shell->clearRecord();
    int ret = setEnlistFlag(enlist.c_str(), wlanlist.c_str(), section.c_str(), enabled,
                            "wireless.wifi0.enlist");
    if (enlist.empty() || wlanlist.empty()) {
        if (ret != -1 || !s_shell->commands.empty())
            abort();
        return;
    }
    if (ret != 1 || s_shell->commands.size() != 1)
        abort();
    const std::string prefix = "uci set wireless.wifi0.enlist=\"";
    const std::string &cmd = s_shell->commands[0];
    /* the command line is built in 1024 bytes: a longer one is cut, and
     * then lacks its closing quote (the shell refuses it) */
    if (cmd.size() > 1023 || cmd.compare(0, prefix.size(), prefix) != 0)
        abort();
    /* closed: the last character is a quote after an even run of
     * backslashes (a quote of the value has an odd one) */
    size_t slashes = 0;
    while (slashes + prefix.size() + 1 < cmd.size() && cmd[cmd.size() - 2 - slashes] == '\\')
        slashes++;
    bool closed = cmd.size() > prefix.size() && cmd.back() == '"' && slashes % 2 == 0;
    if (cmd.size() < 1023 && !closed)
        abort();
    /* inside the quotes nothing ends the word or expands: each " $ ` \
     * comes with a backslash; the text it stands for is the enlist (one
     * flag set) without newlines */
    std::string literal;
    size_t end = closed ? cmd.size() - 1 : cmd.size();
    for (size_t i = prefix.size(); i < end; i++) {
        char c = cmd[i];
        if (c == '\\') {
            if (i + 1 == end)
                break; /* cut after the backslash */
            c = cmd[++i];
        } else if (c == '"' || c == '$' || c == '`') {
            abort();
        }
        literal += c;
    }
    bool cut = !closed;
    if (!standsForEnlist(literal, enlist, enabled ? '1' : '0', cut))
        abort();
}

void checkAppend(const std::string &a, const std::string &b, int size)
{
    char *got = appendToString(a.c_str(), b.c_str(), size);
    if (got == NULL)
        abort();
    std::string text = got;
    free(got);
    std::string joined = withoutNewlines(a + b);
    size_t limit = size > 0 ? (size_t)size - 1 : 0;
    if (text.size() > limit || text.find('\n') != std::string::npos)
        abort();
    if (joined.compare(0, text.size(), text) != 0)
        abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    int flags = data[0];
    std::vector<std::string> texts;
    std::string current;
    for (size_t i = 1; i < size; i++) {
        if (data[i] == '\0' && texts.size() < 3) {
            texts.push_back(current);
            current.clear();
        } else if (data[i] != '\0') {
            current += (char)data[i];
        }
    }
    texts.push_back(current);
    while (texts.size() < 4)
        texts.push_back("");

    kctest::RecordedShell shell;
    s_shell = &shell;
    checkBrother(texts[0], texts[1]);
    checkEnlist(texts[0], texts[2], texts[3], flags & 1);
    checkAppend(texts[2], texts[3], flags);
    s_shell = nullptr;
    return 0;
}
