#ifndef VEL_POLICYS_UVC_UTIL_H
#define VEL_POLICYS_UVC_UTIL_H

#include <cstdint>
#include <span>

#include <libusb-1.0/libusb.h>

#include "uvc/UVCDescriptors.h"
#include "uvc/UVCStreamCtrl.h"

namespace vel {

// The toolbox of the camera classes for the wire structures of the USB Video Class 1.1: finding and parsing the
// descriptors of the video-streaming (VS) interface, and log lines for diagnosis.
//
// Without state; every operation is a function of its arguments and may be called from any thread. A VS interface is
// one whose first alternate setting has class 14 and subclass 2. Configurations are libusb's; null ones, and null
// arrays in them, count as empty. Operations on a raw block that take a pointer trust the lengths and counts in it, as
// those of a device's own configuration; the others read nothing outside the span that they are given.
//
// "For clients" marks given operations that the module itself does not call.
class UVCUtil {
 public:
  static constexpr std::uint8_t kNoInterface = 0xFF;
  static constexpr std::uint32_t kNoEndpoint = 0xFFFFFFFF;
  static constexpr std::uint32_t kMaxFrameHeight = 1080;  // Pixels, where the caller has no limit.
  static constexpr const char* kPicturePath = "/tmp/test.pic";

  UVCUtil() = default;
  UVCUtil(const UVCUtil&) = default;
  UVCUtil& operator=(const UVCUtil&) = default;
  virtual ~UVCUtil() = default;

  // Position of the first VS interface in the array of interfaces (not its bInterfaceNumber), or kNoInterface.
  static std::uint8_t GetVSInterfaceFromConfig(const libusb_config_descriptor* config);

  // Endpoint address in the VS input header, or kNoEndpoint. Of several VS interfaces the last one that has an input
  // header wins: devices have one.
  static std::uint32_t GetVSEndpointFromConfig(const libusb_config_descriptor* config);

  // The first VS interface whose descriptors can be read, inside the configuration, with its tree; both null when there
  // is none.
  struct StreamingInterface {
    const libusb_interface* interface = nullptr;
    UVCInputHeaderPtr header;
  };
  static StreamingInterface FindStreamingInterface(const libusb_config_descriptor* config);

  // The tree of the first VS interface with an input header, from the extra bytes of its first alternate setting or,
  // where that has none, of that setting's first endpoint. Null when there is none.
  static UVCInputHeaderPtr ParseUVCInputHeader(const libusb_config_descriptor* config);
  // The tree of a raw VS block. Where the block is broken the tree holds the whole descriptors before that place, and
  // its counts are theirs. Null when there is no whole input header.
  static UVCInputHeaderPtr ParseUVCInputHeader(std::span<const std::uint8_t> block);
  static UVCInputHeaderPtr ParseUVCInputHeader(const std::uint8_t* block);

  // For clients: frees a tree that was released from its pointer. Null is allowed.
  static void FreeInputHeader(UVCInputHeader* header);

  // The frame that a probe or commit control names, inside the tree; null when it names none. Frames are chosen by
  // position, which devices number 1 to n. An index that no format has, but that is not above their count, means the
  // last format.
  static const UVCFrameDesc* GetFrameTypeDesc(const UVCInputHeader* header, std::uint8_t formatIndex,
                                              std::uint8_t frameIndex);

  // True unless a VS interface has more than one alternate setting, also without any VS interface.
  static bool IsStreamOverBulk(const libusb_config_descriptor* config);

  // Rewrites a raw VS block in place without the frames taller than `maxHeight` pixels (FilterUVCBlock) and returns its
  // new length. Enclosing lengths, and the bytes behind the new end, are the caller's to see to.
  static std::uint32_t FilterFrameDescriptors(std::span<std::uint8_t> block, std::uint32_t maxHeight = kMaxFrameHeight);
  static std::uint32_t FilterFrameDescriptors(std::uint8_t* block, std::uint32_t maxHeight = kMaxFrameHeight);

  // Logs the fields up to dwMaxPayloadTransferSize and the interface number, a Debug line each.
  static void PrintStreamCtrl(const UVCStreamCtrl& ctrl);

  // For clients: logs the name of a class request (UVC 1.1, table A-8), at Error so that release logs show it.
  static void DumpRequest(std::uint8_t bRequest);

  // For clients: logs an Error when the control selector in the high byte is above any that there is.
  static void DumpCtrlSelector(std::uint16_t wValue);

  // For clients: logs the first bytes of a payload header; an Error when `length` is below the header's 12 bytes.
  static void ParseUVCFrameHeader(const std::uint8_t* packet, int length);

  // For clients, a debugging aid: writes the bytes to a file, which is replaced.
  static void SavePicture(const std::uint8_t* data, std::uint32_t length, const char* path = kPicturePath);

  // The wall clock in milliseconds since 1970; steps of one.
  static std::uint64_t GetTimeMs();
};

}  // namespace vel

#endif
