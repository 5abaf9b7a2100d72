#include <sys/socket.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <thread>
#include <vector>

#include "StreamEnds.h"
#include "remote/PacketWriter.h"
#include "remote/RequestBuilder.h"

namespace vel {
namespace {

using testing::Each;
using Bytes = std::vector<std::uint8_t>;
using Result = ByteStream::Result;

class StreamsTest : public testing::TestWithParam<bool> {  // Whether by TLS.
 protected:
  // As the command does: a write to nobody is a result.
  StreamsTest() { static_cast<void>(std::signal(SIGPIPE, SIG_IGN)); }

  // Everything that comes until there is no more.
  static std::size_t Drain(ByteStream& stream, Result& end) {
    std::size_t total = 0;
    Bytes buffer(65536);
    for (std::size_t count = 0; (end = stream.Read(buffer, count)) == Result::kOk;) {
      total += count;
    }
    return total;
  }

  StopSignal mStop;
};
INSTANTIATE_TEST_SUITE_P(PlainAndTls, StreamsTest, testing::Bool());

TEST_P(StreamsTest, StopAndAbortEndABlockedWriteAndNothingFollowsHalfAPacket) {
  for (const bool abort : {false, true}) {
    SCOPED_TRACE(abort);
    const StopSignal stop;
    StreamEnds ends(GetParam(), stop);
    const Bytes large(16U << 20U, 0x5A);
    auto writing = std::async(std::launch::async, [&] { return ends.near->WriteAll(large); });
    Bytes first(1);
    std::size_t count = 0;
    ASSERT_EQ(ends.far->Read(first, count), Result::kOk);
    abort ? ends.near->Abort() : stop.Raise();
    EXPECT_EQ(writing.get(), Result::kStopped);
    EXPECT_EQ(ends.near->WriteAll(large), Result::kFailed);
    ends.near.reset();
    Result end{};
    EXPECT_LT(Drain(*ends.far, end), large.size() - 1);
    EXPECT_EQ(end, GetParam() ? Result::kFailed : Result::kEnd);
  }
}

TEST_P(StreamsTest, EachOfSeveralWritersWritesInOnePieceWhileAsMuchComesIn) {
  constexpr std::size_t kPiece = 50000;
  constexpr std::size_t kPieces = 30;
  StreamEnds ends(GetParam(), mStop);
  std::vector<std::jthread> writers;
  for (std::uint8_t writer = 1; writer <= 3; ++writer) {
    writers.emplace_back([&ends, writer] {
      const Bytes piece(kPiece, writer);
      for (std::size_t i = 0; i < kPieces; ++i) {
        std::vector<iovec> pieces = {PieceOf(std::span(piece).first(7)), PieceOf(std::span(piece).subspan(7, 100)),
                                     PieceOf(std::span(piece).subspan(107))};
        EXPECT_EQ(ends.near->WriteAll(pieces), Result::kOk);
      }
    });
  }
  std::size_t cameIn = 0;
  Result end{};
  std::jthread reader([&] { cameIn = Drain(*ends.near, end); });
  std::array<std::size_t, 4> pieces{};
  for (std::size_t i = 0; i < 3 * kPieces; ++i) {
    Bytes piece(kPiece);
    for (std::size_t filled = 0, count = 0; filled < kPiece; filled += count) {
      ASSERT_EQ(ends.far->Read(std::span(piece).subspan(filled), count), Result::kOk);
    }
    ASSERT_THAT(piece, Each(piece.front()));
    ++pieces.at(piece.front());
    ASSERT_EQ(ends.far->WriteAll(piece), Result::kOk);
  }
  EXPECT_THAT(pieces, testing::ElementsAre(0, kPieces, kPieces, kPieces));
  ends.far.reset();
  reader.join();
  EXPECT_EQ(end, Result::kEnd);
  EXPECT_EQ(cameIn, 3 * kPieces * kPiece);
}

TEST_P(StreamsTest, AWriteThatStandsStillIsGivenUpOnlyOnceOthersWait) {
  StreamEnds ends(GetParam(), mStop);
  std::atomic<bool> othersWait{false};
  std::promise<void> asked;
  ends.near->SetPatience({std::chrono::milliseconds(1), [&, times = 0]() mutable {
                            if (++times == 2) {
                              asked.set_value();
                            }
                            return othersWait.load();
                          }});
  auto writing = std::async(std::launch::async, [&] { return ends.near->WriteAll(Bytes(16U << 20U)); });
  asked.get_future().wait();
  othersWait = true;
  EXPECT_EQ(writing.get(), Result::kFailed);
  EXPECT_TRUE(ends.near->LostPatience());
}

TEST_F(StreamsTest, ATlsConnectionThatIsCutOffHasNotEnded) {
  StreamEnds ends(true, mStop);
  ASSERT_EQ(ends.near->WriteAll(Bytes(3)), Result::kOk);
  shutdown(ends.nearFd, SHUT_RDWR);
  Result end{};
  EXPECT_EQ(Drain(*ends.far, end), 3U);
  EXPECT_EQ(end, Result::kFailed);
  EXPECT_THAT(ends.far->Error(), testing::HasSubstr("cut off"));
}

TEST_F(StreamsTest, RaisingAStopSignalOftenNeverBlocks) {
  for (int i = 0; i < 100000; ++i) {  // More than a pipe holds.
    mStop.Raise();
  }
  EXPECT_TRUE(mStop.IsRaised());
}

TEST_F(StreamsTest, PacketsThatComeWhileOneIsWrittenGoOutTogether) {
  std::array<int, 2> ends{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);  // A message for each write.
  const UniqueFd near(ends[0]);
  const UniqueFd far(ends[1]);
  std::size_t fill = 0;
  std::array<char, 256> message{};
  while (send(near.Get(), message.data(), 64, MSG_DONTWAIT) > 0) {
    ++fill;
  }
  FdStream stream(near.Get(), near.Get(), mStop);
  PacketWriter writer(stream, [](Result) { ADD_FAILURE(); });
  std::vector<std::future<void>> writes(3);
  for (auto& write : writes) {
    write = std::async(std::launch::async, [&] { writer.Write(BuildPing({}, 0, 0)); });
  }
  const auto isBack = [](const std::future<void>& write) {
    return write.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  };
  while (std::ranges::count_if(writes, isBack) < 2) {
    std::this_thread::yield();
  }
  for (; fill > 0; --fill) {
    ASSERT_EQ(recv(far.Get(), message.data(), message.size(), 0), 64);
  }
  constexpr ssize_t kPing = VelPacket::kHeaderSize + 12;
  EXPECT_EQ(recv(far.Get(), message.data(), message.size(), 0), kPing);
  EXPECT_EQ(recv(far.Get(), message.data(), message.size(), 0), 2 * kPing);
  writer.Flush();
}

}  // namespace
}  // namespace vel
