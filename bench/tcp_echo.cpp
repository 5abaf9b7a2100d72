// What the network between two machines takes by itself: messages as long as those of a redirected device, without a
// device, a redirector or a second thread.
//
// tcp_echo                    answers on its standard input and output, which are a connection
// tcp_echo LABEL HOST:PORT    asks, and prints a line as vm_bench does
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <vector>

#include "GuestBench.h"
#include "remote/TcpConnection.h"

namespace {

using vel::bench::kInFlight;
using vel::bench::kLarge;
using vel::bench::Require;

constexpr std::uint32_t kMessage = 48;  // About a request without data, or its reply.

// In front of each request.
struct Head {
  std::uint32_t more;   // Bytes that follow it.
  std::uint32_t reply;  // Bytes that are wanted back.
};

bool Read(int fd, std::uint8_t* bytes, std::size_t count) {
  while (count > 0) {
    const ssize_t n = read(fd, bytes, count);
    if (n <= 0) {
      return false;
    }
    bytes += n;
    count -= static_cast<std::size_t>(n);
  }
  return true;
}

void Write(int fd, const std::uint8_t* bytes, std::size_t count) {
  while (count > 0) {
    const ssize_t n = write(fd, bytes, count);
    Require(n > 0, "the connection is gone");
    bytes += n;
    count -= static_cast<std::size_t>(n);
  }
}

void Answer() {
  const int yes = 1;
  static_cast<void>(setsockopt(STDOUT_FILENO, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes));
  std::vector<std::uint8_t> block(kLarge + kMessage);
  Head head{};
  while (Read(STDIN_FILENO, reinterpret_cast<std::uint8_t*>(&head), sizeof head)) {
    Require(head.more <= block.size() && head.reply <= block.size() && Read(STDIN_FILENO, block.data(), head.more),
            "no request");
    Write(STDOUT_FILENO, block.data(), head.reply);
  }
}

class Asker {
 public:
  explicit Asker(int fd) : mFd(fd), mBlock(sizeof(Head) + kLarge + kMessage) {
    static_cast<void>(fcntl(fd, F_SETFL, 0));  // Its calls wait.
  }

  void Ask(std::uint32_t bytes, std::uint32_t reply) {
    const Head head{bytes - std::uint32_t{sizeof(Head)}, reply};
    std::memcpy(mBlock.data(), &head, sizeof head);
    Write(mFd, mBlock.data(), bytes);
  }
  bool Take(std::uint32_t reply) { return Read(mFd, mBlock.data(), reply); }

  vel::bench::Throughput Pump(std::uint32_t bytes, std::uint32_t reply) {
    const vel::bench::Stopwatch watch;
    std::uint64_t done = 0;
    for (int i = 0; i < kInFlight; ++i) {
      Ask(bytes, reply);
    }
    for (int waiting = kInFlight; waiting > 0; done += kLarge) {
      Require(Take(reply), "the connection is gone");
      if (vel::bench::Clock::now() < watch.begin + vel::bench::kThroughputTime) {
        Ask(bytes, reply);
      } else {
        --waiting;
      }
    }
    return watch.Over(done);
  }

 private:
  const int mFd;
  std::vector<std::uint8_t> mBlock;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc == 1) {
    Answer();
    return 0;
  }
  Require(argc == 3, "usage: tcp_echo [LABEL HOST:PORT]");
  const auto address = vel::ParseHostPort(argv[2]);
  Require(address.has_value(), "no address");
  const vel::StopSignal never;
  const vel::UniqueFd connection = vel::ConnectTcp(*address, never);
  Asker asker(connection.Get());
  const auto roundTrip = [&asker](std::uint32_t bytes) {
    return vel::bench::RoundTrip([&] {
      asker.Ask(bytes, kMessage);
      return asker.Take(kMessage);
    });
  };
  const double control = roundTrip(kMessage);
  const double bulk = roundTrip(kMessage + 512);
  const auto in = asker.Pump(kMessage, kMessage + kLarge);
  const auto out = asker.Pump(kMessage + kLarge, kMessage);
  vel::bench::PrintWay(argv[1], control, bulk, in, out);
  return 0;
}
