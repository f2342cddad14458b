/*
 * The mutex and semaphore wrappers under the queues and the connection
 * lock: mutexes are recursive, an empty trywait reports 0 instead of
 * stopping the process, and the value wrapper tracks posts and waits.
 */
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "linux/mutex.h"
#include "linux/sem.h"

TEST(MutexWrapper, SameThreadMayLockTwice)
{
    pthread_mutex_t m;
    initMutex(&m);
    lockMutex(&m);
    lockMutex(&m); // would deadlock if the mutex were not recursive
    unlockMutex(&m);
    unlockMutex(&m);
    deleteMutex(&m);
}

TEST(MutexWrapper, OtherThreadWaitsUntilFullyUnlocked)
{
    pthread_mutex_t m;
    initMutex(&m);
    lockMutex(&m);
    lockMutex(&m);
    std::atomic<bool> in{false};
    std::thread other([&] {
        lockMutex(&m);
        in = true;
        unlockMutex(&m);
    });
    unlockMutex(&m);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(in.load()) << "one unlock of two released the mutex";
    unlockMutex(&m);
    other.join();
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
    std::atomic<bool> done{false};
    std::thread waiter([&] {
        waitSemaphore(&s);
        done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_FALSE(done.load());
    postSemaphore(&s);
    waiter.join();
    EXPECT_TRUE(done.load());
    deleteSemaphore(&s);
}
