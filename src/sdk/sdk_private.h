/*
 * Symbols shared between the files of the connection manager and the
 * queues (src/sdk) and nowhere else.
 */
#ifndef KC_SDK_SDK_PRIVATE_H
#define KC_SDK_SDK_PRIVATE_H

#include "sdk/queue_manager.h"

/* The lock around the one connection: sends and receives take the read
 * side, (re)connection the write side. */
ConnectionLock *nimbConnectionLock(void);

/* Refusal hook of the receive queue: answers the request with error 10002
 * ("Too many items in a list") on the reply queue and deletes it. */
void refuseWithTooManyItems(cJSON *refused);

#endif
