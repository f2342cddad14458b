/*
 * The reply whose departure dxSetNetworkSettings waits for: the sending
 * thread, through the connection manager's reply-sent hook, clears the
 * pending slot once that very reply (same "id" text) has been written to
 * the connection, and leaves it for any other tree.
 */
#include <gtest/gtest.h>

#include <pthread.h>

#include "client/handlers.h"
#include "sdk/nimb_sdk.h"
#include "sdk/sdk_private.h"
#include "test_support.h"

using namespace kctest;

namespace {

/* A sending thread on its own queue, writing to a socketpair. */
struct SendingThread {
    SendingThread()
    {
        initQueue(&queue, QUEUE_CAPACITY);
        initConnectionLock(nimbConnectionLock());
        saved = g_wbsConnection;
        g_wbsConnection = pc.conn;
        setReplySentHook(pendingAckReplySent);
        testing::internal::CaptureStdout();
        pthread_t thread;
        if (pthread_create(&thread, nullptr, queueReader, &queue) != 0)
            abort();
        pthread_detach(thread);
    }
    ~SendingThread()
    {
        // the thread waits on its own (static) queue for good; once the
        // write side is ours it is out of any send
        connectionWriteLock(nimbConnectionLock());
        g_wbsConnection = saved;
        connectionWriteUnlock(nimbConnectionLock());
        testing::internal::GetCapturedStdout();
        setReplySentHook(nullptr);
    }
    /* Queues text and waits until its frame has reached the peer. */
    void sendAndWait(const char *text, cJSON **tree = nullptr)
    {
        cJSON *t = cJSON_Parse(text);
        if (tree != nullptr)
            *tree = t;
        ASSERT_EQ(1, produceObject(&queue, t, PRODUCE_BLOCKING));
        std::string frame = readSome(pc.peer, 2 + 4 + strlen(text));
        ASSERT_EQ(2 + 4 + strlen(text), frame.size());
    }
    static JsonQueue queue;
    PairConnection pc;
    WbsConnection *saved = nullptr;
};
JsonQueue SendingThread::queue;

} // namespace

TEST(PendingAck, TheSlotIsClearedOnceItsReplyHasBeenSent)
{
    SendingThread sender;
    const char other[] = "{\"jsonrpc\":\"2.0\",\"id\":\"40\",\"result\":{}}";
    const char notice[] = "{\"jsonrpc\":\"2.0\",\"method\":\"dsEventNotifications\",\"params\":{}}";
    const char reply[] = "{\"jsonrpc\":\"2.0\",\"id\":\"41\",\"result\":{\"deviceId\":\"m\"}}";
    cJSON *pending = cJSON_Parse(reply);
    setPendingAckReply(pending);

    // another reply and a notification (no "id") leave the slot alone
    sender.sendAndWait(other);
    sender.sendAndWait(notice);
    EXPECT_EQ(pending, pendingAckReply());

    // the pending reply itself (the same tree, as the handler queues it)
    sender.sendAndWait(reply, nullptr);
    EXPECT_TRUE(waitFor([] { return pendingAckReply() == nullptr; }))
        << "the slot was not cleared after its reply was sent";
    cJSON_Delete(pending);
}

TEST(PendingAck, TheHookMatchesTheIdTextOnly)
{
    cJSON *pending = cJSON_Parse("{\"jsonrpc\":\"2.0\",\"id\":\"7\",\"result\":{}}");
    setPendingAckReply(pending);
    cJSON *numeric = cJSON_Parse("{\"jsonrpc\":\"2.0\",\"id\":7,\"result\":{}}");
    cJSON *other = cJSON_Parse("{\"jsonrpc\":\"2.0\",\"id\":\"70\",\"result\":{}}");
    cJSON *same = cJSON_Parse("{\"jsonrpc\":\"2.0\",\"id\":\"7\",\"error\":{}}");
    EXPECT_EQ(0, pendingAckReplySent(numeric));
    EXPECT_EQ(0, pendingAckReplySent(other));
    EXPECT_EQ(pending, pendingAckReply());
    EXPECT_EQ(1, pendingAckReplySent(same));
    EXPECT_EQ(nullptr, pendingAckReply());
    EXPECT_EQ(0, pendingAckReplySent(same)); // nothing pending any more
    for (cJSON *t : {pending, numeric, other, same})
        cJSON_Delete(t);
}

/* Once the handler's wait is over the slot no longer refers to its reply:
 * the tree is deleted whenever the sending thread gets it out, and nothing
 * may read it through the slot afterwards. */
TEST(PendingAck, AnAbandonedSlotRefersToNothing)
{
    cJSON *pending = cJSON_Parse("{\"jsonrpc\":\"2.0\",\"id\":\"8\",\"result\":{}}");
    setPendingAckReply(pending);
    cJSON *other = cJSON_Parse("{\"jsonrpc\":\"2.0\",\"id\":\"9\",\"result\":{}}");
    abandonPendingAckReply(other); // not the pending one: nothing changes
    EXPECT_EQ(pending, pendingAckReply());
    abandonPendingAckReply(pending);
    EXPECT_EQ(nullptr, pendingAckReply());
    // the late send of the abandoned reply is no acknowledgement any more
    EXPECT_EQ(0, pendingAckReplySent(pending));
    cJSON_Delete(other);
    cJSON_Delete(pending);
}

/* The slot is matched against a copy of the id: a pending tree that is gone
 * (deleted by the sending thread) is never read through the slot. */
TEST(PendingAck, TheMatchNeverReadsThePendingTree)
{
    cJSON *pending = cJSON_Parse("{\"jsonrpc\":\"2.0\",\"id\":\"10\",\"result\":{}}");
    setPendingAckReply(pending);
    cJSON_Delete(pending); // the address stays in the slot, the tree is gone
    cJSON *other = cJSON_Parse("{\"jsonrpc\":\"2.0\",\"id\":\"11\",\"result\":{}}");
    cJSON *same = cJSON_Parse("{\"jsonrpc\":\"2.0\",\"id\":\"10\",\"result\":{}}");
    EXPECT_EQ(0, pendingAckReplySent(other));
    EXPECT_EQ(1, pendingAckReplySent(same));
    EXPECT_EQ(nullptr, pendingAckReply());
    cJSON_Delete(other);
    cJSON_Delete(same);
}
