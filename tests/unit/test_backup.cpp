/*
 * Snapshot of a queue into its backup file: the count line and one
 * unformatted tree a line, oldest first; an empty queue leaves an older
 * file alone; a wrapped ring writes its negative count and no items; the
 * queue itself is not changed.  The restore from that file: a line that
 * is not JSON stops the process with its report and the file set aside; a
 * read error ends it.  All files live in a private directory.
 */
#include <gtest/gtest.h>

#include <csignal>

#include <sys/wait.h>
#include <unistd.h>

#include <cjson/cJSON.h>

#include "json/accessors.h"
#include "test_support.h"
#include "sdk/queue_backup.h"

using namespace kctest;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

class BackupTest : public ::testing::Test {
protected:
    void SetUp() override { initQueue(&q, QUEUE_CAPACITY); }
    void TearDown() override
    {
        drainReplies(q);
        deleteQueue(&q);
    }
    void put(const char *text) { ASSERT_EQ(1, produceObject(&q, cJSON_Parse(text), PRODUCE_BLOCKING)); }
    void take(int n)
    {
        for (int i = 0; i < n; i++) {
            cJSON *tree = nullptr;
            consumeObject(&q, &tree);
            cJSON_Delete(tree);
        }
    }
    std::string backup(const std::string &name)
    {
        CaptureStdout();
        backup_queue(&q, dir.file(name).c_str());
        return GetCapturedStdout();
    }

    JsonQueue q;
    TempDir dir;
};

const char kFirst[] = "{\"jsonrpc\":\"2.0\",\"id\":\"1\",\"method\":\"dxGetAbout\",\"params\":{\"deviceId\":\"a\"}}";
const char kSecond[] = "{\"jsonrpc\":\"2.0\",\"id\":\"2\",\"method\":\"vekGetStatus\",\"params\":{}}";

} // namespace

TEST_F(BackupTest, TwoQueuedTreesGiveACountAndOneLineEach)
{
    put("{ \"jsonrpc\" : \"2.0\", \"id\" : \"1\", \"method\" : \"dxGetAbout\",\n"
        "  \"params\" : { \"deviceId\" : \"a\" } }");
    put(kSecond);
    EXPECT_EQ("", backup("recv.backup"));
    EXPECT_EQ(std::string("2\n") + kFirst + "\n" + kSecond + "\n", dir.read("recv.backup"));

    // The queue is left as it was.
    EXPECT_EQ(2, filledCount(q));
    cJSON *tree = nullptr;
    consumeObject(&q, &tree);
    EXPECT_STREQ("1", jsonGetString(tree, "id"));
    cJSON_Delete(tree);
}

TEST_F(BackupTest, ExistingFileIsReplaced)
{
    dir.write("sent.backup", "5\nold\nold\nold\nold\nold\nmore old text\n");
    put(kSecond);
    backup("sent.backup");
    EXPECT_EQ(std::string("1\n") + kSecond + "\n", dir.read("sent.backup"));
}

TEST_F(BackupTest, ItemsFromTheConsumerIndexOn)
{
    put(kFirst);
    put(kSecond);
    put(kFirst);
    take(1);
    backup("recv.backup");
    EXPECT_EQ(std::string("2\n") + kSecond + "\n" + kFirst + "\n", dir.read("recv.backup"));
}

TEST_F(BackupTest, EmptyQueueLeavesAnOlderFileUntouched)
{
    dir.write("recv.backup", "1\n{\"older\":true}\n");
    EXPECT_EQ("Func backup_queue: Queue is emtpy\n", backup("recv.backup"));
    EXPECT_EQ("1\n{\"older\":true}\n", dir.read("recv.backup"));

    EXPECT_EQ("Func backup_queue: Queue is emtpy\n", backup("none.backup"));
    EXPECT_FALSE(dir.exists("none.backup"));
}

TEST_F(BackupTest, DrainedQueueCountsAsEmpty)
{
    put(kFirst);
    take(1);
    dir.write("recv.backup", "old");
    backup("recv.backup");
    EXPECT_EQ("old", dir.read("recv.backup"));
}

TEST_F(BackupTest, WrappedRingWritesANegativeCountAndNoItems)
{
    for (int i = 0; i < 9; i++)
        put(kFirst);
    take(9); // both indices at 9
    put(kFirst);
    put(kSecond); // producer index 1, consumer index 9
    ASSERT_EQ(1, q.producerIndex);
    ASSERT_EQ(9, q.consumerIndex);
    backup("recv.backup");
    EXPECT_EQ("-8\n", dir.read("recv.backup"));
    EXPECT_EQ(2, filledCount(q));
}

TEST_F(BackupTest, FullRingCountsAsEmpty)
{
    for (int i = 0; i < 10; i++)
        put(kFirst);
    dir.write("recv.backup", "old");
    EXPECT_EQ("Func backup_queue: Queue is emtpy\n", backup("recv.backup"));
    EXPECT_EQ("old", dir.read("recv.backup"));
}

TEST_F(BackupTest, MissingQueueOrNameIsReported)
{
    CaptureStdout();
    backup_queue(nullptr, dir.file("x").c_str());
    backup_queue(&q, nullptr);
    EXPECT_EQ("Func backup_queue: Queue or backup filename is NULL!\n"
              "Func backup_queue: Queue or backup filename is NULL!\n",
              GetCapturedStdout());
    EXPECT_FALSE(dir.exists("x"));
}

TEST_F(BackupTest, UnwritableFileIsReportedWithTheNameFirst)
{
    put(kFirst);
    std::string path = dir.file("no/such/dir/recv.backup");
    CaptureStdout();
    backup_queue(&q, path.c_str());
    EXPECT_EQ("Func " + path + ": Fail To Open File backup_queue!\n", GetCapturedStdout());
    EXPECT_EQ(1, filledCount(q));
}

/* ---- hand-over before a reboot ---- */

namespace {

struct Visit {
    int count = -99;
    std::vector<std::string> items;
    int saved = 1;
};

int recordVisit(void *context, int count, const cJSON *const *items)
{
    Visit *visit = static_cast<Visit *>(context);
    visit->count = count;
    for (int i = 0; i < count && items != nullptr; i++) {
        char *text = cJSON_PrintUnformatted(items[i]);
        visit->items.push_back(text);
        cJSON_free(text);
    }
    return visit->saved;
}

std::string takeId(JsonQueue &q)
{
    cJSON *tree = nullptr;
    consumeObject(&q, &tree);
    std::string id = cJSON_GetObjectItem(tree, "id")->valuestring;
    cJSON_Delete(tree);
    return id;
}

} // namespace

TEST_F(BackupTest, SavedTreesAreDroppedFromThisRunAndLaterOnesTaken)
{
    put(kFirst);
    put(kSecond);
    Visit visit;
    snapshotQueueHandOver(&q, recordVisit, &visit);
    EXPECT_EQ(2, visit.count);
    EXPECT_EQ((std::vector<std::string>{kFirst, kSecond}), visit.items);
    /* queued after the hand-over: the next take gives it, the saved two
     * are gone without being taken */
    put("{\"id\":\"later\"}");
    EXPECT_EQ("later", takeId(q));
    EXPECT_EQ(QUEUE_CAPACITY, freeSlotCount(&q));
    put("{\"id\":\"after\"}");
    EXPECT_EQ("after", takeId(q));
}

TEST_F(BackupTest, AHandOverThatSavedNothingDropsNothing)
{
    put(kFirst);
    Visit visit;
    visit.saved = 0; /* the file could not be written */
    snapshotQueueHandOver(&q, recordVisit, &visit);
    EXPECT_EQ("1", takeId(q));
}

TEST_F(BackupTest, APlainSnapshotDropsNothing)
{
    put(kFirst);
    Visit visit;
    snapshotQueue(&q, recordVisit, &visit);
    EXPECT_EQ(1, visit.count);
    EXPECT_EQ("1", takeId(q));
}

/* ---- the restore ---- */

TEST(RestoreAssertion, ALineThatIsNotJsonStopsTheProcessWithItsReport)
{
    TempDir dir;
    dir.write("recv.backup", "2\n{\"jsonrpc\":\"2.0\"}\nnot json\n");
    std::string file = dir.file("recv.backup");
    EXPECT_DEATH(
        {
            JsonQueue q;
            initQueue(&q, QUEUE_CAPACITY);
            restore_queue(file.c_str(), &q);
        },
        // the report is all the process writes (under user-mode emulation
        // the emulator adds its own line about the signal)
        "^korvat-cloud: kapri_util\\.cpp:1702: restore_queue: Assertion `\\(\\(void \\*\\)0\\) != "
        "root' failed\\.\n(qemu: uncaught target signal 6 \\(Aborted\\)[^\n]*\n)?$");
    // the process that died moved the file aside, whole, so that the next
    // start does not stop at the same line
    EXPECT_FALSE(dir.exists("recv.backup"));
    ASSERT_TRUE(dir.exists("recv.backup.corrupt"));
    EXPECT_EQ("2\n{\"jsonrpc\":\"2.0\"}\nnot json\n", dir.read("recv.backup.corrupt"));
}

TEST(RestoreAssertion, AnOlderSetAsideFileIsReplaced)
{
    TempDir dir;
    dir.write("recv.backup.corrupt", "old damage\n");
    dir.write("recv.backup", "1\n{\"a\n");
    std::string file = dir.file("recv.backup");
    EXPECT_DEATH(
        {
            JsonQueue q;
            initQueue(&q, QUEUE_CAPACITY);
            restore_queue(file.c_str(), &q);
        },
        "Assertion `\\(\\(void \\*\\)0\\) != root' failed");
    EXPECT_FALSE(dir.exists("recv.backup"));
    EXPECT_EQ("1\n{\"a\n", dir.read("recv.backup.corrupt"));
}

/* A read error (EIO from flash; here the error of reading a directory)
 * ends the restore instead of reading for ever. */
TEST(RestoreReadError, EndsTheRestore)
{
    TempDir dir;
    dir.write("recv.backup/inside", "x");
    std::string file = dir.file("recv.backup");
    pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        JsonQueue q;
        initQueue(&q, QUEUE_CAPACITY);
        restore_queue(file.c_str(), &q);
        _exit(freeSlotCount(&q) == QUEUE_CAPACITY ? 0 : 1);
    }
    int status = 0;
    pid_t done = 0;
    for (int i = 0; i < 200 * kcTestTimeScale() && done == 0; i++) {
        done = waitpid(child, &status, WNOHANG);
        if (done == 0)
            usleep(50 * 1000);
    }
    if (done == 0) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
        FAIL() << "the restore kept reading after a read error";
    }
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
}

TEST(RestoreAssertion, AnEmptyLineBeforeTheCountIsReachedStopsItToo)
{
    TempDir dir;
    dir.write("recv.backup", "1\n\n{}\n");
    std::string file = dir.file("recv.backup");
    EXPECT_DEATH(
        {
            JsonQueue q;
            initQueue(&q, QUEUE_CAPACITY);
            restore_queue(file.c_str(), &q);
        },
        "Assertion `\\(\\(void \\*\\)0\\) != root' failed");
}
