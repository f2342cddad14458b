/* Releasing the texts src/util hands out; the upper-case copy. */
#include "util/text.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

const char SHELL_ERROR_TEXT[] = "ERROR";

void free_text(char *text)
{
    if (text != NULL && text != SHELL_ERROR_TEXT)
        free(text);
}

char *str_to_upper(const char *text)
{
    size_t n = strlen(text);
    char *upper = static_cast<char *>(malloc(n + 1));
    for (size_t i = 0; i < n; i++)
        upper[i] = (char)toupper((unsigned char)text[i]);
    upper[n] = '\0';
    return upper;
}
