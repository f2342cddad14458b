/* Marsaglia's multiply-with-carry generator shared by the whole process. */
#include "websocket/websocket_client.h"

static uint32_t s_z = 1 + 3412;
static uint32_t s_w = 1;

void seedRandom(uint32_t seed)
{
    s_w = seed != 0 ? seed : 1;
    s_z = s_w + 3412;
}

uint32_t nextRandom(void)
{
    s_z = 36969u * (s_z & 65535u) + (s_z >> 16);
    s_w = 18000u * (s_w & 65535u) + (s_w >> 16);
    return (s_z << 16) + s_w;
}
