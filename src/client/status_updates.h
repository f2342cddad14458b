/*
 * Periodic status updates ("dsLogStatusUpdates") on the status queue.  The
 * thread body is handed to the connection manager with setStatusUpdater
 * (sdk/nimb_sdk.h), which starts it once the queues have been restored.
 */
#ifndef KC_CLIENT_STATUS_UPDATES_H
#define KC_CLIENT_STATUS_UPDATES_H

#include <stdint.h>

struct cJSON;

/* Thread body started by initConnection; never returns. */
void *dsLogStatusUpdatesHandler(void *unused);
/* The status period in use, in seconds. */
int statusPeriod(void);

/* Pieces of an update, for tests: used kilobytes times 10000 over all
 * kilobytes (64-bit arithmetic; 0 when both are 0); and the "radios" array
 * built from a "WifiInfo" answer into container: 1 when added, 0 when the
 * answer is missing or not JSON (no member), -1 for three radios or more
 * (the update is dropped). */
int memory_alarm_quotient(uint32_t memUsed, uint32_t memFree);
int add_radio_objects(cJSON *container, const char *wifiInfo);

#endif
