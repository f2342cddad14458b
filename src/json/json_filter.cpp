/* The key-filtered copy of a parsed answer (see json_filter.h). */
#include "json/json_filter.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "json/accessors.h"

/* "rx" and "tx" are byte counters that the device prints as text. */
static int isCounterKey(const char *key)
{
    return strcmp(key, "rx") == 0 || strcmp(key, "tx") == 0;
}

/* The copy of one member's value, or NULL when it has none. */
static cJSON *copyValue(const char *key, const cJSON *value, const char *const *item_keys)
{
    if (cJSON_IsBool(value))
        return cJSON_CreateBool(cJSON_IsTrue(value));
    if (cJSON_IsNull(value))
        return cJSON_CreateString("");
    if (cJSON_IsNumber(value))
        return cJSON_CreateNumber(std::trunc(value->valuedouble));
    if (cJSON_IsString(value)) {
        if (isCounterKey(key))
            return cJSON_CreateNumber(atof(value->valuestring));
        return cJSON_CreateString(value->valuestring);
    }
    if (cJSON_IsArray(value)) {
        cJSON *array = jsonCreateArray();
        for (const cJSON *element = value->child; element != NULL; element = element->next) {
            cJSON *copy = json_filter_copy(element, item_keys, NULL);
            if (copy != NULL)
                jsonAddToArray(array, copy);
        }
        return array;
    }
    if (cJSON_IsObject(value))
        return json_filter_copy(value, item_keys, NULL);
    return NULL;
}

cJSON *json_filter_copy(const cJSON *source, const char *const *top_keys,
                        const char *const *item_keys)
{
    if (source == NULL || top_keys == NULL)
        return NULL;
    cJSON *copy = jsonCreateObject();
    if (!cJSON_IsObject(source))
        return copy;
    for (const char *const *key = top_keys; *key != NULL; key++) {
        const cJSON *value = jsonGetItem(source, *key);
        if (value == NULL)
            continue;
        cJSON *item = copyValue(*key, value, item_keys);
        if (item != NULL)
            jsonAddItem(copy, *key, item);
    }
    return copy;
}
