// The command set, once: codes, names for people, what answers a request and how many bytes its fields take.
#ifndef VEL_PROTOCOL_COMMANDS_H
#define VEL_PROTOCOL_COMMANDS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace vel {

enum class Command : std::uint16_t {
  kPing = 0x0004,
  kGetDeviceDesc = 0x1000,
  kOpenUsbDev = 0x1002,
  kCloseUsbDev = 0x1004,
  kGetDevicePortNumber = 0x1006,
  kGetDeviceConfig = 0x1008,
  kGetBusNumber = 0x100A,
  kGetDeviceAddress = 0x100C,
  kGetStringDescriptor = 0x100E,
  kResetDevice = 0x1010,
  kAttachKernelDriver = 0x1012,
  kDetachKernelDriver = 0x1014,
  kClearHalt = 0x1016,
  kReleaseAllInterface = 0x1018,
  kSetConfiguration = 0x101A,
  kClaimAllInterface = 0x101C,
  kSetInterfaceAltSetting = 0x101E,
  kCancelTransfer = 0x1020,
  kControlTransfer = 0x1022,
  kBulkTransfer = 0x1024,
  kInterruptTransfer = 0x1026,
  kIsochTransfer = 0x1028,
  kGetDeviceSpeed = 0x102A,
  kSetRedirPolicy = 0x102C,
};

enum class ReplyKind : std::uint8_t {
  kNone,
  kSync,   // Sent by the handler, matched by command and reqID.
  kAsync,  // Sent when the transfer is complete, matched by command and stream id.
};

struct CommandInfo {
  Command command;
  std::string_view name;
  ReplyKind reply;
  std::uint32_t fieldBytes;  // Fixed fields at the start of the payload; data bytes follow them.

  constexpr std::uint16_t Code() const { return static_cast<std::uint16_t>(command); }
};

// In ascending order of the codes, the ping last.
inline constexpr std::array<CommandInfo, 24> kCommands = {{
    {Command::kGetDeviceDesc, "get device descriptor", ReplyKind::kSync, 0},
    {Command::kOpenUsbDev, "open device", ReplyKind::kSync, 0},
    {Command::kCloseUsbDev, "close device", ReplyKind::kSync, 0},
    {Command::kGetDevicePortNumber, "get port number", ReplyKind::kSync, 0},
    {Command::kGetDeviceConfig, "get configuration", ReplyKind::kSync, 0},
    {Command::kGetBusNumber, "get bus number", ReplyKind::kSync, 0},
    {Command::kGetDeviceAddress, "get device address", ReplyKind::kSync, 0},
    {Command::kGetStringDescriptor, "get string descriptor", ReplyKind::kSync, 7},
    {Command::kResetDevice, "reset device", ReplyKind::kSync, 0},
    {Command::kAttachKernelDriver, "attach kernel driver", ReplyKind::kSync, 0},
    {Command::kDetachKernelDriver, "detach kernel driver", ReplyKind::kSync, 0},
    {Command::kClearHalt, "clear halt", ReplyKind::kSync, 0},
    {Command::kReleaseAllInterface, "release all interfaces", ReplyKind::kSync, 0},
    {Command::kSetConfiguration, "set configuration", ReplyKind::kSync, 4},
    {Command::kClaimAllInterface, "claim all interfaces", ReplyKind::kSync, 0},
    {Command::kSetInterfaceAltSetting, "set interface alternate setting", ReplyKind::kSync, 8},
    {Command::kCancelTransfer, "cancel transfer", ReplyKind::kSync, 4},
    {Command::kControlTransfer, "control transfer", ReplyKind::kSync, 12},
    {Command::kBulkTransfer, "bulk transfer", ReplyKind::kAsync, 12},
    {Command::kInterruptTransfer, "interrupt transfer", ReplyKind::kAsync, 12},
    {Command::kIsochTransfer, "isochronous transfer", ReplyKind::kAsync, 16},
    {Command::kGetDeviceSpeed, "get device speed", ReplyKind::kSync, 0},
    {Command::kSetRedirPolicy, "set redirection policy", ReplyKind::kSync, 4},
    {Command::kPing, "ping", ReplyKind::kNone, 12},
}};

inline constexpr std::uint16_t kFirstRequest = 0x1000;

// The index in kCommands for a request code, or kCommands.size() when it is none.
constexpr std::size_t CommandIndex(std::uint16_t code) {
  if (code == static_cast<std::uint16_t>(Command::kPing)) {
    return kCommands.size() - 1;
  }
  const std::size_t index = (static_cast<std::size_t>(code) - kFirstRequest) / 2;
  const bool known = code >= kFirstRequest && code % 2 == 0 && index < kCommands.size() - 1;
  return known ? index : kCommands.size();
}

// The entry for a request code, or null.
constexpr const CommandInfo* FindCommand(std::uint16_t code) {
  const std::size_t index = CommandIndex(code);
  return index < kCommands.size() ? &kCommands[index] : nullptr;
}

constexpr std::uint16_t ReplyCode(Command command) {
  return static_cast<std::uint16_t>(static_cast<std::uint16_t>(command) + 1);
}

namespace detail {
constexpr bool TableIsInOrder() {
  for (std::size_t i = 0; i < kCommands.size(); ++i) {
    if (CommandIndex(kCommands[i].Code()) != i) {
      return false;
    }
  }
  return true;
}
}  // namespace detail
static_assert(detail::TableIsInOrder());

}  // namespace vel

#endif
