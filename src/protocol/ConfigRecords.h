// The records of a serialised configuration (reply to "get configuration"). Each is followed by the extra bytes
// whose count it ends with, in the order that docs/protocol.md tells.
#ifndef VEL_PROTOCOL_CONFIG_RECORDS_H
#define VEL_PROTOCOL_CONFIG_RECORDS_H

#include <cstddef>
#include <cstdint>

namespace vel {

struct ConfigRecord {
  std::uint8_t bLength;
  std::uint8_t bDescriptorType;
  std::uint16_t wTotalLength;
  std::uint8_t bNumInterfaces;
  std::uint8_t bConfigurationValue;
  std::uint8_t iConfiguration;
  std::uint8_t bmAttributes;
  std::uint8_t MaxPower;
  std::uint8_t unset[3];  // Receivers ignore them; this writer leaves zeros.
  std::uint32_t extraLength;
};
static_assert(sizeof(ConfigRecord) == 16 && offsetof(ConfigRecord, MaxPower) == 8 &&
              offsetof(ConfigRecord, extraLength) == 12);

struct InterfaceRecord {
  std::uint8_t bLength;
  std::uint8_t bDescriptorType;
  std::uint8_t bInterfaceNumber;
  std::uint8_t bAlternateSetting;
  std::uint8_t bNumEndpoints;
  std::uint8_t bInterfaceClass;
  std::uint8_t bInterfaceSubClass;
  std::uint8_t bInterfaceProtocol;
  std::uint8_t iInterface;
  std::uint8_t unset[3];
  std::uint32_t extraLength;
};
static_assert(sizeof(InterfaceRecord) == 16 && offsetof(InterfaceRecord, iInterface) == 8 &&
              offsetof(InterfaceRecord, extraLength) == 12);

struct EndpointRecord {
  std::uint8_t bLength;
  std::uint8_t bDescriptorType;
  std::uint8_t bEndpointAddress;
  std::uint8_t bmAttributes;
  std::uint16_t wMaxPacketSize;
  std::uint8_t bInterval;
  std::uint8_t bRefresh;
  std::uint8_t bSynchAddress;
  std::uint8_t unset[3];
  std::uint32_t extraLength;
};
static_assert(sizeof(EndpointRecord) == 16 && offsetof(EndpointRecord, bSynchAddress) == 8 &&
              offsetof(EndpointRecord, extraLength) == 12);

}  // namespace vel

#endif
