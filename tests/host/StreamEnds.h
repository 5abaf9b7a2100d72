#ifndef VIRTUSB_TESTS_HOST_STREAM_ENDS_H
#define VIRTUSB_TESTS_HOST_STREAM_ENDS_H

#include <sys/socket.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "remote/FdStream.h"
#include "remote/TlsContext.h"
#include "remote/TlsStream.h"

namespace vel {

// Certificates for both sides, of "localhost" and 127.0.0.1, made once by the openssl command.
inline const std::string& TlsFolder() {
  struct Folder {
    Folder() {
      if (mkdtemp(path.data()) == nullptr || std::system(("cd " + path + R"( && exec >openssl.log 2>&1 &&
new="openssl req -x509 -newkey ed25519 -nodes -addext subjectAltName=DNS:localhost,IP:127.0.0.1" &&
$new -subj /CN=authority -keyout ca-key.pem -out ca-cert.pem &&
$new -CA ca-cert.pem -CAkey ca-key.pem -subj /CN=server -keyout server-key.pem -out server-cert.pem &&
$new -CA ca-cert.pem -CAkey ca-key.pem -subj /CN=client -keyout client-key.pem -out client-cert.pem)")
                                                             .c_str()) != 0) {
        throw std::runtime_error("openssl makes no certificates in " + path);
      }
    }
    ~Folder() { std::filesystem::remove_all(path); }
    std::string path = (std::filesystem::temp_directory_path() / "virtusb-tls-XXXXXX").string();
  };
  static const Folder folder;
  return folder.path;
}

inline std::unique_ptr<ByteStream> ClientStream(bool tls, UniqueFd socket) {
  if (!tls) {
    return std::make_unique<FdStream>(std::move(socket));
  }
  auto stream = std::make_unique<TlsStream>(TlsContext(TlsFolder(), TlsContext::Side::kClient), std::move(socket),
                                            nullptr, "localhost");
  stream->ShakeHands(StopSignal());
  return stream;
}

// Both ends of a connection, which are connected. Only the near one knows the signal.
struct StreamEnds {
  explicit StreamEnds(bool tls, const StopSignal& stop) {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
      throw std::runtime_error("no socket pair");
    }
    nearFd = ends[0];
    auto client = std::async(std::launch::async, [&] { far = ClientStream(tls, UniqueFd(ends[1])); });
    if (tls) {
      auto stream =
          std::make_unique<TlsStream>(TlsContext(TlsFolder(), TlsContext::Side::kServer), UniqueFd(nearFd), &stop);
      stream->ShakeHands(stop);
      near = std::move(stream);
    } else {
      near = std::make_unique<FdStream>(UniqueFd(nearFd), UniqueFd(), &stop);
    }
    client.get();
  }

  int nearFd = -1;
  std::unique_ptr<ByteStream> near;
  std::unique_ptr<ByteStream> far;
};

}  // namespace vel

#endif
