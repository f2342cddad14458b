/*
 * Marsaglia's multiply-with-carry generator shared by the whole process.
 * It takes no lock: the threads that draw from it (handshakes, frame masks,
 * the reconnect back-off) may interleave their steps.  Each word is one
 * atomic load or store, so such an interleaving gives other numbers but is
 * never a data race.
 */
#include "util/random.h"

#include <atomic>

static std::atomic<uint32_t> s_z{1 + 3412};
static std::atomic<uint32_t> s_w{1};

void seedRandom(uint32_t seed)
{
    uint32_t w = seed != 0 ? seed : 1;
    s_w.store(w, std::memory_order_relaxed);
    s_z.store(w + 3412, std::memory_order_relaxed);
}

uint32_t nextRandom(void)
{
    uint32_t z = s_z.load(std::memory_order_relaxed);
    uint32_t w = s_w.load(std::memory_order_relaxed);
    z = 36969u * (z & 65535u) + (z >> 16);
    w = 18000u * (w & 65535u) + (w >> 16);
    s_z.store(z, std::memory_order_relaxed);
    s_w.store(w, std::memory_order_relaxed);
    return (z << 16) + w;
}
