#include <atomic>
#include <random>

#include <pthread.h>

#include "LibusbIoFixture.h"

namespace vel {
namespace {

using testing::AllOf;
using testing::Each;
using testing::Field;

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

  // Waits for the event thread to have ended on an error.
  void KillEventThread(int error = LIBUSB_ERROR_IO, int times = 1) {
    fake.FailEvents(error, times);
    while (log.Count("Debug:LibusbEventHandler: the thread aborted, LIBUSB_ERROR_IO(-1)") == 0) {
      std::this_thread::yield();
    }
  }

  void ExpectAllCancelled() {
    const std::vector<Completion> all = records.done.Await(32);
    EXPECT_EQ(all.size(), 32U);
    EXPECT_THAT(all, Each(AllOf(Field(&Completion::status, 3), Field(&Completion::data, testing::Eq(std::nullopt)))));
  }

  // Without an event thread.
  void ExpectWaitersHandleEvents() {
    Submit32();
    std::uint8_t byte = 0;
    int control = 0;
    std::thread loop([&] { control = ReadByte(byte); });
    fake.AwaitInFlight(33);
    fake.Complete(0, {.bytes = {5}});
    loop.join();
    EXPECT_EQ(control, 1);
    EXPECT_EQ(byte, 5);
    ExpectSoon([this] { EXPECT_EQ(io->CloseUsbDev(), 0); });
    ExpectAllCancelled();
  }
};

TEST_F(LibusbIoClose, CloseEndsAnEndlessControlTransferAndKeepsWhatWinsAgainstTheCancel) {
  Open();
  std::uint8_t byte = 9;
  int control = 0;
  std::thread loop([&] { control = ReadByte(byte); });
  fake.AwaitInFlight(1);
  ExpectSoon([this] { EXPECT_EQ(io->CloseUsbDev(), 0); });
  loop.join();
  EXPECT_EQ(control, LIBUSB_ERROR_IO);
  EXPECT_EQ(byte, 9);

  ASSERT_EQ(io->OpenUsbDev(), 0);
  fake.SetCancelResult({.bytes = {1}});
  Submit32();
  EXPECT_EQ(io->CloseUsbDev(), 0);
  EXPECT_EQ(records.Outstanding(), 0U);
  EXPECT_THAT(records.done.Await(32), Each(Field(&Completion::status, 0)));
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
      {"libusb_clear_halt", [this] { return io->ClearHalt(0x81); }, 0, {}},
      {"libusb_alloc_transfer",
       [this] { return io->BulkTransfer(records.Make(1, 0x81, Bytes(4))); },
       LIBUSB_ERROR_NOT_FOUND,
       {1}},
      {"libusb_submit_transfer", [this] { return io->BulkTransfer(records.Make(1, 0x81, Bytes(4))); }, 0, {3}},
  };
  io->Init();
  std::size_t count = 0;
  for (const auto& test : cases) {
    SCOPED_TRACE(test.held);
    ASSERT_EQ(io->OpenUsbDev(), 0);
    const std::size_t closes = fake.Count("libusb_close");
    fake.Hold(test.held);
    int answer = 99;
    std::thread loop([&] { answer = test.operation(); });
    fake.AwaitHeld(test.held);
    std::thread stop([this] { EXPECT_EQ(io->CloseUsbDev(), 0); });
    AwaitClosing();
    std::uint8_t byte = 0;
    EXPECT_EQ(ReadByte(byte), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(io->BulkTransfer(records.Make(2, 0x81, Bytes(4))), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(records.done.Await(++count).back().status, 1);
    EXPECT_EQ(fake.Count("libusb_close"), closes);
    fake.LetGo(test.held);
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
  records.OnCompletion([this](const Completion& completion) {
    if (completion.streamId == 1) {
      EXPECT_EQ(io->BulkTransfer(records.Make(2, 0x81, Bytes(4))), LIBUSB_ERROR_NOT_FOUND);
    }
  });
  io->BulkTransfer(records.Make(1, 0x81, Bytes(4)));
  EXPECT_EQ(io->CloseUsbDev(), 0);
  EXPECT_THAT(records.done.Await(2),
              testing::ElementsAre(Field(&Completion::status, 3), Field(&Completion::status, 1)));
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

TEST_F(LibusbIoClose, WithoutItsEventThreadTheWaitersHandleEvents) {
  Open();
  std::uint8_t byte = 0;
  int control = 0;
  std::thread first([&] { control = ReadByte(byte); });
  fake.AwaitInFlight(1);
  fake.FailEvents(LIBUSB_ERROR_INTERRUPTED, 3);
  while (fake.Count("libusb_handle_events") < 3U) {  // It goes on after these.
    std::this_thread::yield();
  }
  KillEventThread();  // Under a waiter, which takes its place.
  fake.Complete(0, {.bytes = {5}});
  first.join();
  EXPECT_EQ(control, 1);
  EXPECT_EQ(fake.Count("libusb_handle_events"), 4U);  // The thread does not try again.
  ExpectWaitersHandleEvents();
}

// Whoever waits for completions need not know of event threads: it is enough to cancel.
TEST_F(LibusbIoClose, WithoutItsEventThreadCancelsAreDelivered) {
  records.OnCompletion([this](const Completion& completion) {
    if (completion.streamId == 2) {
      EXPECT_EQ(io->CancelTransfer(3), 0);  // Whoever runs this goes on to deliver it.
      EXPECT_EQ(records.Outstanding(), 2U);
    } else if (completion.status == 1) {
      EXPECT_EQ(io->CancelTransfer(5), 0);  // Within an operation, for which a close would wait.
    }
  });
  Open();
  fake.Hold("events");
  io->BulkTransfer(records.Make(1, 0x81, Bytes(4)));
  EXPECT_EQ(io->CancelTransfer(1), 0);
  KillEventThread();  // It has this one to deliver.
  fake.LetGo("events");
  EXPECT_EQ(records.done.Await(1)[0].status, 3);

  for (std::uint32_t id = 2; id < 5; ++id) {
    io->BulkTransfer(records.Make(id, 0x81, Bytes(4)));
  }
  EXPECT_EQ(io->CancelTransfer(2), 0);
  EXPECT_EQ(records.done.Count(), 3U);
  EXPECT_EQ(io->ResetDevice(), 0);
  EXPECT_EQ(records.done.Count(), 4U);

  fake.FailEvents(LIBUSB_ERROR_IO, -1);
  io->BulkTransfer(records.Make(5, 0x81, Bytes(4)));
  fake.Answer("libusb_submit_transfer", {LIBUSB_ERROR_BUSY});
  EXPECT_EQ(io->BulkTransfer(records.Make(6, 0x81, Bytes(4))), LIBUSB_ERROR_BUSY);
  EXPECT_NE(io->GetIoHandler(), nullptr);
  _UsbIoXferInfo* own = records.Make(0, 0x82, Bytes(4));
  own->reserved = kModuleIds;
  io->InterruptTransfer(own);
  EXPECT_EQ(io->CancelOwnTransfers(&records), 1);
  EXPECT_EQ(records.done.Await(7).back().status, 3);
  EXPECT_EQ(io->GetIoHandler(), nullptr) << "closed: nothing else ends transfers then";
}

TEST_F(LibusbIoClose, EventsThatFailForeverHangNothing) {
  Open();
  Submit32();
  KillEventThread(LIBUSB_ERROR_IO, -1);
  std::uint8_t byte = 0;
  EXPECT_EQ(ReadByte(byte), LIBUSB_ERROR_IO);
  fake.Hold("libusb_clear_halt");
  std::thread loop([this] { EXPECT_EQ(io->ClearHalt(0x81), 0); });
  fake.AwaitHeld("libusb_clear_halt");
  const std::size_t failures = fake.Count("libusb_handle_events");
  std::thread stop([this] { EXPECT_EQ(io->CloseUsbDev(), 0); });
  // All those that the close puts up with, while the call under way is still waited for.
  while (fake.Count("libusb_handle_events") < failures + LibusbHandle::kMaxEventFailures) {
    std::this_thread::yield();
  }
  fake.LetGo("libusb_clear_halt");
  loop.join();
  stop.join();
  EXPECT_EQ(records.Outstanding(), 0U);
  ExpectAllCancelled();
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

  ASSERT_EQ(io->OpenUsbDev(), 0);
  ExpectWaitersHandleEvents();
}

// Submissions with repeated ids, cancels, control requests, completions and a close, all at once and many times.
TEST_F(LibusbIoClose, EveryRecordIsCompletedOnceWhateverRaces) {
  io->Init();
  oskeloLogSetLevel(OSKELO_LOG_OFF);
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
          ReadByte(byte);
        }
      }
    });
    records.done.Await(std::size_t{120} * round + round);
    io->CloseUsbDev();
    loop.join();
    over = true;
    guest.join();
    ASSERT_EQ(records.Outstanding(), 0U);
    ASSERT_EQ(records.done.Count(), 120U * (round + 1));
  }
}

}  // namespace
}  // namespace vel
