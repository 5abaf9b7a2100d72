#include "cmd/serve/AttachedDevice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "host/far/FakeFarEnd.h"

namespace vel {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

TEST(Retry, PausesDoubleUpToTheLongestUntilTheTriesAreUsedUp) {
  Retry retry(3, {20s, 30s});
  EXPECT_EQ(retry.Next(), 20s);
  EXPECT_EQ(retry.Next(), 30s);
  EXPECT_EQ(retry.Next(), 30s);
  EXPECT_EQ(retry.Next(), std::nullopt);
  EXPECT_EQ(retry.Next(), std::nullopt);
}

// A device that can be reached but for so many times, and a kernel that it is plugged into.
class AttachedDeviceTest : public testing::Test {
 protected:
  AttachedDevice::Ways Ways(Retry retry) {
    return {.open =
                [this](const StopSignal&) {
                  if (refusals > 0) {
                    --refusals;
                    throw std::runtime_error("cannot reach it");
                  }
                  auto far = std::make_unique<FakeFarEnd>();
                  ends.Add(far.get());
                  return std::make_unique<FarDevice>(std::move(far), FarDevice::Options{});
                },
            .plug =
                [this](std::uint32_t, unsigned& port) {
                  std::array<int, 2> pair{};
                  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), 0);
                  port = static_cast<unsigned>(kernels.Count());
                  kernels.Add(std::make_shared<UniqueFd>(pair[1]));
                  return UniqueFd(pair[0]);
                },
            .unplug = [](const UniqueFd& connection, unsigned) { shutdown(connection.Get(), SHUT_RDWR); },
            .retry = [retry] { return retry; },
            .note = [this](const std::string& line) { notes.Add(line); },
            .onEnd = [] {}};
  }

  std::atomic<int> refusals{0};
  Collected<FakeFarEnd*> ends;
  Collected<std::shared_ptr<UniqueFd>> kernels;
  Collected<std::string> notes;
  const StopSignal end;
};

TEST_F(AttachedDeviceTest, IsPluggedInAgainAfterItsLinkBrokeUntilItsTriesAreUsedUp) {
  const auto ways = Ways(Retry(3, {0ms, 0ms}));
  AttachedDevice device("it", ways.open(end), ways, end);
  refusals = 2;
  ends.Await(1)[0]->End();
  char byte = 0;
  EXPECT_EQ(read(kernels.Await(2)[0]->Get(), &byte, 1), 0);  // Unplugged.
  refusals = 3;
  ends.Await(2)[1]->End();
  device.Join();
  EXPECT_TRUE(device.WasLost());
  EXPECT_THAT(notes.Take(), ElementsAre("it is lost, trying again", "it is back on port 1", "it is lost, trying again",
                                        "it is given up: cannot reach it"));
}

TEST_F(AttachedDeviceTest, PauseIsEndedByAnInterrupt) {
  AttachedDevice device("it", Ways(Retry({}, {1h, 1h})).open(end), Ways(Retry({}, {1h, 1h})), end);
  ends.Await(1)[0]->End();
  notes.Await(1);
  end.Raise();
  device.Join();
  EXPECT_EQ(ends.Count(), 1U);
}

}  // namespace
}  // namespace vel
