#include "HandleWindows.h"
#include "os/Process.h"
#include "os/Text.h"

#include <array>
#include <stdexcept>

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

namespace vel {
namespace {

// A pipe whose ends only programs that are named as their heirs get.
struct HandlePipe {
  HandlePipe() {
    HANDLE ends[2] = {};
    SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
    if (CreatePipe(&ends[0], &ends[1], &inheritable, 0) == FALSE) {
      throw std::runtime_error("no pipe: " + SystemErrorText(GetLastError()));
    }
    reader = UniqueHandle(ends[0]);
    writer = UniqueHandle(ends[1]);
  }

  UniqueHandle reader;
  UniqueHandle writer;
};

// Standard error for a child: this process's, or nowhere.
UniqueHandle ErrorsForChild() {
  HANDLE copy = nullptr;
  const HANDLE own = GetStdHandle(STD_ERROR_HANDLE);
  if (own != nullptr && own != INVALID_HANDLE_VALUE &&
      DuplicateHandle(GetCurrentProcess(), own, GetCurrentProcess(), &copy, 0, TRUE, DUPLICATE_SAME_ACCESS) != FALSE) {
    return UniqueHandle(copy);
  }
  SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
  return UniqueHandle(
      CreateFileW(L"NUL", GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inheritable, OPEN_EXISTING, 0, nullptr));
}

// As every program's C library takes it apart again: quotes around what has spaces, backslashes in front of quotes
// doubled.
std::wstring CommandLine(const std::vector<std::string>& words) {
  std::wstring line;
  for (const std::string& word : words) {
    line += line.empty() ? L"" : L" ";
    if (!word.empty() && word.find_first_of(" \t\"") == std::string::npos) {
      line += ToWide(word);
      continue;
    }
    line += L'"';
    std::size_t slashes = 0;
    for (const wchar_t each : ToWide(word)) {
      line.append(each == L'"' ? slashes + 1 : 0, L'\\');
      slashes = each == L'\\' ? slashes + 1 : 0;
      line += each;
    }
    line.append(slashes, L'\\');
    line += L'"';
  }
  return line;
}

// The handles that a child inherits, and no others.
class Heritage {
 public:
  explicit Heritage(std::array<HANDLE, 3> handles) : mHandles(handles) {
    SIZE_T size = 0;
    InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    mMemory = std::make_unique<std::byte[]>(size);
    if (InitializeProcThreadAttributeList(Get(), 1, 0, &size) == FALSE) {
      throw std::runtime_error(SystemErrorText(GetLastError()));
    }
    if (UpdateProcThreadAttribute(Get(), 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, mHandles.data(), sizeof mHandles,
                                  nullptr, nullptr) == FALSE) {
      throw std::runtime_error(SystemErrorText(GetLastError()));
    }
  }
  Heritage(const Heritage&) = delete;
  Heritage& operator=(const Heritage&) = delete;
  ~Heritage() { DeleteProcThreadAttributeList(Get()); }

  LPPROC_THREAD_ATTRIBUTE_LIST Get() { return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(mMemory.get()); }

 private:
  std::array<HANDLE, 3> mHandles;
  std::unique_ptr<std::byte[]> mMemory;
};

void CALLBACK OnEnd(void* ending, BOOLEAN /*timedOut*/) {
  PutByte(static_cast<const UniqueFd*>(ending)->Get());
}

}  // namespace

struct Process::Handles {
  UniqueHandle process;
  UniqueHandle job;  // With what it runs itself.
  DWORD id = 0;
  UniqueFd ending;  // The end's writing side.
  HANDLE wait = nullptr;
};

Process::Process(std::vector<std::string> words) : mHandles(std::make_unique<Handles>()) {
  std::tie(mEnd, mHandles->ending) = MakePipe(Waiting::kReturns);
  HandlePipe input;
  HandlePipe output;
  // Before the program is there: what fails behind it would leave it without an owner. Without it they end.
  mInput = CarryTo(std::move(input.writer)).first;
  mOutput = CarryFrom(std::move(output.reader)).first;
  const UniqueHandle errors = ErrorsForChild();
  Heritage heritage({input.reader.Get(), output.writer.Get(), errors.Get()});
  STARTUPINFOEXW startup{};
  startup.StartupInfo.cb = sizeof startup;
  startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
  startup.StartupInfo.hStdInput = input.reader.Get();
  startup.StartupInfo.hStdOutput = output.writer.Get();
  startup.StartupInfo.hStdError = errors.Get();
  startup.lpAttributeList = heritage.Get();
  std::wstring line = CommandLine(words);
  PROCESS_INFORMATION made{};
  constexpr DWORD kFlags = CREATE_NEW_PROCESS_GROUP | CREATE_SUSPENDED | EXTENDED_STARTUPINFO_PRESENT;
  if (CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, kFlags, nullptr, nullptr, &startup.StartupInfo,
                     &made) == FALSE) {
    throw std::runtime_error("cannot run \"" + words[0] + "\": " + SystemErrorText(GetLastError()) +
                             " (check the command's name and PATH)");
  }
  const UniqueHandle thread(made.hThread);
  mHandles->process = UniqueHandle(made.hProcess);
  mHandles->id = made.dwProcessId;
  mHandles->job = UniqueHandle(CreateJobObjectW(nullptr, nullptr));
  AssignProcessToJobObject(mHandles->job.Get(), made.hProcess);
  if (RegisterWaitForSingleObject(&mHandles->wait, made.hProcess, &OnEnd, &mHandles->ending, INFINITE,
                                  WT_EXECUTEONLYONCE) == FALSE) {
    const DWORD error = GetLastError();
    TerminateProcess(made.hProcess, 1);
    throw std::runtime_error("cannot wait for \"" + words[0] + "\": " + SystemErrorText(error));
  }
  ResumeThread(made.hThread);
}

Process::~Process() {
  WaitForSingleObject(mHandles->process.Get(), INFINITE);
  UnregisterWaitEx(mHandles->wait, INVALID_HANDLE_VALUE);  // Waits for the callback.
}

void Process::AskToEnd() {
  if (GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, mHandles->id) == FALSE) {
    Kill();  // There is no console by which it could be asked.
  }
}

void Process::Kill() {
  TerminateJobObject(mHandles->job.Get(), 1);
  TerminateProcess(mHandles->process.Get(), 1);  // Where it could not be put into the job.
}

std::optional<std::string> Process::AwaitEnd(std::chrono::milliseconds time) const {
  if (WaitForSingleObject(mHandles->process.Get(), static_cast<DWORD>(time.count())) != WAIT_OBJECT_0) {
    return std::nullopt;
  }
  DWORD status = 0;
  GetExitCodeProcess(mHandles->process.Get(), &status);
  return "exit status " + std::to_string(status);
}

}  // namespace vel
