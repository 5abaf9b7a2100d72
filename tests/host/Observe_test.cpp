#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <future>
#include <optional>
#include <string>
#include <vector>

#include "observe/DeviceTap.h"
#include "remote/PacketChannel.h"
#include "remote/RequestBuilder.h"
#include "support/Collected.h"

namespace vel {
namespace {

using testing::ElementsAre;
using Bytes = std::vector<std::uint8_t>;

Bytes Words(std::initializer_list<std::uint32_t> words) {
  Bytes bytes;
  for (const std::uint32_t word : words) {
    const auto* const begin = reinterpret_cast<const std::uint8_t*>(&word);
    bytes.insert(bytes.end(), begin, begin + sizeof word);
  }
  return bytes;
}

class ObserveTest : public testing::Test {
 protected:
  void Bulk(std::uint32_t stream) {
    tap.OnRequest(*BuildTransferRequest(Command::kBulkTransfer, {0, 1}, 0x81, stream, 8, {}));
  }
  void Reply(Command command, const Bytes& payload, std::uint8_t reqId = 0, bool answersFailures = false) {
    const auto reply = BuildRequest(command, {reqId, 1}, payload);
    const std::uint16_t code = ReplyCode(command);
    std::memcpy(reply->MutableWire().data() + VelPacket::kCommandOffset, &code, sizeof code);
    reply->MutableWire()[kServiceOffset] = answersFailures ? kAnswersFailures : 0;
    tap.OnReply(*reply);
  }

  DeviceTap tap{"device", nullptr};
};

TEST_F(ObserveTest, WhatIsNeverAnsweredDoesNotStayInFlight) {
  for (std::uint32_t stream = 1; stream <= 4; ++stream) {
    Bulk(stream);
  }
  Bulk(4);  // Instead of the one before it.
  EXPECT_EQ(tap.TakeFigures().total.unanswered, 1U);
  for (const bool answers :
       {false, true}) {  // Where failures are answered, the cancelled one's reply is still to come.
    tap.OnRequest(*BuildU32Request(Command::kCancelTransfer, {9, 1}, answers ? 2 : 1));
    Reply(Command::kCancelTransfer, Words({0}), 9, answers);
  }
  EXPECT_EQ(tap.TakeFigures().inFlight, 3U);
  Reply(Command::kBulkTransfer, Words({2, 3}));
  Reply(Command::kBulkTransfer, Words({3, 4, 7}));
  Reply(Command::kBulkTransfer, Words({77, 0}));  // Nobody has asked for it.
  Reply(Command::kBulkTransfer, {1, 0});
  for (std::uint8_t reqId = 0; reqId < 2; ++reqId) {  // The first one's reply is passed over.
    tap.OnRequest(*BuildRequest(Command::kGetDeviceDesc, {reqId, 1}));
  }
  Reply(Command::kGetDeviceDesc, Bytes(18), 1);
  tap.OnEnd();
  const DeviceFigures figures = tap.TakeFigures();
  EXPECT_THAT(figures.total.failures, ElementsAre(1, 0, 2, 0, 1, 0));
  EXPECT_EQ(figures.total.unanswered, 2U);
  EXPECT_EQ(figures.inFlight, 0U);
  EXPECT_EQ(figures.lately.transfers, 3U);
  EXPECT_EQ(figures.lately.bytesIn, 22U);
}

TEST(DeviceTally, ReadForWhichNoPictureCameIsNoFailure) {
  DeviceTally tally;
  PendingUrb read;
  read.endpoint = 0x81;
  read.isPicture = true;
  for (const std::int32_t status : {0, -ETIMEDOUT, -ETIMEDOUT, -ENODEV}) {
    UsbEvent event;
    event.status = status;
    event.length = status == 0 ? 100 : 0;
    tally.Add(read, event, DeviceTally::Clock::now());
  }
  const DeviceCounts counts = tally.Take(DeviceTally::Clock::now()).lately;
  EXPECT_EQ(counts.pictures, 1U);
  EXPECT_EQ(counts.pictureBytes, 100U);
  EXPECT_EQ(counts.silentReads, 2U);
  EXPECT_THAT(counts.failures, ElementsAre(0, 0, 0, 0, 1, 0));
}

TEST_F(ObserveTest, IsochronousPacketsThatTheReplyDoesNotHoldAreCut) {
  const std::array<std::uint32_t, 3> lengths = {4, 4, 4};
  PendingUrb urb;
  UsbEvent event;
  ASSERT_TRUE(ReadSubmission(*BuildIsoRequest({0, 1}, 0x83, 5, lengths, {}), urb, event));
  EXPECT_EQ(event.length, 12U);
  EXPECT_TRUE(event.data.empty());
  const auto reply = BuildRequest(Command::kIsochTransfer, {0, 1},
                                  Words({5, 0, 3, 48, 4, 4, 0, 52, 4, 0, 1, 56, 4, 400, 0, 0x01010101, 0x02020202}));
  reply->MutableWire()[VelPacket::kCommandOffset] |= 1;
  Bytes none;
  event = ReadCompletion(*reply, urb, none);
  std::vector<std::array<std::int64_t, 3>> packets;
  for (const UsbmonIsoDescriptor& packet : event.packets) {
    packets.push_back({packet.status, packet.offset, packet.length});
  }
  using Row = std::array<std::int64_t, 3>;
  EXPECT_THAT(packets, ElementsAre(Row{0, 0, 4}, Row{-EPROTO, 4, 0}, Row{0, 4, 4}));
  EXPECT_EQ(event.length, 8U);
  EXPECT_EQ(event.data.size(), 8U);
}

// A FIFO stands for a disk that takes nothing.
TEST(CaptureFile, WhatTheDiskIsTooSlowForIsLeftOutAndCounted) {
  const std::string path = testing::TempDir() + "capture_" + std::to_string(getpid());
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const UniqueFd reader(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  fcntl(reader.Get(), F_SETFL, 0);
  Collected<std::string> notes;
  std::optional<CaptureFile> capture(std::in_place, path, kSnapLength,
                                     [&](const std::string& line) { notes.Add(line); });
  std::filesystem::remove(path);
  const std::uint32_t interface = capture->AddInterface("device");
  const Bytes data(kSnapLength);
  UsbEvent event;
  event.isCompletion = true;
  event.endpoint = 0x81;
  event.data = data;
  constexpr int kRecords = 200;  // 50 MiB
  for (int i = 0; i < kRecords; ++i) {
    capture->Write(interface, event);
  }
  auto reading = std::async(std::launch::async, [&] {
    std::size_t records = 0;
    std::array<std::uint32_t, 2> block{};  // Type and length.
    Bytes rest;
    while (read(reader.Get(), block.data(), sizeof block) == sizeof block) {
      records += block[0] == 6;
      rest.resize(block[1] - sizeof block);
      for (std::size_t at = 0; at < rest.size();) {
        const ssize_t count = read(reader.Get(), rest.data() + at, rest.size() - at);
        if (count <= 0) {
          ADD_FAILURE() << "half a block";
          return records;
        }
        at += static_cast<std::size_t>(count);
      }
      EXPECT_EQ(std::memcmp(rest.data() + rest.size() - 4, &block[1], 4), 0);
    }
    return records;
  });
  capture.reset();
  const std::size_t records = reading.get();
  EXPECT_LT(records, 140U);  // Of which the capture holds 32 MiB.
  EXPECT_GT(records, 90U);
  EXPECT_THAT(notes.Take(), testing::Contains("capture: " + std::to_string(records) + " records in " + path + ", " +
                                              std::to_string(kRecords - records) + " left out"));
}

}  // namespace
}  // namespace vel
