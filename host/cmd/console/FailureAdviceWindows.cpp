#include "cmd/console/FailureAdvice.h"

namespace vel {

void AdviseOnce(std::string_view /*line*/) {}  // The system sets no such limits.

}  // namespace vel
