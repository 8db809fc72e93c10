// The setup array codec: the sample configurations and a cylinder body
// decode and encode back bit for bit, and an array one value short or long
// is refused with the tracker's message.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "SetupArray.h"
#include "tracker_scene.h"

using namespace ZOTtracker;

namespace {

// Decodes `array`, checks that it encodes back bit for bit and that one
// value less room is refused, not overrun; returns the decoded set-up.
std::unique_ptr<SetupArray> expectRoundTrip(const std::vector<double>& array) {
  auto setup = std::make_unique<SetupArray>();
  EXPECT_TRUE(decodeSetupArray(array.data(), (int)array.size(), *setup));
  std::vector<double> out(array.size() + 1);
  EXPECT_EQ(encodeSetupArray(*setup, out.data(), (int)out.size()), (int)array.size());
  EXPECT_EQ(memcmp(out.data(), array.data(), array.size() * sizeof(double)), 0);
  EXPECT_EQ(encodeSetupArray(*setup, out.data(), (int)array.size() - 1), -1);
  return setup;
}

}  // namespace

TEST(SetupCodec, SampleConfigurationsAndACylinderRoundTripBitForBit) {
  expectRoundTrip(zot_test::sampleSetupArray(ZOT_DATA_DIR, "camera_stereo.txt", "tracker_demo.txt",
                                             "model_chamfered_box.txt"));  // with a polyline
  // The bodies point into the array they were decoded from.
  const std::vector<double> mono =
      zot_test::sampleSetupArray(ZOT_DATA_DIR, "camera_mono.txt", "tracker.txt", "model_l_bracket.txt");
  std::unique_ptr<SetupArray> setup = expectRoundTrip(mono);
  SetupBody& cylinder = setup->bodies[setup->nBodies++];
  cylinder = SetupBody();
  cylinder.type = ZOT_BODY_CYLINDER;
  for (int i = 0; i < 13; i++) cylinder.cylinder[i] = 0.5 + i;
  std::vector<double> withCylinder(100000);
  const int n = encodeSetupArray(*setup, withCylinder.data(), (int)withCylinder.size());
  ASSERT_GT(n, 0);
  withCylinder.resize(n);
  EXPECT_EQ(expectRoundTrip(withCylinder)->bodies[setup->nBodies - 1].type, ZOT_BODY_CYLINDER);
}

TEST(SetupCodec, AnArrayOneValueShortOrLongIsRefusedWithTheTotalMessage) {
  std::vector<double> array =
      zot_test::sampleSetupArray(ZOT_DATA_DIR, "camera_mono.txt", "tracker.txt", "model_l_bracket.txt");
  const int n = (int)array.size();
  array.push_back(0.0);
  // Either way the layout needs n values.
  for (const int count : {n - 1, n + 1}) {
    auto setup = std::make_unique<SetupArray>();
    char messages[512];
    EXPECT_FALSE(decodeSetupArray(array.data(), count, *setup, messages, sizeof(messages)));
    const std::string expected = "ERROR: total numbers read " + std::to_string(n) +
                                 " should be: " + std::to_string(count) + "\n";
    EXPECT_NE(std::string(messages).find(expected), std::string::npos) << messages;
  }
}
