#ifndef VIRTUSB_TESTS_SOAK_SOAK_H
#define VIRTUSB_TESTS_SOAK_SOAK_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>

namespace vel::test {

// What rounds have in common: chance, which the seed repeats, and what was done so far, for the verdict lines.
struct SoakRun {
  // A number below `count`.
  std::uint32_t Pick(std::size_t count) { return static_cast<std::uint32_t>(random() % count); }
  bool OneIn(std::size_t count) { return Pick(count) == 0; }
  // Looks at the process's memory, which is bounded at the end of the round.
  void NoteMemory();

  std::mt19937 random;
  std::uint64_t work = 0;    // Pictures, transfers: what the suite's unit says.
  std::uint64_t faults = 0;  // That were made to happen.
  bool isShort = false;      // A few rounds, to see that they work.
  long peakKiB = 0;
};

// One thing that is done again and again. GoogleTest's assertions throw in it, and end the soak.
class SoakSuite {
 public:
  virtual ~SoakSuite() = default;
  virtual const char* Unit() const = 0;
  // Seconds at most. Afterwards memory, descriptors and threads are what they were after any other round.
  virtual void Round(SoakRun& run) = 0;
  // Beyond which memory may not go, rather than not grow, in KiB.
  virtual long MostKiB() const { return 0; }
};

std::unique_ptr<SoakSuite> MakeCameraSoak();
std::unique_ptr<SoakSuite> MakeDeviceSoak();
std::unique_ptr<SoakSuite> MakeFloodSoak();
std::unique_ptr<SoakSuite> MakeSessionSoak();

}  // namespace vel::test

#endif
