#ifndef VIRTUSB_HOST_OBSERVE_DEVICE_TAP_H
#define VIRTUSB_HOST_OBSERVE_DEVICE_TAP_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

#include "observe/CaptureFile.h"
#include "observe/DeviceTally.h"
#include "observe/UrbTranslation.h"
#include "protocol/VelPacket.h"
#include "vel/Mutex.h"

namespace vel {

// Sees one device's packets pass: pairs requests with replies, counts them, and writes them into a capture where there
// is one. Any thread. Once as much is in flight as ever was, it allocates nothing.
class DeviceTap {
 public:
  // `capture`, which may be null, outlives it.
  DeviceTap(std::string device, CaptureFile* capture);
  DeviceTap(const DeviceTap&) = delete;
  DeviceTap& operator=(const DeviceTap&) = delete;

  // Before it is sent: its reply comes later.
  void OnRequest(const VelPacket& request) VEL_EXCLUDES(mMutex);
  void OnReply(const VelPacket& reply) VEL_EXCLUDES(mMutex);
  // The exchange is over: what is in flight has no reply any more.
  void OnEnd() VEL_EXCLUDES(mMutex);
  // A picture that came gave way to a newer one before the guest had room for it.
  void OnLatePicture() VEL_EXCLUDES(mMutex);

  // Since the last time.
  DeviceFigures TakeFigures() VEL_EXCLUDES(mMutex);

 private:
  using Table = std::unordered_map<std::uint64_t, PendingUrb>;
  using Node = Table::node_type;

  Node TakeNode() VEL_EXCLUDES(mMutex);
  Node FindPending(const VelPacket& reply, const CommandInfo& command) VEL_REQUIRES(mMutex);
  void File(Node node) VEL_REQUIRES(mMutex);
  // A transfer whose cancel succeeded has no reply where failures are not answered.
  void ForgetCancelled(std::uint32_t streamId) VEL_REQUIRES(mMutex);
  void ForgetOld() VEL_REQUIRES(mMutex);
  void LookForCamera(const VelPacket& configuration);

  const std::string mDevice;
  CaptureFile* const mCapture;
  const std::uint32_t mInterface;
  std::atomic<int> mCameraEndpoint{-1};

  Mutex mMutex;
  std::uint64_t mLastId VEL_GUARDED_BY(mMutex) = 0;
  Table mTransfers VEL_GUARDED_BY(mMutex);            // By reply and stream id.
  std::deque<Node> mRequests VEL_GUARDED_BY(mMutex);  // That are answered in their order.
  std::vector<Node> mSpare VEL_GUARDED_BY(mMutex);
  DeviceTally mTally VEL_GUARDED_BY(mMutex);
};

}  // namespace vel

#endif
