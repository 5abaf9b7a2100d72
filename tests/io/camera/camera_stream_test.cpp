// How pictures reach the transfers.
#include <gmock/gmock.h>

#include <atomic>
#include <map>
#include <thread>

#include "Completions.h"
#include "FakeCapture.h"
#include "io/DummyUsbIo/DummyUvcIo.h"
#include "support/CapturingLog.h"

namespace vel {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

using Done = Completions::Done;

Done Cancelled(std::uint32_t streamId) {
  return {streamId, kXferCancelled, std::nullopt, {}};
}
Done With(std::uint32_t streamId, Bytes data) {
  return {streamId, 0, std::move(data), {}};
}

class CameraStream : public ::testing::Test {
 protected:
  CameraStream() {
    capture.params = {{640, 480, 2, 0}, {1280, 720, 2, 0}};
    EXPECT_EQ(io->OpenUsbDev(), 0);
  }
  void Submit(std::uint32_t streamId, std::optional<std::uint32_t> size = 8) {
    EXPECT_EQ(io->IsochTransfer(completions.Record(streamId, size)), 0);
  }

  FakeCapture capture;
  Completions completions;
  std::unique_ptr<DummyUvcIo> io = std::make_unique<DummyUvcIo>(1, 0x80, 1, 1, "cam");
};

TEST_F(CameraStream, CompletesTheWaitingTransferOnceWithAWholePicture) {
  EXPECT_FALSE(capture.Picture({1}));
  Submit(1);
  EXPECT_EQ(capture.RegisteredId(), "cam");
  EXPECT_THAT(completions.Take(), IsEmpty());
  capture.Picture({1, 2, 3});
  capture.Picture({4, 5, 6});
  EXPECT_THAT(completions.Take(), ElementsAre(With(1, {1, 2, 3})));
  Submit(2);
  capture.Picture({7});
  EXPECT_THAT(completions.Take(), ElementsAre(With(2, {7})));
}

TEST_F(CameraStream, NeverWritesBeyondTheTransfersBlock) {
  Submit(1, 4);
  capture.Picture(Bytes(1000, 5));
  Submit(2, 0);
  capture.Picture({1});
  Submit(3, std::nullopt);
  capture.Picture({1});
  EXPECT_THAT(completions.Take(), ElementsAre(With(1, Bytes(4, 5)), With(2, {}), Done{3, 0, std::nullopt, {}}));
}

TEST_F(CameraStream, CancelsWhatIsReplacedWithdrawnCancelledOrLeft) {
  Submit(1);
  Submit(2);
  EXPECT_THAT(completions.Take(), ElementsAre(Cancelled(1)));
  EXPECT_EQ(io->IsochTransfer(nullptr), 0);
  EXPECT_THAT(completions.Take(), ElementsAre(Cancelled(2)));
  Submit(3);
  EXPECT_EQ(io->CancelTransfer(4), 0);
  EXPECT_THAT(completions.Take(), IsEmpty());
  EXPECT_EQ(io->CancelTransfer(3), 0);
  EXPECT_THAT(completions.Take(), ElementsAre(Cancelled(3)));
  Submit(4);
  io->SetInterfaceAltSetting(1, 0);
  EXPECT_THAT(completions.Take(), IsEmpty()) << "waits for the next stream";
  io->CloseUsbDev();
  EXPECT_THAT(completions.Take(), ElementsAre(Cancelled(4)));
  EXPECT_FALSE(capture.Picture({1})) << "unregistered";
  Submit(5);
  EXPECT_THAT(completions.Take(), ElementsAre(Cancelled(5))) << "closed";
  ASSERT_EQ(io->OpenUsbDev(), 0);
  Submit(6);
  io.reset();
  EXPECT_THAT(completions.Take(), ElementsAre(Cancelled(6)));
  EXPECT_FALSE(capture.Picture({1}));
}

TEST_F(CameraStream, HasNoBulkAndInterruptEndpoints) {
  EXPECT_EQ(io->BulkTransfer(completions.Record(1, 2)), 0);
  EXPECT_EQ(io->InterruptTransfer(completions.Record(2, 2)), 0);
  EXPECT_THAT(completions.Take(),
              ElementsAre(Done{1, kXferError, Bytes{0xEE, 0xEE}, {}}, Done{2, kXferError, Bytes{0xEE, 0xEE}, {}}));
}

TEST_F(CameraStream, StartsTheSourceWithTheNegotiatedFrame) {
  const CapturingLog log;
  Bytes commit(26);
  commit[2] = 1;
  commit[3] = 2;
  io->ControlTransfer(0x21, 1, 0x0200, 1, commit.data(), 26, 0);
  EXPECT_EQ(io->SetInterfaceAltSetting(1, 0), 0);
  EXPECT_THAT(log.Messages(), Contains("Error:StreamOff ret[-1]"));
  EXPECT_EQ(io->SetInterfaceAltSetting(1, 3), 0);
  ASSERT_TRUE(capture.WaitForStream());
  EXPECT_THAT(log.Messages(), Contains("Debug:Camera stream on, width: 1280, height: 720, type: 5"));
  EXPECT_EQ(io->SetInterfaceAltSetting(1, 4), 0);
  EXPECT_THAT(log.Messages("StreamOn"), ElementsAre("Debug:already start"));
  EXPECT_EQ(io->SetInterfaceAltSetting(1, 0), 0);
  EXPECT_THAT(capture.Calls(), ElementsAre("CamOpen cam", "CamSetParam 1280x720 2", "CamStreamOn cam",
                                           "CamSetParam 1280x720 2", "CamStreamOff cam"));
}

TEST_F(CameraStream, AsksASourceThatHasMjpegForMjpeg) {
  io->CloseUsbDev();
  capture.params = {{800, 600, 3, 0}};
  capture.setParamResult = -7;
  const CapturingLog log(OSKELO_LOG_ERROR);
  ASSERT_EQ(io->OpenUsbDev(), 0);
  EXPECT_EQ(io->SetInterfaceAltSetting(1, 1), 0);
  ASSERT_TRUE(capture.WaitForStream()) << "the start goes on";
  EXPECT_THAT(capture.Calls(), Contains("CamSetParam 800x600 3"));
  EXPECT_THAT(log.Messages("StartSource"), ElementsAre("Error:SetParam failed ret[-7]"));
}

TEST_F(CameraStream, SurvivesAnUnpluggedCameraAndStartsAgain) {
  io->SetInterfaceAltSetting(1, 1);
  ASSERT_TRUE(capture.WaitForStream());
  const CapturingLog log(OSKELO_LOG_DEBUG);
  capture.Unplug();
  io->SetInterfaceAltSetting(1, 0);
  EXPECT_THAT(log.Messages("Capture"), ElementsAre("Debug:StreamOn ret[-1]"));
  io->SetInterfaceAltSetting(1, 1);
  ASSERT_TRUE(capture.WaitForStream());
}

TEST_F(CameraStream, StartsAndStopsAtAnyMoment) {
  for (int i = 0; i < 200; ++i) {
    EXPECT_EQ(io->SetInterfaceAltSetting(1, 1), 0);
    if (i % 2 == 0) {
      ASSERT_TRUE(capture.WaitForStream());
    }
    if (i % 3 == 0) {
      io->SetInterfaceAltSetting(1, 0);
    } else {
      io->CloseUsbDev();
      ASSERT_EQ(io->OpenUsbDev(), 0);
    }
  }
}

// Pictures, submissions, cancellations, withdrawals, closings and openings at the same time. Some
// transfers only race with pictures, so that these win as well.
TEST_F(CameraStream, CompletesEachTransferOnceInAllRaces) {
  constexpr std::uint32_t kTransfers = 800;
  std::atomic<std::uint32_t> latest{0};
  std::atomic<bool> over{false};
  std::thread pictures([&] {
    while (!over) {
      capture.Picture(Bytes(64, 1));
      std::this_thread::yield();
    }
  });
  std::atomic<std::uint32_t> handled{0};
  std::thread others([&] {
    while (!over) {
      const std::uint32_t id = latest;
      if (id == handled) {
        std::this_thread::yield();
        continue;
      }
      if (id % 8 == 1) {
        io->CancelTransfer(id);
      } else if (id % 8 == 2) {
        io->IsochTransfer(nullptr);
      } else if (id % 8 == 3) {
        io->CloseUsbDev();
        io->OpenUsbDev();
      }
      handled = id;
    }
  });
  for (std::uint32_t id = 1; id <= kTransfers; ++id) {
    if (id % 2 == 0) {
      latest = id;  // What happens to it may come before it.
    }
    Submit(id, 64);
    latest = id;
    if (id % 8 == 4) {
      continue;  // Replaced, unless a picture is faster.
    }
    while (handled != id) {
      std::this_thread::yield();
    }
    ASSERT_TRUE(completions.WaitFor(id));
  }
  over = true;
  pictures.join();
  others.join();
  io.reset();
  std::map<std::uint32_t, int> seen;
  std::size_t delivered = 0;
  for (const Done& done : completions.Take()) {
    ++seen[done.streamId];
    delivered += done.status == 0 ? 1 : 0;
    EXPECT_EQ(done, done.status == 0 ? With(done.streamId, Bytes(64, 1)) : Cancelled(done.streamId));
  }
  EXPECT_THAT(seen, SizeIs(kTransfers));
  for (const auto& [id, times] : seen) {
    EXPECT_EQ(times, 1) << id;
  }
  EXPECT_GE(delivered, kTransfers / 2);
  EXPECT_LT(delivered, kTransfers);
}

TEST_F(CameraStream, DestroyedWhileAPictureIsBeingDelivered) {
  for (int i = 0; i < 200; ++i) {
    DummyUvcIo* camera = new DummyUvcIo(1, 0x80, 1, 1, "cam");
    ASSERT_EQ(camera->OpenUsbDev(), 0);
    camera->IsochTransfer(completions.Record(1, 4096));
    std::thread pictures([this] { capture.Picture(Bytes(4096, 1)); });
    delete camera;
    pictures.join();
    EXPECT_THAT(completions.Take(), SizeIs(1));
  }
}

std::uint8_t PatternByte(std::uint32_t width, std::uint32_t height, std::uint32_t n, std::size_t i) {
  const std::size_t plane = std::size_t{width} * height;
  const std::size_t y = i % plane / width;
  const std::size_t x = i % plane % width;
  const std::size_t value = i < plane ? x + y + 3 * n : width % 2 == 0 ? x + 5 * n + 64 : y + 2 * n + 128;
  return static_cast<std::uint8_t>(value);
}

TEST(SyntheticCamera, GivesTheExactPatternAtItsPace) {
  FakeCapture capture;
  Completions completions;
  DummyUvcIo io(1, 0x85, 0xFF00, 0xFFFE, "");
  ASSERT_EQ(io.OpenUsbDev(), 0);
  EXPECT_EQ(io.GetConfigDesc()->wTotalLength, 277);
  EXPECT_EQ(io.GetIoCapability(), 0U);
  io.SetInterfaceAltSetting(1, 1);
  constexpr std::uint32_t kSize = 640 * 480 * 2;
  constexpr std::size_t kPictures = 5;
  std::atomic<std::uint32_t> submitted{0};
  const auto submit = [&] { io.IsochTransfer(completions.Record(++submitted, kSize)); };
  completions.hook = [&] {
    if (submitted < kPictures) {
      submit();  // As a policy does, from the completion.
    }
  };
  submit();
  const std::vector<Done> done = completions.Await(kPictures);
  io.SetInterfaceAltSetting(1, 0);
  ASSERT_EQ(done.size(), kPictures);
  const auto first = static_cast<std::uint32_t>(done[0].data->at(0) * 171U);  // 171 * 3 = 1 mod 256
  for (std::uint32_t n = 0; n < kPictures; ++n) {
    const Bytes& picture = done[n].data.value();
    ASSERT_EQ(picture.size(), kSize);
    for (std::size_t i = 0; i < kSize; ++i) {
      ASSERT_EQ(picture[i], PatternByte(640, 480, first + n, i)) << "picture " << n << " byte " << i;
    }
    if (n > 0) {
      EXPECT_GE(done[n].when - done[n - 1].when, std::chrono::milliseconds(29));
    }
  }
}

TEST(SyntheticCamera, StopsPromptlyAndLeavesNothing) {
  FakeCapture capture;
  Completions completions;
  const CapturingLog log;
  {
    DummyUvcIo io(1, 0x85, 1, 0xFFFE, "");
    ASSERT_EQ(io.OpenUsbDev(), 0);
    for (std::uint32_t i = 0; i < 50; ++i) {
      io.SetInterfaceAltSetting(1, 1);
      io.IsochTransfer(completions.Record(i, 16));
      io.SetInterfaceAltSetting(1, 0);
    }
    io.SetInterfaceAltSetting(1, 2);
  }
  EXPECT_THAT(completions.Take(), SizeIs(50));
  EXPECT_EQ(log.Count("Camera thread in!"), 51U);
  EXPECT_EQ(log.Count("Camera thread out!"), 51U);
  EXPECT_THAT(log.Messages(), Not(Contains("Debug:already start")));
}

}  // namespace
}  // namespace vel
