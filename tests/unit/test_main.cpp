/*
 * Entry point of the unit tests: the four queues exist for every test, as
 * the connection manager makes them (the error replies and handler replies
 * land in the reply queue; the receive queue answers 10002), and a write
 * to a closed peer reports EPIPE instead of killing the process, as in the
 * running agent.
 */
#include <gtest/gtest.h>

#include <csignal>

#include "sdk/sdk_private.h"
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
    initNimbQueues();
    return RUN_ALL_TESTS();
}
