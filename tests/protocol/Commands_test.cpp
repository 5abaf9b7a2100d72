#include "protocol/Commands.h"

#include <gtest/gtest.h>

#include <iterator>
#include <map>
#include <set>

namespace vel {
namespace {

struct Expected {
  std::uint16_t code;
  Command command;
  ReplyKind reply;
  std::uint32_t fieldBytes;
};

constexpr Expected kExpected[] = {
    {0x0004, Command::kPing, ReplyKind::kNone, 12},
    {0x1000, Command::kGetDeviceDesc, ReplyKind::kSync, 0},
    {0x1002, Command::kOpenUsbDev, ReplyKind::kSync, 0},
    {0x1004, Command::kCloseUsbDev, ReplyKind::kSync, 0},
    {0x1006, Command::kGetDevicePortNumber, ReplyKind::kSync, 0},
    {0x1008, Command::kGetDeviceConfig, ReplyKind::kSync, 0},
    {0x100A, Command::kGetBusNumber, ReplyKind::kSync, 0},
    {0x100C, Command::kGetDeviceAddress, ReplyKind::kSync, 0},
    {0x100E, Command::kGetStringDescriptor, ReplyKind::kSync, 7},
    {0x1010, Command::kResetDevice, ReplyKind::kSync, 0},
    {0x1012, Command::kAttachKernelDriver, ReplyKind::kSync, 0},
    {0x1014, Command::kDetachKernelDriver, ReplyKind::kSync, 0},
    {0x1016, Command::kClearHalt, ReplyKind::kSync, 0},
    {0x1018, Command::kReleaseAllInterface, ReplyKind::kSync, 0},
    {0x101A, Command::kSetConfiguration, ReplyKind::kSync, 4},
    {0x101C, Command::kClaimAllInterface, ReplyKind::kSync, 0},
    {0x101E, Command::kSetInterfaceAltSetting, ReplyKind::kSync, 8},
    {0x1020, Command::kCancelTransfer, ReplyKind::kSync, 4},
    {0x1022, Command::kControlTransfer, ReplyKind::kSync, 12},
    {0x1024, Command::kBulkTransfer, ReplyKind::kAsync, 12},
    {0x1026, Command::kInterruptTransfer, ReplyKind::kAsync, 12},
    {0x1028, Command::kIsochTransfer, ReplyKind::kAsync, 16},
    {0x102A, Command::kGetDeviceSpeed, ReplyKind::kSync, 0},
    {0x102C, Command::kSetRedirPolicy, ReplyKind::kSync, 4},
};

TEST(CommandsTest, EveryCodeFindsItsOwnEntryAndEveryOtherCodeFindsNone) {
  std::map<int, Expected> expected;
  for (const Expected& entry : kExpected) {
    expected.emplace(entry.code, entry);
  }
  ASSERT_EQ(expected.size(), kCommands.size());
  for (int code = 0; code <= 0xFFFF; ++code) {
    const CommandInfo* found = FindCommand(static_cast<std::uint16_t>(code));
    const auto wanted = expected.find(code);
    ASSERT_EQ(found != nullptr, wanted != expected.end()) << "code " << code;
    if (found != nullptr) {
      EXPECT_EQ(found->command, wanted->second.command) << "code " << code;
      EXPECT_EQ(found->Code(), code);
      EXPECT_EQ(found->reply, wanted->second.reply) << "code " << code;
      EXPECT_EQ(found->fieldBytes, wanted->second.fieldBytes) << "code " << code;
      EXPECT_EQ(&kCommands[CommandIndex(found->Code())], found);
    } else {
      EXPECT_EQ(CommandIndex(static_cast<std::uint16_t>(code)), kCommands.size());
    }
  }
}

TEST(CommandsTest, TableIsInRegistrationOrderWithThePingLast) {
  for (std::size_t i = 0; i + 1 < kCommands.size(); ++i) {
    EXPECT_EQ(kCommands[i].Code(), 0x1000 + 2 * i);
  }
  EXPECT_EQ(kCommands.back().Code(), 0x0004);
}

TEST(CommandsTest, RepliesFollowTheirRequestsAndAreNoRequests) {
  for (const CommandInfo& info : kCommands) {
    EXPECT_EQ(ReplyCode(info.command), info.Code() + 1);
    EXPECT_EQ(FindCommand(ReplyCode(info.command)), nullptr) << info.name;
  }
}

TEST(CommandsTest, NamesTellCommandsApart) {
  std::set<std::string_view> names;
  for (const CommandInfo& info : kCommands) {
    EXPECT_FALSE(info.name.empty());
    EXPECT_TRUE(names.insert(info.name).second) << info.name;
  }
}

}  // namespace
}  // namespace vel
