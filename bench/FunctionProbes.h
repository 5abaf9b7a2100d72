#ifndef VIRTUSB_BENCH_FUNCTION_PROBES_H
#define VIRTUSB_BENCH_FUNCTION_PROBES_H

#include <filesystem>
#include <string>
#include <vector>

namespace vel::bench {

// When functions of programs run, noted by the kernel at their first instruction (its uprobes): the programs stay as
// they are. As root, where tracefs is mounted. One thread.
class FunctionProbes {
 public:
  struct Probe {
    std::string event;    // Its name, any word.
    std::string program;  // The ELF file, with its symbols.
    std::string symbol;
    bool atReturn = false;
    std::string fetch{};  // One argument, as "byte=+0(%si):u8"; none at a return.
  };
  struct Happened {
    std::string event;
    double time = 0;  // Seconds, CLOCK_MONOTONIC.
    int value = -1;   // What was fetched.
  };

  // Notes from now on. Exits with a message where that fails.
  explicit FunctionProbes(const std::vector<Probe>& probes);
  FunctionProbes(const FunctionProbes&) = delete;
  FunctionProbes& operator=(const FunctionProbes&) = delete;
  ~FunctionProbes();

  // All so far, in the order of time.
  std::vector<Happened> Take() const;

 private:
  static void Write(const std::filesystem::path& file, const std::string& text);
  static void Remove();
};

}  // namespace vel::bench

#endif
