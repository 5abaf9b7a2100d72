#include "protocol/Commands.h"

#include <gtest/gtest.h>

#include <set>

namespace vel {
namespace {

TEST(CommandsTest, EveryCodeFindsItsOwnEntryAndEveryOtherCodeFindsNone) {
  std::set<std::string_view> names;
  std::size_t found = 0;
  for (int code = 0; code <= 0xFFFF; ++code) {
    const auto wanted = static_cast<std::uint16_t>(code);
    const CommandInfo* info = FindCommand(wanted);
    ASSERT_EQ(CommandIndex(wanted),
              info == nullptr ? kCommands.size() : static_cast<std::size_t>(info - &kCommands[0]));
    if (info != nullptr) {
      ++found;
      EXPECT_EQ(info->Code(), code);
      EXPECT_EQ(ReplyCode(info->command), code + 1);
      EXPECT_EQ(FindCommand(ReplyCode(info->command)), nullptr) << "a reply is no request";
      EXPECT_TRUE(names.insert(info->name).second) << info->name;
    }
  }
  EXPECT_EQ(found, kCommands.size());
  EXPECT_EQ(found, 24U);
}

}  // namespace
}  // namespace vel
