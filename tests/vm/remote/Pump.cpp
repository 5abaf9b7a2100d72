#include "Pump.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "Served.h"
#include "vel/Mutex.h"

namespace vel::vm {
namespace {

// Shared with the replies, which may come after the pump gave up.
struct Progress {
  Mutex mutex;
  CondVar changed;
  std::uint64_t answered VEL_GUARDED_BY(mutex) = 0;
  std::string failure VEL_GUARDED_BY(mutex);
};

// Waits until no more than `pending` of `sent` transfers are unanswered.
void AwaitReplies(Progress& progress, std::uint64_t sent, std::uint64_t pending) {
  MutexLock lock(progress.mutex);
  while (progress.failure.empty() && sent - progress.answered > pending) {
    const std::uint64_t before = progress.answered;
    const auto deadline = std::chrono::steady_clock::now() + kLimit;
    while (progress.failure.empty() && progress.answered == before && progress.changed.WaitUntil(lock, deadline)) {
    }
    Require(!progress.failure.empty() || progress.answered != before,
            "transfer " + std::to_string(before) + " has no reply");
  }
  Require(progress.failure.empty(), progress.failure);
}

}  // namespace

std::vector<std::uint8_t> SourcePattern(std::size_t size) {
  constexpr std::size_t kPacket = 1024;
  constexpr std::size_t kPeriod = 63;
  std::vector<std::uint8_t> data(size);
  for (std::size_t i = 0; i < size; ++i) {
    data[i] = static_cast<std::uint8_t>(i % kPacket % kPeriod);
  }
  return data;
}

std::vector<std::uint8_t> UniquePattern(std::size_t size, std::uint64_t offset) {
  constexpr std::uint32_t kOdd = 2654435761U;  // Odd: no two words of a stream are equal.
  std::vector<std::uint8_t> data(size);
  auto word = static_cast<std::uint32_t>(offset / sizeof(std::uint32_t));
  for (std::size_t i = 0; i < size; i += sizeof word, ++word) {
    const std::uint32_t value = word * kOdd;
    std::memcpy(&data[i], &value, std::min(sizeof value, size - i));
  }
  return data;
}

void RunWindow(std::uint64_t count, unsigned depth, const SubmitOne& submit, const PumpCheck& check) {
  const auto progress = std::make_shared<Progress>();
  for (std::uint64_t index = 0; index < count; ++index) {
    AwaitReplies(*progress, index, depth - 1);
    submit(index, [progress, index, check](const TransferReply& reply) {
      const MutexLock lock(progress->mutex);
      try {
        RequireEqual(static_cast<long long>(index), static_cast<long long>(progress->answered), "order of replies");
        check(index, reply);
      } catch (const Failure& failure) {
        progress->failure = "transfer " + std::to_string(index) + ": " + failure.what();
      }
      ++progress->answered;
      progress->changed.NotifyAll();
    });
  }
  AwaitReplies(*progress, count, 0);
}

void RunPump(RemoteDevice& remote, const PumpPlan& plan, const PumpFill& fill, const PumpCheck& check) {
  const auto submit = [&](std::uint64_t index, RemoteDevice::TransferDone done) {
    remote.SubmitTransfer(Command::kBulkTransfer, plan.endpoint, plan.size,
                          fill ? fill(index) : std::vector<std::uint8_t>(), std::move(done));
  };
  RunWindow(plan.count, plan.depth, submit, check);
}

}  // namespace vel::vm
