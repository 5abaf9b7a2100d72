#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <system_error>

#include "os/Fd.h"

namespace vel {

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  if (this != &other) {
    if (IsValid()) {
      close(mFd);
    }
    mFd = other.Release();
  }
  return *this;
}

UniqueFd::~UniqueFd() {
  if (IsValid()) {
    close(mFd);
  }
}

int LastFdError() {
  return errno;
}

std::string FdErrorText(int error) {
  return std::strerror(error);
}

std::pair<UniqueFd, UniqueFd> MakePipe(Waiting waiting) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC | (waiting == Waiting::kReturns ? O_NONBLOCK : 0)) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe");
  }
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

void PutByte(RawFd pipe) {
  const int saved = errno;
  const char byte = 0;
  static_cast<void>(!write(pipe, &byte, 1));
  errno = saved;
}

int Poll(std::span<PollFd> descriptors, int limitMilliseconds) {
  return poll(descriptors.data(), descriptors.size(), limitMilliseconds);
}

int StopWaiting(RawFd fd) {
  const int mode = fcntl(fd, F_GETFL);
  if (mode >= 0) {
    fcntl(fd, F_SETFL, mode | O_NONBLOCK);
  }
  return mode;
}

void RestoreMode(RawFd fd, int mode) {
  if (mode >= 0) {
    fcntl(fd, F_SETFL, mode);
  }
}

std::ptrdiff_t ReadPieces(RawFd fd, std::span<const IoPiece> pieces) {
  return readv(fd, pieces.data(), static_cast<int>(std::min<std::size_t>(pieces.size(), IOV_MAX)));
}

std::ptrdiff_t WritePieces(RawFd fd, std::span<const IoPiece> pieces) {
  return writev(fd, pieces.data(), static_cast<int>(std::min<std::size_t>(pieces.size(), IOV_MAX)));
}

std::ptrdiff_t ReceiveNow(RawFd socket, void* to, std::size_t size) {
  return recv(socket, to, size, MSG_DONTWAIT);
}

std::ptrdiff_t PeekNow(RawFd socket, void* to, std::size_t size) {
  return recv(socket, to, size, MSG_PEEK | MSG_DONTWAIT);
}

std::ptrdiff_t SendNow(RawFd socket, const void* from, std::size_t size) {
  return send(socket, from, size, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void ShutDown(RawFd socket) {
  shutdown(socket, SHUT_RDWR);
}

}  // namespace vel
