/*
 * The process-wide multiply-with-carry generator (values worked out by hand
 * for known seeds) and the bounded Base64 encoder (RFC 4648 vectors, the
 * output-capacity refusal).
 */
#include <gtest/gtest.h>

#include <string>

#include "sdk/sdk_private.h"
#include "websocket/base64.h"
#include "util/random.h"
#include "sdk/nimb_sdk.h"
#include "websocket/connection.h"
#include "websocket/framing.h"
#include "websocket/handshake.h"
#include "websocket/url.h"
#include "websocket/base64.h"
#include "util/random.h"

TEST(Random, SeedOneGivesTheHandComputedSequence)
{
    // z = 3413, w = 1: z' = 36969 * 3413 = 0x0785'47DD, w' = 18000 = 0x4650,
    // so the first value is 0x47DD0000 + 0x4650.
    seedRandom(1);
    EXPECT_EQ(0x47dd4650u, nextRandom());
    EXPECT_EQ(0xe479d900u, nextRandom());
    EXPECT_EQ(0xce5ce34fu, nextRandom());
}

TEST(Random, SeedZeroBehavesAsSeedOne)
{
    seedRandom(0);
    EXPECT_EQ(0x47dd4650u, nextRandom());
    EXPECT_EQ(0xe479d900u, nextRandom());
}

TEST(Random, LargerSeedsCarryThroughTheHighHalf)
{
    seedRandom(123456);
    EXPECT_EQ(0xc1d93401u, nextRandom());
    EXPECT_EQ(0x6aaac474u, nextRandom());
    EXPECT_EQ(0x84732a88u, nextRandom());

    // The largest seed a handshake can use (time modulo 874563).
    seedRandom(874562);
    EXPECT_EQ(0x22d0a0adu, nextRandom());
    EXPECT_EQ(0x6bba9c4du, nextRandom());
    EXPECT_EQ(0x56a61231u, nextRandom());
}

TEST(Random, ReseedingRestartsTheSequence)
{
    seedRandom(42);
    uint32_t a = nextRandom();
    uint32_t b = nextRandom();
    seedRandom(42);
    EXPECT_EQ(a, nextRandom());
    EXPECT_EQ(b, nextRandom());
}

static std::string encode(const std::string &in, int cap = 64)
{
    char out[128];
    int n = base64Encode(reinterpret_cast<const unsigned char *>(in.data()), (int)in.size(),
                         out, cap);
    if (n < 0)
        return "<refused>";
    EXPECT_EQ((size_t)n, strlen(out));
    return std::string(out);
}

TEST(Base64, Rfc4648TestVectors)
{
    EXPECT_EQ("", encode(""));
    EXPECT_EQ("Zg==", encode("f"));
    EXPECT_EQ("Zm8=", encode("fo"));
    EXPECT_EQ("Zm9v", encode("foo"));
    EXPECT_EQ("Zm9vYg==", encode("foob"));
    EXPECT_EQ("Zm9vYmE=", encode("fooba"));
    EXPECT_EQ("Zm9vYmFy", encode("foobar"));
}

TEST(Base64, SixteenByteKeyGivesTwentyFourCharacters)
{
    EXPECT_EQ("dGhlIHNhbXBsZSBub25jZQ==", encode("the sample nonce"));
    const unsigned char all[3] = {0xfb, 0xff, 0xbf};
    char out[8];
    EXPECT_EQ(4, base64Encode(all, 3, out, sizeof out));
    EXPECT_STREQ("+/+/", out);
}

TEST(Base64, OutputThatWouldNotFitWithItsTerminatorIsRefused)
{
    // "foo" needs 4 characters and a terminator.
    EXPECT_EQ("<refused>", encode("foo", 4));
    EXPECT_EQ("Zm9v", encode("foo", 5));
    // A 16-byte key needs 25 bytes.
    EXPECT_EQ("<refused>", encode("the sample nonce", 24));
    EXPECT_EQ("dGhlIHNhbXBsZSBub25jZQ==", encode("the sample nonce", 25));
    char out[1];
    EXPECT_EQ(-1, base64Encode(reinterpret_cast<const unsigned char *>("x"), 1, out, 0));
}

TEST(RetryDelay, TheIntervalForTenMinutesThenSixtyToOneHundredNineteen)
{
    seedRandom(12345);
    int attempts = 0;
    for (int i = 0; i < 61; i++)
        ASSERT_EQ(10u, retryDelay(10, &attempts)) << "attempt " << i;
    EXPECT_EQ(61, attempts);
    // from here the generator decides: 60 + value % 60, for seed 12345
    const unsigned int expected[] = {100, 82, 71, 70, 113, 66, 60, 67};
    for (unsigned int want : expected)
        EXPECT_EQ(want, retryDelay(10, &attempts));
    EXPECT_EQ(61, attempts); // back-off waits are not counted
}

TEST(RetryDelay, ThirtySecondsFor21AttemptsThenTheBackOff)
{
    seedRandom(12345);
    int attempts = 0;
    for (int i = 0; i < 21; i++)
        ASSERT_EQ(30u, retryDelay(30, &attempts));
    EXPECT_EQ(100u, retryDelay(30, &attempts));
    EXPECT_EQ(82u, retryDelay(30, &attempts));
}
