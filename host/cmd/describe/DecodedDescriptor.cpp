#include "cmd/describe/DecodedDescriptor.h"

#include <algorithm>
#include <utility>

#include "cmd/console/Format.h"
#include "cmd/describe/UsbNames.h"

namespace vel {
namespace {

using Bytes = std::span<const std::uint8_t>;
using Head = DescriptorTable::Head;

constexpr std::array kHeadFields = {Field{"bLength"}, Field{"bDescriptorType"}};
constexpr Field kSubtypeField{"bDescriptorSubtype"};
constexpr Field kCapabilityField{"bDevCapabilityType"};

std::uint64_t Number(Bytes bytes) {
  std::uint64_t number = 0;
  for (std::size_t i = std::min(bytes.size(), sizeof number); i-- > 0;) {
    number = number << 8U | bytes[i];
  }
  return number;
}

std::string GuidText(Bytes b) {
  std::string text = "{";
  // Three little-endian numbers, then bytes in their order.
  for (const int i : {3, 2, 1, 0, -1, 5, 4, -1, 7, 6, -1, 8, 9, -1, 10, 11, 12, 13, 14, 15}) {
    text += i < 0 ? "-" : Format("%02x", unsigned{b[static_cast<std::size_t>(i)]});
  }
  return text + "}";
}

std::string ListText(Bytes bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) {
    text += (text.empty() ? "" : " ") + std::to_string(byte);
  }
  return text;
}

std::string ValueText(const Field& field, Bytes bytes, std::uint64_t number) {
  switch (field.as) {
    case As::kNumber:
    case As::kString:
    case As::kClass:
    case As::kSubClass:
    case As::kProtocol:
      return std::to_string(number);
    case As::kHex:
    case As::kEndpoint:
      // A bitmap that says its own size is printed as one of four bytes.
      return Format("0x%0*llx", field.size == 0 ? 8 : 2 * field.size, static_cast<unsigned long long>(number));
    case As::kBcd:
      return BcdText(number);
    case As::kGuid:
      return GuidText(bytes);
    case As::kMegahertz:
      return Format("%llu.%06lluMHz", static_cast<unsigned long long>(number / 1000000),
                    static_cast<unsigned long long>(number % 1000000));
    case As::kBytes:
      return HexBytes(bytes);
    case As::kList:
      return ListText(bytes);
  }
  return "";
}

// Goes through a table's fields and a descriptor's bytes.
class Decoder {
 public:
  Decoder(const DescriptorTable& table, Bytes descriptor) : mRest(descriptor) { mDecoded.table = &table; }

  DecodedDescriptor Run() {
    const DescriptorTable& table = *mDecoded.table;
    if (table.head == Head::kNone) {
      mRest = mRest.subspan(3);
    } else {
      for (const Field& field : kHeadFields) {
        Take(field, table.headWidth);
      }
    }
    if (table.head == Head::kSubtype && Take(kSubtypeField, table.headWidth)) {
      mDecoded.fields.back().note = table.subtypeName;
    } else if (table.head == Head::kCapability) {
      Take(kCapabilityField, table.headWidth);
    }
    for (std::span<const Field> fields = table.fields; !fields.empty() && !mDecoded.cut;) {
      const Flow flow = fields[0].flow;
      const bool group = flow == Flow::kEach || flow == Flow::kRest;
      const auto end = std::ranges::find_if(fields, [flow](const Field& field) { return field.flow != flow; });
      const auto count = group ? static_cast<std::size_t>(end - fields.begin()) : 1;
      TakeGroup(fields.first(count));
      fields = fields.subspan(count);
    }
    mDecoded.leftover = mRest;
    return std::move(mDecoded);
  }

 private:
  void TakeGroup(std::span<const Field> group) {
    const Flow flow = group[0].flow;
    if ((flow == Flow::kIfNone && mCount != 0) || (flow == Flow::kIfLong && mRest.empty())) {
      return;
    }
    const std::uint64_t times = flow == Flow::kEach ? mCount : flow == Flow::kRest ? mRest.size() : 1;
    for (std::uint64_t i = 0; i < times && !mDecoded.cut && (flow != Flow::kRest || !mRest.empty()); ++i) {
      for (const Field& field : group) {
        if (!Take(field, mDecoded.table->width)) {
          return;
        }
        if (field.name.ends_with('(')) {
          mDecoded.fields.back().name += Format("%2u)", static_cast<unsigned>(i));
        }
      }
    }
  }

  bool Take(const Field& field, int width) {
    const std::size_t size = field.size == kToTheEnd ? mRest.size() : field.size == 0 ? mSize : field.size;
    if (mRest.size() < size) {
      mDecoded.cut = true;
      return false;
    }
    const Bytes bytes = mRest.first(size);
    mRest = mRest.subspan(size);
    const std::uint64_t number = Number(bytes);
    DecodedField& decoded = mDecoded.fields.emplace_back();
    decoded.name = field.name;
    decoded.as = field.as;
    decoded.number = number;
    decoded.value = ValueText(field, bytes, number);
    decoded.width = field.width != 0 ? field.width : width;
    decoded.note = NameOf(field, number);
    for (const BitsLine& line : field.lines) {
      if ((number & line.mask) == line.bits) {
        decoded.lines.push_back(line.text);
      }
    }
    mCount = field.flow == Flow::kCounts ? number : mCount;
    mSize = field.flow == Flow::kSizes ? static_cast<std::size_t>(number) : mSize;
    return true;
  }

  std::string_view NameOf(const Field& field, std::uint64_t number) {
    const auto byte = static_cast<std::uint8_t>(number);
    if (field.as == As::kClass) {
      mClass = byte;
      return ClassName(byte);
    }
    if (field.as == As::kSubClass) {
      mSubClass = byte;
      return SubClassName(mClass, byte);
    }
    if (field.as == As::kProtocol) {
      return ProtocolName(mClass, mSubClass, byte);
    }
    const auto name = std::ranges::find_if(field.names, [number](const ValueName& candidate) {
      return candidate.value == number || candidate.value == kAnyOther;
    });
    return name != field.names.end() ? name->text : std::string_view();
  }

  DecodedDescriptor mDecoded;
  Bytes mRest;
  std::uint64_t mCount = 0;
  std::size_t mSize = 0;
  std::uint8_t mClass = 0;
  std::uint8_t mSubClass = 0;
};

}  // namespace

std::optional<DecodedDescriptor> Decode(const DescriptorPlace& place, std::span<const std::uint8_t> descriptor) {
  const DescriptorTable* table = FindTable(place, descriptor);
  return table != nullptr ? std::optional(Decoder(*table, descriptor).Run()) : std::nullopt;
}

std::string HexBytes(std::span<const std::uint8_t> bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) {
    text += Format(text.empty() ? "%02x" : " %02x", unsigned{byte});
  }
  return text;
}

std::string BcdText(std::uint64_t value) {
  return Format("%llx.%02llx", static_cast<unsigned long long>(value >> 8U),
                static_cast<unsigned long long>(value & 0xFFU));
}

}  // namespace vel
