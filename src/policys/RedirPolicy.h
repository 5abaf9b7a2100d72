#ifndef VEL_POLICYS_REDIR_POLICY_H
#define VEL_POLICYS_REDIR_POLICY_H

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "io/IUsbIo.h"
#include "policys/UVCPolicy.h"

namespace vel {

// Sits between a device and its backend: answers the standard descriptor requests of emulated devices from a
// configuration descriptor rebuilt out of the backend's tree, clears halts on the client's side too, and hands what
// concerns the streaming interface of a camera to its UVCPolicy.
//
// Loop thread, but for Release, which may come from the thread that closes the device; that one and ProbePolicy take
// turns. `io` outlives the policy.
class RedirPolicy {
 public:
  // `headerLengthCounts`: whether a camera's payload headers are as long as they say (UVCPayloadHeader::SizeOf).
  // `newestPictures`: see UVCStreamTally.
  explicit RedirPolicy(IUsbIo* io, bool headerLengthCounts = false, bool newestPictures = false);
  RedirPolicy(const RedirPolicy&) = delete;
  RedirPolicy& operator=(const RedirPolicy&) = delete;
  ~RedirPolicy() = default;

  // Any text, whatever it says, enables the policy of the video class from the next probe on. Returns 0.
  int SetPolicy(const char* policyText);

  // Reads the backend's configuration anew. The arguments are not used. Returns 0, or -1 when the backend has none.
  int ProbePolicy(const void* unused1, const void* unused2);

  bool IsPolicyInterface(std::uint32_t interfaceNumber) const { return interfaceNumber == mPolicyInterface; }
  bool IsPolicyEndpoint(std::uint8_t epAddr) const { return epAddr == mPolicyEndpoint; }

  // Before and after an alternate setting is selected. -1 for a device without video streaming.
  int SetInterface(std::uint32_t interfaceNumber, std::uint32_t altSetting);
  int SetInterfacePost(std::uint32_t interfaceNumber, std::uint32_t altSetting);

  // Takes an isochronous record for the policy endpoint and sees to its completion.
  int DoTransfer(_UsbIoXferInfo* info);
  // Completes a record that waits in the policy as cancelled; false when there is none of this id.
  bool CancelTransfer(std::uint32_t localXferId);
  // Ends what the policy does with the device.
  void Release();

  // Before a control request goes to the backend. 1: GetVirtControlData answers it instead.
  int PeekControlTransfer(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue, std::uint16_t wIndex,
                          std::uint8_t* data, std::uint16_t wLength);
  // After the backend answered; `data` holds its answer. Returns 0.
  int PeekControlTransferRet(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue,
                             std::uint16_t wIndex, std::uint8_t* data, std::uint16_t wLength);
  // Bytes written to `data`, at most `wLength`.
  int GetVirtControlData(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue, std::uint16_t wIndex,
                         std::uint8_t* data, std::uint16_t wLength);

  // The wire form of the tree, with a camera's streaming interface as its policy wants it. Empty when it would not fit
  // 64 KiB.
  static std::vector<std::uint8_t> MakeRawConfigDesc(const libusb_config_descriptor& config, const UVCPolicy* camera);

 private:
  static constexpr std::uint8_t kNoPolicy = 0xFF;

  void ProbeCamera();

  IUsbIo* const mIo;
  const bool mHeaderLengthCounts;
  const bool mNewestPictures;
  libusb_config_descriptor* mConfig = nullptr;  // The backend's.
  std::vector<std::uint8_t> mRawConfig;
  std::uint8_t mPolicyEndpoint = kNoPolicy;
  std::uint8_t mPolicyInterface = kNoPolicy;
  std::map<int, int> mPolicyMap;          // USB class to an enable flag.
  std::unique_ptr<UVCPolicy> mUvcPolicy;  // Null for a device without a video-streaming interface.
};

}  // namespace vel

#endif
