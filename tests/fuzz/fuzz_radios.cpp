/*
 * Fuzzes the reading of the utility script's "get_support_radio" answer
 * (detect_support_radio), which tells at start which radios the device
 * has.  No command runs: a recorded shell answers from the input.
 *
 * Input: byte 0 gives the flags before the call (bit 0: the 2.4 GHz radio
 * already known, bit 1: the 5 GHz one); the rest is what the script
 * prints.
 *
 * Oracle: exactly one command runs, the script's "get_support_radio"
 * piped through tr; afterwards a flag is set exactly when it was set
 * before or the answer (as far as the 16,384-byte read takes it) is JSON
 * whose member "wifi0" or "wifi1" (first member of that name, matched
 * without regard to case) is the string "2.4G" (the 2.4 GHz flag) or "5G"
 * (the 5 GHz flag); the flags are never cleared.  (An answer with a NUL
 * byte is read line by line around it: only the flags' staying set is
 * judged for it.)
 */
#include <strings.h>

#include <cjson/cJSON.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "recorded_shell.h"
#include "util/radios.h"

namespace {

std::string s_answer;
kctest::RecordedShell *s_shell = nullptr;

/* The first member named name (case-insensitive) of a parsed object. */
const cJSON *firstMember(const cJSON *object, const char *name)
{
    if (!cJSON_IsObject(object))
        return nullptr;
    for (const cJSON *child = object->child; child != nullptr; child = child->next) {
        if (child->string != nullptr && strcasecmp(child->string, name) == 0)
            return child;
    }
    return nullptr;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    s_shell = new kctest::RecordedShell;
    s_shell->answer = [](const std::string &, std::string *output) {
        *output = s_answer;
        return true;
    };
    s_shell->runsAllowed = false; // the detection only reads
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    int before2G = data[0] & 1;
    int before5G = (data[0] >> 1) & 1;
    s_answer.assign(reinterpret_cast<const char *>(data) + 1, size - 1);
    s_shell->clearRecord();
    g_support2G = before2G;
    g_support5G = before5G;

    detect_support_radio();

    if (s_shell->commands.size() != 1 ||
        s_shell->commands[0] != "/usr/sbin/kapri_util.lua get_support_radio | tr -d '\n'")
        abort();

    // what the answer says; answers with a NUL byte or near the read's
    // limit of 16,384 bytes are not judged (the read cuts them by lines)
    bool judged = s_answer.size() <= 16384 - 128 &&
                  s_answer.find('\0') == std::string::npos;
    bool want2G = before2G != 0;
    bool want5G = before5G != 0;
    cJSON *root = cJSON_Parse(s_answer.c_str());
    for (const char *name : {"wifi0", "wifi1"}) {
        const cJSON *item = firstMember(root, name);
        if (!cJSON_IsString(item))
            continue;
        if (strcmp(item->valuestring, "2.4G") == 0)
            want2G = true;
        if (strcmp(item->valuestring, "5G") == 0)
            want5G = true;
    }
    cJSON_Delete(root);
    if (judged && ((g_support2G != 0) != want2G || (g_support5G != 0) != want5G))
        abort();
    if ((before2G && !g_support2G) || (before5G && !g_support5G))
        abort(); // never cleared
    return 0;
}
