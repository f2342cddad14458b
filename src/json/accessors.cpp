/* Reading and building cJSON trees with the defaults every handler expects. */
#include "json/accessors.h"

#include <cstdlib>

cJSON *jsonGetItem(const cJSON *object, const char *name)
{
    if (object == NULL || name == NULL)
        return NULL;
    return cJSON_GetObjectItem(object, name);
}

const char *jsonGetString(const cJSON *object, const char *name)
{
    cJSON *item = jsonGetItem(object, name);
    if (!cJSON_IsString(item))
        return NULL;
    return item->valuestring;
}

int jsonGetInt(const cJSON *object, const char *name)
{
    cJSON *item = jsonGetItem(object, name);
    return item != NULL ? item->valueint : 0;
}

int jsonGetIntOrAbsent(const cJSON *object, const char *name)
{
    cJSON *item = jsonGetItem(object, name);
    return item != NULL ? item->valueint : JSON_ABSENT_INT;
}

double jsonGetNumber(const cJSON *object, const char *name)
{
    cJSON *item = jsonGetItem(object, name);
    return item != NULL ? item->valuedouble : 0;
}

void jsonAddString(cJSON *object, const char *name, const char *value)
{
    cJSON_AddItemToObject(object, name, cJSON_CreateString(value));
}

void jsonAddInt(cJSON *object, const char *name, int value)
{
    cJSON_AddItemToObject(object, name, cJSON_CreateNumber(value));
}

void jsonAddBool(cJSON *object, const char *name, int value)
{
    cJSON_AddItemToObject(object, name, cJSON_CreateBool(value > 0));
}

void jsonAddNumber(cJSON *object, const char *name, double value)
{
    cJSON_AddItemToObject(object, name, cJSON_CreateNumber(value));
}

void jsonAddItem(cJSON *object, const char *name, cJSON *item)
{
    cJSON_AddItemToObject(object, name, item);
}

void jsonAddToArray(cJSON *array, cJSON *item)
{
    cJSON_AddItemToArray(array, item);
}

cJSON *jsonCreateObject(void) { return cJSON_CreateObject(); }
cJSON *jsonCreateArray(void) { return cJSON_CreateArray(); }
cJSON *jsonParse(const char *text) { return cJSON_Parse(text); }
char *jsonPrint(const cJSON *tree) { return cJSON_PrintUnformatted(tree); }
char *jsonPrintFormatted(const cJSON *tree) { return cJSON_Print(tree); }
void jsonFreeText(char *text) { cJSON_free(text); }
void jsonDelete(cJSON *tree) { cJSON_Delete(tree); }
int jsonArraySize(const cJSON *array) { return cJSON_GetArraySize(array); }
cJSON *jsonArrayItem(const cJSON *array, int index)
{
    return cJSON_GetArrayItem(array, index);
}
