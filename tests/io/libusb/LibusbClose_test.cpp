#include <atomic>
#include <random>

#include <pthread.h>

#include "LibusbIoFixture.h"

namespace vel {
namespace {

using testing::AllOf;
using testing::Each;
using testing::Field;

using Bytes = std::vector<std::uint8_t>;

// An event wait that is sat out takes a second.
constexpr std::chrono::milliseconds kSoon{500};

class LibusbIoClose : public LibusbIoTest {
 protected:
  // Transfers of all kinds, among them equal ids.
  void Submit32() {
    for (std::uint32_t id = 0; id < 16; ++id) {
      ASSERT_EQ(io->BulkTransfer(records.Make(id % 4, 0x81, Bytes(64))), 0);
      ASSERT_EQ(io->InterruptTransfer(records.Make(id, 0x82, Bytes(8))), 0);
    }
    fake.AwaitInFlight(32);
  }

  template <typename Operation>
  static void ExpectSoon(Operation operation) {
    const auto start = std::chrono::steady_clock::now();
    operation();
    EXPECT_LT(std::chrono::steady_clock::now() - start, kSoon);
  }

  static int ReadByte(LibusbIo& io, std::uint8_t& byte) { return io.ControlTransfer(0xC0, 1, 0, 0, &byte, 1, 0); }

  // Waits for the event thread to have ended on an error.
  void KillEventThread(int error = LIBUSB_ERROR_IO, int times = 1) {
    fake.FailEvents(error, times);
    while (
        !log.Has("LibusbContext.cpp LibusbEventHandler: Debug:LibusbEventHandler: the thread aborted, "
                 "LIBUSB_ERROR_IO(-1)")) {
      std::this_thread::yield();
    }
  }

  void ExpectAllCancelled(std::size_t count) {
    const std::vector<Completion> all = records.Await(count);
    EXPECT_EQ(all.size(), count);
    EXPECT_THAT(all, Each(AllOf(Field(&Completion::status, 3), Field(&Completion::hasData, false))));
  }
};

TEST_F(LibusbIoClose, CloseCancelsAndWaitsForEverything) {
  Open();
  Submit32();
  ExpectSoon([this] { EXPECT_EQ(io->CloseUsbDev(), 0); });
  EXPECT_EQ(records.Outstanding(), 0U);
  ExpectAllCancelled(32);
}

TEST_F(LibusbIoClose, DestructionCancelsAndWaitsForEverything) {
  Open();
  Submit32();
  ExpectSoon([this] { io.reset(); });
  EXPECT_EQ(records.Outstanding(), 0U);
  EXPECT_TRUE(log.Has("LibusbIo.cpp ~LibusbIo: Debug:mLibusbEventThread exit"));
}

TEST_F(LibusbIoClose, IdleDestructionWakesTheEventThread) {
  io->Init();
  ExpectSoon([this] { io.reset(); });
}

TEST_F(LibusbIoClose, DestructionWithoutInitIsQuiet) {
  io.reset();
  EXPECT_EQ(fake.Calls().size(), 0U);
}

TEST_F(LibusbIoClose, TransfersThatWinAgainstTheCancelKeepTheirResult) {
  Open();
  fake.SetCancelResult({.bytes = {1}});
  Submit32();
  EXPECT_EQ(io->CloseUsbDev(), 0);
  EXPECT_EQ(records.Outstanding(), 0U);
  EXPECT_THAT(records.Await(32), Each(Field(&Completion::status, 0)));
}

TEST_F(LibusbIoClose, UnplugCompletesEverythingOnce) {
  Open();
  Submit32();
  fake.Unplug(*device);
  EXPECT_THAT(records.Await(32), Each(Field(&Completion::status, LIBUSB_TRANSFER_NO_DEVICE)));
  testing::internal::CaptureStdout();
  EXPECT_EQ(io->BulkTransfer(records.Make(1, 0x81, Bytes(4))), LIBUSB_ERROR_NO_DEVICE);
  testing::internal::GetCapturedStdout();
  std::uint8_t byte = 0;
  EXPECT_EQ(ReadByte(*io, byte), LIBUSB_ERROR_NO_DEVICE);
  EXPECT_EQ(io->CloseUsbDev(), 0);
}

TEST_F(LibusbIoClose, CloseEndsAnEndlessControlTransfer) {
  Open();
  std::uint8_t byte = 9;
  int control = 0;
  std::thread loop([&] { control = ReadByte(*io, byte); });
  fake.AwaitInFlight(1);
  ExpectSoon([this] { EXPECT_EQ(io->CloseUsbDev(), 0); });
  loop.join();
  EXPECT_EQ(control, LIBUSB_ERROR_IO);
  EXPECT_EQ(byte, 9);
}

TEST_F(LibusbIoClose, OperationsAfterTheStartOfACloseAreRefused) {
  Open();
  fake.Hold("events");
  io->BulkTransfer(records.Make(1, 0x81, Bytes(4)));
  std::thread stop([this] { EXPECT_EQ(io->CloseUsbDev(), 0); });
  AwaitClosing();
  std::uint8_t byte = 0;
  EXPECT_EQ(ReadByte(*io, byte), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_EQ(io->ClearHalt(0x81), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_EQ(io->BulkTransfer(records.Make(2, 0x81, Bytes(4))), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_EQ(records.Await(1)[0].streamId, 2U);
  fake.LetGo("events");
  stop.join();
}

TEST_F(LibusbIoClose, CloseWaitsForTheCallUnderWay) {
  Open();
  fake.Hold("libusb_clear_halt");
  std::thread loop([this] { EXPECT_EQ(io->ClearHalt(0x81), 0); });
  fake.AwaitHeld("libusb_clear_halt");
  std::thread stop([this] { EXPECT_EQ(io->CloseUsbDev(), 0); });
  AwaitClosing();
  EXPECT_EQ(fake.Count("libusb_close"), 0U);
  fake.LetGo("libusb_clear_halt");
  loop.join();
  stop.join();
}

TEST_F(LibusbIoClose, SubmissionUnderWayDoesNotSlipThrough) {
  Open();
  fake.Hold("libusb_submit_transfer");
  std::thread loop([this] { EXPECT_EQ(io->BulkTransfer(records.Make(1, 0x81, Bytes(4))), 0); });
  fake.AwaitHeld("libusb_submit_transfer");
  std::thread stop([this] { EXPECT_EQ(io->CloseUsbDev(), 0); });
  AwaitClosing();
  fake.LetGo("libusb_submit_transfer");
  loop.join();
  stop.join();
  ExpectAllCancelled(1);
}

TEST_F(LibusbIoClose, SubmissionThatHasOnlyBegunIsRefused) {
  Open();
  fake.Hold("libusb_alloc_transfer");
  testing::internal::CaptureStdout();
  std::thread loop([this] { EXPECT_EQ(io->BulkTransfer(records.Make(1, 0x81, Bytes(4))), LIBUSB_ERROR_NOT_FOUND); });
  fake.AwaitHeld("libusb_alloc_transfer");
  std::thread stop([this] { EXPECT_EQ(io->CloseUsbDev(), 0); });
  AwaitClosing();
  fake.LetGo("libusb_alloc_transfer");
  loop.join();
  stop.join();
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(records.Await(1)[0].status, 1);
}

TEST_F(LibusbIoClose, CloseWaitsForACompletionUnderWay) {
  Open();
  std::atomic<bool> entered = false;
  std::atomic<bool> mayLeave = false;
  std::atomic<bool> closed = false;
  records.OnCompletion([&](const Completion&) {
    entered = true;
    while (!mayLeave) {
      std::this_thread::yield();
    }
    EXPECT_FALSE(closed);
  });
  io->BulkTransfer(records.Make(1, 0x81, Bytes(4)));
  fake.Complete(0x81);
  while (!entered) {
    std::this_thread::yield();
  }
  std::thread stop([&] {
    EXPECT_EQ(io->CloseUsbDev(), 0);
    closed = true;
  });
  AwaitClosing();
  mayLeave = true;
  stop.join();
}

TEST_F(LibusbIoClose, ResubmissionDuringACloseIsRefusedOnce) {
  Open();
  records.OnCompletion([this](const Completion& completion) {
    if (completion.streamId == 1) {
      EXPECT_EQ(io->BulkTransfer(records.Make(2, 0x81, Bytes(4))), LIBUSB_ERROR_NOT_FOUND);
    }
  });
  io->BulkTransfer(records.Make(1, 0x81, Bytes(4)));
  EXPECT_EQ(io->CloseUsbDev(), 0);
  const std::vector<Completion> all = records.Await(2);
  EXPECT_EQ(all[0].status, 3);
  EXPECT_EQ(all[1].status, 1);
}

TEST_F(LibusbIoClose, TwoClosesCloseOnce) {
  Open();
  Submit32();
  std::atomic<int> sum = 0;
  std::thread other([&] { sum += io->CloseUsbDev(); });
  sum += io->CloseUsbDev();
  other.join();
  EXPECT_EQ(sum, LIBUSB_ERROR_NOT_FOUND);
  EXPECT_EQ(records.Outstanding(), 0U);
  EXPECT_EQ(fake.Count("libusb_close"), 1U);
}

TEST_F(LibusbIoClose, ReopenedDeviceWorks) {
  Open();
  Submit32();
  EXPECT_EQ(io->CloseUsbDev(), 0);
  EXPECT_EQ(io->OpenUsbDev(), 0);
  io->BulkTransfer(records.Make(1, 0x81, Bytes(4)));
  fake.Complete(0x81, {.bytes = {1}});
  EXPECT_EQ(records.Await(33)[32].status, 0);
}

TEST_F(LibusbIoClose, InterruptedEventHandlingGoesOn) {
  Open();
  fake.FailEvents(LIBUSB_ERROR_INTERRUPTED, 3);
  io->BulkTransfer(records.Make(1, 0x81, Bytes(4)));
  fake.Complete(0x81);
  records.Await(1);
  EXPECT_EQ(fake.Count("libusb_handle_events"), 3U);
}

TEST_F(LibusbIoClose, WithoutItsEventThreadTheWaitersHandleEvents) {
  Open();
  KillEventThread();
  EXPECT_TRUE(
      log.Has("LibusbContext.cpp LibusbEventHandler: Error:Error handling USB events: "
              "LIBUSB_ERROR_IO [-1]"));
  EXPECT_EQ(fake.Count("libusb_handle_events"), 1U);  // The thread does not try again.
  Submit32();
  std::uint8_t byte = 0;
  int control = 0;
  std::thread loop([&] { control = ReadByte(*io, byte); });
  fake.AwaitInFlight(33);
  fake.Complete(0, {.bytes = {5}});
  loop.join();
  EXPECT_EQ(control, 1);
  EXPECT_EQ(byte, 5);
  ExpectSoon([this] { EXPECT_EQ(io->CloseUsbDev(), 0); });
  ExpectAllCancelled(32);
}

TEST_F(LibusbIoClose, EventThreadThatDiesUnderAWaiterIsReplacedByIt) {
  Open();
  std::uint8_t byte = 0;
  int control = 0;
  std::thread loop([&] { control = ReadByte(*io, byte); });
  fake.AwaitInFlight(1);
  KillEventThread();
  fake.Complete(0, {.bytes = {5}});
  loop.join();
  EXPECT_EQ(control, 1);
}

TEST_F(LibusbIoClose, EventsThatFailForeverHangNothing) {
  Open();
  Submit32();
  KillEventThread(LIBUSB_ERROR_IO, -1);
  std::uint8_t byte = 0;
  EXPECT_EQ(ReadByte(*io, byte), LIBUSB_ERROR_IO);
  int control = 0;
  std::thread loop([&] { control = ReadByte(*io, byte); });
  fake.AwaitInFlight(34);
  EXPECT_EQ(io->CloseUsbDev(), 0);
  loop.join();
  EXPECT_EQ(control, LIBUSB_ERROR_IO);
  EXPECT_EQ(records.Outstanding(), 0U);
  ExpectAllCancelled(32);
}

TEST_F(LibusbIoClose, CallUnderWayIsWaitedForEvenWhenEventsFail) {
  Open();
  KillEventThread(LIBUSB_ERROR_IO, -1);
  fake.Hold("libusb_clear_halt");
  std::thread loop([this] { EXPECT_EQ(io->ClearHalt(0x81), 0); });
  fake.AwaitHeld("libusb_clear_halt");
  std::thread stop([this] { EXPECT_EQ(io->CloseUsbDev(), 0); });
  // The thread's own failure, and then all those that the close puts up with.
  while (fake.Count("libusb_handle_events") < 1U + LibusbHandle::kMaxEventFailures) {
    std::this_thread::yield();
  }
  fake.LetGo("libusb_clear_halt");
  loop.join();
  stop.join();
}

TEST_F(LibusbIoClose, WithoutAThreadTransfersStillComplete) {
  // No room for a stack of this size: no thread can start.
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_getattr_default_np(&attributes), 0);
  std::size_t usual = 0;
  ASSERT_EQ(pthread_attr_getstacksize(&attributes, &usual), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, std::size_t{1} << 50U), 0);
  ASSERT_EQ(pthread_setattr_default_np(&attributes), 0);
  io->Init();
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, usual), 0);
  ASSERT_EQ(pthread_setattr_default_np(&attributes), 0);
  pthread_attr_destroy(&attributes);

  EXPECT_TRUE(log.Has("LibusbIo.cpp GetLibusbDev: Warn:Starting LibusbEventHandler failed"));
  ASSERT_EQ(io->OpenUsbDev(), 0);
  Submit32();
  std::uint8_t byte = 0;
  std::thread guest([this] {
    fake.AwaitInFlight(33);
    fake.Complete(0, {.bytes = {5}});
  });
  EXPECT_EQ(ReadByte(*io, byte), 1);
  guest.join();
  ExpectSoon([this] { EXPECT_EQ(io->CloseUsbDev(), 0); });
  ExpectAllCancelled(32);
}

// Everything at once, many times: submissions with repeated ids, cancels, control requests,
// completions, a close in the middle. Each record is completed once and nothing is used after its
// end.
TEST_F(LibusbIoClose, EveryRecordIsCompletedOnceWhateverRaces) {
  io->Init();
  oskeloLogSetLevel(OSKELO_LOG_OFF);
  testing::internal::CaptureStdout();
  for (unsigned round = 0; round < 60; ++round) {
    ASSERT_EQ(io->OpenUsbDev(), 0);
    std::atomic<bool> over = false;
    std::thread guest([&] {
      while (!over) {
        fake.Complete(0x81, {.bytes = {1}});
        fake.Complete(0x83, {});
        fake.Complete(0, {});
        std::this_thread::yield();
      }
    });
    std::thread loop([&] {
      std::minstd_rand random(round + 1);
      std::uint8_t byte = 0;
      for (std::uint32_t n = 0; n < 60; ++n) {
        io->BulkTransfer(records.Make(n % 5, 0x81, Bytes(4)));
        io->IsochTransfer(records.MakeIso(n % 7, 0x83, {4, 4}));
        if (random() % 3 == 0) {
          io->CancelTransfer(static_cast<std::uint32_t>(random() % 7));
        }
        if (random() % 20 == 0) {
          ReadByte(*io, byte);
        }
      }
    });
    records.Await(std::size_t{120} * round + round);
    io->CloseUsbDev();
    loop.join();
    over = true;
    guest.join();
    ASSERT_EQ(records.Outstanding(), 0U);
    ASSERT_EQ(records.Await(0).size(), 120U * (round + 1));
  }
  testing::internal::GetCapturedStdout();
}

}  // namespace
}  // namespace vel
