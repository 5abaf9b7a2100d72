#include "os/Process.h"

namespace vel {

std::vector<char*> ArgumentVector(std::vector<std::string>& words) {
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (std::string& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  return arguments;
}

}  // namespace vel
