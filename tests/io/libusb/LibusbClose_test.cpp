#include <atomic>
#include <chrono>
#include <optional>

#include "LibusbIoFixture.h"
#include "support/NoThreads.h"

namespace vel {
namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Field;

// An event wait that is sat out takes a second.
constexpr std::chrono::milliseconds kSoon{900};

class LibusbIoClose : public LibusbIoTest {
 protected:
  // Transfers of two kinds, among them equal ids.
  void Submit32() {
    for (std::uint32_t id = 0; id < 16; ++id) {
      ASSERT_EQ(Bulk(id % 4), 0);
      ASSERT_EQ(io->InterruptTransfer(records.Record(0x82, id, 8)), 0);
    }
  }

  void CloseSoon() {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(io->CloseUsbDev(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, kSoon);
  }

  // A closed device has completed all; these as cancelled.
  void ExpectAll32Cancelled() {
    EXPECT_EQ(records.Outstanding(), 0);
    const std::vector<Done> all = records.done.Await(32);
    EXPECT_THAT(all, Each(testing::AllOf(Field(&Done::status, 3), Field(&Done::data, testing::Eq(std::nullopt)))));
  }

  void AwaitDeathOfEventThread() {
    while (log.Count("Debug:LibusbEventHandler: the thread aborted, Input/Output Error(-1)") == 0) {
      std::this_thread::yield();
    }
  }
};

TEST_F(LibusbIoClose, CloseEndsAnEndlessControlTransferAndKeepsWhatWinsAgainstTheCancel) {
  Open();
  std::uint8_t byte = 9;
  int control = 0;
  std::thread loop([&] { control = ReadByte(byte); });
  ASSERT_TRUE(device.AwaitPending(1));
  CloseSoon();
  loop.join();
  EXPECT_EQ(control, LIBUSB_ERROR_IO);
  EXPECT_EQ(byte, 9);

  ASSERT_EQ(io->OpenUsbDev(), 0);
  seam.Instead("cancel_transfer", [this](const auto& call) {
    while (device.Complete(WaitingUsb::kAny)) {
    }
    return call();
  });
  Submit32();
  EXPECT_EQ(io->CloseUsbDev(), 0);
  EXPECT_EQ(records.Outstanding(), 0);
  EXPECT_THAT(records.done.Await(32), Each(Field(&Done::status, 0)));
}

// A close comes while an operation is at some point: what has been submitted is cancelled, the rest is waited for or
// refused.
TEST_F(LibusbIoClose, CloseWaitsForTheOperationUnderWay) {
  const struct {
    const char* held;
    std::function<int()> operation;
    int result;
    std::vector<int> statuses;
  } cases[] = {
      {"clear_halt", [this] { return io->ClearHalt(0x81); }, 0, {}},
      {"alloc_transfer", [this] { return Bulk(1); }, LIBUSB_ERROR_NOT_FOUND, {1}},
      {"submit_transfer", [this] { return Bulk(1); }, 0, {3}},
  };
  std::size_t count = 0;
  for (const auto& test : cases) {
    SCOPED_TRACE(test.held);
    Open();
    seam.TakeCalls();
    Gate gate;
    seam.Instead(test.held, [&](const auto& call) {
      gate.Pass();
      return call();
    });
    int answer = 99;
    std::thread loop([&] { answer = test.operation(); });
    gate.AwaitArrival();
    std::thread stop([this] { EXPECT_EQ(io->CloseUsbDev(), 0); });
    AwaitClosing();
    std::uint8_t byte = 0;
    EXPECT_EQ(ReadByte(byte), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(Bulk(2), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(records.done.Await(++count).back().status, 1);
    EXPECT_THAT(seam.TakeCalls(), Contains("close").Times(0));
    seam.Instead(test.held, nullptr);
    gate.Open();
    loop.join();
    stop.join();
    EXPECT_EQ(answer, test.result);
    for (const int status : test.statuses) {
      EXPECT_EQ(records.done.Await(++count).back().status, status);
    }
  }
}

TEST_F(LibusbIoClose, ResubmissionDuringACloseIsRefusedOnce) {
  Open();
  records.OnDone([this](const _UsbIoXferInfo& info) {
    if (info.streamId == 1) {
      EXPECT_EQ(Bulk(2), LIBUSB_ERROR_NOT_FOUND);
    }
  });
  Bulk(1);
  EXPECT_EQ(io->CloseUsbDev(), 0);
  EXPECT_THAT(records.done.Await(2), ElementsAre(Field(&Done::status, 3), Field(&Done::status, 1)));
}

TEST_F(LibusbIoClose, CloseWaitsForACompletionUnderWay) {
  Open();
  Gate completion;
  std::atomic<bool> closed = false;
  records.OnDone([&](const auto&) {
    completion.Pass();
    EXPECT_FALSE(closed);
  });
  Bulk(1);
  device.Complete(0x81);
  completion.AwaitArrival();
  std::thread stop([&] {
    EXPECT_EQ(io->CloseUsbDev(), 0);
    closed = true;
  });
  AwaitClosing();
  completion.Open();
  stop.join();
}

TEST_F(LibusbIoClose, TwoClosesCloseOnce) {
  Open();
  Submit32();
  std::atomic<int> sum = 0;
  std::thread other([&] { sum += io->CloseUsbDev(); });
  sum += io->CloseUsbDev();
  other.join();
  EXPECT_EQ(sum, LIBUSB_ERROR_NOT_FOUND);
  ExpectAll32Cancelled();
  EXPECT_THAT(seam.TakeCalls(), Contains("close").Times(1));
}

TEST_F(LibusbIoClose, WithoutItsEventThreadTheWaitersHandleEvents) {
  Open();
  std::uint8_t byte = 0;
  int control = 0;
  std::thread first([&] { control = ReadByte(byte); });
  ASSERT_TRUE(device.AwaitPending(1));
  // It goes on after three interruptions; its end comes under a waiter, which takes its place.
  std::atomic<int> failures = 0;
  OnEvents([&](const auto& call) {
    const int failure = failures++;
    return failure < 3 ? LIBUSB_ERROR_INTERRUPTED : failure == 3 ? LIBUSB_ERROR_IO : call();
  });
  AwaitDeathOfEventThread();
  device.Complete(0, {.bytes = {5}});
  first.join();
  EXPECT_EQ(control, 1);
  Submit32();
  std::thread second([&] { control = ReadByte(byte); });
  ASSERT_TRUE(device.AwaitPending(33));
  device.Complete(0, {.bytes = {6}});
  second.join();
  EXPECT_EQ(byte, 6);
  CloseSoon();
  ExpectAll32Cancelled();
}

// Whoever waits for completions need not know of event threads: it is enough to cancel.
TEST_F(LibusbIoClose, WithoutItsEventThreadCancelsAreDelivered) {
  records.OnDone([this](const _UsbIoXferInfo& info) {
    if (info.streamId == 2) {
      EXPECT_EQ(io->CancelTransfer(3), 0);  // Whoever runs this goes on to deliver it.
      EXPECT_EQ(records.Outstanding(), 2);
    } else if (info.status == 1) {
      EXPECT_EQ(io->CancelTransfer(5), 0);  // Within an operation, for which a close would wait.
    }
  });
  Open();
  Gate events;
  HoldEvents(events, LIBUSB_ERROR_IO);
  Bulk(1);
  EXPECT_EQ(io->CancelTransfer(1), 0);
  events.Open();  // The thread ends, and has this one to deliver.
  EXPECT_EQ(records.done.Await(1)[0].status, 3);
  AwaitDeathOfEventThread();

  for (std::uint32_t id = 2; id < 5; ++id) {
    Bulk(id);
  }
  EXPECT_EQ(io->CancelTransfer(2), 0);  // Delivered here, or by the thread that is about to leave.
  EXPECT_EQ(records.done.Await(3).size(), 3U);
  EXPECT_EQ(io->ResetDevice(), 0);
  EXPECT_EQ(records.done.Await(4).size(), 4U);

  seam.Instead("handle_events", [](const auto&) { return LIBUSB_ERROR_IO; });
  Bulk(5);
  seam.Instead("submit_transfer", [](const auto&) { return LIBUSB_ERROR_BUSY; });
  EXPECT_EQ(Bulk(6), LIBUSB_ERROR_BUSY);
  seam.Instead("submit_transfer", nullptr);
  EXPECT_NE(io->GetIoHandler(), nullptr);
  _UsbIoXferInfo* own = records.Record(0x82, 0, 4);
  own->reserved = kModuleIds;
  io->InterruptTransfer(own);
  EXPECT_EQ(io->CancelOwnTransfers(&records), 1);
  EXPECT_EQ(records.done.Await(7).back().status, 3);
  EXPECT_EQ(io->GetIoHandler(), nullptr) << "closed: nothing else ends transfers then";
}

TEST_F(LibusbIoClose, ThatNeverHadAnEventThreadDeliversCancels) {
  if (!test::NoThreads::kPossible) {
    GTEST_SKIP() << "nothing here keeps a thread from being made";
  }
  std::optional<test::NoThreads> none;
  seam.Instead("get_device_list", [&](const auto& call) {  // Behind it libusb has the thread that it needs itself.
    none.emplace();
    return call();
  });
  io->Init();
  none.reset();
  EXPECT_EQ(log.Count("Warn:Starting LibusbEventHandler failed"), 1U);
  Open();
  Bulk(1);
  EXPECT_EQ(io->CancelTransfer(1), 0);
  EXPECT_EQ(records.done.Take(), (std::vector{Done{1, kXferCancelled}}));
}

TEST_F(LibusbIoClose, EventsThatFailForeverHangNothing) {
  Open();
  Submit32();
  std::atomic<unsigned> failures = 0;
  OnEvents([&](const auto&) {
    ++failures;
    return LIBUSB_ERROR_IO;
  });
  AwaitDeathOfEventThread();
  std::uint8_t byte = 0;
  EXPECT_EQ(ReadByte(byte), LIBUSB_ERROR_IO);
  Gate halt;
  seam.Instead("clear_halt", [&](const auto& call) {
    halt.Pass();
    return call();
  });
  std::thread loop([this] { EXPECT_EQ(io->ClearHalt(0x81), 0); });
  halt.AwaitArrival();
  failures = 0;
  std::thread stop([this] { EXPECT_EQ(io->CloseUsbDev(), 0); });
  // All those that the close puts up with, while the call under way is still waited for.
  while (failures < LibusbHandle::kMaxEventFailures) {
    std::this_thread::yield();
  }
  halt.Open();
  loop.join();
  stop.join();
  ExpectAll32Cancelled();
}

}  // namespace
}  // namespace vel
