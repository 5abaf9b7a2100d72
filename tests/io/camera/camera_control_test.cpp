// What the camera answers on its control endpoint.
#include <gmock/gmock.h>

#include "Completions.h"
#include "FakeCapture.h"
#include "io/DummyUsbIo/DummyUvcIo.h"

namespace vel {
namespace {

constexpr std::uint8_t kSetCur = 0x01;
constexpr std::uint8_t kGetCur = 0x81;

class CameraControl : public ::testing::Test {
 protected:
  CameraControl() {
    capture.params = {{640, 480, 2, 0}, {1280, 720, 2, 0}};
    EXPECT_EQ(io.OpenUsbDev(), 0);
  }

  // The answer within a block of `size` bytes of 0xEE.
  Bytes Get(std::uint8_t request, std::uint16_t value, std::uint16_t index, std::uint16_t size, int expected) {
    Bytes data(size, 0xEE);
    EXPECT_EQ(io.ControlTransfer(0xA1, request, value, index, data.data(), size, 100), expected);
    return data;
  }
  Bytes Probe() { return Get(kGetCur, 0x0100, 1, 35, 35); }
  void Set(std::uint16_t value, std::uint16_t index, Bytes data) {
    const auto size = static_cast<std::uint16_t>(data.size());
    EXPECT_EQ(io.ControlTransfer(0x21, kSetCur, value, index, data.data(), size, 100), size);
  }

  FakeCapture capture;
  DummyUvcIo io{1, 0x80, 1, 1, "cam"};
  const Bytes initial = {0, 0,    1, 1, 0x40, 0x42, 0x0F, 0, 0, 0, 0, 0, 0, 0, 0x1E, 0, 0, 0,
                         0, 0x60, 9, 0, 0xF4, 0x0B, 0,    0, 0, 0, 0, 0, 0, 0, 0,    0, 0};
};

TEST_F(CameraControl, AnswersEveryGetOfProbeAndCommitAlike) {
  for (int request = kGetCur; request <= 0x87; ++request) {
    for (const std::uint16_t value : std::initializer_list<std::uint16_t>{0x0100, 0x0200, 0x01FF}) {
      EXPECT_EQ(Get(static_cast<std::uint8_t>(request), value, 1, 35, 35), initial);
    }
  }
  EXPECT_EQ(Get(kGetCur, 0x0100, 1, 26, 26), Bytes(initial.begin(), initial.begin() + 26));
  Bytes longer = initial;
  longer.resize(64, 0xEE);
  EXPECT_EQ(Get(kGetCur, 0x0100, 1, 64, 35), longer);
}

TEST_F(CameraControl, LeavesTheDataOfOtherRequestsAsItIs) {
  struct Row {
    std::uint8_t type;
    std::uint8_t request;
    std::uint16_t value;
    std::uint16_t index;
  };
  for (const Row& row :
       {Row{0xA1, kGetCur, 0x0100, 0x0100}, Row{0xA1, kGetCur, 0x0200, 0x0201}, Row{0xA1, kGetCur, 0x0000, 1},
        Row{0xA1, kGetCur, 0x0300, 1}, Row{0xA1, kGetCur, 0x0100, 2}, Row{0x80, 6, 0x0200, 0}, Row{0x80, 6, 0x0100, 0},
        Row{0xC0, 1, 0x0100, 1}, Row{0x21, kSetCur, 0x0100, 0x0101}, Row{0x21, kSetCur, 0x0300, 1}}) {
    Bytes data(40, 0xEE);
    EXPECT_EQ(io.ControlTransfer(row.type, row.request, row.value, row.index, data.data(), 40, 0), 40);
    EXPECT_EQ(data, Bytes(40, 0xEE));
    EXPECT_EQ(Probe(), initial);
  }
}

TEST_F(CameraControl, NegotiatesTheSizeOfTheFrameThatIsNamed) {
  constexpr std::uint32_t kSmall = 640 * 480 * 2;
  constexpr std::uint32_t kLarge = 1280 * 720 * 2;
  struct Row {
    const char* what;
    std::uint8_t format;
    std::uint8_t frame;
    std::uint32_t size;
  };
  for (const std::uint16_t selector : std::initializer_list<std::uint16_t>{0x0100, 0x0200}) {
    for (const Row& row : {Row{"second", 1, 2, kLarge}, Row{"no such frame", 1, 3, kLarge},
                           Row{"frame 255", 1, 255, kLarge}, Row{"no frame", 1, 0, kLarge}, Row{"first", 1, 1, kSmall},
                           Row{"no such format", 2, 2, kSmall}, Row{"all ones", 255, 255, kSmall}}) {
      SCOPED_TRACE(row.what);
      Bytes wanted(35, 0xFF);
      wanted[2] = row.format;
      wanted[3] = row.frame;
      Set(selector, 1, wanted);
      for (std::size_t i = 0; i < 4; ++i) {
        wanted[18 + i] = static_cast<std::uint8_t>(row.size >> (8 * i));
      }
      EXPECT_EQ(Probe(), wanted);
    }
  }
}

TEST_F(CameraControl, TakesShortAndLongSets) {
  Set(0x0100, 1, {9, 9, 1, 2});
  Bytes expected = initial;
  std::copy_n(Bytes{9, 9, 1, 2}.begin(), 4, expected.begin());
  std::copy_n(Bytes{0x00, 0x20, 0x1C, 0x00}.begin(), 4, expected.begin() + 18);
  EXPECT_EQ(Probe(), expected);
  Bytes tooLong = initial;
  tooLong.resize(200, 0x77);
  Set(0x0200, 1, tooLong);
  EXPECT_EQ(Probe(), initial);
  EXPECT_EQ(io.ControlTransfer(0x21, kSetCur, 0x0100, 1, nullptr, 0, 0), 0);
  EXPECT_EQ(Probe(), initial);
}

TEST_F(CameraControl, AnswersStrings) {
  const Bytes product = {0x22, 3,   'O', 0,   's', 0,   'k', 0,   'e', 0,   'l', 0,   'o', 0,   ' ', 0,   'C',
                         0,    'a', 0,   'm', 0,   'e', 0,   'r', 0,   'a', 0,   ' ', 0,   '#', 0,   '0', 0};
  struct Row {
    std::uint8_t index;
    std::uint16_t language;
    std::uint16_t length;
    Bytes answer;
  };
  for (const Row& row : {Row{0, 0, 255, {4, 3, 9, 4}}, Row{0, 0, 3, {4, 3, 9}}, Row{1, 0x0409, 255, product},
                         Row{7, 0, 34, product}, Row{2, 0xFFFF, 2, {0x22, 3}}, Row{1, 0x0409, 0, {}}}) {
    for (const bool overControl : {false, true}) {
      Bytes data(255, 0xEE);
      const int count = overControl ? io.ControlTransfer(0x80, 6, static_cast<std::uint16_t>(0x0300 | row.index),
                                                         row.language, data.data(), row.length, 0)
                                    : io.GetStringDescriptor(row.index, row.language, data.data(), row.length);
      ASSERT_EQ(count, static_cast<int>(row.answer.size()));
      Bytes expected = row.answer;
      expected.resize(255, 0xEE);
      EXPECT_EQ(data, expected);
    }
  }
  EXPECT_EQ(io.GetStringDescriptor(1, 0, nullptr, -1), 0);
}

TEST(CameraControlBeforeOpen, ChangesAndAnswersNothing) {
  FakeCapture capture;
  DummyUvcIo io(1, 0x80, 1, 1, "cam");
  Bytes data(35, 0xEE);
  EXPECT_EQ(io.ControlTransfer(0x21, kSetCur, 0x0100, 1, data.data(), 35, 0), 35);
  ASSERT_EQ(io.OpenUsbDev(), 0);
  EXPECT_EQ(io.ControlTransfer(0xA1, kGetCur, 0x0100, 1, data.data(), 35, 0), 35);
  EXPECT_EQ(data[2], 1);
  for (const auto slot : {&DummyUvcIo::ResetDevice, &DummyUvcIo::AttachKernelDriver, &DummyUvcIo::DetachKernelDriver,
                          &DummyUvcIo::ReleaseAllInterface, &DummyUvcIo::ClaimAllInterface}) {
    EXPECT_EQ((io.*slot)(), 0);
  }
}

}  // namespace
}  // namespace vel
