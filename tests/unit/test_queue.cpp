/*
 * The bounded queues of JSON trees and the connection lock: ten requests
 * fit, the eleventh non-blocking one is answered with error 10002 and
 * dropped, order is kept across the ring's wrap, a blocking producer waits
 * for a free slot, and a waiting writer keeps new readers out.
 */
#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "json/accessors.h"
#include "test_support.h"

using namespace kctest;

namespace {

cJSON *request(int n)
{
    std::string text = "{\"jsonrpc\":\"2.0\",\"id\":\"" + std::to_string(n) +
                       "\",\"method\":\"dxGetAbout\",\"params\":{}}";
    return cJSON_Parse(text.c_str());
}

std::string idOf(const cJSON *tree)
{
    const char *id = jsonGetString(tree, "id");
    return id != nullptr ? id : "<none>";
}

/* Records every pointer cJSON frees while installed. */
std::set<void *> *s_freed = nullptr;
void recordingFree(void *p)
{
    if (s_freed != nullptr)
        s_freed->insert(p);
    free(p);
}

class LocalQueue {
public:
    LocalQueue() { initQueue(&q, QUEUE_CAPACITY); }
    ~LocalQueue()
    {
        drainReplies(q);
        deleteQueue(&q);
    }
    JsonQueue q;
};


} // namespace

TEST(JsonQueue, StartsEmptyWithTenFreeSlots)
{
    LocalQueue lq;
    EXPECT_EQ(10, freeSlotCount(&lq.q));
    EXPECT_EQ(0, filledCount(lq.q));
    EXPECT_EQ(0, lq.q.producerIndex);
    EXPECT_EQ(0, lq.q.consumerIndex);
}

TEST(JsonQueue, EleventhRequestIsAnsweredWithTooManyItemsAndDropped)
{
    drainReplies();
    for (int i = 0; i < 10; i++)
        ASSERT_EQ(1, produceObject(&g_recvQueue, request(i), PRODUCE_NONBLOCKING));
    EXPECT_EQ(0, freeSlotCount(&g_recvQueue));

    std::set<void *> freed;
    s_freed = &freed;
    cJSON_Hooks hooks = {malloc, recordingFree};
    cJSON_InitHooks(&hooks);
    cJSON *eleventh = request(10);
    int queued = produceObject(&g_recvQueue, eleventh, PRODUCE_NONBLOCKING);
    cJSON_InitHooks(nullptr);
    s_freed = nullptr;

    EXPECT_EQ(0, queued);
    EXPECT_EQ(1u, freed.count(eleventh)) << "the refused request was not deleted";
    std::vector<std::string> replies = drainReplies();
    ASSERT_EQ(1u, replies.size());
    EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":\"10\",\"error\":{\"code\":10002,"
              "\"message\":\"Too many items in a list\",\"data\":\"\"}}",
              replies[0]);

    // The ten queued requests come out in order; the eleventh never does.
    for (int i = 0; i < 10; i++) {
        cJSON *tree = nullptr;
        readJsonCommand(&tree);
        EXPECT_EQ(std::to_string(i), idOf(tree));
        cJSON_Delete(tree);
    }
    EXPECT_EQ(0, filledCount(g_recvQueue));
    EXPECT_EQ(10, freeSlotCount(&g_recvQueue));
}

TEST(JsonQueue, OrderIsKeptAcrossTheWrapOfTheRing)
{
    LocalQueue lq;
    int next = 0, expected = 0;
    // Interleave so that the indices wrap several times.
    for (int round = 0; round < 5; round++) {
        for (int i = 0; i < 7; i++)
            ASSERT_EQ(1, produceObject(&lq.q, request(next++), PRODUCE_BLOCKING));
        for (int i = 0; i < 7; i++) {
            cJSON *tree = nullptr;
            consumeObject(&lq.q, &tree);
            EXPECT_EQ(std::to_string(expected++), idOf(tree));
            cJSON_Delete(tree);
        }
    }
    EXPECT_EQ((35 % 10), lq.q.producerIndex);
    EXPECT_EQ((35 % 10), lq.q.consumerIndex);
}

std::vector<std::string> *s_refused = nullptr;
void recordRefusal(cJSON *tree)
{
    s_refused->push_back(idOf(tree));
    cJSON_Delete(tree);
}

TEST(JsonQueue, FullQueueHandsRefusedTreesToItsHookWithoutTouchingQueuedTrees)
{
    LocalQueue lq;
    std::vector<std::string> refused;
    s_refused = &refused;
    setQueueRefusal(&lq.q, recordRefusal);
    drainReplies();
    for (int i = 0; i < 10; i++)
        ASSERT_EQ(1, produceObject(&lq.q, request(i), PRODUCE_NONBLOCKING));
    EXPECT_EQ(0, produceObject(&lq.q, request(98), PRODUCE_NONBLOCKING));
    EXPECT_EQ(0, produceObject(&lq.q, request(99), PRODUCE_NONBLOCKING));
    s_refused = nullptr;
    EXPECT_EQ((std::vector<std::string>{"98", "99"}), refused);
    // the queue layer itself answers nothing
    EXPECT_TRUE(drainReplies().empty());
    EXPECT_EQ(10, filledCount(lq.q));
    cJSON *first = nullptr;
    consumeObject(&lq.q, &first);
    EXPECT_EQ("0", idOf(first));
    cJSON_Delete(first);
}

TEST(JsonQueue, WithoutAHookARefusedTreeIsDeleted)
{
    LocalQueue lq;
    for (int i = 0; i < 10; i++)
        ASSERT_EQ(1, produceObject(&lq.q, request(i), PRODUCE_NONBLOCKING));
    std::set<void *> freed;
    s_freed = &freed;
    cJSON_Hooks hooks = {malloc, recordingFree};
    cJSON_InitHooks(&hooks);
    cJSON *eleventh = request(10);
    EXPECT_EQ(0, produceObject(&lq.q, eleventh, PRODUCE_NONBLOCKING));
    cJSON_InitHooks(nullptr);
    s_freed = nullptr;
    EXPECT_EQ(1u, freed.count(eleventh));
    EXPECT_EQ(10, filledCount(lq.q));
}

TEST(JsonQueue, BlockingProducerResumesWhenOneTreeIsTaken)
{
    LocalQueue lq;
    for (int i = 0; i < 10; i++)
        ASSERT_EQ(1, produceObject(&lq.q, request(i), PRODUCE_BLOCKING));

    std::atomic<int> result{-1};
    BlockingCall producer([&] { result = produceObject(&lq.q, request(10), PRODUCE_BLOCKING); });
    ASSERT_TRUE(producer.blocked()) << "a blocking producer went past a full queue";
    EXPECT_EQ(-1, result.load());
    EXPECT_EQ(10, filledCount(lq.q));

    cJSON *tree = nullptr;
    consumeObject(&lq.q, &tree);
    EXPECT_EQ("0", idOf(tree));
    cJSON_Delete(tree);

    EXPECT_TRUE(producer.returnsSoon());
    EXPECT_EQ(1, result.load());
    for (int i = 1; i <= 10; i++) {
        consumeObject(&lq.q, &tree);
        EXPECT_EQ(std::to_string(i), idOf(tree));
        cJSON_Delete(tree);
    }
}

TEST(JsonQueue, ReplyWriterBlocksOnAFullReplyQueueAndResumesWhenASlotFrees)
{
    JsonQueue &replies = g_sendQueues[SEND_QUEUE_REPLY];
    drainReplies();
    for (int i = 0; i < 10; i++)
        writeJsonReply(request(i));
    ASSERT_EQ(0, freeSlotCount(&replies));

    BlockingCall handler([&] { writeJsonReply(request(10)); });
    ASSERT_TRUE(handler.blocked()) << "the reply writer went past a full queue";
    EXPECT_EQ(10, filledCount(replies));

    cJSON *tree = nullptr;
    consumeObject(&replies, &tree);
    EXPECT_EQ("0", idOf(tree));
    cJSON_Delete(tree);
    EXPECT_TRUE(handler.returnsSoon());
    // every reply is there, in order, and nothing was refused
    std::vector<std::string> rest = drainReplies();
    ASSERT_EQ(10u, rest.size());
    for (int i = 1; i <= 10; i++) {
        cJSON *r = cJSON_Parse(rest[(size_t)i - 1].c_str());
        EXPECT_EQ(std::to_string(i), idOf(r));
        EXPECT_EQ(nullptr, cJSON_GetObjectItem(r, "error"));
        cJSON_Delete(r);
    }
}

TEST(JsonQueue, ConsumerWaitsForAProducer)
{
    LocalQueue lq;
    std::atomic<cJSON *> got{nullptr};
    BlockingCall consumer([&] {
        cJSON *tree = nullptr;
        consumeObject(&lq.q, &tree);
        got = tree;
    });
    ASSERT_TRUE(consumer.blocked()) << "a consumer went past an empty queue";
    EXPECT_EQ(nullptr, got.load());
    cJSON *tree = request(5);
    produceObject(&lq.q, tree, PRODUCE_BLOCKING);
    EXPECT_TRUE(consumer.returnsSoon());
    EXPECT_EQ(tree, got.load());
    cJSON_Delete(tree);
}

TEST(JsonQueue, RepliesAndMessagesGoToTheirOwnQueues)
{
    drainReplies();
    writeJsonReply(request(1));
    writeJsonStatus(request(2));
    writeJsonEvent(request(3));
    EXPECT_EQ(1, filledCount(g_sendQueues[SEND_QUEUE_REPLY]));
    EXPECT_EQ(1, filledCount(g_sendQueues[SEND_QUEUE_STATUS]));
    EXPECT_EQ(1, filledCount(g_sendQueues[SEND_QUEUE_EVENT]));
    EXPECT_NE(std::string::npos, drainReplies()[0].find("\"id\":\"1\""));
    EXPECT_NE(std::string::npos,
              drainReplies(g_sendQueues[SEND_QUEUE_STATUS])[0].find("\"id\":\"2\""));
    EXPECT_NE(std::string::npos,
              drainReplies(g_sendQueues[SEND_QUEUE_EVENT])[0].find("\"id\":\"3\""));
}

TEST(ConnectionLock, ReadersShareTheLock)
{
    ConnectionLock lock;
    initConnectionLock(&lock);
    connectionReadLock(&lock);
    std::atomic<bool> second{false};
    std::thread reader([&] {
        connectionReadLock(&lock);
        second = true;
        connectionReadUnlock(&lock);
    });
    EXPECT_TRUE(waitFor([&] { return second.load(); }));
    reader.join();
    connectionReadUnlock(&lock);
    deleteConnectionLock(&lock);
}

TEST(ConnectionLock, WriterIsAlone)
{
    ConnectionLock lock;
    initConnectionLock(&lock);
    connectionWriteLock(&lock);
    std::atomic<bool> readerIn{false};
    BlockingCall reader([&] {
        connectionReadLock(&lock);
        readerIn = true;
        connectionReadUnlock(&lock);
    });
    EXPECT_TRUE(reader.blocked()) << "a reader went in beside the writer";
    EXPECT_FALSE(readerIn.load());
    connectionWriteUnlock(&lock);
    EXPECT_TRUE(reader.returnsSoon());
    EXPECT_TRUE(readerIn.load());
    deleteConnectionLock(&lock);
}

TEST(ConnectionLock, WaitingWriterKeepsNewReadersOut)
{
    ConnectionLock lock;
    initConnectionLock(&lock);
    connectionReadLock(&lock); // the first reader holds the lock

    std::atomic<int> order{0};
    std::atomic<int> writerAt{0}, readerAt{0};
    std::atomic<bool> writerMayLeave{false};
    BlockingCall writer([&] {
        connectionWriteLock(&lock);
        writerAt = ++order;
        // inside until the test has looked at the late reader
        waitFor([&] { return writerMayLeave.load(); });
        connectionWriteUnlock(&lock);
    });
    EXPECT_TRUE(writer.blocked()) << "the writer went in beside a reader";
    EXPECT_EQ(1, lock.writers);

    BlockingCall lateReader([&] {
        connectionReadLock(&lock);
        readerAt = ++order;
        connectionReadUnlock(&lock);
    });
    EXPECT_TRUE(lateReader.blocked()) << "a new reader went in while a writer waited";
    EXPECT_EQ(0, writerAt.load()) << "the writer went in beside a reader";
    EXPECT_EQ(0, readerAt.load()) << "a new reader overtook the waiting writer";

    // the first reader leaves: the writer goes in, the late reader still waits
    connectionReadUnlock(&lock);
    EXPECT_TRUE(waitFor([&] { return writerAt.load() == 1; }));
    EXPECT_TRUE(lateReader.blocked()) << "a reader went in beside the writer";
    EXPECT_EQ(0, readerAt.load());
    writerMayLeave = true;
    EXPECT_TRUE(writer.returnsSoon());
    EXPECT_TRUE(lateReader.returnsSoon());
    EXPECT_EQ(1, writerAt.load());
    EXPECT_EQ(2, readerAt.load());
    EXPECT_EQ(0, lock.readers);
    EXPECT_EQ(0, lock.writers);
    deleteConnectionLock(&lock);
}
