/*
 * The queues across a stop or a reboot: each queue is written to its text
 * file in /etc (a count line, then one unformatted tree a line, oldest
 * first) and read back at the next start.
 */
#ifndef KC_SDK_QUEUE_BACKUP_H
#define KC_SDK_QUEUE_BACKUP_H

#include "sdk/queue_manager.h"

/* Writes one queue's snapshot to file; an empty queue leaves the file as
 * it is.  The queue is not changed. */
void backup_queue(JsonQueue *queue, const char *file);
/* The four queues, in the order receive, reply, status, event. */
void backup_all_queues(void);

#endif
