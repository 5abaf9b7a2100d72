#include <numeric>

#include "LibusbIoFixture.h"

namespace vel {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

using Bytes = std::vector<std::uint8_t>;

class LibusbIoTransfer : public LibusbIoTest {
 protected:
  // A transfer operation under its name, with a record that suits it.
  struct Kind {
    const char* name;
    const char* word;
    int (LibusbIo::*submit)(_UsbIoXferInfo*);
    std::function<_UsbIoXferInfo*(std::uint32_t)> make;
  };
  std::vector<Kind> kinds = {
      {"BulkTransfer", "bulk", &LibusbIo::BulkTransfer,
       [this](std::uint32_t id) {
         return records.Make(id, 0x02, {1, 2, 3});
       }},
      {"InterruptTransfer", "interrupt", &LibusbIo::InterruptTransfer,
       [this](std::uint32_t id) { return records.Make(id, 0x03, {4}); }},
      {"IsochTransfer", "iso", &LibusbIo::IsochTransfer,
       [this](std::uint32_t id) {
         return records.MakeIso(id, 0x04, {2, 1}, {5, 6, 7});
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

TEST_F(LibusbIoTransfer, NullRecordDoesNothing) {
  for (const Kind& kind : kinds) {
    EXPECT_EQ((*io.*kind.submit)(nullptr), 0) << kind.name;
  }
}

TEST_F(LibusbIoTransfer, ClosedDeviceCompletesAtOnceWithTheRequestsData) {
  io->Init();
  const char* const lines[] = {"LibusbIo.cpp BulkTransfer: Error:BulkTransfer failed LIBUSB_ERROR_NOT_FOUND",
                               "LibusbIo.cpp InterruptTransfer: Error:InterruptTransfer failed LIBUSB_ERROR_NOT_FOUND",
                               "LibusbIo.cpp IsochTransfer: Error:IsoTransfer failed LIBUSB_ERROR_NOT_FOUND"};
  for (std::size_t i = 0; i < kinds.size(); ++i) {
    _UsbIoXferInfo* info = kinds[i].make(7);
    const Bytes sent = DataOf(*info);
    EXPECT_EQ((*io.*kinds[i].submit)(info), LIBUSB_ERROR_NOT_FOUND);
    const Completion completion = records.Await(i + 1)[i];
    EXPECT_EQ(completion.status, 1);
    EXPECT_EQ(completion.data, sent);
    EXPECT_TRUE(log.Has(lines[i]));
  }
}

// Whatever fails: one completion with status 1, the data as it was, before the negative result;
// nothing is left filed.
TEST_F(LibusbIoTransfer, FailedSubmissionCompletesTheRecordAsItWas) {
  Open();
  const struct {
    const char* function;
    int answer;
    int result;
  } failures[] = {{"libusb_alloc_transfer", 1, LIBUSB_ERROR_NO_MEM},
                  {"libusb_submit_transfer", LIBUSB_ERROR_IO, LIBUSB_ERROR_IO},
                  {"libusb_submit_transfer", LIBUSB_ERROR_NO_DEVICE, LIBUSB_ERROR_NO_DEVICE}};
  std::size_t count = 0;
  for (const Kind& kind : kinds) {
    for (const auto& [function, answer, result] : failures) {
      fake.Answer(function, {answer});
      _UsbIoXferInfo* info = kind.make(7);
      const Bytes sent = DataOf(*info);
      testing::internal::CaptureStdout();
      EXPECT_EQ((*io.*kind.submit)(info), result);
      const std::string printed = testing::internal::GetCapturedStdout();
      EXPECT_EQ(records.Outstanding(), 0U);
      const Completion completion = records.Await(++count).back();
      EXPECT_EQ(completion.status, 1);
      EXPECT_EQ(completion.data, sent);
      const std::string text = std::string("Error submitting ") + kind.word + " transfer, " + std::to_string(result);
      if (kind.word == std::string("iso")) {
        EXPECT_TRUE(log.Has("LibusbIo.cpp IsochTransfer: Error:" + text));
        EXPECT_EQ(printed, "");
      } else {
        EXPECT_EQ(printed, text);
      }
      EXPECT_EQ(io->CancelTransfer(7), LIBUSB_ERROR_NOT_FOUND);
      EXPECT_EQ(fake.TransferCount(), 0U);
    }
  }
}

TEST_F(LibusbIoTransfer, TheNthFailureLeavesTheOthersInFlight) {
  Open();
  fake.Answer("libusb_submit_transfer", {0, LIBUSB_ERROR_BUSY, 0});
  testing::internal::CaptureStdout();
  EXPECT_EQ(io->BulkTransfer(records.Make(1, 0x81, Bytes(4))), 0);
  EXPECT_EQ(io->BulkTransfer(records.Make(1, 0x82, Bytes(4))), LIBUSB_ERROR_BUSY);
  EXPECT_EQ(io->BulkTransfer(records.Make(3, 0x83, Bytes(4))), 0);
  testing::internal::GetCapturedStdout();
  EXPECT_TRUE(fake.Complete(0x81));
  EXPECT_TRUE(fake.Complete(0x83));
  EXPECT_EQ(records.Await(3).size(), 3U);
}

TEST_F(LibusbIoTransfer, AbsurdRecordsAreRefused) {
  Open();
  testing::internal::CaptureStdout();
  _UsbIoXferInfo* info = records.Make(1, 0x81, {});
  std::free(std::exchange(info->data, nullptr));
  info->length = 5;
  info->callback = &records;
  EXPECT_EQ(io->BulkTransfer(info), LIBUSB_ERROR_INVALID_PARAM);
  testing::internal::GetCapturedStdout();
}

TEST_F(LibusbIoTransfer, InTransferBringsWhatArrived) {
  Open();
  const std::pair<int (LibusbIo::*)(_UsbIoXferInfo*), libusb_transfer_type> cases[] = {
      {&LibusbIo::BulkTransfer, LIBUSB_TRANSFER_TYPE_BULK},
      {&LibusbIo::InterruptTransfer, LIBUSB_TRANSFER_TYPE_INTERRUPT}};
  std::size_t count = 0;
  for (const auto& [submit, type] : cases) {
    _UsbIoXferInfo* info = records.Make(0x1F, 0x81, Bytes(8, 9));
    EXPECT_EQ((*io.*submit)(info), 0);
    fake.AwaitInFlight(1);
    EXPECT_EQ(info->owner, io.get());
    EXPECT_EQ(fake.LastType(), type);
    fake.Complete(0x81, {.bytes = {1, 2, 3}});
    const Completion completion = records.Await(++count).back();
    EXPECT_EQ(completion.status, 0);
    EXPECT_THAT(completion.data, ElementsAre(1, 2, 3));
    EXPECT_NE(completion.thread, std::this_thread::get_id());
    EXPECT_TRUE(log.Has("LibusbTransfer.cpp Complete: Debug:async transfer[" + std::to_string(type) +
                        "] cb, streamid[0x1f] length[8] actual_length[3]"));
  }
  EXPECT_TRUE(log.Has("LibusbIo.cpp BulkTransfer: Debug:BulkTransfer streamid[31] epaddr[129] len[8]"));
  EXPECT_TRUE(log.Has("LibusbIo.cpp BulkTransfer: Debug:BulkTransfer finished ret[0]"));
}

TEST_F(LibusbIoTransfer, EmptyInTransferStillHasData) {
  Open();
  io->BulkTransfer(records.Make(1, 0x81, Bytes(8)));
  fake.Complete(0x81, {});
  const Completion completion = records.Await(1)[0];
  EXPECT_TRUE(completion.hasData);
  EXPECT_EQ(completion.length, 0U);
}

TEST_F(LibusbIoTransfer, OutTransferSendsItsDataWithoutTimeLimit) {
  Open();
  io->BulkTransfer(records.Make(1, 0x02, {1, 2, 3}));
  fake.AwaitInFlight(1);
  EXPECT_THAT(fake.LastSubmitted(), ElementsAre(1, 2, 3));
  EXPECT_EQ(fake.LastTimeout(), 0U);
  fake.Complete(0x02);
  EXPECT_EQ(records.Await(1)[0].length, 3U);
}

TEST_F(LibusbIoTransfer, FailedTransferHasStatusAndNoData) {
  Open();
  const libusb_transfer_status cases[] = {LIBUSB_TRANSFER_ERROR, LIBUSB_TRANSFER_TIMED_OUT, LIBUSB_TRANSFER_CANCELLED,
                                          LIBUSB_TRANSFER_STALL, LIBUSB_TRANSFER_NO_DEVICE, LIBUSB_TRANSFER_OVERFLOW};
  std::size_t count = 0;
  for (const Kind& kind : kinds) {
    for (const libusb_transfer_status status : cases) {
      _UsbIoXferInfo* info = kind.make(1);
      const std::uint8_t endpoint = info->epAddr;
      EXPECT_EQ((*io.*kind.submit)(info), 0);
      EXPECT_TRUE(fake.Complete(endpoint, {.status = status}));
      const Completion completion = records.Await(++count).back();
      EXPECT_EQ(completion.status, status);
      EXPECT_FALSE(completion.hasData);
      EXPECT_EQ(completion.length, 0U);
    }
  }
  EXPECT_TRUE(log.Has("LibusbTransfer.cpp Complete: Error:Libusb transfer status error[4]!, transfer_type[2]"));
}

TEST_F(LibusbIoTransfer, MayCompleteBeforeTheSubmissionReturns) {
  Open();
  fake.SetImmediateResult({.bytes = {1, 2}});
  std::size_t count = 0;
  for (const Kind& kind : kinds) {
    EXPECT_EQ((*io.*kind.submit)(kind.make(1)), 0);
    EXPECT_EQ(records.Await(++count).back().status, 0);
  }
}

TEST_F(LibusbIoTransfer, CompletionMaySubmitAgain) {
  Open();
  records.OnCompletion([this](const Completion& completion) {
    if (completion.status == 0 && completion.streamId < 5) {
      io->BulkTransfer(records.Make(completion.streamId + 1, 0x81, Bytes(4)));
    }
  });
  io->BulkTransfer(records.Make(1, 0x81, Bytes(4)));
  for (std::size_t n = 1; n <= 5; ++n) {
    fake.AwaitInFlight(1);
    fake.Complete(0x81);
    records.Await(n);
  }
}

TEST_F(LibusbIoTransfer, CancelledTransferCompletesWithoutData) {
  Open();
  io->BulkTransfer(records.Make(1, 0x81, Bytes(4)));
  EXPECT_EQ(io->CancelTransfer(1), 0);
  const Completion completion = records.Await(1)[0];
  EXPECT_EQ(completion.status, 3);
  EXPECT_FALSE(completion.hasData);
  log.Clear();
  EXPECT_EQ(io->CancelTransfer(1), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_THAT(log.Lines(), ElementsAre("LibusbIo.cpp CancelTransfer: Error:unknown Transfer localXferId[1]"));
}

TEST_F(LibusbIoTransfer, CompletionDoesNotFindItsOwnTransferAnyMore) {
  Open();
  records.OnCompletion([this](const Completion&) { EXPECT_EQ(io->CancelTransfer(1), LIBUSB_ERROR_NOT_FOUND); });
  io->BulkTransfer(records.Make(1, 0x81, Bytes(4)));
  fake.Complete(0x81);
  records.Await(1);
  EXPECT_EQ(io->CloseUsbDev(), 0);
  EXPECT_TRUE(log.Has("LibusbIo.cpp CancelTransfer: Error:unknown Transfer localXferId[1]"));
}

TEST_F(LibusbIoTransfer, SecondCancelFindsNothing) {
  Open();
  fake.Hold("events");
  io->BulkTransfer(records.Make(1, 0x81, Bytes(4)));
  EXPECT_EQ(io->CancelTransfer(1), 0);
  EXPECT_EQ(io->CancelTransfer(1), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_TRUE(log.Has("LibusbIo.cpp CancelTransfer: Error:unknown Transfer localXferId[1]"));
  fake.LetGo("events");
  records.Await(1);
}

TEST_F(LibusbIoTransfer, CompletionThatIsFasterThanTheCancelWins) {
  Open();
  fake.Hold("events");
  io->BulkTransfer(records.Make(1, 0x81, Bytes(4)));
  fake.Complete(0x81, {.bytes = {5}});
  EXPECT_EQ(io->CancelTransfer(1), LIBUSB_ERROR_NOT_FOUND);
  EXPECT_TRUE(
      log.Has("LibusbIo.cpp CancelTransfer: Error:libusb_cancel_transfer: error num "
              "LIBUSB_ERROR_NOT_FOUND [-5]"));
  fake.LetGo("events");
  EXPECT_THAT(records.Await(1)[0].data, ElementsAre(5));
}

TEST_F(LibusbIoTransfer, CancelDuringTheSubmissionTakesEffectAfterIt) {
  Open();
  fake.Hold("libusb_submit_transfer");
  std::thread loop([this] { io->BulkTransfer(records.Make(1, 0x81, Bytes(4))); });
  fake.AwaitHeld("libusb_submit_transfer");
  EXPECT_EQ(io->CancelTransfer(1), 0);
  fake.LetGo("libusb_submit_transfer");
  loop.join();
  EXPECT_EQ(records.Await(1)[0].status, 3);
}

TEST_F(LibusbIoTransfer, EqualIdsDoNotDisturbEachOther) {
  Open();
  io->BulkTransfer(records.Make(1, 0x81, Bytes(4)));
  io->BulkTransfer(records.Make(1, 0x82, Bytes(4)));
  fake.Complete(0x81, {.bytes = {1}});
  EXPECT_THAT(records.Await(1)[0].data, ElementsAre(1));
  EXPECT_EQ(io->CancelTransfer(1), 0);  // Still finds the newer one, and only that.
  EXPECT_EQ(records.Await(2)[1].status, 3);
  EXPECT_EQ(io->CancelTransfer(1), LIBUSB_ERROR_NOT_FOUND);
}

TEST_F(LibusbIoTransfer, CancelTakesTheNewestOfEqualIds) {
  Open();
  fake.Hold("events");
  io->BulkTransfer(records.Make(1, 0x81, Bytes(4)));
  io->BulkTransfer(records.Make(1, 0x82, Bytes(4)));
  EXPECT_EQ(io->CancelTransfer(1), 0);
  EXPECT_FALSE(fake.Complete(0x82));
  EXPECT_TRUE(fake.Complete(0x81));
  fake.LetGo("events");
  records.Await(2);
}

TEST_F(LibusbIoTransfer, IsoInIsPackedBehindItsTable) {
  Open();
  io->IsochTransfer(records.MakeIso(1, 0x83, {16, 16, 16}));
  Bytes payload(15);
  std::iota(payload.begin(), payload.end(), std::uint8_t{1});
  fake.Complete(
      0x83, {.bytes = payload,
             .packets = {{10, LIBUSB_TRANSFER_COMPLETED}, {0, LIBUSB_TRANSFER_ERROR}, {5, LIBUSB_TRANSFER_OVERFLOW}}});
  const Completion completion = records.Await(1)[0];
  EXPECT_EQ(completion.status, 0);
  ASSERT_EQ(completion.length, 63U);
  EXPECT_THAT(Table(completion.data, 3),
              ElementsAre(IsPacket(48, 16, 10, 0), IsPacket(58, 16, 0, 1), IsPacket(58, 16, 5, 6)));
  EXPECT_THAT(Bytes(completion.data.begin() + 48, completion.data.end()), ElementsAreArray(payload));
  EXPECT_TRUE(
      log.Has("LibusbIo.cpp IsochTransfer: Debug:IsoTransfer streamid[0x1] epaddr[0x83] len[48] "
              "isonum[3]"));
}

TEST_F(LibusbIoTransfer, IsoPacketsOfUnequalLengthKeepTheirPlaces) {
  Open();
  io->IsochTransfer(records.MakeIso(1, 0x83, {1, 0, 4}));
  fake.Complete(
      0x83,
      {.bytes = {7, 8, 9},
       .packets = {{1, LIBUSB_TRANSFER_COMPLETED}, {0, LIBUSB_TRANSFER_COMPLETED}, {2, LIBUSB_TRANSFER_COMPLETED}}});
  const Completion completion = records.Await(1)[0];
  EXPECT_THAT(Table(completion.data, 3),
              ElementsAre(IsPacket(48, 1, 1, 0), IsPacket(49, 0, 0, 0), IsPacket(49, 4, 2, 0)));
  EXPECT_THAT(Bytes(completion.data.begin() + 48, completion.data.end()), ElementsAre(7, 8, 9));
}

TEST_F(LibusbIoTransfer, IsoPacketThatClaimsTooMuchIsCutToItsRoom) {
  Open();
  io->IsochTransfer(records.MakeIso(1, 0x83, {4}));
  fake.Complete(0x83, {.bytes = {1, 2, 3, 4}, .packets = {{4000, LIBUSB_TRANSFER_COMPLETED}}});
  const Completion completion = records.Await(1)[0];
  EXPECT_EQ(completion.length, 20U);
  EXPECT_THAT(Table(completion.data, 1), ElementsAre(IsPacket(16, 4, 4, 0)));
}

TEST_F(LibusbIoTransfer, IsoOutSendsThePayloadAndAnswersInItsBuffer) {
  Open();
  Bytes payload(40);
  std::iota(payload.begin(), payload.end(), std::uint8_t{1});
  io->IsochTransfer(records.MakeIso(1, 0x04, {30, 10}, payload));
  fake.AwaitInFlight(1);
  EXPECT_THAT(fake.LastSubmitted(), ElementsAreArray(payload));
  fake.Complete(0x04, {.packets = {{30, LIBUSB_TRANSFER_COMPLETED}, {4, LIBUSB_TRANSFER_ERROR}}});
  const Completion completion = records.Await(1)[0];
  ASSERT_EQ(completion.length, 40U);
  // The offsets stay what the buffer holds there.
  EXPECT_THAT(Table(completion.data, 2), ElementsAre(IsPacket(0x04030201, 30, 30, 0), IsPacket(0x14131211, 10, 4, 1)));
  EXPECT_THAT(Bytes(completion.data.begin() + 32, completion.data.end()), ElementsAre(33, 34, 35, 36, 37, 38, 39, 40));
}

TEST_F(LibusbIoTransfer, IsoOutTableMayBeLargerThanThePayload) {
  Open();
  io->IsochTransfer(records.MakeIso(1, 0x04, std::vector<std::uint32_t>(8, 1), Bytes(8, 9)));
  fake.Complete(0x04);
  EXPECT_EQ(records.Await(1)[0].length,
            8U);  // The table was written as a whole, which the sanitizer watches.
}

TEST_F(LibusbIoTransfer, IsoTablesThatDoNotFitAreRefused) {
  Open();
  const struct {
    const char* name;
    std::uint8_t endpoint;
    std::vector<std::uint32_t> lengths;
    std::size_t payload;
    std::uint32_t packets;
    int result;
  } cases[] = {
      {"no packets", 0x83, {}, 16, 0, LIBUSB_ERROR_INVALID_PARAM},
      {"table longer than the data", 0x83, {1, 1}, 15, 3, LIBUSB_ERROR_INVALID_PARAM},
      {"packet count that wraps around", 0x83, {1}, 0, 0x10000001, LIBUSB_ERROR_INVALID_PARAM},
      {"OUT packets beyond the data", 0x04, {2, 2}, 3, 2, LIBUSB_ERROR_INVALID_PARAM},
      {"OUT lengths that wrap around", 0x04, {0xFFFFFFFF, 5}, 4, 2, LIBUSB_ERROR_INVALID_PARAM},
      {"IN lengths beyond reason", 0x83, {0x04000000, 1}, 0, 2, LIBUSB_ERROR_INVALID_PARAM},
      {"IN packets beyond the data", 0x83, {100, 100}, 3, 2, 0},
      {"OUT packets that fit exactly", 0x04, {2, 1}, 3, 2, 0},
      {"packets without bytes", 0x04, {0, 0}, 0, 2, 0},
  };
  std::size_t count = 0;
  for (const auto& [name, endpoint, lengths, payload, packets, result] : cases) {
    _UsbIoXferInfo* info = records.MakeIso(1, endpoint, lengths, Bytes(payload));
    info->isoPacketNum = packets;
    const Bytes sent = DataOf(*info);
    EXPECT_EQ(io->IsochTransfer(info), result) << name;
    if (result == 0) {
      fake.Complete(endpoint, {});
    }
    const Completion completion = records.Await(++count).back();
    EXPECT_EQ(completion.status, result == 0 ? 0 : 1) << name;
    if (result != 0) {
      EXPECT_EQ(completion.data, sent) << name;
    }
  }
}

}  // namespace
}  // namespace vel
