/*
 * Fuzzes what the agent does with the utility script's JSON answers (the
 * client list, client status, guest settings): cJSON_Parse, then the
 * key-filtered copy json_filter_copy, then the printing of the reply.
 *
 * Input: the script's output, up to the first NUL byte.
 *
 * Oracles for an answer that parses:
 *   - the copy is an object (an empty one for an answer that is not);
 *   - its members are listed top keys, each once, in the order of the list,
 *     and each one the answer has (looked up without regard to case);
 *   - each value keeps its kind: true/false stay booleans, null becomes "",
 *     a number becomes a number without fraction, a string stays the same
 *     string except under "rx"/"tx" where it becomes a number, an array
 *     becomes an array of objects (an empty one below the top level), an
 *     object an object whose members are listed item keys (left out below
 *     the top level);
 *   - the copy prints.
 */
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <cjson/cJSON.h>

#include "json/json_filter.h"

namespace {

const char *const kTopKeys[] = {"deviceId", "clients", "networks", "rx", "tx", "ssid", NULL};
const char *const kItemKeys[] = {"cmac", "networkIndex", "mac", "ssid", "rx", "tx", "signal",
                                 NULL};

int listPosition(const char *const *keys, const char *name)
{
    for (int i = 0; keys[i] != NULL; i++) {
        if (strcmp(keys[i], name) == 0)
            return i;
    }
    return -1;
}

bool isCounter(const char *name)
{
    return strcmp(name, "rx") == 0 || strcmp(name, "tx") == 0;
}

void checkObject(const cJSON *copy, const cJSON *source, const char *const *keys,
                 const char *const *itemKeys);

void checkValue(const char *name, const cJSON *got, const cJSON *from, const char *const *itemKeys)
{
    if (cJSON_IsBool(from)) {
        if (!cJSON_IsBool(got) || cJSON_IsTrue(got) != cJSON_IsTrue(from))
            abort();
    } else if (cJSON_IsNull(from)) {
        if (!cJSON_IsString(got) || got->valuestring[0] != '\0')
            abort();
    } else if (cJSON_IsNumber(from)) {
        if (!cJSON_IsNumber(got) || got->valuedouble != std::trunc(from->valuedouble))
            abort();
    } else if (cJSON_IsString(from)) {
        if (isCounter(name)) {
            if (!cJSON_IsNumber(got))
                abort();
        } else if (!cJSON_IsString(got) || strcmp(got->valuestring, from->valuestring) != 0) {
            abort();
        }
    } else if (cJSON_IsArray(from)) {
        /* without item keys an array is copied empty */
        int expected = itemKeys != NULL ? cJSON_GetArraySize(from) : 0;
        if (!cJSON_IsArray(got) || cJSON_GetArraySize(got) != expected)
            abort();
        const cJSON *element = from->child;
        for (const cJSON *item = got->child; item != NULL; item = item->next) {
            if (!cJSON_IsObject(item))
                abort();
            if (itemKeys != NULL)
                checkObject(item, element, itemKeys, NULL);
            else if (item->child != NULL)
                abort();
            element = element->next;
        }
    } else if (cJSON_IsObject(from)) {
        if (!cJSON_IsObject(got) || itemKeys == NULL)
            abort();
        checkObject(got, from, itemKeys, NULL);
    } else {
        abort();
    }
}

void checkObject(const cJSON *copy, const cJSON *source, const char *const *keys,
                 const char *const *itemKeys)
{
    if (!cJSON_IsObject(copy))
        abort();
    if (!cJSON_IsObject(source)) {
        if (copy->child != NULL)
            abort();
        return;
    }
    int last = -1;
    for (const cJSON *member = copy->child; member != NULL; member = member->next) {
        int at = listPosition(keys, member->string);
        if (at <= last)
            abort();
        last = at;
        const cJSON *from = cJSON_GetObjectItem(source, member->string);
        if (from == NULL)
            abort();
        checkValue(member->string, member, from, itemKeys);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const char *bytes = reinterpret_cast<const char *>(data);
    const char *end = static_cast<const char *>(memchr(bytes, '\0', size));
    std::string text(bytes, end != nullptr ? (size_t)(end - bytes) : size);

    cJSON *answer = cJSON_Parse(text.c_str());
    if (answer == NULL)
        return 0;
    cJSON *copy = json_filter_copy(answer, kTopKeys, kItemKeys);
    if (copy == NULL)
        abort();
    checkObject(copy, answer, kTopKeys, kItemKeys);
    char *printed = cJSON_PrintUnformatted(copy);
    if (printed == NULL)
        abort();
    cJSON_free(printed);
    cJSON_Delete(copy);
    cJSON_Delete(answer);
    return 0;
}
