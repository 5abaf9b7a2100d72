// What a guest's program gets from the source/sink gadget of the kernel at BUS:ADDRESS, by libusb: the round trip of a
// control request and of a bulk transfer, and the throughput of 16 bulk transfers in flight.
#include <libusb-1.0/libusb.h>

#include <array>
#include <vector>

#include "GuestBench.h"
#include "support/GuestDevice.h"

namespace {

using vel::bench::Clock;
using vel::bench::kInFlight;
using vel::bench::kLarge;
using vel::bench::kThroughputTime;
using vel::bench::Require;
using vel::bench::RoundTrip;
using vel::bench::Throughput;
constexpr unsigned kTimeoutMs = 20000;
constexpr int kSmall = 512;

struct Stream {
  Clock::time_point end;
  std::uint64_t bytes = 0;
  int left = 0;
};

void LIBUSB_CALL Continue(libusb_transfer* transfer) {
  auto* const stream = static_cast<Stream*>(transfer->user_data);
  Require(transfer->status == LIBUSB_TRANSFER_COMPLETED && transfer->actual_length == kLarge, "a transfer failed");
  stream->bytes += kLarge;
  if (Clock::now() >= stream->end || libusb_submit_transfer(transfer) != 0) {
    --stream->left;
  }
}

Throughput Pump(const vel::GuestDevice& device, std::uint8_t endpoint) {
  std::vector<std::vector<std::uint8_t>> buffers(kInFlight, std::vector<std::uint8_t>(kLarge));
  std::vector<vel::LibusbTransferPtr> transfers;
  const vel::bench::Stopwatch watch;
  Stream stream{watch.begin + kThroughputTime, 0, kInFlight};
  for (auto& buffer : buffers) {
    libusb_transfer* const transfer = transfers.emplace_back(libusb_alloc_transfer(0)).get();
    libusb_fill_bulk_transfer(transfer, device.Handle(), endpoint, buffer.data(), kLarge, Continue, &stream,
                              kTimeoutMs);
    Require(libusb_submit_transfer(transfer) == 0, "a submission failed");
  }
  device.Await(stream.left);
  return watch.Over(stream.bytes);
}

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): without memory it ends, as it should.
int main(int argc, char** argv) {
  Require(argc == 3, "usage: vm_bench LABEL BUS:ADDRESS");
  const vel::GuestDevice device(argv[2]);
  libusb_device_handle* const handle = device.Handle();
  libusb_config_descriptor* config = nullptr;
  Require(libusb_get_active_config_descriptor(libusb_get_device(handle), &config) == 0, "no configuration");
  std::array<std::uint8_t, 2> endpoints{};  // OUT, IN
  const libusb_interface_descriptor& setting = config->interface[0].altsetting[0];
  for (int i = 0; i < setting.bNumEndpoints; ++i) {
    const std::uint8_t address = setting.endpoint[i].bEndpointAddress;
    endpoints[address >> 7U] = address;
  }
  libusb_free_config_descriptor(config);

  std::array<std::uint8_t, kSmall> small{};
  // The status of the interface: nothing on the way knows it.
  const double control = RoundTrip([&] {
    return libusb_control_transfer(handle, 0x81, LIBUSB_REQUEST_GET_STATUS, 0, 0, small.data(), 2, kTimeoutMs) == 2;
  });
  // OUT: less than a packet cannot be asked of a source.
  const double bulk = RoundTrip([&] {
    int moved = 0;
    return libusb_bulk_transfer(handle, endpoints[0], small.data(), kSmall, &moved, kTimeoutMs) == 0 && moved == kSmall;
  });
  const Throughput in = Pump(device, endpoints[1]);
  const Throughput out = Pump(device, endpoints[0]);
  vel::bench::PrintWay(argv[1], control, bulk, in, out);
  return 0;
}
