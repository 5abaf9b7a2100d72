// The command and its real devices, on a mocked kernel.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <string_view>

#include "mockdev/MockRemote.h"
#include "remote/TcpConnection.h"
#include "support/CommandProcess.h"

namespace vel {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;

std::vector<std::string> Words(std::vector<std::string> words) {
  words.insert(words.begin(), {VIRTUSB, "--module", VIRTUSB_MODULE, "--log", "off"});
  return words;
}

class CommandAndDevice : public testing::Test {
 protected:
  CommandAndDevice() { setenv("VIRTUSB_STATE_DIR", mRecords.c_str(), 1); }
  ~CommandAndDevice() override { std::filesystem::remove_all(mRecords); }
  std::string Place() const { return std::to_string(MockUsbDevice::kBus) + ":" + std::to_string(mDevice.Address()); }
  static CommandProcess::Ending Run(const std::vector<std::string>& words) {
    return CommandProcess(words, kDeadline).Leave();
  }
  // A client of "export", which listens on the port.
  static std::string PortOf(CommandProcess& command) {
    const std::string text = command.AwaitMessage("; interrupt to end");
    const std::size_t at = text.find("127.0.0.1:") + 10;
    return text.substr(at, text.find(';', at) - at);
  }
  static UniqueFd Ask(const std::string& port, Bytes request) {  // USB/IP
    const StopSignal never;
    UniqueFd client = ConnectTcp({"127.0.0.1", port}, never);
    fcntl(client.Get(), F_SETFL, 0);  // Reads wait.
    EXPECT_GT(send(client.Get(), request.data(), request.size(), MSG_NOSIGNAL), 0);
    return client;
  }
  static UniqueFd Import(const std::string& port, char number) {
    Bytes request = {1, 0x11, 0x80, 3, 0, 0, 0, 0, '1', '-', static_cast<std::uint8_t>(number)};
    request.resize(40);
    UniqueFd guest = Ask(port, request);
    Bytes reply(320);
    EXPECT_EQ(recv(guest.Get(), reply.data(), reply.size(), MSG_WAITALL), 320);
    return guest;
  }
  void ExpectDriversBack() {
    EXPECT_TRUE(mDevice.AwaitClosed());
    EXPECT_THAT(mDevice.Look().driverBound, Each(true));
  }

  const std::string mRecords = testing::TempDir() + "virtusb_records_" + std::to_string(getpid());
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
  for (const auto& [filter, text, allowed, rules] :
       {std::tuple{"8,-1,-1,-1,1|0xff,0x1209,-1,-1,1", "allowed by rule 2", true, "[2]"},
        {"-1,-1,1,-1,0", "refused by rule 1 (interface 0, class 255)", false, "[1]"}}) {
    EXPECT_THAT(Run(Words({"list", "--auto", filter})).output, HasSubstr(std::string("export --auto: ") + text + "\n"));
    EXPECT_EQ(nlohmann::json::parse(Run(Words({"list", "--json", "--auto", filter})).output)["local"][0]["auto"],
              (nlohmann::json{{"allowed", allowed}, {"rules", nlohmann::json::parse(rules)}, {"text", text}}));
  }
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
      {"hang-up", [](CommandProcess& command) { return command.Kill(SIGHUP); }, 0, ""},
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

TEST_F(CommandAndDevice, HubsAndDevicesThatAreTwoAreRefused) {
  mDevice.Plug();
  EXPECT_THAT(Run(Words({"describe", "1:1"})).messages, HasSubstr("1:1 is a hub, and hubs are not redirected"));
  mDevice.PlugTwin();
  for (const auto& words :
       {std::vector<std::string>{"describe", "1209:0001"}, {"serve", "1209:0001", "--stdio", "--wait"}}) {
    EXPECT_THAT(Run(Words(words)).messages, HasSubstr("BUS:ADDRESS: " + Place() + ", 1:101\n"));
  }
}

TEST_F(CommandAndDevice, ExportGivesADeviceThatIsPulledOutBackAndListsItNoMore) {
  mDevice.Plug();
  CommandProcess command(Words({"export", "1209:0001", "keyboard", "--listen", "0"}), kDeadline);
  const std::string port = PortOf(command);
  std::array<std::uint8_t, 320> reply{};
  const UniqueFd guest = Import(port, '1');
  Bytes request(48);  // A vendor's. Behind its answer nothing is under way that could tell.
  request[3] = request[7] = request[15] = request[41] = 1;
  request[40] = 0xC0;
  EXPECT_EQ(send(guest.Get(), request.data(), request.size(), MSG_NOSIGNAL), 48);
  EXPECT_EQ(recv(guest.Get(), reply.data(), 48, MSG_WAITALL), 48);
  mDevice.Unplug();
  EXPECT_EQ(recv(guest.Get(), reply.data(), 1, 0), 0);
  EXPECT_TRUE(mDevice.AwaitClosed());
  EXPECT_EQ(recv(Ask(port, {1, 0x11, 0x80, 5, 0, 0, 0, 0}).Get(), reply.data(), 12, MSG_WAITALL), 12);
  EXPECT_THAT(std::span(reply).first(12), ElementsAre(1, 0x11, 0, 5, 0, 0, 0, 0, 0, 0, 0, 1));  // The keyboard.
  const auto ending = command.Kill(SIGINT);
  EXPECT_EQ(ending.status, 0);
  EXPECT_THAT(ending.messages, HasSubstr("1209:0001: it was pulled out\n"));
}

TEST_F(CommandAndDevice, ExportTakesWhatItsFilterAllowsAsItComesAndGoesAndAPortKeepsItsBusId) {
  mDevice.Plug();
  mDevice.PlugTwin();  // Cannot be opened.
  CommandProcess command(
      Words({"export", "keyboard", Place(), "--auto", "9,-1,-1,-1,1|0xff,0x1209,-1,-1,1", "--listen", "0"}), kDeadline);
  const std::string port = PortOf(command);
  const std::string refused = "1:101";
  command.AwaitMessage(refused);
  for (int time = 1; time <= 3; ++time) {
    const UniqueFd guest = Import(port, '2');
    mDevice.Unplug();
    char byte = 0;
    EXPECT_EQ(recv(guest.Get(), &byte, 1, 0), 0);
    EXPECT_TRUE(mDevice.AwaitClosed());
    mDevice.Plug();
    command.AwaitMessage(Place() + " (1209:0001, Mocked Device) is 1-2\n");
  }
  const auto ending = command.Kill(SIGINT);
  EXPECT_EQ(ending.status, 0);
  EXPECT_THAT(ending.messages, testing::Not(HasSubstr("no device ")));
  EXPECT_THAT(ending.messages, testing::Not(testing::ContainsRegex(refused + ".*\n(.*\n)*" + refused)));
  ExpectDriversBack();
}

TEST_F(CommandAndDevice, ExportTakesADeviceOnceAnotherProgramHasLetItGo) {
  mDevice.Plug();
  CommandProcess other(Words({"serve", "1209:0001", "--stdio"}), kDeadline);
  Take(other.Remote());
  CommandProcess command(Words({"export", "--auto", "-1,-1,-1,-1,1", "--listen", "0"}), kDeadline);
  command.AwaitMessage("is already redirected by ");
  other.Leave();
  command.AwaitMessage("Mocked Device) is 1-1\n");
  EXPECT_EQ(command.Kill(SIGINT).status, 0);
  ExpectDriversBack();
}

TEST_F(CommandAndDevice, ServeWaitsForTheDeviceAndTakesItBack) {
  CommandProcess left(Words({"serve", "1209:0001", "--stdio", "--wait"}), kDeadline);
  left.AwaitMessage("waiting for the device");
  EXPECT_THAT(left.Leave().messages, HasSubstr("virtusb: the remote side is gone, the device never came"));
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

TEST_F(CommandAndDevice, WithoutUdevdTheDeviceIsLookedForEverySecond) {
  if (access("/run/udev/control", F_OK) == 0) {
    GTEST_SKIP() << "udevd runs here";
  }
  mDevice.Tell(false);
  CommandProcess command(Words({"serve", "1209:0001", "--stdio", "--wait"}), kDeadline);
  command.AwaitMessage("no udevd runs on this machine: the device is looked for every second");
  mDevice.Plug();
  command.AwaitMessage("device is there");
  mDevice.Unplug();
  command.AwaitMessage("device was unplugged");  // Also when it was there before the first look.
  EXPECT_EQ(command.Kill(SIGINT).status, 0);
}

TEST_F(CommandAndDevice, KernelsLimitOfMemoryIsNamedOnce) {
  const char* const root = std::getenv("UMOCKDEV_DIR");
  ASSERT_NE(root, nullptr);
  const std::filesystem::path parameters = std::string(root) + "/sys/module/usbcore/parameters";
  std::filesystem::create_directories(parameters);
  std::ofstream(parameters / "usbfs_memory_mb") << 16;
  mDevice.Plug();
  CommandProcess command({VIRTUSB, "--module", VIRTUSB_MODULE, "serve", "1209:0001", "--stdio", "--answer-failures"},
                         kDeadline);
  Take(command.Remote());
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(command.Remote().Transfer(Command::kBulkTransfer, 0x82, 16U << 20U).status, 1);
  }
  EXPECT_THAT(command.Leave().messages,
              testing::ContainsRegex("^[^\n]*limit of memory[^\n]*usbcore.usbfs_memory_mb is 16 [^\n]*\n$"));
}

}  // namespace
}  // namespace vel
