/*
 * Pieces of the access-point status replies, for tests: the re-shaping of
 * the utility script's "WifiInfo" and "GuestNetworkInfo" answers.
 */
#ifndef KC_CLIENT_AP_STATUS_H
#define KC_CLIENT_AP_STATUS_H

struct cJSON;

/* The "radios" array of "vekGetRadioStatus" from a "WifiInfo" answer into
 * container: 1 when added, 0 when the answer is missing or not JSON (no
 * member), -1 for three radios or more. */
int addRadioStatusObjects(cJSON *container, const char *wifiInfo);

/* The "network" array of "vekGetGuestNetworkStatus" from a
 * "GuestNetworkInfo" answer into container: 1 when added, 0 when the
 * answer is missing or not JSON, -1 for three guest networks or more. */
int addGuestNetworkObjects(cJSON *container, const char *guestInfo);

#endif
