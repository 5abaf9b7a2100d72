#ifndef VIRTUSB_TESTS_POLICYS_STREAM_SCRIPTED_CAMERA_H
#define VIRTUSB_TESTS_POLICYS_STREAM_SCRIPTED_CAMERA_H

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "policys/UVCPolicy.h"
#include "protocol/IsoTable.h"
#include "support/Completions.h"
#include "support/DescriptorTree.h"
#include "support/RecordingDeviceBase.h"
#include "support/ScriptedUsbIo.h"
#include "support/VsBlock.h"

namespace vel::test {

using Bytes = std::vector<std::uint8_t>;
using Result = ScriptedUsbIo::Result;

enum class Kind : std::uint8_t { kEmulated, kIso, kBulk };

// A camera whose transfers the test completes, and the policy over it. Streaming interface 3, endpoint 0x81; format 1
// is YUYV and 2 MJPEG, with frames of height 48 and 64 (width 1000 more).
struct ScriptedCamera {
  static constexpr std::uint16_t kInterface = 3;
  static constexpr int kHeight = 48;
  static constexpr int kWidth = 1048;
  static constexpr std::uint32_t kFrameBytes = 2 * kWidth * kHeight;

  explicit ScriptedCamera(Kind kind, bool transcode = false, std::uint32_t capability = 0, bool newestPictures = false)
      : backend(ScriptedUsbIo::Create(kind == Kind::kEmulated ? kIoTypeEmulated : kIoTypeLibusb, &remote)),
        policy(std::make_unique<UVCPolicy>(backend.get(), 0, std::int8_t{0}, std::uint8_t{transcode}, false,
                                           newestPictures)) {
    tree.BeCamera(block.bytes);
    tree.interface.num_altsetting = kind == Kind::kBulk ? 1 : 2;
    policy->ParseDescriptors(&tree.config);
    io.HoldTransfers();
    io.SetCapability(capability);
  }

  static UVCStreamCtrl Ctrl(std::uint32_t frameSize, std::uint32_t payloadSize = 64) {
    UVCStreamCtrl ctrl{};
    ctrl.bFormatIndex = 1;
    ctrl.bFrameIndex = 1;
    ctrl.dwMaxVideoFrameSize = frameSize;
    ctrl.dwMaxPayloadTransferSize = payloadSize;
    return ctrl;
  }
  static Bytes Block(const UVCStreamCtrl& ctrl, std::size_t size) {
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&ctrl);
    Bytes block(bytes, bytes + std::min(size, sizeof ctrl));
    block.resize(size, 0xEE);
    return block;
  }

  void Commit(const UVCStreamCtrl& ctrl, std::size_t size = 34, std::uint16_t wIndex = kInterface) {
    Bytes data = Block(ctrl, size);
    policy->PeekClassControlTransfer({0x21, 0x01, 0x0200, wIndex, data});
  }
  // What reaches the remote side of the camera's answer.
  Bytes ProbeAnswer(Bytes data, std::uint16_t wIndex = kInterface) {
    policy->PeekClassControlTransferRet({0xA1, 0x81, 0x0100, wIndex, data});
    return data;
  }
  void Start(std::uint32_t altSetting = 1) {
    EXPECT_EQ(policy->SetInterface(kInterface, altSetting) + policy->SetInterfacePost(kInterface, altSetting), 0);
  }
  void Start(const UVCStreamCtrl& ctrl) {
    Commit(ctrl);
    Start();
  }
  void Stop() { Start(0); }
  void Read(int count = 1) {
    for (; count > 0; --count) {
      policy->DoTransfer(reads.Record(0x81, ++made, 16));
    }
  }
  [[nodiscard]] bool Complete(std::string data) {
    return io.CompleteNext({.status = kXferCompleted, .bytes = Bytes(data.begin(), data.end())});
  }
  // A transfer of packets: info byte and data of each.
  struct Packet {
    std::uint8_t info = 0;
    std::string data;
  };
  static std::string Payload(const Packet& packet) {
    return std::string{'\x0C', static_cast<char>(packet.info)} + std::string(10, '\xEE') + packet.data;
  }
  static std::string Transfer(const std::vector<Packet>& packets) {
    std::string bytes(UVCCameraReader::kPackets * sizeof(IsoPacketRecord), '\0');
    std::size_t index = 0;
    for (const Packet& packet : packets) {
      const std::string payload = Payload(packet);
      StoreIsoRecord(bytes.data(), index++,
                     {static_cast<std::uint32_t>(bytes.size()), 64, static_cast<std::uint32_t>(payload.size()), 0});
      bytes += payload;
    }
    return bytes;
  }
  // The lengths of the records that were submitted to the streaming endpoint.
  std::vector<std::uint32_t> Submitted() const {
    std::vector<std::uint32_t> lengths;
    for (const ScriptedUsbIo::Submitted& each : io.Transfers()) {
      lengths.push_back(each.length);
    }
    return lengths;
  }

  VsBlock block{"yuyv 48 64 mjpeg 48 64"};
  DescriptorTree tree;
  RecordingDeviceBase remote;
  ScriptedUsbIo io{remote};
  Completions reads;
  std::uint32_t made = 0;  // Of reads; they count from 1.
  const std::unique_ptr<IUsbIo> backend;
  std::unique_ptr<UVCPolicy> policy;
};

}  // namespace vel::test

#endif
