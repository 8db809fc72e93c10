// The setup array codec: the sample configurations decode and encode back
// bit for bit, a cylinder survives the round trip, and an array one value
// short or long is refused with the tracker's message.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "FileParser.h"
#include "SetupArray.h"

using namespace ZOTtracker;

namespace {

std::vector<double> parseSample(const char* camera, const char* tracker, const char* model) {
  std::vector<double> array(200000);
  int count = 0;
  FileParser parser;
  EXPECT_EQ(parser.parseAllFiles(ZOT_DATA_DIR, camera, tracker, model, count, array.data(),
                                 (int)array.size()),
            0);
  array.resize(count);
  return array;
}

void expectSameBits(const std::vector<double>& a, const std::vector<double>& b) {
  ASSERT_EQ(a.size(), b.size());
  EXPECT_EQ(memcmp(a.data(), b.data(), a.size() * sizeof(double)), 0);
}

std::vector<double> encode(const SetupArray& setup) {
  std::vector<double> out(200000);
  const int n = encodeSetupArray(setup, out.data(), (int)out.size());
  EXPECT_GT(n, 0);
  out.resize(n > 0 ? n : 0);
  return out;
}

}  // namespace

TEST(SetupCodec, SampleConfigurationsRoundTripBitForBit) {
  const char* const samples[][3] = {
      {"camera_mono.txt", "tracker.txt", "model_l_bracket.txt"},
      {"camera_stereo.txt", "tracker_demo.txt", "model_chamfered_box.txt"},  // with a polyline
  };
  for (const auto& s : samples) {
    const std::vector<double> array = parseSample(s[0], s[1], s[2]);
    auto setup = std::make_unique<SetupArray>();
    ASSERT_TRUE(decodeSetupArray(array.data(), (int)array.size(), *setup)) << s[0] << " " << s[2];
    expectSameBits(encode(*setup), array);
    // Too small an output is refused, not overrun.
    std::vector<double> small(array.size() - 1);
    EXPECT_EQ(encodeSetupArray(*setup, small.data(), (int)small.size()), -1);
  }
}

TEST(SetupCodec, ACylinderBodyRoundTrips) {
  const std::vector<double> array =
      parseSample("camera_mono.txt", "tracker.txt", "model_l_bracket.txt");
  auto setup = std::make_unique<SetupArray>();
  ASSERT_TRUE(decodeSetupArray(array.data(), (int)array.size(), *setup));
  SetupBody& cylinder = setup->bodies[setup->nBodies++];
  cylinder = SetupBody();
  cylinder.type = ZOT_BODY_CYLINDER;
  for (int i = 0; i < 13; i++) cylinder.cylinder[i] = 0.5 + i;
  const std::vector<double> withCylinder = encode(*setup);
  auto again = std::make_unique<SetupArray>();
  ASSERT_TRUE(decodeSetupArray(withCylinder.data(), (int)withCylinder.size(), *again));
  EXPECT_EQ(again->bodies[again->nBodies - 1].type, ZOT_BODY_CYLINDER);
  expectSameBits(encode(*again), withCylinder);
}

TEST(SetupCodec, AnArrayOneValueShortOrLongIsRefusedWithTheTotalMessage) {
  std::vector<double> array = parseSample("camera_mono.txt", "tracker.txt", "model_l_bracket.txt");
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
