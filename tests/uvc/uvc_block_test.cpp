// Raw video-streaming blocks: the tree, the lookup in it, the filter, what becomes of broken ones, and where they lie.
#include <fstream>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>

#include "policys/UVCUtil.h"
#include "support/CapturingLog.h"
#include "support/DescriptorTree.h"
#include "support/VsBlock.h"

namespace vel {
namespace {

using Bytes = VsBlock::Bytes;

constexpr const char* kTwo = "mjpeg 480 720 1080#4 still color yuyv 240x5 still color";

// What is in a tree, in the words of VsBlock.
std::string Text(const UVCInputHeaderPtr& header) {
  std::string text;
  for (int i = 0; header != nullptr && i < header->bNumFormats; ++i) {
    const UVCFormatDesc& format = header->formats[i];
    text += format.bDescriptorSubtype == 4 ? " yuyv" : format.bDescriptorSubtype == 6 ? " mjpeg" : " based";
    for (int j = 0; j < format.bNumFrameDescriptors; ++j) {
      const UVCFrameDesc& frame = format.frames[j];
      text += " " + std::to_string(frame.wHeight);
      text += frame.bFrameIndex == j + 1 ? "" : "#" + std::to_string(frame.bFrameIndex);
      text += frame.bFrameIntervalType == 1 ? "" : "x" + std::to_string(frame.bFrameIntervalType);
    }
    text += format.stillImage == nullptr ? "" : " still";
    text += format.colorMatching == nullptr ? "" : " color";
  }
  return text.empty() ? text : text.substr(1);
}

// From heap blocks of exactly their size, so that a read beyond them is noticed.
UVCInputHeaderPtr Parse(std::span<const std::uint8_t> bytes) {
  const Bytes exact(bytes.begin(), bytes.end());
  return UVCUtil::ParseUVCInputHeader(std::span(exact));
}

TEST(UVCBlock, BecomesATreeOfItsDescriptors) {
  const std::string missing = "Error:no still image desc found";
  const std::pair<std::string, std::vector<std::string>> tests[] = {
      {kTwo, {}},
      {"yuyv 480 yuyv 240 still color", {missing, missing}},
      {"yuyv 480 color yuyv 240 still color", {missing}},
      {"based 480 720 still color mjpeg 240", {missing, missing}},
      {"yuyv 480x6 720 still color", {"Error:error: Unsupport camera interval type[6]"}}};
  for (const auto& [block, messages] : tests) {
    const CapturingLog log;
    EXPECT_EQ(Text(Parse(VsBlock(block).bytes)), block);
    EXPECT_EQ(log.Messages(), messages);
  }
  // A plus reads a field of a packed record; no reference may bind to it.
  const auto header = Parse(VsBlock("based 480x5 720x6 800 still color", 0x83).bytes);
  EXPECT_EQ(header->bEndpointAddress, 0x83);
  const UVCFormatDesc& format = header->formats[0];
  EXPECT_EQ(format.rest[22], 0xFB);
  EXPECT_EQ(+format.frames[0].wWidth, 1480);
  EXPECT_EQ(+format.frames[0].dwFrameInterval[4], 0xF5000000);
  EXPECT_EQ(+format.frames[1].dwFrameInterval[4], 0U) << "the sixth is the one that is set";
  EXPECT_EQ(+format.frames[2].dwFrameInterval[1], 0U) << "beyond its bLength";
  EXPECT_EQ(Bytes(format.stillImage, format.stillImage + 10), Bytes({10, 36, 3, 0, 1, 0x80, 2, 0xE0, 1, 0}));
  EXPECT_EQ(Bytes(format.colorMatching, format.colorMatching + 6), Bytes({6, 36, 13, 1, 1, 4}));
}

TEST(UVCBlock, BrokenLengthsAndCountsEndIt) {
  struct Case {
    const char* name;
    std::size_t descriptor, byte;
    std::uint8_t value;
    std::string tree;
    std::size_t errors;
  };
  const std::string first = "mjpeg 480 720 1080#4 still color";
  for (const Case& test : {
           Case{"header beyond the block", 0, 0, 255, "", 1},
           {"header without a count", 0, 0, 3, "", 0},
           {"more formats than there are", 0, 3, 255, kTwo, 1},
           {"still image as the fourth frame", 1, 4, 4, "mjpeg 480 720 1080#4 480#0x0 color yuyv 240x5 still color", 0},
           {"frame of length 1", 3, 0, 1, "mjpeg 480", 1},
           {"still image of no length", 5, 0, 0, "mjpeg 480 720 1080#4", 1},
           {"more frames than there are", 7, 4, 255, first + " yuyv 240x5 480#0x0 0#1x0", 1},
           {"last descriptor beyond the block", 9 + 1, 0, 7, first + " yuyv 240x5 still", 1},
       }) {
    SCOPED_TRACE(test.name);
    VsBlock block(kTwo);
    block.bytes[block.starts[test.descriptor] + test.byte] = test.value;
    const CapturingLog log;
    EXPECT_EQ(Text(Parse(block.bytes)), test.tree);
    EXPECT_EQ(log.Count("descriptors are broken"), test.errors);
  }
}

TEST(UVCFrameLookup, GoesByPositionAndFallsBackToTheLastFormat) {
  struct Case {
    std::uint8_t format, frame;
    int height;
    std::vector<std::string> errors;
  };
  const auto header = Parse(VsBlock(kTwo).bytes);
  for (const Case& test : {Case{1, 1, 480, {}},
                           {1, 3, 1080, {}},  // Its bFrameIndex is 4.
                           {1, 4, 0, {"Error:Invalid frameIndex [4], format index[1]"}},
                           {1, 0, 0, {"Error:Invalid frameIndex [0], format index[1]"}},
                           {0, 1, 240, {}},
                           {3, 1, 0, {"Error:Invalid formatIndex[3]"}}}) {
    const CapturingLog log(OSKELO_LOG_ERROR);
    const UVCFrameDesc* frame = UVCUtil::GetFrameTypeDesc(header.get(), test.format, test.frame);
    EXPECT_EQ(frame == nullptr ? 0 : frame->wHeight, test.height) << int{test.format} << '/' << int{test.frame};
    EXPECT_EQ(log.Messages(), test.errors);
  }
}

TEST(UVCFilter, TakesTallFramesOut) {
  struct Case {
    std::uint32_t limit;
    std::string before, after;
  };
  const std::string tall = "mjpeg 480 720 1080 2160 still color";
  for (const Case& test : {Case{1080, tall, "mjpeg 480 720 1080 still color"},
                           {479, tall, "mjpeg still color"},
                           {1079, kTwo, "mjpeg 480 720 still color yuyv 240x5 still color"},
                           {600, "yuyv 480 1080 600 still color mjpeg 480 still color",
                            "yuyv 480 600#3 still color mjpeg 480 still color"},
                           {480, "yuyv 1 2 3 4 5 6 7 8 481 9 10", "yuyv 1 2 3 4 5 6 7 8 9#10 10#11"},
                           {480, "yuyv 481x9 480x40 still color", "yuyv 480x40#2 still color"}}) {
    SCOPED_TRACE(test.before);
    const Bytes after = VsBlock(test.after).bytes;
    VsBlock bounded(test.before);
    VsBlock trusted(test.before);
    trusted.bytes.insert(trusted.bytes.end(), {6, 0x24, 13, 1, 1, 4});  // Behind it, of something else.
    ASSERT_EQ(UVCUtil::FilterFrameDescriptors(std::span(bounded.bytes), test.limit), after.size());
    ASSERT_EQ(UVCUtil::FilterFrameDescriptors(trusted.bytes.data(), test.limit), after.size());
    bounded.bytes.resize(after.size());
    trusted.bytes.resize(after.size());
    EXPECT_EQ(bounded.bytes, after);
    EXPECT_EQ(trusted.bytes, after);
  }
  Bytes header = {3, 0x24, 1, 77};  // Without its last fields, and what is behind it.
  EXPECT_EQ(UVCUtil::FilterFrameDescriptors(std::span(header), 480), 3U);
  EXPECT_EQ(header[3], 77);
}

TEST(UVCUtil, HelpsClientsWithTheirDiagnosis) {
  const CapturingLog log;
  for (const std::uint8_t request : Bytes{0x00, 0x01, 0x81, 0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x02}) {
    UVCUtil::DumpRequest(request);
  }
  UVCUtil::DumpCtrlSelector(0x14FF);
  EXPECT_THAT(log.Messages(), testing::ElementsAre("Error:[UVC_RC_UNDEFINED]", "Error:[UVC_SET_CUR]",
                                                   "Error:[UVC_GET_CUR]", "Error:[UVC_GET_MIN]", "Error:[UVC_GET_MAX]",
                                                   "Error:[UVC_GET_RES]", "Error:[UVC_GET_LEN]", "Error:[UVC_GET_INFO]",
                                                   "Error:[UVC_GET_DEF]", "Error:[Invalid reqeust]"));
  UVCUtil::DumpCtrlSelector(0x1500);
  EXPECT_EQ(log.Count("Error:[Invalid reqeust]"), 2U);
  const std::string path = testing::TempDir() + "picture";
  const Bytes picture = {1, 2, 3};
  UVCUtil::SavePicture(picture.data(), 3, path.c_str());
  std::ifstream file(path, std::ios::binary);
  EXPECT_EQ(Bytes(std::istreambuf_iterator<char>(file), {}), picture);
  EXPECT_EQ(log.Count("fail"), 0U);
  UVCUtil::SavePicture(picture.data(), 3, "/nowhere/picture");
  EXPECT_EQ(log.Count("Error:open /nowhere/picture, fail"), 1U);
  UVCUtil::SavePicture(nullptr, 3, path.c_str());
  UVCUtil::ParseUVCFrameHeader(picture.data(), 3);
  UVCUtil::ParseUVCFrameHeader(Bytes(12).data(), 12);
  EXPECT_EQ(log.Count("Error:"), 13U);
}

TEST(UVCConfig, IsSearchedForItsStreamingInterfaceAndItsBlockAlsoBehindTheEndpoint) {
  const Bytes block = VsBlock("yuyv 480 still color").bytes;
  const Bytes header = VsBlock("", 0x83).bytes;
  DescriptorTree tree;
  const auto found = [&tree] {
    const auto parsed = UVCUtil::ParseUVCInputHeader(&tree.config);
    return std::tuple(UVCUtil::GetVSInterfaceFromConfig(&tree.config), UVCUtil::GetVSEndpointFromConfig(&tree.config),
                      UVCUtil::IsStreamOverBulk(&tree.config), parsed == nullptr ? -1 : parsed->bEndpointAddress);
  };
  DescriptorTree::SetExtra(tree.settings[0], block);
  EXPECT_EQ(found(), std::tuple(UVCUtil::kNoInterface, UVCUtil::kNoEndpoint, true, -1)) << "of another class";
  tree.BeCamera(block);
  EXPECT_EQ(found(), std::tuple(0, 0x81U, false, 0x81));
  tree.interface.num_altsetting = 1;
  EXPECT_EQ(found(), std::tuple(0, 0x81U, true, 0x81));
  tree.interface.altsetting = &tree.settings[1];
  DescriptorTree::SetExtra(tree.endpoint, header);
  tree.endpoint.extra_length = 21;
  EXPECT_EQ(found(), std::tuple(0, 0x83U, true, 0x83));
}

}  // namespace
}  // namespace vel
