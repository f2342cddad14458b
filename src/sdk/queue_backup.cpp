/*
 * The queues across a stop or a reboot.
 *
 * Snapshot of the queues into text files ("/etc/cloud_*.backup"): a count
 * line, then one unformatted tree a line, oldest first.  The snapshot is
 * deliberately simple: the count is producer index minus consumer index, so
 * a wrapped ring gives a negative count and no item lines, and a full ring
 * counts as empty.  The queue itself is left as it is.
 */
#define KC_MODULE "kapri_util.cpp"
#include "sdk/queue_backup.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "json/accessors.h"
#include "sdk/nimb_sdk.h"
#include "sdk/sdk_private.h"
#include "util/debug.h"
#include "util/shell.h"
#include "util/redact.h"

namespace {
struct BackupFile {
    const char *file;
};
} // namespace

/* Runs under the queue's index lock (snapshotQueue); 1 when the items were
 * written. */
static int writeSnapshot(void *context, int count, const cJSON *const *items)
{
    const char *file = static_cast<BackupFile *>(context)->file;
    if (count == 0) {
        printf("Func %s: Queue is emtpy\n", "backup_queue");
        return 0;
    }
    FILE *out = fopen(file, "w+te");
    if (out == NULL) {
        printf("Func %s: Fail To Open File %s!\n", file, "backup_queue");
        return 0;
    }
    fprintf(out, "%d\n", count);
    for (int i = 0; i < count; i++) {
        char *text = jsonPrint(items[i]);
        if (text == NULL)
            continue;
        fprintf(out, "%s\n", text);
        jsonFreeText(text);
    }
    return fclose(out) == 0;
}

static void backupQueue(JsonQueue *queue, const char *file, int handOver)
{
    if (queue == NULL || file == NULL) {
        printf("Func %s: Queue or backup filename is NULL!\n", "backup_queue");
        return;
    }
    BackupFile context = {file};
    if (handOver)
        snapshotQueueHandOver(queue, writeSnapshot, &context);
    else
        snapshotQueue(queue, writeSnapshot, &context);
}

void backup_queue(JsonQueue *queue, const char *file)
{
    backupQueue(queue, file, 0);
}

static void backupAllQueues(int handOver)
{
    printf("Backup queue commands to file...\n");
    if (!nimbQueuesReady())
        return;
    backupQueue(&g_recvQueue, "/etc/cloud_recv_cmd.backup", handOver);
    backupQueue(&g_sendQueues[SEND_QUEUE_REPLY], "/etc/cloud_sent_cmd.backup", handOver);
    backupQueue(&g_sendQueues[SEND_QUEUE_STATUS], "/etc/cloud_sent_status_cmd.backup", handOver);
    backupQueue(&g_sendQueues[SEND_QUEUE_EVENT], "/etc/cloud_sent_event_cmd.backup", handOver);
}

void backup_all_queues(void)
{
    backupAllQueues(0);
}

void backup_all_queues_for_next_start(void)
{
    backupAllQueues(1);
}

/* ---- restore ---- */

/*
 * A line that does not parse stops the process.  The file is moved aside
 * first ("<file>.corrupt", replacing an older one): a torn write would
 * otherwise stop every later start at the same line, and the damage stays
 * there to be inspected.
 */
static void setAsideCorruptBackup(const char *file)
{
    char aside[512];
    snprintf(aside, sizeof aside, "%s%s", file, BACKUP_CORRUPT_SUFFIX);
    rename(file, aside);
}

void restore_queue(const char *file, JsonQueue *queue)
{
    if (file == NULL || queue == NULL) {
        printf("Func %s: Queue or backup filename is NULL!\n", "restore_queue");
        return;
    }
    FILE *in = fopen(file, "re");
    if (in == NULL) {
        printf("Func %s: File %s doesn't exist.\n", file, "restore_queue");
        return;
    }
    char first[10];
    int count = fgets(first, sizeof first, in) != NULL ? atoi(first) : 0;
    KC_DEBUG_AT(1694, "obj_num = %d\n", count);
    /* Whole lines: a queued reply can be far longer than a request (and
     * cut in two it would not parse, stopping every later start too). */
    char *line = NULL;
    size_t size = 0;
    int restored = 0;
    while (!feof(in)) {
        ssize_t got = getline(&line, &size, in);
        if (got < 0) {
            if (ferror(in))
                break; /* a read error (EIO from flash) ends the restore */
            continue;  /* end of file: the loop ends on feof */
        }
        cJSON *root = jsonParse(line);
        if (root == NULL)
            setAsideCorruptBackup(file);
        KC_ASSERT_AT(1702, NULL != root, "((void *)0) != root");
        if (g_debugFlag) {
            char *shown = redact_secrets(line);
            KC_DEBUG_AT(1705, "produce the JSON command, line = %s\n", shown);
            free_text(shown);
        }
        KC_DEBUG_AT(1706, "produceObject: start\n");
        produceObject(queue, root, PRODUCE_NONBLOCKING);
        KC_DEBUG_AT(1708, "produceObject: end\n");
        if (++restored == count)
            break;
    }
    free(line);
    fclose(in);
    char cmd[512];
    snprintf(cmd, sizeof cmd, "rm -f %s", file);
    run_system_command(cmd);
}

static const struct {
    const char *etc;
    const char *flash;
} kBackupFiles[] = {
    {"/etc/cloud_recv_cmd.backup", "/mnt/_sys1/cloud_recv_cmd.backup"},
    {"/etc/cloud_sent_cmd.backup", "/mnt/_sys1/cloud_sent_cmd.backup"},
    {"/etc/cloud_sent_status_cmd.backup", "/mnt/_sys1/cloud_sent_status_cmd.backup"},
    {"/etc/cloud_sent_event_cmd.backup", "/mnt/_sys1/cloud_sent_event_cmd.backup"},
};

void restore_all_queues(void)
{
    printf("Read backup file to queue...\n");
    run_system_command("mkdir -p /mnt/_sys1");
    run_system_command("mount -t jffs2 /dev/mtdblock2 /mnt/_sys1");
    for (const auto &files : kBackupFiles) {
        if (access(files.flash, F_OK) != 0)
            continue;
        char cmd[512];
        snprintf(cmd, sizeof cmd, "cp %s %s; rm %s", files.flash, files.etc, files.flash);
        run_system_command(cmd);
    }
    run_system_command("umount /mnt/_sys1");
    run_system_command("rm -r /mnt/_sys1");
    JsonQueue *queues[] = {&g_recvQueue, &g_sendQueues[SEND_QUEUE_REPLY],
                           &g_sendQueues[SEND_QUEUE_STATUS], &g_sendQueues[SEND_QUEUE_EVENT]};
    for (size_t i = 0; i < sizeof queues / sizeof queues[0]; i++)
        restore_queue(kBackupFiles[i].etc, queues[i]);
}

/* ---- reboot ---- */

/* How long the reboot waits for replies already queued to leave (the
 * reset's own among them) before it saves the queues. */
static const int kReplyDrainPolls = 300;
static const useconds_t kReplyDrainPollUs = 10000;

void reboot_with_backup(void)
{
    /* Everything saved here is sent or run at the next start, exactly once:
     * the saved trees are dropped from this run's queues (hand-over), while
     * what is queued afterwards (the reboot's own event) still goes out. */
    if (nimbQueuesReady()) {
        JsonQueue *replies = &g_sendQueues[SEND_QUEUE_REPLY];
        for (int i = 0; i < kReplyDrainPolls && freeSlotCount(replies) < QUEUE_CAPACITY; i++)
            usleep(kReplyDrainPollUs);
    }
    backupAllQueues(1);
    char cmd[256];
    snprintf(cmd, sizeof cmd, "%s add_a_notification %d INFO Reboot", KAPRI_UTIL_SCRIPT, 2);
    run_system_command(cmd);
    run_system_command("sleep 2; reboot");
    snprintf(cmd, sizeof cmd, "%s backup_cloud_files", KAPRI_UTIL_SCRIPT);
    run_system_command(cmd);
}
