#include <numeric>
#include <span>

#include "LibusbIoFixture.h"

namespace vel {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

class LibusbIoTransfer : public LibusbIoTest {
 protected:
  // A transfer operation with a record that suits it.
  struct Kind {
    int (LibusbIo::*submit)(_UsbIoXferInfo*);
    std::function<_UsbIoXferInfo*(std::uint32_t)> make;
  };
  std::vector<Kind> kinds = {
      {&LibusbIo::BulkTransfer, [this](std::uint32_t id) { return records.Make(id, 0x02, Bytes(3, 1)); }},
      {&LibusbIo::InterruptTransfer, [this](std::uint32_t id) { return records.Make(id, 0x03, Bytes(1, 4)); }},
      {&LibusbIo::IsochTransfer,
       [this](std::uint32_t id) {
         return records.MakeIso(id, 0x04, {2, 1}, Bytes(3, 5));
       }},
  };

  static Bytes DataOf(const _UsbIoXferInfo& info) { return {info.data, info.data + info.length}; }

  static std::vector<IsoPacketRecord> Table(const Bytes& data, std::size_t count) {
    std::vector<IsoPacketRecord> table;
    for (std::size_t i = 0; i < count; ++i) {
      table.push_back(LoadIsoRecord(data.data(), i));
    }
    return table;
  }
};

MATCHER_P4(IsPacket, offset, length, actual, status, "") {
  return arg.offset == static_cast<std::uint32_t>(offset) && arg.length == static_cast<std::uint32_t>(length) &&
         arg.actual_length == static_cast<std::uint32_t>(actual) && arg.status == static_cast<std::uint32_t>(status);
}

// Whatever fails: one completion with status 1, the data as it was, before the negative result; nothing is left filed.
TEST_F(LibusbIoTransfer, FailedSubmissionCompletesTheRecordAsItWas) {
  const struct {
    const char* function;
    int result;
  } failures[] = {{"not open", LIBUSB_ERROR_NOT_FOUND},
                  {"libusb_alloc_transfer", LIBUSB_ERROR_NO_MEM},
                  {"libusb_submit_transfer", LIBUSB_ERROR_NO_DEVICE}};
  io->Init();
  std::size_t count = 0;
  for (const auto& [function, result] : failures) {
    for (const Kind& kind : kinds) {
      SCOPED_TRACE(function);
      EXPECT_EQ((*io.*kind.submit)(nullptr), 0);
      fake.Answer(function, {result});
      _UsbIoXferInfo* info = kind.make(7);
      const Bytes sent = DataOf(*info);
      EXPECT_EQ((*io.*kind.submit)(info), result);
      EXPECT_EQ(records.Outstanding(), 0U);
      const Completion completion = records.done.Await(++count).back();
      EXPECT_EQ(completion.status, 1);
      EXPECT_EQ(completion.data, sent);
      EXPECT_EQ(io->CancelTransfer(7), LIBUSB_ERROR_NOT_FOUND);
      EXPECT_THAT(fake.transfers, testing::IsEmpty());
    }
    ASSERT_EQ(io->OpenUsbDev(), 0);
  }
  _UsbIoXferInfo* absurd = records.Make(1, 0x81, {});
  std::free(std::exchange(absurd->data, nullptr));
  absurd->length = 5;
  EXPECT_EQ(io->BulkTransfer(absurd), LIBUSB_ERROR_INVALID_PARAM);
}

// Each allocation on the way fails once, log lines included; a completion that finds no memory ends in itself.
TEST_F(LibusbIoTransfer, NoMemoryIsAResultAndNotAnException) {
  Open();
  records.OnCompletion([](const Completion&) {
    FakeLibusb::allocationsLeft = -1;
    throw std::bad_alloc();
  });
  for (const Kind& kind : kinds) {
    std::set<int> results;
    for (int left = 0; left < 16; ++left) {
      _UsbIoXferInfo* info = kind.make(7);
      FakeLibusb::allocationsLeft = left;
      results.insert((*io.*kind.submit)(info));
      FakeLibusb::allocationsLeft = -1;
    }
    EXPECT_THAT(results, ElementsAre(LIBUSB_ERROR_NO_MEM, 0));
  }
  EXPECT_GT(records.Outstanding(), 0U);
  EXPECT_EQ(io->CloseUsbDev(), 0);
  EXPECT_EQ(records.Outstanding(), 0U);
}

TEST_F(LibusbIoTransfer, MayCompleteBeforeTheSubmissionReturns) {
  Open();
  fake.SetImmediateResult({.bytes = {1, 2}});
  for (const Kind& kind : kinds) {
    EXPECT_EQ((*io.*kind.submit)(kind.make(1)), 0);
  }
  io->BulkTransfer(records.Make(1, 0x81, Bytes(4)));
  fake.SetImmediateResult({});
  io->BulkTransfer(records.Make(2, 0x81, Bytes(4)));
  const std::vector<Completion> all = records.done.Await(5);
  EXPECT_THAT(all, testing::Each(testing::Field(&Completion::status, 0)));
  EXPECT_EQ(all[3].data, Bytes({1, 2}));
  EXPECT_EQ(all[4].data, Bytes()) << "none where nothing arrived";
}

TEST_F(LibusbIoTransfer, CancelRacesTheSubmissionTheCompletionAndItself) {
  Open();
  fake.Hold("libusb_submit_transfer");
  std::thread loop([this] { io->BulkTransfer(records.Make(1, 0x81, Bytes(4))); });
  fake.AwaitHeld("libusb_submit_transfer");
  EXPECT_EQ(io->CancelTransfer(1), 0);  // Takes effect after the submission.
  fake.LetGo("libusb_submit_transfer");
  loop.join();
  EXPECT_EQ(records.done.Await(1)[0].status, 3);

  fake.Hold("events");
  io->BulkTransfer(records.Make(2, 0x81, Bytes(4)));
  fake.Complete(0x81, {.bytes = {5}});
  EXPECT_EQ(io->CancelTransfer(2), LIBUSB_ERROR_NOT_FOUND);  // The completion was faster.
  io->BulkTransfer(records.Make(3, 0x81, Bytes(4)));
  EXPECT_EQ(io->CancelTransfer(3), 0);
  EXPECT_EQ(io->CancelTransfer(3), LIBUSB_ERROR_NOT_FOUND);
  fake.LetGo("events");
  const std::vector<Completion> all = records.done.Await(3);
  EXPECT_EQ(all[1].data, Bytes{5});
  EXPECT_EQ(all[2].status, 3);
}

TEST_F(LibusbIoTransfer, EqualIdsDoNotDisturbEachOther) {
  Open();
  for (const std::uint8_t endpoint : {std::uint8_t{0x81}, std::uint8_t{0x82}, std::uint8_t{0x83}}) {
    io->BulkTransfer(records.Make(1, endpoint, Bytes(4)));
  }
  fake.Complete(0x81, {.bytes = {1}});
  EXPECT_EQ(records.done.Await(1)[0].data, Bytes{1});
  fake.Hold("events");
  EXPECT_EQ(io->CancelTransfer(1), 0);  // Still finds the newest one, and only that.
  EXPECT_FALSE(fake.Complete(0x83));
  EXPECT_TRUE(fake.Complete(0x82));
  fake.LetGo("events");
  EXPECT_EQ(records.done.Await(3)[1].status, 3);
  EXPECT_EQ(io->CancelTransfer(1), LIBUSB_ERROR_NOT_FOUND);
}

// Whatever id the remote side chooses, it does not meet the module's own reads, nor they the remote side's.
TEST_F(LibusbIoTransfer, OwnTransfersAreNotAmongTheRemoteSidesIds) {
  Open();
  Recorder other;
  fake.Hold("events");
  const auto submit = [this](Recorder& recorder, std::uint32_t space, std::uint8_t endpoint) {
    _UsbIoXferInfo* info = recorder.Make(0xFFFFFF00, endpoint, Bytes(4));
    info->reserved = space;
    EXPECT_EQ(io->BulkTransfer(info), 0);
  };
  submit(records, kRemoteIds, 0x81);
  submit(records, kModuleIds, 0x82);
  submit(records, kModuleIds, 0x82);
  submit(other, kModuleIds, 0x83);
  EXPECT_EQ(io->CancelTransfer(0xFFFFFF00), 0);
  EXPECT_EQ(io->CancelTransfer(0xFFFFFF00), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_FALSE(fake.Complete(0x81));
  EXPECT_EQ(io->CancelOwnTransfers(&records), 2);
  EXPECT_EQ(io->CancelOwnTransfers(&records), 0);
  EXPECT_FALSE(fake.Complete(0x82));
  EXPECT_TRUE(fake.Complete(0x83, {}));
  fake.LetGo("events");
  EXPECT_THAT(records.done.Await(3), testing::Each(testing::Field(&Completion::status, 3)));
  EXPECT_EQ(other.done.Await(1)[0].status, 0);
  io.reset();  // Its thread may not have left the completion of `other`.
}

TEST_F(LibusbIoTransfer, IsoPacketsKeepTheirPlacesAndAreCutToTheirRoom) {
  Open();
  io->IsochTransfer(records.MakeIso(1, 0x83, {1, 0, 4}));
  fake.Complete(0x83, {.bytes = {7, 1, 2, 3, 4},
                       .packets = {{1, LIBUSB_TRANSFER_COMPLETED}, {0, LIBUSB_TRANSFER_ERROR}, {4000, {}}}});
  const Bytes in = records.done.Await(1)[0].data.value();
  EXPECT_THAT(Table(in, 3), ElementsAre(IsPacket(48, 1, 1, 0), IsPacket(49, 0, 0, 1), IsPacket(49, 4, 4, 0)));
  EXPECT_THAT(Bytes(in.begin() + 48, in.end()), ElementsAre(7, 1, 2, 3, 4));

  // OUT sends the payload and answers in its buffer.
  Bytes payload(40);
  std::iota(payload.begin(), payload.end(), std::uint8_t{1});
  io->IsochTransfer(records.MakeIso(1, 0x04, {30, 10}, payload));
  fake.AwaitInFlight(1);
  EXPECT_THAT(std::span(fake.inFlight[0]->buffer, 40), ElementsAreArray(payload));
  fake.Complete(0x04, {.packets = {{30, LIBUSB_TRANSFER_COMPLETED}, {4, LIBUSB_TRANSFER_ERROR}}});
  const Bytes out = records.done.Await(2)[1].data.value();
  ASSERT_EQ(out.size(), 40U);
  // The offsets stay what the buffer holds there.
  EXPECT_THAT(Table(out, 2), ElementsAre(IsPacket(0x04030201, 30, 30, 0), IsPacket(0x14131211, 10, 4, 1)));
  EXPECT_THAT(Bytes(out.begin() + 32, out.end()), ElementsAre(33, 34, 35, 36, 37, 38, 39, 40));
}

TEST_F(LibusbIoTransfer, FailuresHoldWhatWasMovedWhereTheyAreAnswered) {
  Open();
  fake.SetCancelResult({.status = LIBUSB_TRANSFER_CANCELLED, .bytes = {1, 2}});
  std::size_t count = 0;
  for (const bool answered : {false, true}) {
    if (answered) {
      base.AnswerFailedTransfers();
    }
    const auto data = [&] { return records.done.Await(++count).back().data; };
    const auto expected = [answered](Bytes part) { return answered ? std::optional(part) : std::nullopt; };
    io->BulkTransfer(records.Make(1, 0x81, Bytes(4)));
    io->CancelTransfer(1);
    EXPECT_EQ(data(), expected({1, 2}));
    io->InterruptTransfer(records.Make(1, 0x81, Bytes(4)));
    fake.Complete(0x81, {.status = LIBUSB_TRANSFER_STALL});
    EXPECT_EQ(data(), expected({}));
    io->BulkTransfer(records.Make(1, 0x02, {3, 4}));
    fake.Complete(0x02, {.status = LIBUSB_TRANSFER_TIMED_OUT});
    EXPECT_EQ(data(), expected({3, 4}));
    io->IsochTransfer(records.MakeIso(1, 0x83, {1, 1}));
    fake.Complete(0x83, {.status = LIBUSB_TRANSFER_CANCELLED, .bytes = {5}, .packets = {{1, {}}, {0, {}}}});
    const std::optional<Bytes> table = data();
    ASSERT_EQ(table.has_value(), answered);
    EXPECT_TRUE(!answered || (table->size() == 33 && table->back() == 5));
  }
  _UsbIoXferInfo* own = records.Make(1, 0x81, Bytes(4));
  own->reserved = kModuleIds;
  io->BulkTransfer(own);
  io->CancelOwnTransfers(&records);
  EXPECT_EQ(records.done.Await(++count).back().data, std::nullopt);
}

TEST_F(LibusbIoTransfer, IsoTablesThatDoNotFitAreRefused) {
  Open();
  const struct {
    std::uint8_t endpoint;
    std::vector<std::uint32_t> lengths;
    std::size_t payload;
    std::uint32_t packets;
  } cases[] = {{0x83, {}, 16, 0},  // No packets; a table longer than the data; a count that wraps around.
               {0x83, {1, 1}, 15, 3},
               {0x83, {1}, 0, 0x10000001},
               {0x04, {2, 2}, 3, 2},  // Packets beyond the data, and lengths that wrap around.
               {0x04, {0xFFFFFFFF, 5}, 4, 2},
               {0x83, {0x04000000, 1}, 0, 2}};
  std::size_t count = 0;
  for (const auto& [endpoint, lengths, payload, packets] : cases) {
    _UsbIoXferInfo* info = records.MakeIso(1, endpoint, lengths, Bytes(payload));
    info->isoPacketNum = packets;
    EXPECT_EQ(io->IsochTransfer(info), LIBUSB_ERROR_INVALID_PARAM) << count;
    EXPECT_EQ(records.done.Await(++count).back().status, 1);
  }
  io->IsochTransfer(records.MakeIso(1, 0x04, std::vector<std::uint32_t>(8, 1), Bytes(8)));  // The table is larger.
  EXPECT_TRUE(fake.Complete(0x04, {}));
  EXPECT_EQ(records.done.Await(++count).back().status, 0);
}

}  // namespace
}  // namespace vel
