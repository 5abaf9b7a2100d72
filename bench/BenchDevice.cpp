#include "BenchDevice.h"

#include <span>
#include <utility>
#include <vector>

#include "protocol/Requests.h"

namespace vel {

std::unique_ptr<VelPacket> Workload::Request(std::uint32_t streamId) const {
  if (command == Command::kBulkTransfer) {
    static const std::vector<std::uint8_t> given(std::size_t{1} << 20U);
    const bool in = (endpoint & kDirectionIn) != 0;
    return BuildTransferRequest(command, {}, endpoint, streamId, bytes, std::span(given).first(in ? 0 : bytes));
  }
  return BuildRequest(command, {});
}

BenchDevice::BenchDevice(const std::string& modulePath, const Identity& identity)
    : FakeDeviceBase(identity), mLibrary(ModuleLibrary::Load(modulePath)), mDriver(mLibrary->Descriptor().open(this)) {
  mDriver->onEvent(BuildRequest(Command::kOpenUsbDev, {}));
  WaitForReplies(1);
}

BenchDevice::~BenchDevice() {
  mDriver->Close(0);
  mDriver.reset();
}

int BenchDevice::Send(std::unique_ptr<VelPacket> /*packet*/, std::uint32_t /*waitMs*/) {
  if (mOnReply) {  // On one thread: the count needs no locked step.
    mReplies.store(mReplies.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    mOnReply();
    return 0;
  }
  bool wake = false;
  {
    const MutexLock lock(mMutex);
    mReplies.fetch_add(1, std::memory_order_acq_rel);
    wake = std::exchange(mWaiting, false);
  }
  if (wake) {
    mReplied.NotifyOne();
  }
  return 0;
}

void BenchDevice::WaitForReplies(std::uint64_t count) {
  MutexLock lock(mMutex);
  while (mReplies.load(std::memory_order_relaxed) < count) {
    mWaiting = true;
    mReplied.Wait(lock);
  }
  mWaiting = false;
}

void BenchDevice::RoundTrips(const Workload& workload, std::uint64_t count) {
  std::uint64_t replies = Replies();
  for (std::uint64_t i = 0; i < count; ++i) {
    mDriver->onEvent(workload.Request(static_cast<std::uint32_t>(i)));
    WaitForReplies(++replies);
  }
}

}  // namespace vel
