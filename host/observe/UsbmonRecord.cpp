#include "observe/UsbmonRecord.h"

#include <algorithm>
#include <cstring>

#include "protocol/Requests.h"

namespace vel {
namespace {

// pcapng (draft-ietf-opsawg-pcapng), sections 4.1 to 4.4 and 4.6.
enum BlockType : std::uint32_t {
  kSectionHeader = 0x0A0D0D0A,
  kInterfaceDescription = 1,
  kInterfaceStatistics = 5,
  kEnhancedPacket = 6,
};
enum OptionCode : std::uint16_t {
  kEnd = 0,
  kInterfaceName = 2,  // Of an interface description.
  kApplication = 4,    // Of a section header.
  kReceived = 4,       // Of interface statistics.
  kDropped = 5,
};
constexpr std::uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr std::uint16_t kLinkType = 220;  // LINKTYPE_USB_LINUX_MMAPPED

struct EnhancedPacket {
  std::uint32_t type;
  std::uint32_t total;
  std::uint32_t interface;
  std::uint32_t timeHigh;
  std::uint32_t timeLow;
  std::uint32_t captured;
  std::uint32_t original;
};
static_assert(sizeof(EnhancedPacket) == 28);
constexpr std::size_t kBlockEnd = sizeof(std::uint32_t);  // The total once more.

constexpr std::uint32_t kDirectionInFlag = 0x200;  // Of a URB's flags.
constexpr std::uint8_t kNoSetup = '-';
constexpr std::uint8_t kAddress = 1;

constexpr std::size_t Padded(std::size_t bytes) {
  return (bytes + 3) & ~std::size_t{3};
}

// Builds a block whose length is known when it is complete.
class BlockBuilder {
 public:
  BlockBuilder(std::vector<std::uint8_t>& out, std::uint32_t type) : mOut(out), mBegin(out.size()) {
    Put(type).Put(std::uint32_t{0});
  }
  template <class T>
  BlockBuilder& Put(T value) {
    return PutBytes(&value, sizeof value);
  }
  BlockBuilder& PutOption(OptionCode code, const void* bytes, std::size_t count) {
    Put(std::uint16_t{code}).Put(static_cast<std::uint16_t>(count)).PutBytes(bytes, count);
    mOut.resize(mBegin + Padded(mOut.size() - mBegin));
    return *this;
  }
  BlockBuilder& PutOption(OptionCode code, std::string_view text) { return PutOption(code, text.data(), text.size()); }
  BlockBuilder& PutOption(OptionCode code, std::uint64_t value) { return PutOption(code, &value, sizeof value); }
  void Finish() {
    const auto total = static_cast<std::uint32_t>(mOut.size() - mBegin + kBlockEnd);
    std::memcpy(mOut.data() + mBegin + sizeof(std::uint32_t), &total, sizeof total);
    Put(total);
  }

 private:
  BlockBuilder& PutBytes(const void* bytes, std::size_t count) {
    const auto* const from = static_cast<const std::uint8_t*>(bytes);
    mOut.insert(mOut.end(), from, from + count);
    return *this;
  }

  std::vector<std::uint8_t>& mOut;
  const std::size_t mBegin;
};

std::uint32_t TimeHigh(CaptureTime time) {
  return static_cast<std::uint32_t>(static_cast<std::uint64_t>(time.count()) >> 32U);
}

std::uint32_t TimeLow(CaptureTime time) {
  return static_cast<std::uint32_t>(time.count());
}

std::size_t CapturedData(const UsbEvent& event, std::uint32_t dataLimit) {
  const std::size_t room = kSnapLength - sizeof(UsbmonHeader) - event.packets.size_bytes();
  const std::uint32_t limit =
      event.type == UsbTransferType::kControl ? kSnapLength : dataLimit;  // What explains the rest.
  return std::min<std::size_t>({event.data.size(), limit, room});
}

UsbmonHeader HeaderOf(const UsbEvent& event, std::uint32_t interface, CaptureTime time) {
  UsbmonHeader header{};
  const bool in = (event.endpoint & kDirectionIn) != 0;
  header.id = event.id;
  header.event = event.isCompletion ? 'C' : 'S';
  header.type = event.type;
  header.endpoint = event.endpoint;
  header.device = kAddress;
  header.bus = static_cast<std::uint16_t>(interface + 1);
  header.setupFlag = kNoSetup;
  if (event.length > 0 && in != event.isCompletion) {
    header.dataFlag = in ? '<' : '>';
  }
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
  header.seconds = seconds.count();
  header.microseconds = static_cast<std::int32_t>((time - seconds).count());
  header.status = event.status;
  header.length = event.length;
  header.flags = in ? kDirectionInFlag : 0;
  if (event.type == UsbTransferType::kIsochronous) {
    const auto count = static_cast<std::int32_t>(event.packets.size());
    const auto errors = static_cast<std::int32_t>(
        event.isCompletion ? std::ranges::count_if(event.packets, [](const auto& each) { return each.status != 0; })
                           : 0);
    std::memcpy(header.setup.data(), &errors, sizeof errors);
    std::memcpy(header.setup.data() + sizeof errors, &count, sizeof count);
    header.descriptors = static_cast<std::uint32_t>(count);
  } else if (event.type == UsbTransferType::kControl && !event.isCompletion) {
    header.setupFlag = 0;
    header.setup = event.setup;
  }
  return header;
}

}  // namespace

void AppendFileHeader(std::vector<std::uint8_t>& out) {
  BlockBuilder(out, kSectionHeader)
      .Put(kByteOrderMagic)
      .Put(std::uint16_t{1})
      .Put(std::uint16_t{0})
      .Put(~std::uint64_t{0})  // The section's length is not known.
      .PutOption(kApplication, "virtusb")
      .PutOption(kEnd, std::string_view())
      .Finish();
}

void AppendInterface(std::vector<std::uint8_t>& out, std::string_view name) {
  constexpr std::size_t kLongestName = 4096;
  BlockBuilder(out, kInterfaceDescription)
      .Put(kLinkType)
      .Put(std::uint16_t{0})
      .Put(kSnapLength)
      .PutOption(kInterfaceName, name.substr(0, kLongestName))
      .PutOption(kEnd, std::string_view())
      .Finish();
}

void AppendInterfaceStatistics(std::vector<std::uint8_t>& out, std::uint32_t interface, CaptureTime time,
                               std::uint64_t received, std::uint64_t dropped) {
  BlockBuilder(out, kInterfaceStatistics)
      .Put(interface)
      .Put(TimeHigh(time))
      .Put(TimeLow(time))
      .PutOption(kReceived, received)
      .PutOption(kDropped, dropped)
      .PutOption(kEnd, std::string_view())
      .Finish();
}

std::size_t EventBlockSize(const UsbEvent& event, std::uint32_t dataLimit) {
  return sizeof(EnhancedPacket) + sizeof(UsbmonHeader) + event.packets.size_bytes() +
         Padded(CapturedData(event, dataLimit)) + kBlockEnd;
}

void WriteEventBlock(std::span<std::uint8_t> out, const UsbEvent& event, std::uint32_t interface, CaptureTime time,
                     std::uint32_t dataLimit) {
  const std::size_t data = CapturedData(event, dataLimit);
  UsbmonHeader header = HeaderOf(event, interface, time);
  header.captured = static_cast<std::uint32_t>(event.packets.size_bytes() + data);
  const EnhancedPacket packet{
      .type = kEnhancedPacket,
      .total = static_cast<std::uint32_t>(out.size()),
      .interface = interface,
      .timeHigh = TimeHigh(time),
      .timeLow = TimeLow(time),
      .captured = static_cast<std::uint32_t>(sizeof header) + header.captured,
      .original = static_cast<std::uint32_t>(sizeof header + event.packets.size_bytes() + event.data.size())};
  std::uint8_t* to = out.data();
  const auto put = [&to](const void* bytes, std::size_t count) {
    if (count > 0) {
      std::memcpy(to, bytes, count);
      to += count;
    }
  };
  put(&packet, sizeof packet);
  put(&header, sizeof header);
  put(event.packets.data(), event.packets.size_bytes());
  put(event.data.data(), data);
  constexpr std::uint32_t kNothing = 0;
  put(&kNothing, Padded(data) - data);
  put(&packet.total, sizeof packet.total);
}

PcapngCut CutPcapng(std::span<const std::uint8_t> blocks, std::size_t written) {
  PcapngCut cut;
  for (std::size_t at = 0; at < blocks.size();) {
    std::array<std::uint32_t, 2> begin{};  // Type and total.
    std::memcpy(begin.data(), blocks.data() + at, sizeof begin);
    at += begin[1];
    if (at <= written) {
      cut.bytes = at;
    } else if (begin[0] == kEnhancedPacket) {
      ++cut.recordsBehind;
    }
  }
  return cut;
}

}  // namespace vel
