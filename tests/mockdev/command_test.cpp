// The command and its real devices, on a mocked kernel.
#include <gmock/gmock.h>
#include <libusb-1.0/libusb.h>

#include <array>
#include <csignal>
#include <functional>
#include <nlohmann/json.hpp>
#include <string_view>

#include "mockdev/MockRemote.h"
#include "support/CommandProcess.h"

namespace vel {
namespace {

using testing::Each;
using testing::HasSubstr;

std::vector<std::string> Words(std::vector<std::string> words) {
  words.insert(words.begin(), {VIRTUSB, "--module", VIRTUSB_MODULE, "--log", "off"});
  return words;
}

class CommandAndDevice : public testing::Test {
 protected:
  std::string Place() const { return std::to_string(MockUsbDevice::kBus) + ":" + std::to_string(mDevice.Address()); }
  static CommandProcess::Ending Run(const std::vector<std::string>& words) {
    return CommandProcess(words, kDeadline).Leave();
  }
  void ExpectDriversBack() {
    EXPECT_TRUE(mDevice.AwaitClosed());
    EXPECT_THAT(mDevice.Look().driverBound, Each(true));
  }

  MockUsbDevice mDevice;
};

TEST_F(CommandAndDevice, ListShowsTheDeviceAndWhetherItMayBeOpened) {
  mDevice.Plug();
  EXPECT_THAT(Run(Words({"list"})).output, HasSubstr(Place() + " "));
  const auto json = nlohmann::json::parse(Run(Words({"list", "--json"})).output);
  const nlohmann::json expected = {{"bus", 1},
                                   {"address", mDevice.Address()},
                                   {"idVendor", 0x1209},
                                   {"idProduct", 1},
                                   {"speed", "high"},
                                   {"manufacturer", MockUsbDevice::kMaker},
                                   {"product", MockUsbDevice::kName},
                                   {"redirects", {"Vendor Specific Class"}},
                                   {"accessible", true}};
  EXPECT_EQ(json["local"], nlohmann::json::array({expected}));
  ExpectDriversBack();
  mDevice.Forbid();
  std::vector<std::string> words = Words({"list"});
  words.insert(words.begin(), {"setpriv", "--bounding-set=-dac_override,-dac_read_search"});
  EXPECT_THAT(Run(words).output, HasSubstr("70-virtusb.rules into /etc/udev/rules.d"));
  words.emplace_back("--json");
  EXPECT_EQ(nlohmann::json::parse(Run(words).output)["local"][0]["accessible"], false);
}

TEST_F(CommandAndDevice, ServeGivesTheDeviceBackHoweverItEnds) {
  constexpr std::array<std::uint8_t, 16> kNoPacket = {'G', 'E', 'T', ' ', '/'};
  const struct {
    const char* name;
    std::function<CommandProcess::Ending(CommandProcess&)> end;
    int status;
    const char* message;
  } ways[] = {
      {"done", [](CommandProcess& command) { return command.Leave(); }, 0, ""},
      {"closed without attaching",
       [](CommandProcess& command) {
         EXPECT_EQ(command.Remote().Status(Command::kCloseUsbDev), 0);
         return command.Leave();
       },
       0, ""},
      {"no packet", [&](CommandProcess& command) { return command.Leave(kNoPacket); }, 1, "virtusb: "},
      {"interrupt", [](CommandProcess& command) { return command.Kill(SIGINT); }, 0, ""},
      {"terminate", [](CommandProcess& command) { return command.Kill(SIGTERM); }, 0, ""},
      {"unplugged",
       [this](CommandProcess& command) {
         mDevice.Unplug();
         return command.Await();
       },
       1, "virtusb: the device is gone, the service ends"},
  };
  mDevice.Plug();
  for (const auto& [name, end, status, message] : ways) {
    SCOPED_TRACE(name);
    CommandProcess command(Words({"serve", "1209:0001", "--stdio"}), kDeadline);
    Take(command.Remote());
    for (int i = 0; i < 32; ++i) {
      Submit(command.Remote(), Command::kBulkTransfer, 0x84, 4096);
    }
    ASSERT_TRUE(mDevice.AwaitPending(32));
    EXPECT_THAT(mDevice.Look().driverBound, Each(false));
    const auto ending = end(command);
    EXPECT_EQ(ending.status, status) << ending.messages;
    EXPECT_THAT(ending.messages, HasSubstr(message));
    EXPECT_TRUE(mDevice.AwaitClosed());
    EXPECT_THAT(mDevice.Look().driverBound, Each(std::string_view(name) != "unplugged"));
  }
}

TEST_F(CommandAndDevice, ServeWaitsForTheDeviceAndTakesItBack) {
  CommandProcess command(Words({"serve", "1209:0001", "--stdio", "--wait"}), kDeadline);
  RemoteDevice& remote = command.Remote();
  command.AwaitMessage("waiting for the device");
  for (int time = 1; time <= 3; ++time) {
    mDevice.Plug();
    command.AwaitMessage("device is there", time);
    Take(remote);
    EXPECT_EQ(remote.Transfer(Command::kBulkTransfer, 0x82, 64).data, MockUsbDevice::Pattern(64));
    if (time < 3) {
      mDevice.Unplug();
      command.AwaitMessage("device was unplugged", time);
      EXPECT_LT(remote.Status(Command::kResetDevice), 0);
    }
  }
  EXPECT_EQ(command.Kill(SIGINT).status, 0);
  ExpectDriversBack();
}

}  // namespace
}  // namespace vel
