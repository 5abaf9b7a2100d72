#ifndef VIRTUSB_TESTS_VM_REMOTE_PUMP_H
#define VIRTUSB_TESTS_VM_REMOTE_PUMP_H

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "remote/RemoteDevice.h"

namespace vel::vm {

// The pattern of the kernel's source/sink function at SuperSpeed: counts to 62 again and again, and starts anew with
// each packet.
std::vector<std::uint8_t> SourcePattern(std::size_t size);
// Data that is different at every position of a stream, so that bytes which are missing, doubled or out of order show.
// `offset` is a multiple of 4.
std::vector<std::uint8_t> UniquePattern(std::size_t size, std::uint64_t offset);

// Looks at the reply to transfer `index`; throws Failure. Called in the order of the replies, on the channel's thread.
using PumpCheck = std::function<void(std::uint64_t index, const TransferReply& reply)>;
using SubmitOne = std::function<void(std::uint64_t index, RemoteDevice::TransferDone done)>;
// Runs `count` transfers that `submit` sends, at most `depth` unanswered. Throws Failure when a check does, when
// replies come in another order than their requests, or when none comes until the deadline.
void RunWindow(std::uint64_t count, unsigned depth, const SubmitOne& submit, const PumpCheck& check);

// Bulk transfers of one endpoint.
struct PumpPlan {
  std::uint8_t endpoint = 0;
  std::uint32_t size = 64U << 10U;
  std::uint64_t count = 0;
  unsigned depth = 8;
};
// Makes the data of transfer `index`; IN transfers need none.
using PumpFill = std::function<std::vector<std::uint8_t>(std::uint64_t index)>;
void RunPump(RemoteDevice& remote, const PumpPlan& plan, const PumpFill& fill, const PumpCheck& check);

}  // namespace vel::vm

#endif
