#include <cerrno>
#include <functional>
#include <set>
#include <tuple>

#include "LibusbIoFixture.h"
#include "support/FailingMemory.h"

namespace vel {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::Field;

class LibusbIoTransfer : public LibusbIoTest {
 protected:
  // A transfer operation with a record that suits it.
  struct Kind {
    int (LibusbIo::*submit)(_UsbIoXferInfo*);
    std::function<_UsbIoXferInfo*()> make;
  };
  std::vector<Kind> kinds = {
      {&LibusbIo::BulkTransfer, [this] { return records.RecordOf(0x02, 7, "abc"); }},
      {&LibusbIo::InterruptTransfer, [this] { return records.RecordOf(0x01, 7, "d"); }},
      {&LibusbIo::IsochTransfer,
       [this] {
         return MakeIso(7, 0x04, {2, 1}, "efg");
       }},
  };
};

// Whatever fails: one completion with status 1, the data as it was, before the negative result; nothing is left filed.
TEST_F(LibusbIoTransfer, FailedSubmissionCompletesTheRecordAsItWas) {
  io->Init();
  std::size_t count = 0;
  for (const auto& [function, result] : {std::pair("not open", LIBUSB_ERROR_NOT_FOUND),
                                         {"alloc_transfer", LIBUSB_ERROR_NO_MEM},
                                         {"submit_transfer", LIBUSB_ERROR_NO_DEVICE}}) {
    SCOPED_TRACE(function);
    seam.Instead(function, [result = result](const auto&) { return result; });
    for (const Kind& kind : kinds) {
      EXPECT_EQ((*io.*kind.submit)(nullptr), 0);
      _UsbIoXferInfo* info = kind.make();
      const std::string sent(info->data, info->data + info->length);
      EXPECT_EQ((*io.*kind.submit)(info), result);
      EXPECT_EQ(records.Outstanding(), 0);
      EXPECT_EQ(records.done.Await(++count).back(), (Done{7, 1, sent}));
      EXPECT_EQ(io->CancelTransfer(7), LIBUSB_ERROR_NOT_FOUND);
    }
    seam.Instead(function, nullptr);
    ASSERT_EQ(io->OpenUsbDev(), 0);
  }
  _UsbIoXferInfo* absurd = records.Record(0x81, 1, std::nullopt);
  EXPECT_EQ(io->BulkTransfer(absurd), LIBUSB_ERROR_INVALID_PARAM);
}

// Each allocation on the way to libusb fails once, log lines included; a completion that finds no memory ends in
// itself.
TEST_F(LibusbIoTransfer, NoMemoryIsAResultAndNotAnException) {
  Open();
  records.OnDone([](const auto&) { throw std::bad_alloc(); });
  seam.Instead("submit_transfer", [](const auto& call) {
    test::FailMyMemory(0);
    return call();
  });
  for (const Kind& kind : kinds) {
    std::set<int> results;
    for (std::uint32_t nth = 1; nth <= 16; ++nth) {
      _UsbIoXferInfo* info = kind.make();
      test::FailMyMemory(nth);
      const int result = (*io.*kind.submit)(info);
      test::FailMyMemory(0);
      results.insert(result);
    }
    EXPECT_THAT(results, ElementsAre(LIBUSB_ERROR_NO_MEM, 0));
  }
  EXPECT_GT(records.Outstanding(), 0);
  EXPECT_EQ(io->CloseUsbDev(), 0);
  EXPECT_EQ(records.Outstanding(), 0);
}

TEST_F(LibusbIoTransfer, MayCompleteBeforeTheSubmissionReturns) {
  Open();
  std::size_t count = 0;
  std::string brought = "ab";
  seam.Instead("submit_transfer", [&](const auto& call) {
    const int result = call();
    EXPECT_TRUE(device.Complete(WaitingUsb::kAny, {.bytes = {brought.begin(), brought.end()}}));
    EXPECT_EQ(records.done.Await(++count).size(), count);
    return result;
  });
  for (const Kind& kind : kinds) {
    EXPECT_EQ((*io.*kind.submit)(kind.make()), 0);
  }
  Bulk(1);
  brought.clear();
  Bulk(2);
  const std::vector<Done> all = records.done.Await(5);
  EXPECT_THAT(all, Each(Field(&Done::status, 0)));
  EXPECT_EQ(all[3].data, "ab");
  EXPECT_EQ(all[4].data, "") << "none where nothing arrived";
}

TEST_F(LibusbIoTransfer, CancelRacesTheSubmissionTheCompletionAndItself) {
  Open();
  Gate submission;
  seam.Instead("submit_transfer", [&](const auto& call) {
    submission.Pass();
    return call();
  });
  std::thread loop([this] { Bulk(1); });
  submission.AwaitArrival();
  EXPECT_EQ(io->CancelTransfer(1), 0);  // Takes effect after the submission.
  seam.Instead("submit_transfer", nullptr);
  submission.Open();
  loop.join();
  EXPECT_EQ(records.done.Await(1)[0].status, 3);

  Gate events;
  HoldEvents(events);
  Bulk(2);
  device.Complete(0x81, {.bytes = {'a'}});
  EXPECT_LT(io->CancelTransfer(2), 0);  // The completion was faster.
  Bulk(3);
  EXPECT_EQ(io->CancelTransfer(3), 0);
  EXPECT_EQ(io->CancelTransfer(3), LIBUSB_ERROR_NOT_FOUND);
  events.Open();
  const std::vector<Done> all = records.done.Await(3);
  EXPECT_EQ(all[1].data, "a");
  EXPECT_EQ(all[2].status, 3);
}

TEST_F(LibusbIoTransfer, EqualIdsDoNotDisturbEachOther) {
  Open();
  for (const std::uint8_t endpoint : {std::uint8_t{0x81}, std::uint8_t{0x82}, std::uint8_t{0x85}}) {
    Bulk(1, endpoint);
  }
  device.Complete(0x81, {.bytes = {'a'}});
  EXPECT_EQ(records.done.Await(1)[0].data, "a");
  Gate events;
  HoldEvents(events);
  EXPECT_EQ(io->CancelTransfer(1), 0);  // Still finds the newest one, and only that.
  EXPECT_FALSE(device.Complete(0x85));
  EXPECT_TRUE(device.Complete(0x82));
  events.Open();
  EXPECT_THAT(records.done.Await(3), testing::Contains(Field(&Done::status, 3)).Times(1));
  EXPECT_EQ(io->CancelTransfer(1), LIBUSB_ERROR_NOT_FOUND);
}

// Whatever id the remote side chooses, it does not meet the module's own reads, nor they the remote side's.
TEST_F(LibusbIoTransfer, OwnTransfersAreNotAmongTheRemoteSidesIds) {
  Open();
  Completions other;
  const auto submit = [this](Completions& completions, std::uint32_t space, std::uint8_t endpoint) {
    _UsbIoXferInfo* info = completions.Record(endpoint, 0xFFFFFF00, 4);
    info->reserved = space;
    EXPECT_EQ(io->BulkTransfer(info), 0);
  };
  submit(records, kRemoteIds, 0x81);
  submit(records, kModuleIds, 0x82);
  submit(records, kModuleIds, 0x82);
  submit(other, kModuleIds, 0x85);
  EXPECT_EQ(io->CancelTransfer(0xFFFFFF00), 0);
  EXPECT_EQ(io->CancelTransfer(0xFFFFFF00), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_FALSE(device.Complete(0x81));
  EXPECT_EQ(io->CancelOwnTransfers(&records), 2);
  EXPECT_EQ(io->CancelOwnTransfers(&records), 0);
  EXPECT_FALSE(device.Complete(0x82));
  EXPECT_TRUE(device.Complete(0x85));
  EXPECT_THAT(records.done.Await(3), Each(Field(&Done::status, 3)));
  EXPECT_EQ(other.done.Await(1)[0].status, 0);
  io.reset();  // Its thread may not have left the completion of `other`.
}

// What a device brings in good order is seen over the whole module.
TEST_F(LibusbIoTransfer, IsoPacketsAreCutToTheirRoomAndOutAnswersInItsBuffer) {
  Open();
  io->IsochTransfer(MakeIso(1, 0x83, {1, 0, 4}));
  device.Complete(0x83, {.bytes = {'a', 'b', 'c', 'd', 'e'}, .packets = {{1, 0}, {0, -EPROTO}, {4000, 0}}});
  const std::string in = records.done.Await(1)[0].data.value();
  EXPECT_EQ(LoadIsoRecord(in.data(), 2).actual_length, 4U);
  EXPECT_EQ(in.substr(48), "abcde");
  // This platform's libusb says that no byte of the buffer was moved.
  std::string out;
  records.OnDone([&](const _UsbIoXferInfo& info) { out.assign(info.data, info.data + 40); });
  io->IsochTransfer(MakeIso(1, 0x04, {30, 10}, std::string(40, 'x')));
  EXPECT_EQ(device.LastSent(), Bytes(40, 'x'));
  device.Complete(0x04, {.packets = {{30, 0}, {4, -EPROTO}}});
  io.reset();
  EXPECT_EQ(records.done.Await(2)[1], (Done{1, 0, ""}));
  const IsoPacketRecord last = LoadIsoRecord(out.data(), 1);
  EXPECT_EQ(std::tuple(+last.offset, +last.length, +last.actual_length, +last.status),
            std::tuple(0x78787878U, 10U, 4U, 1U));  // The offset stays what the buffer holds there.
  EXPECT_EQ(out.substr(32), "xxxxxxxx");
}

TEST_F(LibusbIoTransfer, FailuresHoldWhatWasMovedWhereTheyAreAnswered) {
  Open();
  std::size_t count = 0;
  for (const bool answered : {false, true}) {
    if (answered) {
      base.AnswerFailedTransfers();
    }
    const auto data = [&] { return records.done.Await(++count).back().data; };
    const auto expected = [answered](std::string part) { return answered ? std::optional(part) : std::nullopt; };
    Bulk(1);
    device.MovePart(0x81, {.bytes = {'a', 'b'}});
    io->CancelTransfer(1);
    EXPECT_EQ(data(), expected("ab"));
    io->InterruptTransfer(records.Record(0x81, 1, 4));
    device.Complete(0x81, {.status = -EPIPE});
    EXPECT_EQ(data(), expected(""));
    io->BulkTransfer(records.RecordOf(0x02, 1, "cd"));
    device.Complete(0x02, {.status = -EPROTO});
    EXPECT_EQ(data(), expected("cd"));
    io->IsochTransfer(MakeIso(1, 0x83, {1, 1}));
    device.MovePart(0x83, {.bytes = {'e'}, .packets = {{1, 0}, {0, 0}}});
    io->CancelTransfer(1);
    const std::optional<std::string> table = data();
    ASSERT_EQ(table.has_value(), answered);
    EXPECT_TRUE(!answered || (table->size() == 33 && table->back() == 'e'));
  }
  _UsbIoXferInfo* own = records.Record(0x81, 1, 4);
  own->reserved = kModuleIds;
  io->BulkTransfer(own);
  io->CancelOwnTransfers(&records);
  EXPECT_EQ(records.done.Await(++count).back().data, std::nullopt);
}

TEST_F(LibusbIoTransfer, IsoTablesThatDoNotFitAreRefused) {
  Open();
  const struct {
    std::uint8_t endpoint;
    std::uint32_t packets;
    std::vector<std::uint32_t> lengths;
    std::size_t payload;
  } cases[] = {{0x83, 0, {}, 16},  // No packets; a table longer than the data; a count that wraps around.
               {0x83, 3, {1, 1}, 15},
               {0x83, 0x10000001, {1}, 0},
               {0x04, 2, {2, 2}, 3},  // Packets beyond the data, and lengths that wrap around.
               {0x04, 2, {0xFFFFFFFF, 5}, 4},
               {0x83, 2, {0x04000000, 1}, 0}};
  std::size_t count = 0;
  for (const auto& [endpoint, packets, lengths, payload] : cases) {
    _UsbIoXferInfo* info = MakeIso(1, endpoint, lengths, std::string(payload, 'x'));
    info->isoPacketNum = packets;
    EXPECT_EQ(io->IsochTransfer(info), LIBUSB_ERROR_INVALID_PARAM) << count;
    EXPECT_EQ(records.done.Await(++count).back().status, 1);
  }
  io->IsochTransfer(MakeIso(1, 0x04, std::vector<std::uint32_t>(8, 1), "12345678"));  // The table is larger.
  EXPECT_TRUE(device.Complete(0x04));
  EXPECT_EQ(records.done.Await(++count).back().status, 0);
}

}  // namespace
}  // namespace vel
