// Which backend a device gets.
#include <memory>
#include <typeinfo>

#include <gmock/gmock.h>

#include "io/DummyUsbIo/DummyUsbCdcCH340.h"
#include "io/DummyUsbIo/DummyUsbCdcCH9102.h"
#include "io/DummyUsbIo/DummyUsbKeyboard.h"
#include "io/DummyUsbIo/DummyUsbPrinter.h"
#include "io/DummyUsbIo/DummyUsbRawIo.h"
#include "io/DummyUsbIo/DummyUsbWinusb.h"
#include "io/DummyUsbIo/DummyUvcIo.h"
#include "io/IVirtUsbIoFactory.h"
#include "io/LibusbIo.h"
#include "support/CapturingLog.h"
#include "support/RecordingDeviceBase.h"

namespace vel {
namespace {

using ::testing::ElementsAre;

TEST(Factory, ChoosesByTypeVendorAndProduct) {
  struct Row {
    std::uint32_t type;
    std::uint16_t vendorId;
    std::uint16_t productId;
    const std::type_info& backend;
    std::uint8_t address = 0x85;
  };
  for (const Row& row :
       {Row{1, 0xFF00, 0xFF01, typeid(DummyUsbKeyboard)}, Row{1, 0xFF00, 0xFF02, typeid(DummyUsbPrinter)},
        Row{1, 0xFF00, 0xFF03, typeid(DummyUsbCdcCH340)}, Row{1, 0xFF00, 0xFF04, typeid(DummyUsbCdcCH9102)},
        Row{1, 0xFF00, 0xFF05, typeid(DummyUsbWinusb)}, Row{1, 0xFF00, 0xFF06, typeid(DummyUsbRawIo)},
        Row{1, 0xFF00, 0xFF00, typeid(DummyUsbRawIo)}, Row{1, 0xFF01, 0xFF01, typeid(DummyUsbRawIo)},
        Row{1, 0x1234, 0x0001, typeid(DummyUsbRawIo)}, Row{2, 0xFF00, 0xFF01, typeid(LibusbIo)},
        Row{1, 0xFF00, 0xFFFE, typeid(DummyUvcIo)}, Row{1, 0x1234, 0xFFFE, typeid(DummyUvcIo)},
        Row{1, 0xFF00, 0xFF01, typeid(DummyUvcIo), 0x80}, Row{1, 1, 2, typeid(DummyUvcIo), 0x81},
        Row{1, 0xFF00, 0xFF01, typeid(DummyUsbKeyboard), 0x82}}) {
    SCOPED_TRACE(row.productId);
    RecordingDeviceBase device({.address = row.address, .vendorId = row.vendorId, .productId = row.productId});
    const std::unique_ptr<IUsbIo> io(CreateUsbIo(row.type, &device));
    ASSERT_NE(io, nullptr);
    const IUsbIo& backend = *io;
    EXPECT_EQ(typeid(backend), row.backend);
    EXPECT_EQ(io->GetIoType(), row.type);
  }
}

TEST(Factory, LogsTheDeviceAndKnowsNoOtherType) {
  RecordingDeviceBase device({.bus = 3, .address = 0x85, .args = "source=a\nb"});
  for (const std::uint32_t type : {0U, 3U, 0xFFFFFFFFU}) {
    const CapturingLog log;
    EXPECT_EQ(CreateUsbIo(type, &device), nullptr);
    const std::string number = std::to_string(static_cast<std::int32_t>(type));
    EXPECT_THAT(log.Messages("CreateUsbIo"),
                ElementsAre("Debug:UsbIo type[" + number +
                                "], bus[0x3], addr[0x85], vid[0xff00], pid[0xff06], args[source=a\\x0ab]",
                            "Error:Unknow USB IO type[" + number + "]!"));
  }
}

}  // namespace
}  // namespace vel
