// A serial adapter through the guest's own driver.
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <vector>

#include "Checks.h"
#include "Commands.h"
#include "remote/FdStream.h"

namespace vel::vm {

std::string Serial(const std::string& node, Arguments /*arguments*/) {
  constexpr std::size_t kCount = 4096;
  alarm(20);  // Reading and draining wait for the adapter.
  const UniqueFd tty(open(node.c_str(), O_RDWR | O_NOCTTY));
  const int file = tty.Get();
  // At once: the adapters send without end, and as long as the line discipline echoes that, nothing ever drains.
  termios settings{};
  Require(tcgetattr(file, &settings) == 0, node + " cannot be opened");
  cfmakeraw(&settings);
  cfsetspeed(&settings, B115200);
  RequireEqual(tcsetattr(file, TCSANOW, &settings), 0, "setting");
  RequireEqual(tcflush(file, TCIOFLUSH), 0, "flush");
  std::vector<std::uint8_t> bytes(kCount);
  for (std::size_t have = 0; have < kCount;) {
    const ssize_t got = read(file, &bytes[have], kCount - have);
    Require(got > 0, "no data");
    have += static_cast<std::size_t>(got);
  }
  // It counts down from 255 to 1; a read begins anywhere, and another one with each transfer.
  for (std::size_t i = 1; i < kCount; ++i) {
    Require(bytes[i] == 255 || bytes[i] == (bytes[i - 1] > 1 ? bytes[i - 1] - 1 : 255), "other data");
  }
  for (int i = 0; i < 4; ++i) {
    RequireEqual(write(file, bytes.data(), kCount), kCount, "write");
  }
  RequireEqual(tcdrain(file), 0, "drain");
  return node + " gives and takes data";
}

}  // namespace vel::vm
