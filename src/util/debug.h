/*
 * Debug lines and assertion reports shared by every module.
 *
 * A debug line reads "[PID %d][FUNC module::function][LINE %d]: message" and
 * is printed only when the agent was started with -d.  Each source file
 * defines KC_MODULE (the module name with its source extension) before
 * including this header.  Where a debug line or an assertion has a fixed,
 * published line number the *_AT forms take it; the plain forms use the real
 * source line.
 *
 * Assertions are behaviour, not debugging aids: they report and abort in
 * every build type, NDEBUG included.
 */
#ifndef KC_UTIL_DEBUG_H
#define KC_UTIL_DEBUG_H

/* 1 only when -d was given on the command line. */
extern int g_debugFlag;

void kcDebugPrint(const char *module, const char *func, int line,
                  const char *fmt, ...) __attribute__((format(printf, 4, 5)));
/* The same line in the name of another thread (pid is its id): for work a
 * thread does on behalf of the one a signal hit. */
void kcDebugPrintAs(int pid, const char *module, const char *func, int line,
                    const char *fmt, ...) __attribute__((format(printf, 5, 6)));

[[noreturn]] void kcAssertFail(const char *expr, const char *module, int line,
                               const char *func);

#define KC_DEBUG_AT(line, ...)                                   \
    do {                                                         \
        if (g_debugFlag)                                         \
            kcDebugPrint(KC_MODULE, __func__, (line), __VA_ARGS__); \
    } while (0)
#define KC_DEBUG(...) KC_DEBUG_AT(__LINE__, __VA_ARGS__)
/* A line of another module (a function of that module that lives in this
 * file's family). */
#define KC_DEBUG_MODULE(module, ...)                                      \
    do {                                                                  \
        if (g_debugFlag)                                                  \
            kcDebugPrint((module), __func__, __LINE__, __VA_ARGS__);       \
    } while (0)
/* A line in the name of func, a function of this module whose work was
 * moved into a helper: the calling thread, the real line. */
#define KC_DEBUG_FOR(func, ...)                                           \
    do {                                                                  \
        if (g_debugFlag)                                                  \
            kcDebugPrint(KC_MODULE, (func), __LINE__, __VA_ARGS__);       \
    } while (0)
#define KC_DEBUG_AS(pid, func, line, ...)                                 \
    do {                                                                  \
        if (g_debugFlag)                                                  \
            kcDebugPrintAs((pid), KC_MODULE, (func), (line), __VA_ARGS__); \
    } while (0)

/* text is the expression exactly as the report must show it. */
#define KC_ASSERT_AT(line, cond, text)                           \
    do {                                                         \
        if (!(cond))                                             \
            kcAssertFail((text), KC_MODULE, (line), __func__);   \
    } while (0)
#define KC_ASSERT(cond, text) KC_ASSERT_AT(__LINE__, cond, text)

#endif
