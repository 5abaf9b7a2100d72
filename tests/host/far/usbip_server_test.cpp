#include "far/UsbipServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <fstream>

#include "FakeFarEnd.h"
#include "far/Vhci.h"

namespace vel {
namespace {

using testing::HasSubstr;
using Bytes = std::vector<std::uint8_t>;

Bytes Import() {
  Bytes bytes = {1, 0x11, 0x80, 3, 0, 0, 0, 0, '1', '-', '1'};
  bytes.resize(40);
  return bytes;
}

class UsbipServerTest : public testing::Test {
 protected:
  UsbipServerTest() {
    auto made = std::make_unique<FakeFarEnd>();
    server.Add("it", std::make_unique<FarDevice>(std::move(made), FarDevice::Options()));
  }
  ~UsbipServerTest() override { stop.Raise(); }

  // A client that sends this.
  UniqueFd Connect(const Bytes& bytes) {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    server.Serve(UniqueFd(ends[1]), "client");
    UniqueFd client(ends[0]);
    EXPECT_EQ(send(client.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    return client;
  }
  static Bytes Receive(const UniqueFd& client, std::size_t count) {
    Bytes bytes(count);
    const ssize_t got = recv(client.Get(), bytes.data(), count, MSG_WAITALL);
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    return bytes;
  }

  StopSignal stop;
  Collected<std::string> notes;
  UsbipServer server{stop, [this](const std::string& line) { notes.Add(line); }};
};

TEST_F(UsbipServerTest, DeviceHasOneOwnerThatIsServedUntilItSendsNoCommand) {
  UniqueFd owner = Connect(Import());
  EXPECT_EQ(Receive(owner, 320).size(), 320U);
  EXPECT_EQ(Receive(Connect(Import()), 400), (Bytes{1, 0x11, 0, 3, 0, 0, 0, 2}));
  Bytes request(48);  // GET_DESCRIPTOR of the device, 18 bytes.
  for (const auto& [at, value] : {std::pair{3, 1}, {7, 5}, {15, 1}, {27, 18}, {40, 0x80}, {41, 6}, {43, 1}, {46, 18}}) {
    request[static_cast<std::size_t>(at)] = static_cast<std::uint8_t>(value);
  }
  EXPECT_EQ(send(owner.Get(), request.data(), request.size(), MSG_NOSIGNAL), 48);
  EXPECT_EQ(Receive(owner, 48 + 18).size(), 48U + 18U);
  request[3] = 9;
  EXPECT_EQ(send(owner.Get(), request.data(), request.size(), MSG_NOSIGNAL), 48);
  EXPECT_EQ(Receive(owner, 1).size(), 0U);
  EXPECT_THAT(notes.Await(3).back(), HasSubstr("command 9 is none of USB/IP"));
  EXPECT_EQ(Receive(Connect(Import()), 320).size(), 320U);
}

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
