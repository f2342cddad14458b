/*
 * The maintenance timer: a thread that ticks once a second and runs the
 * agent's periodic checks, each of which lives with its family.
 */
#ifndef KC_CLIENT_TIMER_H
#define KC_CLIENT_TIMER_H

/* Thread body (initConnection starts it; see setMaintenanceTimer). */
void *timerHandler(void *unused);

/* Seconds counted by the timer thread. */
int timerTicks(void);

/* ---- the periodic checks, in the order of one tick ---- */

/* Time synchronisation every time-sync period (time.cpp). */
void timeSyncCheck(int tick);
/* Remote-access expiry every tick while a time-out is set and no enable is
 * running (remote_access.cpp). */
void remoteAccessExpiryCheck(void);
/* System-log streaming every 5 ticks, or discarding the capture while the
 * reply queue is nearly full (events.cpp). */
void logStreamCheck(int tick);
/* Event notifications, or discarding the event file while the event queue
 * was nearly full at the start of the tick (events.cpp). */
void eventCheck(int eventFreeSlots, int paused);

#endif
