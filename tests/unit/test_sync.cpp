/*
 * The mutex and semaphore wrappers under the queues and the connection
 * lock: mutexes are recursive, an empty trywait reports 0 instead of
 * stopping the process, and the value wrapper tracks posts and waits.
 */
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

#include "linux/mutex.h"
#include "linux/sem.h"
#include "test_support.h"

using namespace kctest;

namespace {

/* trylockMutex from a thread of its own: 1 when that thread could take the
 * mutex (it lets it go again), 0 when another thread holds it. */
int trylockFromOtherThread(pthread_mutex_t *m)
{
    int taken = -1;
    std::thread other([&] {
        taken = trylockMutex(m);
        if (taken == 1)
            unlockMutex(m);
    });
    other.join();
    return taken;
}

} // namespace

TEST(MutexWrapper, SameThreadMayLockTwice)
{
    /* Made on the heap and run on a thread of its own: were the mutex not
     * recursive, the second lock would hang that thread for good, and the
     * test reports it instead of hanging itself. */
    auto m = std::make_shared<pthread_mutex_t>();
    initMutex(m.get());
    auto holding = std::make_shared<std::atomic<int>>(0);
    std::thread locker([m, holding] {
        lockMutex(m.get());
        *holding = 1;
        lockMutex(m.get()); // would deadlock if the mutex were not recursive
        *holding = 2;
    });
    if (!waitFor([&] { return holding->load() == 2; })) {
        locker.detach(); // stuck in the second lock: leave it behind
        FAIL() << "the second lock by the holding thread did not return";
    }
    locker.join();
    // held twice by a thread that is gone: nobody else gets it
    EXPECT_EQ(0, trylockFromOtherThread(m.get()));

    // the same within this thread, counted: two unlocks free it, not one
    pthread_mutex_t n;
    initMutex(&n);
    lockMutex(&n);
    EXPECT_EQ(1, trylockMutex(&n)) << "the holder could not take it again";
    unlockMutex(&n);
    EXPECT_EQ(0, trylockFromOtherThread(&n)) << "one unlock of two released it";
    unlockMutex(&n);
    EXPECT_EQ(1, trylockFromOtherThread(&n));
    deleteMutex(&n);
}

TEST(MutexWrapper, OtherThreadWaitsUntilFullyUnlocked)
{
    pthread_mutex_t m;
    initMutex(&m);
    lockMutex(&m);
    lockMutex(&m);
    unlockMutex(&m);
    std::atomic<bool> in{false};
    BlockingCall other([&] {
        lockMutex(&m);
        in = true;
        unlockMutex(&m);
    });
    EXPECT_TRUE(other.blocked()) << "one unlock of two released the mutex";
    EXPECT_FALSE(in.load());
    unlockMutex(&m);
    EXPECT_TRUE(other.returnsSoon());
    EXPECT_TRUE(in.load());
    deleteMutex(&m);
}

TEST(SemaphoreWrapper, TrywaitOnZeroReportsZero)
{
    sem_t s;
    initSemaphore(&s, 0);
    EXPECT_EQ(0, trywaitSemaphore(&s));
    EXPECT_EQ(0, getSemaphoreValue(&s));
    postSemaphore(&s);
    EXPECT_EQ(1, getSemaphoreValue(&s));
    EXPECT_EQ(1, trywaitSemaphore(&s));
    EXPECT_EQ(0, trywaitSemaphore(&s));
    deleteSemaphore(&s);
}

TEST(SemaphoreWrapper, ValueFollowsPostsAndWaits)
{
    sem_t s;
    initSemaphore(&s, 10);
    EXPECT_EQ(10, getSemaphoreValue(&s));
    waitSemaphore(&s);
    waitSemaphore(&s);
    EXPECT_EQ(8, getSemaphoreValue(&s));
    postSemaphore(&s);
    EXPECT_EQ(9, getSemaphoreValue(&s));
    deleteSemaphore(&s);
}

TEST(SemaphoreWrapper, WaitResumesWhenPosted)
{
    sem_t s;
    initSemaphore(&s, 0);
    BlockingCall waiter([&] { waitSemaphore(&s); });
    EXPECT_TRUE(waiter.blocked()) << "a wait on a zero semaphore went on";
    postSemaphore(&s);
    EXPECT_TRUE(waiter.returnsSoon());
    EXPECT_EQ(0, getSemaphoreValue(&s));
    deleteSemaphore(&s);
}
