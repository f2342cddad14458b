/*
 * Which radios the device has: support2G (radio 0, "wifi0", 2.4 GHz) and
 * support5G (radio 1, "wifi1", 5 GHz), from the utility script's
 * "get_support_radio" answer (a JSON object whose "wifi0" and "wifi1"
 * members are "2.4G" or "5G").  Detected once at start; plain flags read by
 * the handlers of the access-point families and the LAN settings.
 */
#ifndef KC_UTIL_RADIOS_H
#define KC_UTIL_RADIOS_H

#include <atomic>

extern std::atomic<int> g_support2G;
extern std::atomic<int> g_support5G;

/* Runs "get_support_radio" and sets the flags from its answer ("2.4G"
 * sets support2G, "5G" support5G; other values change nothing). */
void detect_support_radio(void);

/* The same from a given answer text (NULL or not JSON: nothing changes). */
void set_support_radio_from(const char *answer);

#endif
