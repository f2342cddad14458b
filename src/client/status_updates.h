/*
 * Periodic status updates ("dsLogStatusUpdates") on the status queue.  The
 * thread body is handed to the connection manager with setStatusUpdater
 * (sdk/nimb_sdk.h), which starts it once the queues have been restored.
 */
#ifndef KC_CLIENT_STATUS_UPDATES_H
#define KC_CLIENT_STATUS_UPDATES_H

#include <stdint.h>

/* Thread body started by initConnection; never returns. */
void *dsLogStatusUpdatesHandler(void *unused);
/* The status period in use, in seconds. */
int statusPeriod(void);

/* The memory alarm's figure, for tests: used kilobytes times 10000 over
 * all kilobytes (64-bit arithmetic; 0 when both are 0).  The "radios" of an
 * update are client/script_answers.h's addRadioObjects in
 * STATUS_UPDATE_ORDER (-1, three radios or more: the update is dropped). */
int memory_alarm_quotient(uint32_t memUsed, uint32_t memFree);

#endif
