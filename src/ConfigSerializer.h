#ifndef VEL_CONFIG_SERIALIZER_H
#define VEL_CONFIG_SERIALIZER_H

#include <memory>

#include <libusb-1.0/libusb.h>

#include "base/HeapBlock.h"
#include "protocol/ConfigRecords.h"
#include "protocol/VelPacket.h"

namespace vel {

// New records for the serialised configuration, owned by the caller; null for a null argument or without memory.
std::unique_ptr<EndpointRecord, FreeDeleter> get_vep_desc(const libusb_endpoint_descriptor* endpoint);
std::unique_ptr<InterfaceRecord, FreeDeleter> get_vif_desc(const libusb_interface_descriptor* setting);
std::unique_ptr<ConfigRecord, FreeDeleter> get_vconfig_desc(const libusb_config_descriptor* config);

// Appends the whole configuration to a reply. Throws std::bad_alloc where a record cannot be had; a reply that cannot
// grow is one whose length counts more than its bytes.
void AppendConfig(VelPacket& reply, const libusb_config_descriptor& config);

}  // namespace vel

#endif
