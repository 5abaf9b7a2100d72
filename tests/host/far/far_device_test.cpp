#include "far/FarDevice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <thread>

#include "FakeFarEnd.h"
#include "remote/TransferAnswer.h"
#include "support/Heap.h"

namespace vel {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t kCompleted = 0;
constexpr std::uint32_t kCancelled = 3;
constexpr std::uint32_t kStalled = 4;
constexpr std::uint32_t kNoDevice = 5;

// An answer as a guest gets it: of a URB, or of an unlink.
struct Told {
  char kind;  // 'd'one, 'u'nlinked, 'g'one
  std::uint32_t seqnum = 0;
  std::int32_t status = 0;
  std::uint32_t length = 0;
  friend bool operator==(const Told&, const Told&) = default;
  friend void PrintTo(const Told& told, std::ostream* out) {
    *out << told.kind << told.seqnum << ": " << told.status << ", " << told.length;
  }
};

class Guest final : public UrbGuest {
 public:
  void OnUrbDone(const UrbReply& reply) override {
    data.assign(reply.data.begin(), reply.data.end());
    packets.assign(reply.packets.begin(), reply.packets.end());
    if (onDone) {
      onDone(reply.seqnum);
    }
    told.Add({'d', reply.seqnum, reply.status, reply.actualLength});
  }
  void OnUnlinked(std::uint32_t seqnum, std::int32_t status) override { told.Add({'u', seqnum, status}); }
  void OnGone() override { told.Add({'g'}); }

  std::vector<Told> Take(std::size_t count) {
    told.Await(count);
    return told.Take();
  }

  std::function<void(std::uint32_t)> onDone;
  Collected<Told> told;
  Bytes data;
  std::vector<UrbPacket> packets;
};

class FarDeviceTest : public testing::Test {
 protected:
  // Opens the device and configures it.
  void Open(std::chrono::milliseconds cancelLimit = 60s) {
    auto made = std::make_unique<FakeFarEnd>();
    far = made.get();
    far->address = address;
    FarDevice::Options options;
    options.cancelLimit = cancelLimit;
    options.note = [this](const std::string& line) { notes.push_back(line); };
    device = std::make_unique<FarDevice>(std::move(made), std::move(options));
    device->Connect(guest);
    device->Submit({.seqnum = 1, .endpoint = 0, .setup = {0x00, 9, 1, 0, 0}});
    EXPECT_THAT(guest.Take(1), ElementsAre(Told{'d', 1}));
    far->TakeSent();
  }
  void Submit(std::uint32_t seqnum, std::uint8_t endpoint, std::uint32_t length, std::uint32_t flags = 0,
              std::span<const std::uint8_t> data = {}, std::vector<UrbPacket> packets = {}) {
    device->Submit({.seqnum = seqnum,
                    .endpoint = endpoint,
                    .flags = flags,
                    .length = length,
                    .interval = 1,
                    .setup = {},
                    .packets = std::move(packets),
                    .data = data});
  }

  std::int32_t address = 5;
  std::vector<std::string> notes;  // Of the opening; the loss of the channel adds one.
  FakeFarEnd* far = nullptr;
  Guest guest;
  std::unique_ptr<FarDevice> device;
};

TEST(UrbTable, WhatWaitsIsBoundedByItsBytes) {
  UrbTable table;
  std::uint32_t unlink = 0;
  const auto add = [&](std::uint32_t seqnum) {
    UrbInFlight urb;
    urb.seqnum = seqnum;
    urb.length = kMaxTransferBytes;
    urb.packets.resize(1);
    return table.Add(std::move(urb), unlink);
  };
  for (std::uint32_t seqnum = 1; seqnum < UrbTable::kMaxBytes / kMaxTransferBytes; ++seqnum) {
    EXPECT_EQ(add(seqnum), UrbTable::Added::kYes);
  }
  EXPECT_EQ(add(100), UrbTable::Added::kRefused);
  table.Remove(1);
  EXPECT_EQ(add(100), UrbTable::Added::kYes);
}

TEST_F(FarDeviceTest, EnumerationTakesTwoRoundTripsAndOneForTheConfiguration) {
  auto made = std::make_unique<FakeFarEnd>();
  far = made.get();
  far->Hold();
  std::atomic<bool> opened{false};
  std::thread opening([&] {
    device = std::make_unique<FarDevice>(std::move(made), FarDevice::Options());
    opened = true;
  });
  int trips = 0;
  for (const std::size_t requests : {8U, 4U}) {  // Two batches; the policy goes with the first.
    far->TakeSent(requests);
    far->Release();
    ++trips;
  }
  opening.join();
  device->Connect(guest);
  far->Release();  // Nobody waits for these.
  const Urb descriptor{.seqnum = 2, .endpoint = 0x80, .length = 255, .setup = {0x80, 6, 0x0302, 0x0409, 255}};
  device->Submit(descriptor);
  device->Submit({.seqnum = 3, .endpoint = 0x80, .length = 9, .setup = {0x80, 6, 0x0200, 0, 9}});
  EXPECT_THAT(guest.Take(2), ElementsAre(Told{'d', 2, 0, 4}, Told{'d', 3, 0, 4}));
  device->Submit({.seqnum = 4, .endpoint = 0, .setup = {0x00, 9, 1, 0, 0}});
  EXPECT_GT(far->Release(), 0U);
  EXPECT_THAT(guest.Take(1), ElementsAre(Told{'d', 4}));
  EXPECT_LE(++trips, 3);
}

TEST_F(FarDeviceTest, TransfersAreAnsweredAsAKernelTakesThem) {
  struct Case {
    const char* what;
    std::uint8_t endpoint;
    std::uint32_t length;
    std::uint32_t flags;
    std::uint32_t status;
    Bytes reply;
    Told told;
  };
  const Bytes eight(8, 1);
  const std::vector<Case> cases = {
      {"IN, short", 0x81, 8, 0, kCompleted, {1, 2}, {'d', 2, 0, 2}},
      {"IN, short where that is not OK", 0x81, 8, kUrbShortNotOk, kCompleted, {1, 2}, {'d', 2, -kGuestRemoteIo, 2}},
      {"IN, more than was asked for", 0x81, 2, 0, kCompleted, {1, 2, 3}, {'d', 2, 0, 2}},
      {"IN, stalled after a part", 0x81, 8, 0, kStalled, {1, 2}, {'d', 2, -kGuestPipe, 2}},
      {"OUT, echoed", 0x01, 8, 0, kCompleted, eight, {'d', 2, 0, 8}},
      {"OUT, lean", 0x01, 8, 0, kCompleted, {}, {'d', 2, 0, 8}},
      {"OUT, a part", 0x01, 8, 0, kStalled, {1, 1}, {'d', 2, -kGuestPipe, 2}},
      {"OUT, refused", 0x01, 8, 0, 1, eight, {'d', 2, -kGuestProtocol, 0}},
      {"interrupt IN", 0x82, 8, 0, kCompleted, eight, {'d', 2, 0, 8}},
  };
  Open();
  for (const Case& each : cases) {
    SCOPED_TRACE(each.what);
    Submit(2, each.endpoint, each.length, each.flags, std::span(eight).first(each.endpoint < 0x80 ? 8 : 0));
    const auto sent = far->TakeSent(1);
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].length, each.length);
    far->Complete(sent[0].command, sent[0].second, each.status, each.reply);
    EXPECT_THAT(guest.Take(1), ElementsAre(each.told));
    far->Complete(sent[0].command, sent[0].second, each.status, each.reply);  // Nobody asked again.
  }
  EXPECT_THAT(guest.Take(0), IsEmpty());
  Submit(3, 0x05, 8);  // No such endpoint.
  EXPECT_THAT(guest.Take(1), ElementsAre(Told{'d', 3, -kGuestNoEntry}));
}

TEST_F(FarDeviceTest, ZeroPacketIsASecondTransferAndEndsTheUrb) {
  Open();
  const Bytes packet(64, 1);
  Submit(2, 0x01, 64, kUrbZeroPacket, packet);
  const auto streams = far->TakeStreams(2);
  ASSERT_EQ(streams.size(), 2U);
  far->Complete(Command::kBulkTransfer, streams[0], kCompleted);
  EXPECT_THAT(guest.Take(0), IsEmpty());
  far->Complete(Command::kBulkTransfer, streams[1], kCompleted);
  EXPECT_THAT(guest.Take(1), ElementsAre(Told{'d', 2, 0, 64}));
}

Bytes IsoReply(const std::vector<std::pair<std::uint32_t, std::uint32_t>>& packets) {  // Actual length, status.
  Bytes bytes;
  std::uint8_t fill = 0;
  for (const auto& [length, status] : packets) {
    FakeFarEnd::Put(bytes, 0);
    FakeFarEnd::Put(bytes, 8);
    FakeFarEnd::Put(bytes, length);
    FakeFarEnd::Put(bytes, status);
  }
  for (const auto& packet : packets) {
    bytes.insert(bytes.end(), packet.first, ++fill);
  }
  return bytes;
}

TEST_F(FarDeviceTest, IsochronousPacketsThatFailOrClaimTooMuchLeaveTheOthersInPlace) {
  Open();
  Submit(2, 0x83, 24, 0, {}, {{0, 8}, {8, 8}, {16, 8}});
  far->Complete(Command::kIsochTransfer, far->TakeStreams(1).at(0), kCompleted, IsoReply({{3, 0}, {0, 1}, {2, 0}}), 3);
  EXPECT_THAT(guest.Take(1), ElementsAre(Told{'d', 2, 0, 5}));
  EXPECT_THAT(guest.data, ElementsAre(1, 1, 1, 3, 3));
  EXPECT_EQ(guest.packets.at(1).status, -kGuestProtocol);
  EXPECT_EQ(guest.packets.at(2).offset, 16U);
  Submit(3, 0x83, 16, 0, {}, {{0, 8}, {8, 8}});
  Bytes lying = IsoReply({{9, 0}, {8, 0}});
  lying.resize(32 + 10);
  far->Complete(Command::kIsochTransfer, far->TakeStreams(1).at(0), kCompleted, lying, 2);
  EXPECT_THAT(guest.Take(1), ElementsAre(Told{'d', 3, 0, 10}));
  EXPECT_EQ(guest.data.size(), 10U);
}

TEST(AlarmsTest, CancelledCallIsForgottenAtOnce) {
  Alarms alarms;
  const auto kept = std::make_shared<int>();
  const auto call = [kept] {};
  alarms.Cancel(alarms.At(Alarms::Clock::now() + std::chrono::hours(1), call));
  alarms.At(Alarms::Clock::now() + std::chrono::hours(2), call);
  EXPECT_EQ(kept.use_count(), 3);
  alarms.CancelAll();
  EXPECT_EQ(kept.use_count(), 2);
}

TEST_F(FarDeviceTest, PacedRequestThatWasNotSentYetIsUnlinked) {
  address = 0x86;  // Emulated: 15 packets at once, at their intervals.
  Open();
  for (const std::uint32_t seqnum : {2U, 3U}) {
    Submit(seqnum, 0x83, 160, 0, {}, std::vector<UrbPacket>(20, {0, 8}));
  }
  device->Unlink({4, 3});
  EXPECT_THAT(guest.Take(1), ElementsAre(Told{'u', 4, -kGuestReset}));
  // Nor is anything of it kept until its time.
  const auto submit = [this](std::uint32_t seqnum) {
    device->Submit(
        {.seqnum = seqnum, .endpoint = 0x83, .length = 8, .interval = 20000, .setup = {}, .packets = {{0, 8}}});
  };
  submit(5);
  const std::size_t before = test::HeapBytes();
  for (std::uint32_t seqnum = 6; seqnum < 4000; seqnum += 2) {
    submit(seqnum);
    device->Unlink({seqnum + 1, seqnum});
    EXPECT_THAT(guest.Take(1), SizeIs(1));
  }
  EXPECT_LT(test::HeapBytes(), before + 50000);
}

TEST_F(FarDeviceTest, UnlinkInEveryStateIsAnsweredOnce) {
  Open();
  // Overtakes its submission; a URB that is over; one of nothing.
  device->Unlink({10, 5});
  EXPECT_THAT(guest.Take(0), IsEmpty());
  Submit(5, 0x81, 8);
  EXPECT_THAT(guest.Take(1), ElementsAre(Told{'u', 10, -kGuestReset}));
  device->Unlink({11, 4});
  EXPECT_THAT(guest.Take(1), ElementsAre(Told{'u', 11, 0}));
  EXPECT_THAT(far->TakeSent(), IsEmpty());

  struct Case {
    std::uint32_t status;
    Bytes data;
    std::vector<Told> told;
  };
  const std::vector<Case> cases = {
      {kCancelled, {}, {{'u', 13, -kGuestReset}}},
      {kCancelled, {1, 2}, {{'d', 12, -kGuestReset, 2}, {'u', 13, 0}}},  // What had come is not lost.
      {kCompleted, {1, 2}, {{'d', 12, 0, 2}, {'u', 13, 0}}},
  };
  for (const Case& each : cases) {
    Submit(12, 0x81, 8);
    const std::uint32_t stream = far->TakeStreams(1).at(0);
    device->Unlink({13, 12});
    const auto cancel = far->TakeSent(1);
    EXPECT_EQ(std::pair(cancel.at(0).command, cancel.at(0).first), std::pair(Command::kCancelTransfer, stream));
    EXPECT_THAT(guest.Take(0), IsEmpty());
    far->Complete(Command::kBulkTransfer, stream, each.status, each.data);
    EXPECT_EQ(guest.Take(each.told.size()), each.told);
  }

  // During its answer: never before it.
  guest.onDone = [this](std::uint32_t seqnum) { device->Unlink({15, seqnum}); };
  Submit(14, 0x81, 8);
  far->Complete(Command::kBulkTransfer, far->TakeStreams(1).at(0), kCompleted);
  EXPECT_THAT(guest.Take(2), ElementsAre(Told{'d', 14}, Told{'u', 15, 0}));
  guest.onDone = nullptr;

  // A control request, whose late reply is nobody's.
  far->Hold();
  device->Submit({.seqnum = 16, .endpoint = 0x80, .length = 4, .setup = {0xC0, 1, 0, 0, 4}});
  device->Unlink({17, 16});
  EXPECT_THAT(guest.Take(1), ElementsAre(Told{'u', 17, -kGuestReset}));
  EXPECT_EQ(far->Release(), 1U);
  EXPECT_THAT(guest.Take(0), IsEmpty());
}

TEST_F(FarDeviceTest, ControlRequestsAreAnsweredInTheirOrder) {
  Open();
  far->Hold();
  device->Submit({.seqnum = 2, .endpoint = 0x80, .length = 4, .setup = {0xC0, 1, 0, 0, 4}});
  device->Submit({.seqnum = 3, .endpoint = 0x80, .length = 18, .setup = {0x80, 6, 0x0100, 0, 18}});  // Is known.
  EXPECT_THAT(guest.Take(0), IsEmpty());
  far->Release();
  EXPECT_THAT(guest.Take(2), ElementsAre(Told{'d', 2}, Told{'d', 3, 0, 18}));
}

TEST_F(FarDeviceTest, ControlRequestsThatAreNeverAnsweredAreBounded) {
  Open();
  far->silent = true;
  std::uint32_t seqnum = 2;
  const auto submit = [&] {
    device->Submit({.seqnum = seqnum, .endpoint = 0x80, .length = 4, .setup = {0xC0, 1, 0, 0, 4}});
  };
  for (; seqnum < 2 + 2 * 65536; seqnum += 2) {
    submit();
    device->Unlink({seqnum + 1, seqnum});
  }
  EXPECT_THAT(guest.Take(65536), SizeIs(65536));
  submit();
  EXPECT_THAT(guest.Take(1), ElementsAre(Told{'d', seqnum, -kGuestNoMemory}));
}

TEST_F(FarDeviceTest, FarEndThatDoesNotAnswerACancelIsNotWaitedFor) {
  Open(10ms);
  Submit(2, 0x81, 8);
  const std::uint32_t stream = far->TakeStreams(1).at(0);
  device->Unlink({3, 2});
  EXPECT_THAT(guest.Take(1), ElementsAre(Told{'u', 3, -kGuestReset}));
  EXPECT_THAT(notes, ElementsAre(testing::HasSubstr("--answer-failures")));
  far->Complete(Command::kBulkTransfer, stream, kCompleted);
  EXPECT_THAT(guest.Take(0), IsEmpty());
}

TEST_F(FarDeviceTest, LossAnswersWhatWaitsAndTellsTheGuestLast) {
  for (const std::string_view way : {"channel ends", "transfer's status", "reply's error"}) {
    SCOPED_TRACE(way);
    Open();
    Submit(2, 0x81, 8);
    Submit(3, 0x82, 8);
    far->Hold();
    far->answer = [](Command, auto) { return Bytes{0xFC, 0xFF, 0xFF, 0xFF}; };  // LIBUSB_ERROR_NO_DEVICE
    device->Submit({.seqnum = 4, .endpoint = 0x80, .length = 4, .setup = {0xC0, 1, 0, 0, 4}});
    const auto sent = far->TakeSent(3);
    if (way == "transfer's status") {
      far->Complete(Command::kBulkTransfer, sent[0].second, kNoDevice);
    } else if (way == "reply's error") {
      far->Release();
    } else {
      far->End();
    }
    auto told = guest.Take(4);
    ASSERT_EQ(told.size(), 4U);
    EXPECT_EQ(told.back().kind, 'g');
    told.pop_back();
    EXPECT_THAT(told, UnorderedElementsAre(Told{'d', 2, -kGuestNoDevice}, Told{'d', 3, -kGuestNoDevice},
                                           Told{'d', 4, -kGuestNoDevice}));
    Submit(5, 0x81, 8);
    EXPECT_THAT(guest.Take(1), ElementsAre(Told{'d', 5, -kGuestNoDevice}));
    device.reset();
  }
}

TEST_F(FarDeviceTest, NextGuestFindsNothingOfTheOneBefore) {
  Open();
  Submit(2, 0x81, 8);
  const std::uint32_t stream = far->TakeStreams(1).at(0);
  device->Disconnect();
  EXPECT_EQ(far->TakeSent(1).at(0).command, Command::kCancelTransfer);
  Guest next;
  device->Connect(next);
  far->Complete(Command::kBulkTransfer, stream, kCancelled);
  device->Submit({.seqnum = 2, .endpoint = 0, .setup = {0x00, 9, 1, 0, 0}});
  EXPECT_THAT(next.Take(1), ElementsAre(Told{'d', 2}));
  EXPECT_THAT(guest.Take(0), IsEmpty());
  for (const FakeFarEnd::Sent& sent : far->TakeSent()) {
    EXPECT_NE(sent.command, Command::kResetDevice);  // Its first configuration is no reset.
  }
  device->Submit({.seqnum = 3, .endpoint = 0, .setup = {0x00, 9, 1, 0, 0}});
  const auto sent = far->TakeSent(2);
  EXPECT_EQ(sent.at(1).command, Command::kResetDevice);  // Its second one is.
  device->Disconnect();
}

// Submissions and unlinks by the guest, answers by the channel, and at last the loss of the link, all at once.
TEST_F(FarDeviceTest, EveryUrbAndEveryUnlinkIsAnsweredOnceInAnyOrder) {
  Open();
  constexpr std::uint32_t kUrbs = 2000;
  std::atomic<bool> over{false};
  std::thread channel([&] {
    std::mt19937 random(1);
    std::vector<std::uint32_t> pending;
    while (!over) {
      for (const FakeFarEnd::Sent& sent : far->TakeSent()) {
        if (sent.command == Command::kBulkTransfer && random() % 4 != 0) {
          far->Complete(Command::kBulkTransfer, sent.second, kCompleted, {1});
        } else if (sent.command == Command::kCancelTransfer) {
          far->Complete(Command::kBulkTransfer, sent.first, random() % 2 == 0 ? kCancelled : kCompleted);
        }
      }
      std::this_thread::yield();
    }
    far->End();
  });
  std::mt19937 random(2);
  std::uint32_t seqnum = 10;
  std::uint32_t unlinks = 0;
  for (std::uint32_t i = 0; i < kUrbs; ++i) {
    const std::uint32_t number = ++seqnum;
    const bool unlink = random() % 2 == 0;
    if (unlink && random() % 4 == 0) {
      device->Unlink({++seqnum, number});
      Submit(number, 0x81, 8);
    } else {
      Submit(number, 0x81, 8);
      if (unlink) {
        device->Unlink({++seqnum, number});
      }
    }
    unlinks += unlink ? 1 : 0;
  }
  guest.told.Await(kUrbs / 2);
  over = true;
  channel.join();
  std::map<std::uint32_t, int> answers;
  int gone = 0;
  for (const Told& told : guest.told.Take()) {
    if (told.kind == 'g') {
      ++gone;
    } else {
      EXPECT_EQ(++answers[told.seqnum], 1) << told.kind << told.seqnum;
    }
  }
  EXPECT_EQ(gone, 1);
  EXPECT_GE(answers.size(), kUrbs);
  EXPECT_LE(answers.size(), kUrbs + unlinks);
  device->Disconnect();
}

}  // namespace
}  // namespace vel
