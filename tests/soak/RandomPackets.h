#ifndef VIRTUSB_TESTS_SOAK_RANDOM_PACKETS_H
#define VIRTUSB_TESTS_SOAK_RANDOM_PACKETS_H

#include <cstdint>
#include <memory>

#include "protocol/VelPacket.h"
#include "soak/Soak.h"

namespace vel::test {

// A request of any code, or of a known one, whose fields are mostly such that it goes far, and sometimes anything.
std::unique_ptr<VelPacket> RandomPacket(SoakRun& run);

// Whether a reply is due to it.
bool IsAnswered(const VelPacket& packet);

}  // namespace vel::test

#endif
