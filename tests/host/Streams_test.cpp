#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <future>
#include <thread>
#include <vector>

#include "remote/FdStream.h"
#include "remote/PacketWriter.h"
#include "remote/RequestBuilder.h"

namespace vel {
namespace {

using testing::Each;
using Bytes = std::vector<std::uint8_t>;
using Result = FdStream::Result;

struct Pair {
  Pair() {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0) {
      near = UniqueFd(ends[0]);
      far = UniqueFd(ends[1]);
    }
  }
  UniqueFd near;
  UniqueFd far;
};

class StreamsTest : public testing::Test {
 protected:
  // As the command does: a write to nobody is a result.
  StreamsTest() { static_cast<void>(std::signal(SIGPIPE, SIG_IGN)); }

  // Everything that comes until the other side ends.
  static std::size_t Drain(int fd) {
    std::size_t total = 0;
    std::array<std::uint8_t, 65536> buffer{};
    for (ssize_t n = 0; (n = read(fd, buffer.data(), buffer.size())) > 0;) {
      total += static_cast<std::size_t>(n);
    }
    return total;
  }
  static void AwaitReadable(int fd) {
    pollfd descriptor{fd, POLLIN, 0};
    ASSERT_EQ(poll(&descriptor, 1, 30000), 1);
  }

  Pair mPair;
  StopSignal mStop;
  std::array<std::uint8_t, 64> mBuffer{};
};

TEST_F(StreamsTest, StopAndAbortEndABlockedWriteAndNothingFollowsHalfAPacket) {
  for (const bool abort : {false, true}) {
    SCOPED_TRACE(abort);
    Pair pair;
    const StopSignal stop;
    const Bytes large(16U << 20U, 0x5A);
    std::size_t drained = 0;
    {
      FdStream stream(pair.near.Get(), pair.near.Get(), stop);
      auto writing = std::async(std::launch::async, [&] { return stream.WriteAll(large); });
      AwaitReadable(pair.far.Get());
      abort ? stream.Abort() : stop.Raise();
      EXPECT_EQ(writing.get(), Result::kStopped);
      auto draining = std::async(std::launch::async, [&] { return Drain(pair.far.Get()); });
      EXPECT_EQ(stream.WriteAll(large), Result::kFailed);
      shutdown(pair.near.Get(), SHUT_WR);
      drained = draining.get();
    }
    EXPECT_GT(drained, 0U);
    EXPECT_LT(drained, large.size());
  }
}

TEST_F(StreamsTest, EachOfSeveralWritersWritesInOnePiece) {
  constexpr std::size_t kPiece = 50000;
  constexpr std::size_t kPieces = 30;
  FdStream stream(mPair.near.Get(), mPair.near.Get(), mStop);
  std::vector<std::jthread> writers;
  for (std::uint8_t writer = 1; writer <= 3; ++writer) {
    writers.emplace_back([&stream, writer] {
      const Bytes piece(kPiece, writer);
      for (std::size_t i = 0; i < kPieces; ++i) {
        EXPECT_EQ(stream.WriteAll(piece), Result::kOk);
      }
    });
  }
  std::array<std::size_t, 4> pieces{};
  for (std::size_t i = 0; i < 3 * kPieces; ++i) {
    Bytes piece(kPiece);
    ASSERT_EQ(recv(mPair.far.Get(), piece.data(), piece.size(), MSG_WAITALL), static_cast<ssize_t>(kPiece));
    ASSERT_THAT(piece, Each(piece.front()));
    ++pieces.at(piece.front());
  }
  EXPECT_THAT(pieces, testing::ElementsAre(0, kPieces, kPieces, kPieces));
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
  while (send(near.Get(), mBuffer.data(), mBuffer.size(), MSG_DONTWAIT) > 0) {
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
  std::array<char, 256> message{};
  for (; fill > 0; --fill) {
    ASSERT_EQ(recv(far.Get(), message.data(), message.size(), 0), static_cast<ssize_t>(mBuffer.size()));
  }
  constexpr ssize_t kPing = VelPacket::kHeaderSize + 12;
  EXPECT_EQ(recv(far.Get(), message.data(), message.size(), 0), kPing);
  EXPECT_EQ(recv(far.Get(), message.data(), message.size(), 0), 2 * kPing);
  writer.Flush();
}

}  // namespace
}  // namespace vel
