/*
 * The apply step: after a configuration change (staged in UCI) and its
 * success reply, the utility script commits and applies the changes
 * ("/usr/sbin/kapri_util.lua cloud_action_apply").  While it runs the
 * apply-done flag is 0; the maintenance timer sends no event batch then.
 */
#ifndef KC_UTIL_APPLY_H
#define KC_UTIL_APPLY_H

#include <atomic>

/* 1 at start; 0 while the apply command runs. */
extern std::atomic<int> g_applyDone;

/* Clears the flag, runs the apply command and waits for it, sets the flag. */
void cloud_action_apply(void);

#endif
