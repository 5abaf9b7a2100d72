// The test remote: `vm_remote SUBJECT BUS:ADDRESS [ARGUMENT...]`. It uses the device, `audio` through the command
// (VIRTUSB, VIRTUSB_MODULE). Exit status 0 and a line of what was proven, or 1.
#include <array>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string_view>
#include <vector>

#include "Commands.h"

namespace {

struct Subject {
  std::string_view name;
  std::size_t arguments;
  std::string (*run)(const std::string& place, vel::vm::Arguments arguments);
};

constexpr std::array kSubjects = {
    Subject{"audio", 2, vel::vm::Audio},         Subject{"guest", 1, vel::vm::Guest},
    Subject{"pictures", 3, vel::vm::Pictures},   Subject{"usbtest", 1, vel::vm::UsbTest},
    Subject{"serial", 0, vel::vm::Serial},       Subject{"encoder", 1, vel::vm::Encoder},
    Subject{"cancels", 1, vel::vm::Cancels},     Subject{"camera", 1, vel::vm::ShowCamera},
    Subject{"gradients", 1, vel::vm::Gradients}, Subject{"hold", 0, vel::vm::Hold},
};

}  // namespace

int main(int argc, char** argv) {
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
  const std::vector<std::string> words(argv + 1, argv + argc);
  for (const Subject& subject : kSubjects) {
    if (words.size() == subject.arguments + 2 && words[0] == subject.name) {
      try {
        static_cast<void>(std::puts(subject.run(words[1], std::span(words).subspan(2)).c_str()));
        return 0;
      } catch (const std::exception& error) {
        static_cast<void>(std::fprintf(stderr, "%s: %s\n", words[0].c_str(), error.what()));
        return 1;
      }
    }
  }
  static_cast<void>(std::fprintf(stderr, "usage: vm_remote SUBJECT BUS:ADDRESS [ARGUMENT...]\n"));
  return 2;
}
