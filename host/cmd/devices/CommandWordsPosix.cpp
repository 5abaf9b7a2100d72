#include <wordexp.h>

#include <memory>
#include <new>

#include "cmd/console/UsageError.h"
#include "cmd/devices/CommandWords.h"

namespace vel {
namespace {

struct WordsDeleter {
  void operator()(wordexp_t* words) const { wordfree(words); }
};

}  // namespace

std::vector<std::string> SplitCommand(const std::string& command) {
  wordexp_t expanded{};
  const int problem = wordexp(command.c_str(), &expanded, WRDE_NOCMD);
  const std::unique_ptr<wordexp_t, WordsDeleter> freed(problem == 0 || problem == WRDE_NOSPACE ? &expanded : nullptr);
  switch (problem) {
    case 0:
      break;
    case WRDE_NOSPACE:
      throw std::bad_alloc();
    case WRDE_SYNTAX:
      throw UsageError("exec:COMMAND has a quote or a brace without its other half: \"" + command + "\"");
    default:
      throw UsageError("exec:COMMAND runs one program, no shell: for | & ; < > ( ) { } give exec:sh -c '...'");
  }
  if (expanded.we_wordc == 0 || *expanded.we_wordv[0] == '\0') {
    throw UsageError(kNoCommand);
  }
  return {expanded.we_wordv, expanded.we_wordv + expanded.we_wordc};
}

}  // namespace vel
