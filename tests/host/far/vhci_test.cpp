#include "far/Vhci.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace vel {
namespace {

using testing::HasSubstr;

TEST(Vhci, SaysWhatIsMissingAndTakesAFreePortOfTheSpeed) {
  const std::filesystem::path folder = testing::TempDir() + "/vhci_hcd.0";
  std::filesystem::remove_all(folder);
  std::filesystem::create_directories(folder);
  EXPECT_THAT([&] { Vhci vhci(folder); }, testing::ThrowsMessage<std::runtime_error>(HasSubstr("modprobe vhci-hcd")));
  std::ofstream(folder / "attach") << "";
  std::ofstream(folder / "status") << "hub port sta spd dev      sockfd local_busid\n"
                                   << "hs  0000 006 002 00010001 000003 3-1\n"
                                   << "hs  0001 004 000 00000000 000000 0-0\n"
                                   << "ss  0008 006 005 00010001 000000 0-0\n";
  std::ofstream(folder / "status.1") << "hub port sta spd dev      sockfd local_busid\n"
                                     << "ss  0024 004 000 00000000 000000 0-0\n";
  const Vhci vhci(folder);
  unsigned port = 0;
  EXPECT_TRUE(vhci.Attach(2, port).IsValid());
  EXPECT_EQ(port, 1U);
  EXPECT_TRUE(vhci.Attach(5, port).IsValid());
  EXPECT_EQ(port, 24U);
  EXPECT_EQ(vhci.DeviceOn(0), "3-1");
  EXPECT_EQ(vhci.DeviceOn(8), std::nullopt);  // The kernel has not named it yet.
  std::ofstream(folder / "status.1") << "";
  EXPECT_THAT([&] { vhci.Attach(5, port); }, testing::ThrowsMessage<std::runtime_error>(HasSubstr("SuperSpeed")));
}

}  // namespace
}  // namespace vel
