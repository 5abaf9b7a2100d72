#ifndef VEL_IO_LIBUSB_FLIGHT_H
#define VEL_IO_LIBUSB_FLIGHT_H

#include <cstdint>
#include <map>
#include <utility>

#include "io/LibusbPtr.h"

namespace vel {

struct LibusbFlight;

// Pending transfers by id; among equal ids the newest is last.
using LibusbPending = std::multimap<std::uint64_t, LibusbFlight*>;

// What the submitting thread and the others tell each other about a transfer while
// libusb_submit_transfer has not returned. Lives on the submitter's stack.
struct LibusbDeparture {
  bool landed = false;     // Completed already; the flight may be gone.
  bool cancelled = false;  // To be cancelled as soon as it is submitted.
};

// One libusb transfer on its way. Members other than the transfer and its id belong to
// LibusbHandle's lock.
struct LibusbFlight {
  // Of a synchronous transfer, which has no id of its own.
  static constexpr std::uint64_t kNoId = std::uint64_t{1} << 32U;

  LibusbFlight(LibusbTransferPtr filled, std::uint64_t key) : transfer(std::move(filled)), id(key) {}

  const LibusbTransferPtr transfer;
  const std::uint64_t id;
  LibusbPending::iterator place{};
  LibusbDeparture* departure = nullptr;  // While it is being submitted.
  bool cancelled = false;
  bool landed = false;    // Synchronous transfers only: completed.
  bool disowned = false;  // Synchronous transfers only: nobody waits for it any more.
};

}  // namespace vel

#endif
