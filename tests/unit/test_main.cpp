/*
 * Entry point of the unit tests: the four queues exist for every test (the
 * error replies and handler replies land in the reply queue), and a write
 * to a closed peer reports EPIPE instead of killing the process, as in the
 * running agent.
 */
#include <gtest/gtest.h>

#include <csignal>

#include "test_support.h"

namespace kctest {
std::atomic<int> g_pingCalls{0};
std::atomic<int> g_closeCalls{0};
void countPing(void) { g_pingCalls++; }
void countClose(void) { g_closeCalls++; }
} // namespace kctest

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    signal(SIGPIPE, SIG_IGN);
    initQueue(&g_recvQueue, QUEUE_CAPACITY);
    for (int i = 0; i < SEND_QUEUE_COUNT; i++)
        initQueue(&g_sendQueues[i], QUEUE_CAPACITY);
    return RUN_ALL_TESTS();
}
