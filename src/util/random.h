/*
 * The process-wide multiply-with-carry generator: WebSocket keys and
 * masks, the reconnection back-off and the random external port of remote
 * access.  It takes no lock: threads that draw at once may interleave their
 * steps, which gives other numbers but never a data race.  Nothing to free.
 */
#ifndef KC_UTIL_RANDOM_H
#define KC_UTIL_RANDOM_H

#include <stdint.h>

/* Restarts the sequence from seed (0 counts as 1). */
void seedRandom(uint32_t seed);
/* The next number of the sequence. */
uint32_t nextRandom(void);

#endif
