#include <libusb-1.0/libusb.h>

#include <future>
#include <memory>
#include <set>

#include "Commands.h"
#include "Patterns.h"
#include "Pump.h"
#include "Require.h"
#include "Served.h"
#include "vel/Mutex.h"

namespace vel::vm {
namespace {

// How many transfers were answered, by status; and that none was answered twice.
class Answers {
 public:
  void Note(std::uint64_t index, const TransferReply& reply) VEL_EXCLUDES(mMutex) {
    const MutexLock lock(mMutex);
    mTwice = mTwice || !mSeen.insert(index).second;
    (reply.status == LIBUSB_TRANSFER_CANCELLED ? mCancelled : mOthers) += 1;
    mChanged.NotifyAll();
  }
  void AwaitAll(std::size_t count) VEL_EXCLUDES(mMutex) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    MutexLock lock(mMutex);
    while (mSeen.size() < count && mChanged.WaitUntil(lock, deadline)) {
    }
    RequireEqual(static_cast<long long>(mSeen.size()), static_cast<long long>(count), "transfers with a reply");
    Require(!mTwice, "a transfer has two replies");
  }
  int Cancelled() const VEL_EXCLUDES(mMutex) {
    const MutexLock lock(mMutex);
    return mCancelled;
  }
  int Others() const VEL_EXCLUDES(mMutex) {
    const MutexLock lock(mMutex);
    return mOthers;
  }

 private:
  mutable Mutex mMutex;
  CondVar mChanged;
  std::set<std::uint64_t> mSeen VEL_GUARDED_BY(mMutex);
  bool mTwice VEL_GUARDED_BY(mMutex) = false;
  int mCancelled VEL_GUARDED_BY(mMutex) = 0;
  int mOthers VEL_GUARDED_BY(mMutex) = 0;
};

// Submits `count` transfers, four at a time, and cancels each. Returns how many cancels found their
// transfer.
int SubmitAndCancel(RemoteDevice& remote, std::uint8_t endpoint, int count, Answers& answers) {
  constexpr int kGroup = 4;
  int found = 0;
  for (int first = 0; first < count; first += kGroup) {
    std::vector<std::uint32_t> streams;
    for (int index = first; index < first + kGroup; ++index) {
      streams.push_back(remote.SubmitTransfer(
          Command::kBulkTransfer, endpoint, 16U << 10U, {},
          [&answers, index](const TransferReply& reply) { answers.Note(static_cast<unsigned>(index), reply); }));
    }
    for (const std::uint32_t stream : streams) {
      const std::int32_t result = remote.CancelTransfer(stream);
      Require(result == 0 || result == LIBUSB_ERROR_NOT_FOUND, "cancel: " + std::to_string(result));
      found += result == 0 ? 1 : 0;
    }
  }
  answers.AwaitAll(static_cast<std::size_t>(count));
  return found;
}

}  // namespace

std::string Cancels(const SysDevice& device, Arguments arguments) {
  const int count = std::stoi(arguments[0]);
  Served served(device);
  served.Take();
  RemoteDevice& remote = served.Remote();
  const ConfigModel config = ConfigOf(remote);
  const std::uint8_t source = EndpointOf(config, 0, Way::kIn, LIBUSB_TRANSFER_TYPE_BULK);
  const std::uint8_t silent = EndpointOf(config, 1, Way::kIn, LIBUSB_TRANSFER_TYPE_BULK);

  // The loopback's IN endpoint has nothing to say, so that each of its transfers is pending; the
  // source flows meanwhile.
  constexpr std::uint64_t kFlowing = 256;
  const PumpPlan flow{.endpoint = source, .count = kFlowing};
  auto flowing = std::async(std::launch::async, [&remote, flow] {
    RunPump(remote, flow, nullptr, [flow](std::uint64_t, const TransferReply& reply) {
      RequireEqual(reply.status, LIBUSB_TRANSFER_COMPLETED, "status beside the cancels");
      RequireEqual(static_cast<long long>(reply.data.size()), flow.size, "bytes beside the cancels");
      RequireSourcePattern(reply.data);
    });
  });
  Answers pending;
  RequireEqual(SubmitAndCancel(remote, silent, count, pending), count, "cancels that found their transfer");
  RequireEqual(pending.Cancelled(), count, "pending transfers that were answered as cancelled");
  flowing.get();

  // Here cancel and completion race: either may win, but each transfer has one answer.
  Answers moving;
  const int found = SubmitAndCancel(remote, source, count, moving);
  RequireEqual(moving.Cancelled() + moving.Others(), count, "answers");
  Require(moving.Cancelled() <= found, "more transfers were cancelled than cancels succeeded");
  Require(remote.Transfer(Command::kBulkTransfer, source, 16U << 10U).status == LIBUSB_TRANSFER_COMPLETED,
          "the endpoint does not go on after the cancels");

  // The kernel drops what is pending when its interface is released. That is no transfer that moved
  // nothing well.
  Answers dropped;
  remote.SubmitTransfer(Command::kBulkTransfer, silent, 512, {},
                        [&dropped](const TransferReply& reply) { dropped.Note(0, reply); });
  RequireEqual(remote.Status(Command::kReleaseAllInterface), 0, "release");
  dropped.AwaitAll(1);
  RequireEqual(dropped.Cancelled(), 1, "transfers that the release cancelled");
  served.Done();
  return std::to_string(count) + " pending transfers cancelled while " + std::to_string(kFlowing * flow.size >> 20U) +
         " MiB flowed intact; of " + std::to_string(count) + " on the flowing endpoint " +
         std::to_string(moving.Cancelled()) + " were cancelled, " + std::to_string(moving.Others()) + " were faster";
}

}  // namespace vel::vm
