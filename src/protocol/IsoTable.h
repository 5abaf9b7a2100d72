#ifndef VEL_PROTOCOL_ISO_TABLE_H
#define VEL_PROTOCOL_ISO_TABLE_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vel {

// One packet in the table at the head of isochronous data. Little-endian on the wire.
struct IsoPacketRecord {
  std::uint32_t offset;  // Of the packet's payload, from the start of the data, table included.
  std::uint32_t length;
  std::uint32_t actual_length;
  std::uint32_t status;  // libusb_transfer_status
};
static_assert(sizeof(IsoPacketRecord) == 16);
static_assert(std::endian::native == std::endian::little, "tables and records are copied as they lie");

// The records of a table that lies at `data`, read and written by copy: the data has no alignment. The caller
// vouches for index < count and count * 16 bytes.
inline IsoPacketRecord LoadIsoRecord(const void* data, std::size_t index) {
  IsoPacketRecord record{};
  std::memcpy(&record, static_cast<const std::uint8_t*>(data) + index * sizeof record, sizeof record);
  return record;
}

inline void StoreIsoRecord(void* data, std::size_t index, const IsoPacketRecord& record) {
  std::memcpy(static_cast<std::uint8_t*>(data) + index * sizeof record, &record, sizeof record);
}

constexpr std::uint64_t IsoTableSize(std::uint32_t packets) {
  return std::uint64_t{packets} * sizeof(IsoPacketRecord);
}

}  // namespace vel

#endif
