#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "cmd/Commands.h"
#include "cmd/console/Format.h"
#include "cmd/console/Output.h"
#include "cmd/describe/DescriptorText.h"
#include "cmd/describe/UsbNames.h"
#include "cmd/devices/DeviceChoice.h"
#include "cmd/devices/EmulatedDevices.h"
#include "protocol/IsoTable.h"
#include "remote/ModuleChannel.h"
#include "remote/RemoteDevice.h"

namespace vel {
namespace {

std::string HexStart(std::span<const std::uint8_t> bytes) {
  constexpr std::size_t kShown = 12;
  std::string text;
  for (const std::uint8_t byte : bytes.first(std::min(bytes.size(), kShown))) {
    text += Format("%02x ", unsigned{byte});
  }
  return text + (bytes.size() > kShown ? "..." : "");
}

void PrintTransfer(const char* what, const TransferReply& reply) {
  Print(Format("  %-34s -> %s, %6zu bytes  %s\n", what, TransferStatusName(reply.status).data(), reply.data.size(),
               HexStart(reply.data).c_str()));
}

void PrintIsoTable(const TransferReply& reply) {
  for (std::uint32_t i = 0; i < reply.isoPackets && IsoTableSize(i + 1) <= reply.data.size(); ++i) {
    const IsoPacketRecord record = LoadIsoRecord(reply.data.data(), i);
    Print(Format("      packet %u: offset %4u, %u of %u bytes, %s\n", i, record.offset, record.actual_length,
                 record.length, TransferStatusName(static_cast<int>(record.status)).data()));
  }
}

void RunTransfers(RemoteDevice& remote) {
  constexpr std::array<std::uint8_t, 16> kOut = {'h', 'e', 'l', 'l', 'o', ' ', 'd', 'e',
                                                 'v', 'i', 'c', 'e', ' ', '.', '.', '.'};
  const ControlSetup readString{
      .bmRequestType = 0x80, .bRequest = 6, .wValue = 0x0305, .wIndex = 0x0409, .wLength = 255};
  const RemoteDevice::Result string = remote.ControlTransfer(readString);
  Print(Format("  %-34s -> %d bytes  %s\n", "control IN, string descriptor 5", string.value,
               HexStart(string.data).c_str()));
  PrintTransfer("bulk OUT 0x01, 16 bytes", remote.Transfer(Command::kBulkTransfer, 0x01, kOut.size(), kOut));
  PrintTransfer("bulk IN 0x81, 512 bytes", remote.Transfer(Command::kBulkTransfer, 0x81, 512));
  PrintTransfer("bulk IN 0x81, 1 MiB", remote.Transfer(Command::kBulkTransfer, 0x81, 1U << 20U));
  PrintTransfer("interrupt OUT 0x02, 16 bytes", remote.Transfer(Command::kInterruptTransfer, 0x02, kOut.size(), kOut));
  PrintTransfer("interrupt IN 0x82, 64 bytes", remote.Transfer(Command::kInterruptTransfer, 0x82, 64));
  constexpr std::array<std::uint32_t, 2> kOutPackets = {8, 8};
  PrintTransfer("isochronous OUT 0x03, 2 packets", remote.IsoTransfer(0x03, kOutPackets, kOut));
  constexpr std::array<std::uint32_t, 3> kInPackets = {64, 32, 16};
  const TransferReply isoIn = remote.IsoTransfer(0x83, kInPackets);
  PrintTransfer("isochronous IN 0x83, 3 packets", isoIn);
  PrintIsoTable(isoIn);
}

int RunDemo(const CommonOptions& common) {
  const std::shared_ptr<ModuleLibrary> library = ModuleLibrary::Load(common.modulePath);
  Print(Format("module %s (%s)\n\n", common.modulePath.c_str(), library->Descriptor().name));
  for (const EmulatedDevice& device : EmulatedDevices()) {
    RemoteDevice remote(std::make_unique<ModuleChannel>(library, FindDevice(std::string(device.name))));
    Print(Format("%s: %s", device.name.data(), DescriptorSummary(Enumerate(remote)).c_str()));
    remote.Status(Command::kCloseUsbDev);
  }
  Print("\nOne transfer of each kind, on raw:\n");
  RemoteDevice remote(std::make_unique<ModuleChannel>(library, FindDevice("raw")));
  Enumerate(remote);
  RunTransfers(remote);
  Print(Format("  %-34s -> %d\n", "close", remote.Status(Command::kCloseUsbDev)));
  Print("\nAll descriptors of one device: virtusb describe raw\n");
  return 0;
}

}  // namespace

Subcommand AddDemo(CLI::App& app, CommonOptions& common) {
  CLI::App* const line = app.add_subcommand("demo", "Describe the emulated devices and run transfers of each kind");
  return {line, [&common] { return RunDemo(common); }};
}

}  // namespace vel
