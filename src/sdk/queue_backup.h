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
/* The same for a stop: the trees saved are handed over to the next start,
 * so that this run drops them instead of taking them (none is both run or
 * sent now and saved for later). */
void backup_all_queues_for_next_start(void);

/* What a backup file with a line that is not JSON is renamed to (appended
 * to its name) before the restore stops the process. */
#define BACKUP_CORRUPT_SUFFIX ".corrupt"

/* Reads file back into queue (non-blocking produce: a full queue answers
 * 10002) and removes the file.  The first line is the item count; a count
 * of 0 or below reads the file to its end; a read error ends it.  A line
 * that is not JSON stops the process (assertion), once the file has been
 * moved aside to its name with BACKUP_CORRUPT_SUFFIX, so that the next
 * start runs normally. */
void restore_queue(const char *file, JsonQueue *queue);
/* Moves the flash copies ("/mnt/_sys1", the jffs2 partition) to /etc, then
 * restores the four files into their queues, in the order of the backup. */
void restore_all_queues(void);

/* Saves the queues, leaves an event for the server, reboots the device and
 * copies the backup files to flash while the reboot proceeds. */
void reboot_with_backup(void);

#endif
