#ifndef VIRTUSB_TESTS_VM_REMOTE_PATTERNS_H
#define VIRTUSB_TESTS_VM_REMOTE_PATTERNS_H

#include <cstdint>
#include <span>

namespace vel::vm {

// The pattern of the kernel's source/sink function at SuperSpeed: counts to 62 again and again, and
// starts anew with each packet.
void FillSourcePattern(std::span<std::uint8_t> data);
void RequireSourcePattern(std::span<const std::uint8_t> data);

// Data that is different at every position of a stream, so that bytes which are missing, doubled or
// out of order show. `offset` is a multiple of 4.
void FillUniquePattern(std::span<std::uint8_t> data, std::uint64_t offset);
void RequireUniquePattern(std::span<const std::uint8_t> data, std::uint64_t offset);

}  // namespace vel::vm

#endif
