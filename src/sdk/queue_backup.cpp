/*
 * Snapshot of the queues into text files ("/etc/cloud_*.backup"): a count
 * line, then one unformatted tree a line, oldest first.  The snapshot is
 * deliberately simple: the count is producer index minus consumer index, so
 * a wrapped ring gives a negative count and no item lines, and a full ring
 * counts as empty.  The queue itself is left as it is.
 */
#define KC_MODULE "kapri_util.cpp"
#include "sdk/queue_backup.h"

#include <cstdio>

#include "json/json_parser.h"
#include "sdk/nimb_sdk.h"
#include "util/debug.h"

namespace {
struct BackupFile {
    const char *file;
};
} // namespace

/* Runs under the queue's index lock (snapshotQueue). */
static void writeSnapshot(void *context, int count, const cJSON *const *items)
{
    const char *file = static_cast<BackupFile *>(context)->file;
    if (count == 0) {
        printf("Func %s: Queue is emtpy\n", "backup_queue");
        return;
    }
    FILE *out = fopen(file, "w+t");
    if (out == NULL) {
        printf("Func %s: Fail To Open File %s!\n", file, "backup_queue");
        return;
    }
    fprintf(out, "%d\n", count);
    for (int i = 0; i < count; i++) {
        char *text = jsonPrint(items[i]);
        if (text == NULL)
            continue;
        fprintf(out, "%s\n", text);
        jsonFreeText(text);
    }
    fclose(out);
}

void backup_queue(JsonQueue *queue, const char *file)
{
    if (queue == NULL || file == NULL) {
        printf("Func %s: Queue or backup filename is NULL!\n", "backup_queue");
        return;
    }
    BackupFile context = {file};
    snapshotQueue(queue, writeSnapshot, &context);
}

void backup_all_queues(void)
{
    printf("Backup queue commands to file...\n");
    if (!nimbQueuesReady())
        return;
    backup_queue(&g_recvQueue, "/etc/cloud_recv_cmd.backup");
    backup_queue(&g_sendQueues[SEND_QUEUE_REPLY], "/etc/cloud_sent_cmd.backup");
    backup_queue(&g_sendQueues[SEND_QUEUE_STATUS], "/etc/cloud_sent_status_cmd.backup");
    backup_queue(&g_sendQueues[SEND_QUEUE_EVENT], "/etc/cloud_sent_event_cmd.backup");
}
