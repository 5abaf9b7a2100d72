// How pictures reach the transfers.
#include <gmock/gmock.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "FakeCapture.h"
#include "io/DummyUsbIo/DummyUvcIo.h"
#include "support/Completions.h"

namespace vel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Done = Completions::Done;

class CameraStream : public ::testing::Test {
 protected:
  CameraStream() { EXPECT_EQ(io->OpenUsbDev(), 0); }

  _UsbIoXferInfo* Record(std::uint32_t streamId, std::optional<std::uint32_t> size = 8) {
    _UsbIoXferInfo* info = completions.Record(0x81, streamId, size);
    info->status = kXferTimedOut;  // Whoever completes it says otherwise.
    return info;
  }
  void Submit(std::uint32_t streamId, std::optional<std::uint32_t> size = 8) {
    EXPECT_EQ(io->IsochTransfer(Record(streamId, size)), 0);
  }
  std::vector<Done> Taken() { return completions.done.Take(); }

  FakeCapture capture;
  Completions completions;
  std::unique_ptr<DummyUvcIo> io = std::make_unique<DummyUvcIo>(1, 0x80, 1, 1, "cam");
};

TEST_F(CameraStream, CompletesTheWaitingTransferOnceWithAPictureCutToItsBlock) {
  EXPECT_FALSE(capture.Picture("nobody"));
  Submit(1);
  EXPECT_THAT(Taken(), IsEmpty());
  capture.Picture("abc");
  capture.Picture("lost");
  EXPECT_THAT(Taken(), ElementsAre(Done{1, 0, "abc"}));
  Submit(2, 4);
  capture.Picture(std::string(1000, 'x'));
  Submit(3, 0);
  capture.Picture("x");
  Submit(4, std::nullopt);
  capture.Picture("x");
  EXPECT_THAT(Taken(), ElementsAre(Done{2, 0, "xxxx"}, Done{3, 0, ""}, Done{4, 0}));
}

TEST_F(CameraStream, CancelsWhatIsReplacedWithdrawnCancelledOrLeft) {
  Submit(1);
  Submit(2);
  EXPECT_THAT(Taken(), ElementsAre(Done{1, kXferCancelled}));
  EXPECT_EQ(io->IsochTransfer(nullptr), 0);
  EXPECT_THAT(Taken(), ElementsAre(Done{2, kXferCancelled}));
  Submit(3);
  EXPECT_EQ(io->CancelTransfer(4), 0);
  EXPECT_THAT(Taken(), IsEmpty());
  EXPECT_EQ(io->CancelTransfer(3), 0);
  EXPECT_EQ(io->CancelOwnTransfers(&completions), 0);
  EXPECT_THAT(Taken(), ElementsAre(Done{3, kXferCancelled}));
  _UsbIoXferInfo* own = Record(3);
  own->reserved = kModuleIds;
  io->IsochTransfer(own);
  io->CancelTransfer(3);
  EXPECT_THAT(Taken(), IsEmpty()) << "not the remote side's";
  EXPECT_EQ(io->CancelOwnTransfers(&completions), 1);
  EXPECT_THAT(Taken(), ElementsAre(Done{3, kXferCancelled}));
  Submit(4);
  io->SetInterfaceAltSetting(1, 0);
  EXPECT_THAT(Taken(), IsEmpty()) << "waits for the next stream";
  io->CloseUsbDev();
  EXPECT_THAT(Taken(), ElementsAre(Done{4, kXferCancelled}));
  EXPECT_FALSE(capture.Picture("x")) << "unregistered";
  Submit(5);
  EXPECT_THAT(Taken(), ElementsAre(Done{5, kXferCancelled})) << "closed";
  ASSERT_EQ(io->OpenUsbDev(), 0);
  Submit(6);
  io.reset();
  EXPECT_THAT(Taken(), ElementsAre(Done{6, kXferCancelled}));
  EXPECT_FALSE(capture.Picture("x"));
}

TEST_F(CameraStream, DoesNotGiveUpTheModulesReadForTheRemoteSides) {
  _UsbIoXferInfo* own = Record(1);
  own->reserved = kModuleIds;
  io->IsochTransfer(own);
  Submit(2);
  EXPECT_THAT(Taken(), ElementsAre(Done{2, kXferError}));
  capture.Picture("abc");
  EXPECT_THAT(Taken(), ElementsAre(Done{1, 0, "abc"}));
}

TEST_F(CameraStream, KeepsItsCallbackWhenAnotherDeviceClearsItsOwnAtThatMoment) {
  {
    DummyUvcIo synthetic(1, 0x85, 1, 1, "cam");
    ASSERT_EQ(synthetic.OpenUsbDev(), 0);
    synthetic.IsochTransfer(Record(1));
    capture.beforeClear = [this] { Submit(2); };
  }
  EXPECT_TRUE(capture.Picture("abc"));
  EXPECT_THAT(Taken(), testing::UnorderedElementsAre(Done{1, kXferCancelled}, Done{2, 0, "abc"}));
}

TEST_F(CameraStream, StartsTheSourceWithTheNegotiatedFrame) {
  std::vector<std::uint8_t> commit(26);
  commit[2] = 1;
  commit[3] = 2;
  io->ControlTransfer(0x21, 1, 0x0200, 1, commit.data(), 26, 0);
  EXPECT_EQ(io->SetInterfaceAltSetting(1, 0), 0);
  EXPECT_EQ(io->SetInterfaceAltSetting(1, 3), 0);
  ASSERT_TRUE(capture.WaitForStream());
  EXPECT_EQ(io->SetInterfaceAltSetting(1, 4), 0);
  EXPECT_EQ(io->SetInterfaceAltSetting(1, 0), 0);
  EXPECT_EQ(io->CloseUsbDev(), 0);
  io->SetInterfaceAltSetting(1, 3);  // Of a device that is not open.
  EXPECT_THAT(capture.Calls(), ElementsAre("CamOpen cam", "CamSetParam 1280x720 2", "CamStreamOn cam",
                                           "CamSetParam 1280x720 2", "CamStreamOff cam", "streamed", "CamClose cam"));
}

// Pictures, submissions, cancellations, withdrawals, closings and openings at the same time. Some
// transfers only race with pictures, so that these win as well.
TEST_F(CameraStream, CompletesEachTransferOnceInAllRaces) {
  constexpr std::uint32_t kTransfers = 800;
  std::atomic<std::uint32_t> latest{0};
  std::atomic<bool> over{false};
  std::thread pictures([&] {
    while (!over) {
      capture.Picture(std::string(64, 1));
      std::this_thread::yield();
    }
  });
  std::atomic<std::uint32_t> handled{0};
  std::thread others([&] {
    while (!over) {
      const std::uint32_t id = latest;
      if (id % 8 == 1 && id != handled) {
        io->CancelTransfer(id);
      } else if (id % 8 == 2 && id != handled) {
        io->IsochTransfer(nullptr);
      } else if (id % 8 == 3 && id != handled) {
        io->CloseUsbDev();
        io->OpenUsbDev();
      }
      handled = id;
      std::this_thread::yield();
    }
  });
  for (std::uint32_t id = 1; id <= kTransfers; ++id) {
    if (id % 2 == 0) {
      latest = id;  // What happens to it may come before it.
    }
    Submit(id, 64);
    latest = id;
    while (id % 8 != 4 && handled != id) {  // The fourth is replaced, unless a picture is faster.
      std::this_thread::yield();
    }
    ASSERT_TRUE(id % 8 == 4 || completions.done.Await(id).size() == id);
  }
  over = true;
  pictures.join();
  others.join();
  io.reset();
  std::size_t delivered = 0;
  for (const Done& done : Taken()) {
    delivered += done.status == 0 ? 1 : 0;
    EXPECT_TRUE(done == (Done{done.streamId, 0, std::string(64, 1)}) || done == (Done{done.streamId, kXferCancelled}));
  }
  EXPECT_GE(delivered, kTransfers / 2);
  EXPECT_LT(delivered, kTransfers);
}

}  // namespace
}  // namespace vel
