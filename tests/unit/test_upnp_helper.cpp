// The external port candidates of the port forwarding.
#include <gtest/gtest.h>

#include "upnp/upnp_helper.h"

TEST(ExternalPort, EveryCandidateIsAHighPortBelow65535)
{
    for (unsigned int value = 0; value < 65536 * 2; value++) {
        unsigned int port = externalPortCandidate(value);
        ASSERT_GE(port, 49152u) << value;
        ASSERT_LE(port, 65534u) << value;
    }
}

TEST(ExternalPort, LowValuesAreRaisedBy16383UntilHighEnough)
{
    EXPECT_EQ(49152u, externalPortCandidate(49152));
    EXPECT_EQ(65534u, externalPortCandidate(65534));
    EXPECT_EQ(65534u, externalPortCandidate(49151));          // + 16383
    EXPECT_EQ(65532u, externalPortCandidate(0));               // + 4 x 16383
    EXPECT_EQ(50000u, externalPortCandidate(65536 + 50000));   // modulo 65536
    EXPECT_EQ(49152u, externalPortCandidate(65535));
}
