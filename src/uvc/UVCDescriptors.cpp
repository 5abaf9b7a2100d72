#include "uvc/UVCDescriptors.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <span>

#include "uvc/UVCBlockLayout.h"

namespace vel {
namespace {

// Zeroed, and never null for want of elements.
template <class T>
T* NewRecords(std::size_t count) {
  return static_cast<T*>(std::calloc(std::max<std::size_t>(count, 1), sizeof(T)));
}

void CopyHead(void* record, std::size_t room, std::span<const std::uint8_t> descriptor) {
  std::memcpy(record, descriptor.data(), std::min(room, descriptor.size()));
}

// False when there is no memory. A descriptor that is not there stays null.
bool CopyWhole(std::uint8_t*& copy, std::span<const std::uint8_t> descriptor) {
  if (descriptor.empty()) {
    return true;
  }
  copy = NewRecords<std::uint8_t>(descriptor.size());
  if (copy == nullptr) {
    return false;
  }
  CopyHead(copy, descriptor.size(), descriptor);
  return true;
}

bool FillFormat(UVCFormatDesc& record, const UVCFormatLayout& format) {
  CopyHead(&record, offsetof(UVCFormatDesc, frames), format.descriptor);
  record.bNumFrameDescriptors = static_cast<std::uint8_t>(format.frames.size());
  record.frames = NewRecords<UVCFrameDesc>(format.frames.size());
  if (record.frames == nullptr) {
    return false;
  }
  for (std::size_t i = 0; i < format.frames.size(); ++i) {
    CopyHead(&record.frames[i], sizeof(UVCFrameDesc), format.frames[i]);
  }
  std::uint8_t* still = nullptr;
  std::uint8_t* color = nullptr;
  const bool copied = CopyWhole(still, format.stillImage) && CopyWhole(color, format.colorMatching);
  record.stillImage = still;
  record.colorMatching = color;
  return copied;
}

}  // namespace

void UVCInputHeaderDeleter::operator()(UVCInputHeader* header) const {
  for (std::size_t i = 0; header->formats != nullptr && i < header->bNumFormats; ++i) {
    std::free(header->formats[i].frames);
    std::free(header->formats[i].stillImage);
    std::free(header->formats[i].colorMatching);
  }
  std::free(header->formats);
  std::free(header);
}

UVCInputHeaderPtr MakeInputHeader(const UVCBlockLayout& layout) {
  UVCInputHeaderPtr header(layout.inputHeader.empty() ? nullptr : NewRecords<UVCInputHeader>(1));
  if (header == nullptr) {
    return nullptr;
  }
  CopyHead(header.get(), offsetof(UVCInputHeader, formats), layout.inputHeader);
  header->bNumFormats = static_cast<std::uint8_t>(layout.formats.size());
  header->formats = NewRecords<UVCFormatDesc>(layout.formats.size());
  if (header->formats == nullptr) {
    return nullptr;
  }
  for (std::size_t i = 0; i < layout.formats.size(); ++i) {
    if (!FillFormat(header->formats[i], layout.formats[i])) {
      return nullptr;
    }
  }
  return header;
}

}  // namespace vel
