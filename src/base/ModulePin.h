#ifndef VEL_BASE_MODULE_PIN_H
#define VEL_BASE_MODULE_PIN_H

namespace vel {

// Keeps the module in memory to the end of the process, whatever its client unloads: for a thread that nobody can wait
// for and that will come back into the module's code. Does nothing where the code is the program's own. Any thread.
void PinModule() noexcept;

}  // namespace vel

#endif
