/* Debug line printer and assertion report, used by every module. */
#include "util/debug.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "util/thread_id.h"

int g_debugFlag = 0;

static void printDebugLine(int pid, const char *module, const char *func,
                           int line, const char *fmt, va_list ap)
{
    char message[2048];
    vsnprintf(message, sizeof message, fmt, ap);
    /* One write per line keeps lines of concurrent threads apart. */
    char out[2304];
    snprintf(out, sizeof out, "[PID %d][FUNC %s::%s][LINE %d]: %s", pid,
             module, func, line, message);
    fputs(out, stdout);
}

void kcDebugPrint(const char *module, const char *func, int line,
                  const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    printDebugLine(currentThreadId(), module, func, line, fmt, ap);
    va_end(ap);
}

void kcDebugPrintAs(int pid, const char *module, const char *func, int line,
                    const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    printDebugLine(pid, module, func, line, fmt, ap);
    va_end(ap);
}

void kcAssertFail(const char *expr, const char *module, int line,
                  const char *func)
{
    fflush(stdout);
    fprintf(stderr, "korvat-cloud: %s:%d: %s: Assertion `%s' failed.\n",
            module, line, func, expr);
    fflush(stderr);
    abort();
}
