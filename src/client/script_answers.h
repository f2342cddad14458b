/*
 * The utility script's answers, read one way for every handler and for the
 * periodic status updates.  A sub-command of "/usr/sbin/kapri_util.lua"
 * prints either one value or a JSON document; what the shell runner gives
 * back is the answer, and an empty text is no answer.  The runner's text
 * for a command that could not be run ("ERROR") is an answer like any
 * other: a one-value answer passes it on as the value, and as a JSON
 * answer it does not parse.
 *
 * Ownership: texts returned here are new texts (util/text.h: release with
 * free_text); parsed answers belong to the caller (jsonDelete); trees
 * handed in are only read unless a function says it takes them.
 */
#ifndef KC_CLIENT_SCRIPT_ANSWERS_H
#define KC_CLIENT_SCRIPT_ANSWERS_H

#include "client/reply.h"

struct cJSON;

/* Caps of a JSON answer and of a one-value answer, in bytes. */
#define SCRIPT_JSON_LIMIT 16384
#define SCRIPT_VALUE_LIMIT 20

/* ---- answers read with "| tr -d '\n'" ---- */

/* The answer of "<script> <subCommand> | tr -d '\n'" (a real newline
 * between the quotes), at most limit bytes; NULL when it printed nothing. */
char *scriptAnswer(const char *subCommand, int limit);
/* The one-value answer of subCommand as a string member of object, or as a
 * number (atof); left out without an answer. */
void addScriptText(cJSON *object, const char *name, const char *subCommand);
void addScriptNumber(cJSON *object, const char *name, const char *subCommand);

/* ---- JSON documents, the command given whole ---- */

/* Runs cmd (cap SCRIPT_JSON_LIMIT) and parses its answer into *answer
 * (NULL when it printed nothing).  An answer that does not parse is
 * refused with -32602 (*answer NULL). */
Refusal scriptJson(const char *cmd, cJSON **answer);
/* The reply to request whose "result" is the filtered copy of answer
 * (json/json_filter.h); no "result" without an answer.  Deletes answer. */
cJSON *filteredReply(const cJSON *request, cJSON *answer, const char *const *topKeys,
                     const char *const *itemKeys);
/* The whole query: runs cmd, then replies to request with the filtered
 * copy of its answer (filteredReply), or refuses an answer that does not
 * parse.  The caller prints its own "sys_cmd" debug line. */
void replyFilteredAnswer(const cJSON *request, const char *cmd, const char *const *topKeys,
                         const char *const *itemKeys);

/* ---- the "WifiInfo" and "GuestNetworkInfo" answers re-shaped ---- */

/* A string member of an answer object, "" when it is missing. */
const char *answerText(const cJSON *object, const char *name);

/* The members of a radio object, in one of two orders:
 *   RADIO_STATUS_ORDER   "interface", "enabled", "rx", "tx", "networks",
 *                        "clients" ("vekGetRadioStatus");
 *   STATUS_UPDATE_ORDER  "interface", "rx", "tx", "networks", "clients",
 *                        "enabled" (the periodic status update and
 *                        "vekGetStatus"). */
enum RadioMemberOrder { RADIO_STATUS_ORDER, STATUS_UPDATE_ORDER };

/* The "radios" array from a "WifiInfo" answer into container, one object a
 * radio ("Dev2G" first, then "Dev5G"): 1 when added, 0 when the answer is
 * missing or not JSON (no member), -1 for three radios or more. */
int addRadioObjects(cJSON *container, const char *wifiInfo, RadioMemberOrder order);

/* The "network" array of "vekGetGuestNetworkStatus" from a
 * "GuestNetworkInfo" answer into container: 1 when added, 0 when the
 * answer is missing or not JSON, -1 for three guest networks or more. */
int addGuestNetworkObjects(cJSON *container, const char *guestInfo);

#endif
