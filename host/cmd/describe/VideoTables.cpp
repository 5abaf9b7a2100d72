// USB Video Class 1.5, chapter 3.
#include "cmd/describe/FieldTable.h"

namespace vel {
namespace {

using Table = DescriptorTable;

constexpr std::array kTerminalTypes = {
    ValueName{0x0100, "USB Vendor Specific"},
    ValueName{0x0101, "USB Streaming"},
    ValueName{0x0200, "Input Vendor Specific"},
    ValueName{0x0201, "Camera Sensor"},
    ValueName{0x0202, "Sequential Media"},
    ValueName{0x0300, "Output Vendor Specific"},
    ValueName{0x0301, "Generic Display"},
    ValueName{0x0302, "Sequential Media"},
    ValueName{0x0400, "External Vendor Specific"},
    ValueName{0x0401, "Composite Video"},
    ValueName{0x0402, "S-Video"},
    ValueName{0x0403, "Component Video"},
};
constexpr std::array kCameraControls = BitNames({
    "Scanning Mode",
    "Auto-Exposure Mode",
    "Auto-Exposure Priority",
    "Exposure Time (Absolute)",
    "Exposure Time (Relative)",
    "Focus (Absolute)",
    "Focus (Relative)",
    "Iris (Absolute)",
    "Iris (Relative)",
    "Zoom (Absolute)",
    "Zoom (Relative)",
    "PanTilt (Absolute)",
    "PanTilt (Relative)",
    "Roll (Absolute)",
    "Roll (Relative)",
    "Reserved",
    "Reserved",
    "Focus, Auto",
    "Privacy",
});
constexpr std::array kProcessingControls = BitNames({
    "Brightness",
    "Contrast",
    "Hue",
    "Saturation",
    "Sharpness",
    "Gamma",
    "White Balance Temperature",
    "White Balance Component",
    "Backlight Compensation",
    "Gain",
    "Power Line Frequency",
    "Hue, Auto",
    "White Balance Temperature, Auto",
    "White Balance Component, Auto",
    "Digital Multiplier",
    "Digital Multiplier Limit",
    "Analog Video Standard",
    "Analog Video Lock Status",
});
constexpr std::array kVideoStandards = BitNames({
    "None",
    "NTSC - 525/60",
    "PAL - 625/50",
    "SECAM - 625/50",
    "NTSC - 625/50",
    "PAL - 525/60",
});
constexpr std::array kEncodingControls = BitNames({
    "Select Layer",
    "Profile and Toolset",
    "Video Resolution",
    "Minimum Frame Interval",
    "Slice Mode",
    "Rate Control Mode",
    "Average Bit Rate",
    "CPB Size",
    "Peak Bit Rate",
    "Quantization Parameter",
    "Synchronization and Long-Term Reference Frame",
    "Long-Term Buffer",
    "Picture Long-Term Reference",
    "LTR Validation",
    "Level IDC",
    "SEI Message",
    "QP Range",
    "Priority ID",
    "Start or Stop Layer/View",
    "Error Resiliency",
});
constexpr std::array kInterlace = {
    BitsLine{0x01, 0x01, "Interlaced stream or variable: Yes"},
    BitsLine{0x01, 0x00, "Interlaced stream or variable: No"},
    BitsLine{0x02, 0x02, "Fields per frame: 1 fields"},
    BitsLine{0x02, 0x00, "Fields per frame: 2 fields"},
    BitsLine{0x04, 0x04, "Field 1 first: Yes"},
    BitsLine{0x04, 0x00, "Field 1 first: No"},
    BitsLine{0x30, 0x00, "Field pattern: Field 1 only"},
    BitsLine{0x30, 0x10, "Field pattern: Field 2 only"},
    BitsLine{0x30, 0x20, "Field pattern: Regular pattern of fields 1 and 2"},
    BitsLine{0x30, 0x30, "Field pattern: Random pattern of fields 1 and 2"},
};
constexpr std::array kSampleSize = {
    BitsLine{1, 1, "Fixed-size samples: Yes"},
    BitsLine{1, 0, "Fixed-size samples: No"},
};
constexpr std::array kFrameCapabilities = {
    BitsLine{1, 1, "Still image supported"},
    BitsLine{1, 0, "Still image unsupported"},
    BitsLine{2, 2, "Fixed frame-rate"},
};
constexpr std::array kPrimaries = {
    ValueName{0, "(Unspecified)"},     ValueName{1, "(BT.709,sRGB)"}, ValueName{2, "(BT.470-2 (M))"},
    ValueName{3, "(BT.470-2 (B,G))"},  ValueName{4, "(SMPTE 170M)"},  ValueName{5, "(SMPTE 240M)"},
    ValueName{kAnyOther, "(Unknown)"},
};
constexpr std::array kTransfer = {
    ValueName{0, "(Unspecified)"},    ValueName{1, "(BT.709)"},     ValueName{2, "(BT.470-2 (M))"},
    ValueName{3, "(BT.470-2 (B,G))"}, ValueName{4, "(SMPTE 170M)"}, ValueName{5, "(SMPTE 240M)"},
    ValueName{6, "(Linear)"},         ValueName{7, "(sRGB)"},       ValueName{kAnyOther, "(Unknown)"},
};
constexpr std::array kMatrix = {
    ValueName{0, "(Unspecified)"},
    ValueName{1, "(BT.709)"},
    ValueName{2, "(FCC)"},
    ValueName{3, "(BT.470-2 (B,G))"},
    ValueName{4, "(SMPTE 170M (BT.601))"},
    ValueName{5, "(SMPTE 240M)"},
    ValueName{kAnyOther, "(Unknown)"},
};

constexpr Field kTerminalType = {"wTerminalType", 2, As::kHex, 0, Flow::kOnce, kTerminalTypes};

constexpr std::array kControlHeader = {
    Field{"bcdUVC", 2, As::kBcd},
    Field{"wTotalLength", 2, As::kHex},
    Field{"dwClockFrequency", 4, As::kMegahertz, 35},
    Field{.name = "bInCollection", .flow = Flow::kCounts},
    Field{.name = "baInterfaceNr(", .flow = Flow::kEach},
};
constexpr std::array kInputTerminal = {
    Field{"bTerminalID"},
    kTerminalType,
    Field{"bAssocTerminal"},
    Field{"iTerminal", 1, As::kString},
};
constexpr std::array kCameraTerminal = {
    Field{"bTerminalID"},
    kTerminalType,
    Field{"bAssocTerminal"},
    Field{"iTerminal", 1, As::kString},
    Field{"wObjectiveFocalLengthMin", 2, As::kNumber, 31},
    Field{"wObjectiveFocalLengthMax", 2, As::kNumber, 31},
    Field{"wOcularFocalLength", 2, As::kNumber, 31},
    Field{"bControlSize", 1, As::kNumber, 31, Flow::kSizes},
    Field{"bmControls", 0, As::kHex, 31, Flow::kOnce, {}, kCameraControls},
};
constexpr std::array kOutputTerminal = {
    Field{"bTerminalID"},
    kTerminalType,
    Field{"bAssocTerminal"},
    Field{"bSourceID"},
    Field{"iTerminal", 1, As::kString},
};
constexpr std::array kSelectorUnit = {
    Field{"bUnitID"},
    Field{.name = "bNrInPins", .flow = Flow::kCounts},
    Field{.name = "baSource(", .flow = Flow::kEach},
    Field{"iSelector", 1, As::kString},
};
// Without the video standards before UVC 1.1.
constexpr std::array kProcessingUnit = {
    Field{"bUnitID"},
    Field{"bSourceID"},
    Field{"wMaxMultiplier", 2},
    Field{.name = "bControlSize", .flow = Flow::kSizes},
    Field{"bmControls", 0, As::kHex, 0, Flow::kOnce, {}, kProcessingControls},
    Field{"iProcessing", 1, As::kString},
    Field{"bmVideoStandards", 1, As::kHex, 25, Flow::kIfLong, {}, kVideoStandards},
};
constexpr std::array kExtensionUnit = {
    Field{"bUnitID"},
    Field{"guidExtensionCode", 16, As::kGuid, -26},
    Field{"bNumControls"},
    Field{.name = "bNrInPins", .flow = Flow::kCounts},
    Field{.name = "baSourceID(", .flow = Flow::kEach},
    Field{.name = "bControlSize", .flow = Flow::kCounts},
    Field{"bmControls(", 1, As::kHex, 0, Flow::kEach},
    Field{"iExtension", 1, As::kString},
};
constexpr std::array kEncodingUnit = {
    Field{"bUnitID"},
    Field{"bSourceID"},
    Field{"iEncoding", 1, As::kString},
    Field{.name = "bControlSize", .flow = Flow::kSizes},
    Field{"bmControls", 0, As::kHex, 34, Flow::kOnce, {}, kEncodingControls},
    Field{"bmControlsRuntime", 0, As::kHex, 34, Flow::kOnce, {}, kEncodingControls},
};

constexpr std::array kInputHeader = {
    Field{.name = "bNumFormats", .flow = Flow::kCounts},
    Field{"wTotalLength", 2, As::kHex},
    Field{"bEndpointAddress", 1, As::kEndpoint},
    Field{"bmInfo"},
    Field{"bTerminalLink"},
    Field{"bStillCaptureMethod"},
    Field{"bTriggerSupport"},
    Field{"bTriggerUsage"},
    Field{.name = "bControlSize", .flow = Flow::kSizes},
    Field{.name = "bmaControls(", .size = 0, .flow = Flow::kEach},
};
constexpr std::array kOutputHeader = {
    Field{.name = "bNumFormats", .flow = Flow::kCounts}, Field{"wTotalLength", 2, As::kHex},
    Field{"bEndpointAddress", 1, As::kEndpoint},         Field{"bTerminalLink"},
    Field{.name = "bControlSize", .flow = Flow::kSizes}, Field{.name = "bmaControls(", .size = 0, .flow = Flow::kEach},
};
constexpr std::array kStillImage = {
    Field{"bEndpointAddress", 1, As::kEndpoint},
    Field{.name = "bNumImageSizePatterns", .flow = Flow::kCounts},
    Field{.name = "wWidth(", .size = 2, .flow = Flow::kEach},
    Field{.name = "wHeight(", .size = 2, .flow = Flow::kEach},
    Field{.name = "bNumCompressionPatterns", .flow = Flow::kCounts},
    Field{.name = "bCompression(", .flow = Flow::kEach},
};
constexpr Field kGuidFormat = {"guidFormat", 16, As::kGuid, -38};
constexpr Field kInterlaceFlags = {"bmInterlaceFlags", 1, As::kHex, 0, Flow::kOnce, {}, kInterlace};
constexpr std::array kFormatUncompressed = {
    Field{"bFormatIndex"},
    Field{"bNumFrameDescriptors"},
    kGuidFormat,
    Field{"bBitsPerPixel"},
    Field{"bDefaultFrameIndex"},
    Field{"bAspectRatioX"},
    Field{"bAspectRatioY"},
    kInterlaceFlags,
    Field{"bCopyProtect"},
};
constexpr std::array kFormatFrameBased = {
    Field{"bFormatIndex"},
    Field{"bNumFrameDescriptors"},
    kGuidFormat,
    Field{"bBitsPerPixel"},
    Field{"bDefaultFrameIndex"},
    Field{"bAspectRatioX"},
    Field{"bAspectRatioY"},
    kInterlaceFlags,
    Field{"bCopyProtect"},
    Field{"bVariableSize", 1, As::kNumber, 35},
};
constexpr std::array kFormatMjpeg = {
    Field{"bFormatIndex"},
    Field{"bNumFrameDescriptors"},
    Field{.name = "bFlags", .lines = kSampleSize},
    Field{"bDefaultFrameIndex"},
    Field{"bAspectRatioX"},
    Field{"bAspectRatioY"},
    kInterlaceFlags,
    Field{"bCopyProtect"},
};
constexpr Field kCapabilities = {"bmCapabilities", 1, As::kHex, 0, Flow::kOnce, {}, kFrameCapabilities};
constexpr Field kIntervalType = {.name = "bFrameIntervalType", .flow = Flow::kCounts};
constexpr Field kMinInterval = {.name = "dwMinFrameInterval", .size = 4, .flow = Flow::kIfNone};
constexpr Field kMaxInterval = {.name = "dwMaxFrameInterval", .size = 4, .flow = Flow::kIfNone};
constexpr Field kIntervalStep = {.name = "dwFrameIntervalStep", .size = 4, .flow = Flow::kIfNone};
constexpr Field kInterval = {.name = "dwFrameInterval(", .size = 4, .flow = Flow::kEach};
constexpr std::array kFrame = {
    Field{"bFrameIndex"},
    kCapabilities,
    Field{"wWidth", 2},
    Field{"wHeight", 2},
    Field{"dwMinBitRate", 4},
    Field{"dwMaxBitRate", 4},
    Field{"dwMaxVideoFrameBufferSize", 4},
    Field{"dwDefaultFrameInterval", 4},
    kIntervalType,
    kMinInterval,
    kMaxInterval,
    kIntervalStep,
    kInterval,
};
constexpr std::array kFrameFrameBased = {
    Field{"bFrameIndex"},
    kCapabilities,
    Field{"wWidth", 2},
    Field{"wHeight", 2},
    Field{"dwMinBitRate", 4},
    Field{"dwMaxBitRate", 4},
    Field{"dwDefaultFrameInterval", 4},
    kIntervalType,
    Field{"dwBytesPerLine", 4},
    kMinInterval,
    kMaxInterval,
    kIntervalStep,
    kInterval,
};
constexpr std::array kFormatMpeg2Ts = {
    Field{"bFormatIndex"},
    Field{"bDataOffset"},
    Field{"bPacketLength"},
    Field{"bStrideLength"},
    Field{"guidStrideFormat", 16, As::kGuid, -38, Flow::kIfLong},
};
constexpr std::array kFormatStreamBased = {
    Field{"bFormatIndex"},
    kGuidFormat,
    Field{"dwPacketLength", 4},
};
constexpr std::array kColour = {
    Field{.name = "bColorPrimaries", .names = kPrimaries},
    Field{.name = "bTransferCharacteristics", .names = kTransfer},
    Field{.name = "bMatrixCoefficients", .names = kMatrix},
};

constexpr std::string_view kControl = "VideoControl Interface Descriptor";
constexpr std::string_view kStreaming = "VideoStreaming Interface Descriptor";
constexpr std::uint8_t kUnknown = 0xFF;

constexpr std::array kControlTables = {
    Table{0x01, kControl, "(HEADER)", kControlHeader},
    Table{0x02, kControl, "(INPUT_TERMINAL)", kInputTerminal},
    Table{0x03, kControl, "(OUTPUT_TERMINAL)", kOutputTerminal},
    Table{0x04, kControl, "(SELECTOR_UNIT)", kSelectorUnit},
    Table{0x05, kControl, "(PROCESSING_UNIT)", kProcessingUnit},
    Table{0x06, kControl, "(EXTENSION_UNIT)", kExtensionUnit},
    Table{0x07, kControl, "(ENCODING UNIT)", kEncodingUnit},
    Table{.subtype = kUnknown, .heading = kControl, .subtypeName = "(unknown)", .junk = "Invalid desc subtype"},
};
constexpr std::array kStreamingTables = {
    Table{0x01, kStreaming, "(INPUT_HEADER)", kInputHeader, 37, 37},
    Table{0x02, kStreaming, "(OUTPUT_HEADER)", kOutputHeader, 33, 37},
    Table{0x03, kStreaming, "(STILL_IMAGE_FRAME)", kStillImage, 37, 37},
    Table{0x04, kStreaming, "(FORMAT_UNCOMPRESSED)", kFormatUncompressed, 37, 37},
    Table{0x05, kStreaming, "(FRAME_UNCOMPRESSED)", kFrame, 37, 37},
    Table{0x06, kStreaming, "(FORMAT_MJPEG)", kFormatMjpeg, 37, 37},
    Table{0x07, kStreaming, "(FRAME_MJPEG)", kFrame, 37, 37},
    Table{0x0A, kStreaming, "(FORMAT_MPEG2TS)", kFormatMpeg2Ts, 37, 37},
    Table{0x0D, kStreaming, "(COLORFORMAT)", kColour, 37, 37},
    Table{0x10, kStreaming, "(FORMAT_FRAME_BASED)", kFormatFrameBased, 37, 37},
    Table{0x11, kStreaming, "(FRAME_FRAME_BASED)", kFrameFrameBased, 37, 37},
    Table{0x12, kStreaming, "(FORMAT_STREAM_BASED)", kFormatStreamBased, 37, 37},
    Table{.subtype = kUnknown,
          .heading = kStreaming,
          .subtypeName = "(unknown)",
          .headWidth = 37,
          .junk = "Invalid desc subtype"},
};
constexpr Table kCameraTerminalTable = {0x02, kControl, "(INPUT_TERMINAL)", kCameraTerminal};

}  // namespace

std::span<const DescriptorTable> VideoControlTables() {
  return kControlTables;
}

std::span<const DescriptorTable> VideoStreamingTables() {
  return kStreamingTables;
}

const DescriptorTable& CameraTerminalTable() {
  return kCameraTerminalTable;
}

}  // namespace vel
