#ifndef VIRTUSB_TESTS_VM_REMOTE_PUMP_H
#define VIRTUSB_TESTS_VM_REMOTE_PUMP_H

#include <cstdint>
#include <functional>
#include <span>

#include "remote/RemoteDevice.h"

namespace vel::vm {

// Transfers of one endpoint, several of them in flight at any time.
struct PumpPlan {
  std::uint8_t endpoint = 0;
  std::uint32_t size = 64U << 10U;
  std::uint64_t count = 0;
  unsigned depth = 8;
};

// Makes the data of transfer `index`; IN transfers need none.
using PumpFill = std::function<void(std::uint64_t index, std::span<std::uint8_t> data)>;
// Looks at the reply to transfer `index`; throws Failure. Called in the order of the replies, on
// the channel's thread.
using PumpCheck = std::function<void(std::uint64_t index, const TransferReply& reply)>;

// Runs `count` transfers that `submit` sends, at most `depth` unanswered. Throws as RunPump does.
using SubmitOne = std::function<void(std::uint64_t index, RemoteDevice::TransferDone done)>;
void RunWindow(std::uint64_t count, unsigned depth, const SubmitOne& submit, const PumpCheck& check);

// Runs bulk transfers to the end. Throws Failure when a check does, when replies come in another
// order than their requests, or when none comes until the deadline.
void RunPump(RemoteDevice& remote, const PumpPlan& plan, const PumpFill& fill, const PumpCheck& check);

}  // namespace vel::vm

#endif
