#include "cmd/console/ModuleLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace vel {
namespace {

TEST(ModuleLog, ShowsEverythingThatWasPrintedBeforeAFailure) {
  const std::string large(6000, 'x');
  for (int i = 0; i < 5; ++i) {
    testing::internal::CaptureStderr();
    {
      ModuleLog log(false);
      std::printf("%s%d\n", large.c_str(), i);
      std::puts("last words");
      log.ShowKept();
    }
    const std::string shown = testing::internal::GetCapturedStderr();
    EXPECT_THAT(shown, testing::HasSubstr(std::to_string(i) + "\n"));
    EXPECT_THAT(shown, testing::EndsWith("printed last words\n"));
  }
}

}  // namespace
}  // namespace vel
