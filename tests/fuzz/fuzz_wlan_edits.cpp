/*
 * Fuzzes the helpers that read the wireless lists from the device and
 * write them back edited: getFreeWlanIndex (the free slot),
 * removeWlanIndex (a slot out of "wlanlist" and its flag out of
 * "enlist"), removeNetworkProfile (entries out of "network_profile"),
 * addWlanIndex and removeNetwork.  No command runs: a recorded shell
 * answers "uci get" from the input and records every "uci set".
 *
 * Input: byte 0: bit 0 the radio, bits 1 to 4 the slot (0 to 15, so that
 * two-digit slots come up); then, separated by NUL bytes, the wlanlist,
 * the enlist and the network_profile the device prints, and a section
 * name (removeNetworkProfile's text and removeNetwork's section).  The
 * device's answers pass through "tr -d '\n'" on the device: the backend
 * answers without newlines, as tr does.
 *
 * Oracles (lists are modelled here as their entries between commas, empty
 * ones skipped; a rebuilt list is its entries joined with commas, cut to
 * 255 characters; the lists are read up to 16,384 bytes for the free slot
 * and the append, 256 for the removals):
 *   getFreeWlanIndex      the lowest slot 0..7 whose digit is nowhere in
 *                         the wlanlist; -1 when all eight are; one read,
 *                         nothing written
 *   removeWlanIndex       -1 and nothing written when no entry contains
 *                         the slot's decimal text; else 0, the wlanlist
 *                         without those entries, and the enlist without
 *                         the entry at the last such entry's position
 *                         among the kept ones
 *   removeNetworkProfile  the profile without the entries that contain
 *                         the text
 *   addWlanIndex          wlanlist + "," + slot and enlist + ",1", each
 *                         cut to 255 characters
 *   removeNetwork         a section of fewer than 9 characters changes
 *                         nothing; else for radio digit 0 or 1 (position
 *                         1) the profile edit with the section, then the
 *                         slot removal of the digit at position 8
 * Every value is written as uci set PATH="VALUE" with " $ ` \ escaped.
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

std::string s_wlanlist, s_enlist, s_profile;
kctest::RecordedShell *s_shell = nullptr; // reads: the uci gets; runs: the rest

/* The list a "uci get" names. */
bool listAnswer(const std::string &c, std::string *text)
{
    if (c.find(".wlanlist") != std::string::npos)
        *text = s_wlanlist;
    else if (c.find(".enlist") != std::string::npos)
        *text = s_enlist;
    else if (c.find(".network_profile") != std::string::npos)
        *text = s_profile;
    return true;
}

std::string noNewlines(const std::string &text)
{
    std::string out;
    for (char c : text)
        if (c != '\n')
            out += c;
    return out;
}

std::vector<std::string> entries(const std::string &list)
{
    std::vector<std::string> out;
    std::string current;
    for (char c : list) {
        if (c == ',') {
            if (!current.empty())
                out.push_back(current);
            current.clear();
        } else {
            current += c;
        }
    }
    if (!current.empty())
        out.push_back(current);
    return out;
}

std::string joined(const std::vector<std::string> &items)
{
    std::string out;
    for (size_t i = 0; i < items.size(); i++)
        out += (i > 0 ? "," : "") + items[i];
    return out.substr(0, 255);
}

std::string readCommand(const std::string &path)
{
    return "uci get " + path + " | tr -d '\\n'";
}

std::string setCommand(const std::string &path, const std::string &value)
{
    std::string escaped;
    for (char c : value) {
        if (c == '"' || c == '$' || c == '`' || c == '\\')
            escaped += '\\';
        escaped += c;
    }
    return "uci set " + path + "=\"" + escaped + "\"";
}

void clear()
{
    s_shell->clearRecord();
}

void expect(const std::vector<std::string> &reads, const std::vector<std::string> &writes)
{
    if (s_shell->reads() != reads || s_shell->runs() != writes)
        abort();
}

std::string radioPath(int radio, const char *list)
{
    return "wireless.wifi" + std::to_string(radio) + "." + list;
}

void checkFree(int radio)
{
    clear();
    int got = getFreeWlanIndex(radio);
    std::string read = s_wlanlist.substr(0, WLAN_LIST_READ_LIMIT);
    int want = -1;
    for (int slot = 0; slot < 8 && want < 0; slot++) {
        if (read.find((char)('0' + slot)) == std::string::npos)
            want = slot;
    }
    if (got != want)
        abort();
    expect({readCommand(radioPath(radio, "wlanlist"))}, {});
}

/* The commands removeWlanIndex must give, and its result. */
int modelRemoveIndex(int radio, int slot, std::vector<std::string> *reads,
                     std::vector<std::string> *writes)
{
    std::string digits = std::to_string(slot);
    reads->push_back(readCommand(radioPath(radio, "wlanlist")));
    std::vector<std::string> kept;
    int position = -1;
    for (const std::string &entry : entries(s_wlanlist.substr(0, WLAN_PROFILE_READ_LIMIT))) {
        if (entry.find(digits) != std::string::npos)
            position = (int)kept.size();
        else
            kept.push_back(entry);
    }
    if (position < 0)
        return -1;
    writes->push_back(setCommand(radioPath(radio, "wlanlist"), joined(kept)));
    reads->push_back(readCommand(radioPath(radio, "enlist")));
    std::vector<std::string> flags = entries(s_enlist.substr(0, WLAN_PROFILE_READ_LIMIT));
    if (position < (int)flags.size())
        flags.erase(flags.begin() + position);
    writes->push_back(setCommand(radioPath(radio, "enlist"), joined(flags)));
    return 0;
}

void modelRemoveProfile(const std::string &text, std::vector<std::string> *reads,
                        std::vector<std::string> *writes)
{
    reads->push_back(readCommand("wireless.wifi0.network_profile"));
    std::vector<std::string> kept;
    for (const std::string &entry : entries(s_profile.substr(0, WLAN_PROFILE_READ_LIMIT))) {
        if (entry.find(text) == std::string::npos)
            kept.push_back(entry);
    }
    writes->push_back(setCommand("wireless.wifi0.network_profile", joined(kept)));
}

void checkRemoveIndex(int radio, int slot)
{
    clear();
    int got = removeWlanIndex(radio, slot);
    std::vector<std::string> reads, writes;
    int want = modelRemoveIndex(radio, slot, &reads, &writes);
    if (got != want)
        abort();
    expect(reads, writes);
}

void checkRemoveProfile(const std::string &text)
{
    clear();
    if (removeNetworkProfile(text.c_str()) != 0)
        abort();
    std::vector<std::string> reads, writes;
    modelRemoveProfile(text, &reads, &writes);
    expect(reads, writes);
}

void checkAdd(int radio, int slot)
{
    clear();
    addWlanIndex(radio, slot);
    std::string wlanlist =
        noNewlines(s_wlanlist.substr(0, WLAN_LIST_READ_LIMIT) + "," + std::to_string(slot));
    std::string enlist = noNewlines(s_enlist.substr(0, WLAN_LIST_READ_LIMIT) + ",1");
    expect({readCommand(radioPath(radio, "wlanlist")), readCommand(radioPath(radio, "enlist"))},
           {setCommand(radioPath(radio, "wlanlist"), wlanlist.substr(0, 255)),
            setCommand(radioPath(radio, "enlist"), enlist.substr(0, 255))});
}

void checkRemoveNetwork(const std::string &section)
{
    clear();
    if (removeNetwork(section.c_str()) != 0)
        abort();
    std::vector<std::string> reads, writes;
    if (section.size() >= 9) {
        int radio = section[1] - '0';
        int slot = section[8] - '0';
        if (radio == 0 || radio == 1) {
            modelRemoveProfile(section, &reads, &writes);
            modelRemoveIndex(radio, slot, &reads, &writes);
        }
    }
    expect(reads, writes);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    s_shell = new kctest::RecordedShell;
    s_shell->answer = listAnswer;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    int radio = data[0] & 1;
    int slot = (data[0] >> 1) & 15;
    std::vector<std::string> texts(1);
    for (size_t i = 1; i < size; i++) {
        if (data[i] == '\0' && texts.size() < 4)
            texts.emplace_back();
        else if (data[i] != '\0')
            texts.back() += (char)data[i];
    }
    texts.resize(4);
    // what tr -d '\n' leaves of the device's answers
    s_wlanlist = noNewlines(texts[0]);
    s_enlist = noNewlines(texts[1]);
    s_profile = noNewlines(texts[2]);
    const std::string &section = texts[3];

    checkFree(radio);
    checkRemoveIndex(radio, slot);
    checkRemoveProfile(section);
    checkAdd(radio, slot);
    checkRemoveNetwork(section);
    return 0;
}
