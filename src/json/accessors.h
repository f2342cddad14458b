/*
 * The thin layer over cJSON that every module uses to read and build
 * trees.  Member names are matched without regard to case
 * (cJSON_GetObjectItem); absent members read as NULL, 0, or
 * JSON_ABSENT_INT where absence must be told apart.
 *
 * Ownership: getters return pointers into the tree they were given (valid
 * while it lives; never freed by the caller).  The add functions hand the
 * new item to the object or array.  jsonParse and jsonCreate* return new
 * trees the caller deletes with jsonDelete (or hands to a queue);
 * jsonPrint* return new texts released with jsonFreeText.
 */
#ifndef KC_JSON_ACCESSORS_H
#define KC_JSON_ACCESSORS_H

#include <cjson/cJSON.h>

/* Sentinel of the optional-integer accessors for an absent member. */
#define JSON_ABSENT_INT (-999)

cJSON *jsonGetItem(const cJSON *object, const char *name);
const char *jsonGetString(const cJSON *object, const char *name);
int jsonGetInt(const cJSON *object, const char *name);
int jsonGetIntOrAbsent(const cJSON *object, const char *name);
double jsonGetNumber(const cJSON *object, const char *name);

void jsonAddString(cJSON *object, const char *name, const char *value);
void jsonAddInt(cJSON *object, const char *name, int value);
void jsonAddBool(cJSON *object, const char *name, int value);
void jsonAddNumber(cJSON *object, const char *name, double value);
void jsonAddItem(cJSON *object, const char *name, cJSON *item);
void jsonAddToArray(cJSON *array, cJSON *item);
cJSON *jsonCreateObject(void);
cJSON *jsonCreateArray(void);

cJSON *jsonParse(const char *text);
char *jsonPrint(const cJSON *tree);          /* unformatted */
char *jsonPrintFormatted(const cJSON *tree); /* formatted */
void jsonFreeText(char *text);
void jsonDelete(cJSON *tree);
int jsonArraySize(const cJSON *array);
cJSON *jsonArrayItem(const cJSON *array, int index);

#endif
