// The texts and the small tools of UVCUtil.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <unistd.h>

#include "policys/UVCUtil.h"
#include "support/CapturingLog.h"

namespace vel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(UVCLog, StreamCtrlFieldByField) {
  UVCStreamCtrl ctrl{};
  // Byte i of the block is i + 1, up to the interface number.
  for (std::size_t i = 0; i < sizeof ctrl; ++i) {
    reinterpret_cast<unsigned char*>(&ctrl)[i] = static_cast<unsigned char>(i + 1);
  }
  const CapturingLog log;
  UVCUtil::PrintStreamCtrl(ctrl);
  EXPECT_THAT(
      log.Messages(),
      ElementsAre("Debug:[UVC CTRL] ", "Debug:[UVC CTRL] bmHint: 0201", "Debug:[UVC CTRL] bFormatIndex: 3",
                  "Debug:[UVC CTRL] bFrameIndex: 4", "Debug:[UVC CTRL] dwFrameInterval: 134678021",
                  "Debug:[UVC CTRL] wKeyFrameRate: 2569", "Debug:[UVC CTRL] wPFrameRate: 3083",
                  "Debug:[UVC CTRL] wCompQuality: 3597", "Debug:[UVC CTRL] wCompWindowSize: 4111",
                  "Debug:[UVC CTRL] wDelay: 4625", "Debug:[UVC CTRL] dwMaxVideoFrameSize: 370480147",
                  "Debug:[UVC CTRL] dwMaxPayloadTransferSize: 437852183", "Debug:[UVC CTRL] bInterfaceNumber: 35"));
}

TEST(UVCLog, ClassRequestsByName) {
  const CapturingLog log(OSKELO_LOG_ERROR);
  for (const int request : {0x00, 0x01, 0x81, 0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x02, 0x80, 0x88, 0xFF}) {
    UVCUtil::DumpRequest(static_cast<std::uint8_t>(request));
  }
  EXPECT_THAT(log.Messages(),
              ElementsAre("Error:[UVC_RC_UNDEFINED]", "Error:[UVC_SET_CUR]", "Error:[UVC_GET_CUR]",
                          "Error:[UVC_GET_MIN]", "Error:[UVC_GET_MAX]", "Error:[UVC_GET_RES]", "Error:[UVC_GET_LEN]",
                          "Error:[UVC_GET_INFO]", "Error:[UVC_GET_DEF]", "Error:[Invalid reqeust]",
                          "Error:[Invalid reqeust]", "Error:[Invalid reqeust]", "Error:[Invalid reqeust]"));
}

TEST(UVCLog, ControlSelectorsAboveTwenty) {
  const CapturingLog log;
  for (const int wValue : {0x0000, 0x00FF, 0x14FF}) {
    UVCUtil::DumpCtrlSelector(static_cast<std::uint16_t>(wValue));
  }
  EXPECT_THAT(log.Messages(), IsEmpty());
  UVCUtil::DumpCtrlSelector(0x1500);
  UVCUtil::DumpCtrlSelector(0xFF00);
  EXPECT_THAT(log.Messages(), ElementsAre("Error:[Invalid reqeust]", "Error:[Invalid reqeust]"));
}

TEST(UVCLog, PayloadHeaderByBytes) {
  const std::vector<std::uint8_t> header = {0x0C, 0x8D, 0, 1, 2, 0xFF, 0x10, 7, 8, 9, 10, 11};
  const CapturingLog log;
  UVCUtil::ParseUVCFrameHeader(header.data(), 12);
  UVCUtil::ParseUVCFrameHeader(header.data(), 11);
  UVCUtil::ParseUVCFrameHeader(header.data(), -1);
  EXPECT_THAT(log.Messages(), ElementsAre("Debug:c 8d 0 1 2 ff 10 7",
                                          "Error:Invalid header len:[11]: ", "Error:Invalid header len:[-1]: "));
}

TEST(UVCTools, PictureReplacesTheOneBefore) {
  EXPECT_STREQ(UVCUtil::kPicturePath, "/tmp/test.pic");
  const auto folder = std::filesystem::temp_directory_path() / ("uvc_test." + std::to_string(getpid()));
  std::filesystem::create_directory(folder);
  const std::string path = folder / "picture";
  const auto content = [&path] {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
  };
  const std::vector<std::uint8_t> bytes = {'a', 0, '\r', '\n', 'b'};
  UVCUtil::SavePicture(bytes.data(), 5, path.c_str());
  EXPECT_EQ(content(), std::string("a\0\r\nb", 5));
  UVCUtil::SavePicture(bytes.data(), 1, path.c_str());
  EXPECT_EQ(content(), "a");
  const CapturingLog log;
  UVCUtil::SavePicture(bytes.data(), 1, folder.c_str());
  EXPECT_THAT(log.Messages(), ElementsAre("Error:open " + folder.string() + ", fail"));
  std::filesystem::remove_all(folder);
}

TEST(UVCTools, TimeIsTheWallClockInMilliseconds) {
  const auto clock = [] {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
  };
  const std::uint64_t before = clock();
  const std::uint64_t time = UVCUtil::GetTimeMs();
  EXPECT_LE(before, time);
  EXPECT_LE(time, clock());
}

TEST(UVCTools, FrameSizesThatAStreamCanHave) {
  constexpr std::uint32_t kMiB = 1U << 20U;
  for (const auto& [size, usable] :
       {std::pair{0U, false}, {1U, true}, {64 * kMiB, true}, {64 * kMiB + 1, false}, {0xFFFFFFFFU, false}}) {
    UVCStreamCtrl ctrl{};
    ctrl.dwMaxVideoFrameSize = size;
    EXPECT_EQ(IsFrameSizeUsable(ctrl), usable) << size;
  }
}

}  // namespace
}  // namespace vel
