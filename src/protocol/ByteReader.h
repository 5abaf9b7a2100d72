#ifndef VEL_PROTOCOL_BYTE_READER_H
#define VEL_PROTOCOL_BYTE_READER_H

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace vel {

// A cursor over bytes from outside. Reads past the end give 0 and stick; ask Ok() once at the end.
class ByteReader {
 public:
  explicit ByteReader(std::span<const std::uint8_t> bytes) : mRest(bytes) {}

  // A value in the host's byte order.
  template <std::unsigned_integral T>
  [[nodiscard]] T Host() {
    T value = 0;
    const std::span<const std::uint8_t> bytes = Bytes(sizeof(T));
    if (!bytes.empty()) {
      std::memcpy(&value, bytes.data(), sizeof(T));
    }
    return value;
  }

  // The next n bytes; empty when there are fewer.
  [[nodiscard]] std::span<const std::uint8_t> Bytes(std::size_t n) {
    if (n > mRest.size()) {
      mFailed = true;
      mRest = {};
      return {};
    }
    const std::span<const std::uint8_t> taken = mRest.first(n);
    mRest = mRest.subspan(n);
    return taken;
  }

  void Skip(std::size_t n) { static_cast<void>(Bytes(n)); }

  [[nodiscard]] std::span<const std::uint8_t> Rest() const { return mRest; }
  [[nodiscard]] bool Ok() const { return !mFailed; }

 private:
  std::span<const std::uint8_t> mRest;
  bool mFailed = false;
};

}  // namespace vel

#endif
