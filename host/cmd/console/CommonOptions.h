// What several commands take.
#ifndef VIRTUSB_HOST_CMD_CONSOLE_COMMON_OPTIONS_H
#define VIRTUSB_HOST_CMD_CONSOLE_COMMON_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>

#include "observe/UsbmonRecord.h"

namespace CLI {
class App;
}  // namespace CLI

namespace vel {

// What is observed of the devices, by serve, attach, export and stream.
struct ObserveOptions {
  std::string capture;  // Empty: none.
  std::uint32_t captureBytes = kCaptureBytes;
  double stats = 0;  // Seconds between two lines; 0: only when SIGUSR1 asks.
};

struct CommonOptions {
  std::string modulePath;
  std::string device;
  std::string cameraSource = "test";  // Of the emulated camera.
  std::string tlsFolder;              // Of certificates; empty: the usual one for tls://, no TLS for serve.
  bool json = false;
  ObserveOptions observe;
};

// DEVICE: one that this machine redirects.
void AddDevice(CLI::App& command, CommonOptions& common);
// DEVICE: the same, or one behind packets.
void AddAnyDevice(CLI::App& command, CommonOptions& common);
void AddJson(CLI::App& command, CommonOptions& common);
// The option --auto FILTER.
void AddFilter(CLI::App& command, std::optional<std::string>& filter, const std::string& about);

}  // namespace vel

#endif
