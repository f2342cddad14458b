/*
 * The guest network handler against an in-memory device: its
 * operation-mode gate refuses a change of the guest network on a
 * station-mode radio before any write.
 */
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "client/handlers.h"
#include "fake_uci.h"
#include "test_support.h"

using namespace kctest;

TEST(GuestOpModeGate, AStationRadioZeroRefusesItsGuestNetworkBeforeAnyWrite)
{
    DualBand radios;
    FakeUci dev;
    seed(dev);
    dev.uci["wireless.wifi0.opmode"] = "sta";
    std::vector<std::string> replies =
        handle(vekSetGuestNetworkConfigHandler,
               "{\"jsonrpc\":\"2.0\",\"id\":\"o\",\"method\":\"m\",\"params\":{\"deviceId\":\"x\","
               "\"interface\":\"2.4GHz\",\"ssid\":\"g\",\"security\":\"OPEN\"}}");
    EXPECT_EQ(std::vector<std::string>{refusal(
                  "o", "This method is not supported in Non-AP operation mode.")},
              replies);
    EXPECT_TRUE(dev.sets().empty());
}
