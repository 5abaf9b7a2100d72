#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "far/FarCamera.h"
#include "far/PayloadCutter.h"
#include "far/ReadWindow.h"
#include "support/Collected.h"

namespace vel {
namespace {

using testing::ElementsAre;
using Bytes = std::vector<std::uint8_t>;

TEST(PayloadCutter, BulkPayloadsAreShortSoThatTheGuestSeesTheirEnds) {
  PayloadCutter cutter;
  const Bytes picture = {1, 2, 3};
  cutter.Begin(picture);
  EXPECT_THAT(cutter.CutBulk(5), ElementsAre(2, 0x81, 1, 2));
  EXPECT_THAT(cutter.CutBulk(5), ElementsAre(2, 0x83, 3));
}

TEST(ReadWindow, HasOneReadMoreThanTheWayHoldsPictures) {
  using namespace std::chrono_literals;
  struct Row {
    std::chrono::milliseconds roundTrip;
    std::chrono::milliseconds gap;
    int wanted;
  };
  for (const Row& row :
       {Row{0ms, 33ms, 3}, {100ms, 30ms, 5}, {100ms, 60ms, 3}, {100ms, 800ms, 2}, {9000ms, 33ms, 16}}) {
    ReadWindow window;
    EXPECT_EQ(window.Wanted(row.roundTrip), 3);
    for (int i = 0; i < 9; ++i) {  // In pairs, as a busy machine brings them.
      window.Arrived(ReadWindow::Clock::time_point(i / 2 * 2 * row.gap));
    }
    EXPECT_EQ(window.Wanted(row.roundTrip), row.wanted) << row.gap.count();
  }
}

// A device that notes what its camera asks for. Its guest has as many URBs as the test gives.
class Port final : public FarCamera::Port {
 public:
  std::uint32_t NewStreamId() override { return ++mNext; }
  void SendRead(std::uint8_t /*endpoint*/, std::uint32_t streamId, std::uint32_t room) override {
    EXPECT_EQ(room, 3072U);
    reads.Add(streamId);
  }
  void CancelRead(std::uint32_t streamId) override { cancels.Add(streamId); }
  void SendSetting(std::uint8_t /*interfaceNumber*/, std::uint8_t /*setting*/) override {}
  void Note(const std::string& line) override { ADD_FAILURE() << line; }
  std::chrono::microseconds LeastRoundTrip() const override { return std::chrono::milliseconds(1); }
  void OnLatePicture() override { ++late; }
  bool AnswerHeld(const FarCamera::Fill& fill) override {
    int left = urbs;
    while (left > 0 && !urbs.compare_exchange_weak(left, left - 1)) {
    }
    if (left > 0) {
      std::vector<UrbPacket> packets = {{0, 1000}};
      const auto data = fill(packets, 1000);
      filled.Add({data.begin(), data.end()});
    } else {
      refused.Add(0);
    }
    return left > 0;
  }

  std::atomic<int> urbs{0};
  std::atomic<int> late{0};
  Collected<std::uint32_t> reads;
  Collected<std::uint32_t> cancels;
  Collected<Bytes> filled;
  Collected<int> refused;

 private:
  std::atomic<std::uint32_t> mNext{100};
};

class FarCameraTest : public testing::Test {
 protected:
  static CameraModel Model() {
    CameraModel model;
    model.interfaceNumber = 1;
    model.endpoint = 0x81;
    model.modes = {{.format = PictureFormat::kYuyv, .formatIndex = 1, .frameIndex = 2, .width = 8, .height = 4}};
    model.settings = {{1, 3072}};
    return model;
  }
  void Commit(std::uint8_t frameIndex) {
    Bytes control(26);
    control[2] = 1;
    control[3] = frameIndex;
    control[23] = 3072 >> 8;
    camera.BeforeRequest({0x21, 1, 0x0200, 1, 26}, control);
  }
  void SelectSetting(std::uint16_t setting) {
    const ControlSetup setup{0x01, 11, setting, 1, 0};
    camera.BeforeRequest(setup, {});
    camera.AfterRequest(setup);
  }
  void Answer(std::uint32_t streamId, std::int32_t status, const Bytes& picture) {
    auto packet = std::make_unique<VelPacket>(1024);
    packet->InitHeader(0, 0x1029, 1);
    packet->Append(picture.data(), static_cast<std::uint32_t>(picture.size()));
    const TransferAnswer answer{streamId, status, 0, packet->PayloadBytes()};
    EXPECT_TRUE(camera.TakeReply(answer, packet));
  }

  Port port;
  FarCamera camera{Model(), port};
};

TEST_F(FarCameraTest, NewestPictureWinsAndReadsStayInFlight) {
  Commit(2);
  SelectSetting(1);
  const auto reads = port.reads.Await(3);
  ASSERT_EQ(reads.size(), 3U);
  Answer(reads[0], 0, Bytes(64, 1));
  port.refused.Await(1);  // No URB is there to see it.
  Answer(reads[1], 0, Bytes(64, 2));
  port.reads.Await(5);  // Both were taken, and read again.
  port.urbs = 1;
  camera.OnUrb();
  const auto filled = port.filled.Await(1);
  ASSERT_EQ(filled.size(), 1U);
  ASSERT_EQ(filled[0].size(), 66U);
  EXPECT_EQ(filled[0][2] + 0, 2);
  EXPECT_EQ(port.late, 1);
  SelectSetting(0);
  EXPECT_THAT(port.cancels.Take(), ElementsAre(105, 104, 103));
  std::unique_ptr<VelPacket> late;
  EXPECT_FALSE(camera.TakeReply({103, 3, 0, {}}, late));
}

TEST_F(FarCameraTest, StreamThatShowsNothingIsNotSpunOn) {
  Commit(2);
  SelectSetting(1);
  for (const std::uint32_t read : port.reads.Await(3)) {
    Answer(read, 1, {});
  }
  // Three that failed, and as many when their time has come: not hundreds.
  EXPECT_EQ(port.reads.Await(6).size(), 6U);
  EXPECT_EQ(port.reads.Count(), 6U);
  SelectSetting(0);
  Commit(9);  // What the camera does not offer.
  SelectSetting(1);
  EXPECT_EQ(port.reads.Count(), 6U);
}

}  // namespace
}  // namespace vel
