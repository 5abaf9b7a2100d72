// This program and the libraries that it loads.
#ifndef VIRTUSB_PLATFORM_OS_PROGRAM_H
#define VIRTUSB_PLATFORM_OS_PROGRAM_H

#include <chrono>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

namespace vel {

// This program's file; empty when that is not known.
std::filesystem::path ProgramPath();
// What it was called with, in UTF-8, the program's name first.
std::vector<std::string> ProgramArguments(int argc, char** argv);
// What its threads have used so far.
std::chrono::microseconds ProcessCpuTime();
// Packets of a busy device come and go together. Given back to the system each time, every page of them would fault
// again: keeping them brings a tenth more throughput in a virtual machine (scripts/bench-vm).
void KeepFreedMemory();
// Writing to a pipe or connection that nobody reads is an error from now on, and no signal.
void IgnoreBrokenPipes();
std::tm LocalTime(std::time_t time);
// Where certificates are kept for all users when nobody names a folder.
std::string UsualTlsFolder();

// A library's handle; null with what is wrong, for people. The path is absolute, so that the system does not go looking
// for the name elsewhere; what the library itself needs is also found beside it.
void* OpenLibrary(const std::filesystem::path& path, std::string& problem);
void* FindSymbol(void* library, const char* name);
void CloseLibrary(void* library);

}  // namespace vel

#endif
