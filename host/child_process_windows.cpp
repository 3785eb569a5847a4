#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "host/child_process.h"
#include "host/wide_text.h"
#include "host/windows_command_line.h"

namespace quorvel::host {

namespace {

void close_if_open(HANDLE& handle) {
  if (handle != nullptr && handle != INVALID_HANDLE_VALUE) CloseHandle(handle);
  handle = nullptr;
}

}  // namespace

struct ChildProcess::Handles {
  ~Handles() {
    for (HANDLE* handle : {&input, &output, &process}) close_if_open(*handle);
  }
  HANDLE process = nullptr;
  DWORD id = 0;
  HANDLE input = nullptr;   // our end of the child's standard input
  HANDLE output = nullptr;  // our end of the child's standard output
};

namespace {

// The handles the child inherits: its three streams, nothing else. They are
// inheritable only while the child starts; our own ends of the pipes never are.
class ChildEnds {
 public:
  ~ChildEnds() {
    for (HANDLE& handle : handles_) close_if_open(handle);
  }
  HANDLE* data() { return handles_; }
  HANDLE& operator[](int stream) { return handles_[stream]; }

 private:
  HANDLE handles_[3] = {nullptr, nullptr, nullptr};
};

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error(what + " (Windows error " + std::to_string(GetLastError()) + ")");
}

HANDLE inheritable_file(const std::filesystem::path& path, bool for_input) {
  SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  const HANDLE file = CreateFileW(path.c_str(), for_input ? GENERIC_READ : GENERIC_WRITE,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &inherit,
                                  for_input ? OPEN_EXISTING : CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) fail("cannot open " + path.string());
  return file;
}

// A pipe for stream 0 (the child reads) or 1 (the child writes): the child's
// end made inheritable, ours returned.
HANDLE pipe_for(int stream, ChildEnds& child) {
  HANDLE read_end = nullptr, write_end = nullptr;
  if (!CreatePipe(&read_end, &write_end, nullptr, 0)) fail("cannot make a pipe");
  child[stream] = stream == 0 ? read_end : write_end;
  SetHandleInformation(child[stream], HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
  return stream == 0 ? write_end : read_end;
}

// Our own standard error, or the null device when we have none.
HANDLE inheritable_standard_error() {
  HANDLE copy = nullptr;
  const HANDLE ours = GetStdHandle(STD_ERROR_HANDLE);
  if (ours != nullptr && ours != INVALID_HANDLE_VALUE &&
      DuplicateHandle(GetCurrentProcess(), ours, GetCurrentProcess(), &copy, 0, TRUE, DUPLICATE_SAME_ACCESS)) {
    return copy;
  }
  return inheritable_file(L"NUL", false);
}

// The attribute that limits what the child inherits to `handles`.
class HandleList {
 public:
  explicit HandleList(HANDLE* handles) {
    SIZE_T size = 0;
    InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    storage_.resize(size);
    list_ = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(storage_.data());
    if (!InitializeProcThreadAttributeList(list_, 1, 0, &size) ||
        !UpdateProcThreadAttribute(list_, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles, 3 * sizeof(HANDLE), nullptr,
                                   nullptr)) {
      fail("cannot list the handles a child inherits");
    }
  }
  ~HandleList() { DeleteProcThreadAttributeList(list_); }
  HandleList(const HandleList&) = delete;
  HandleList& operator=(const HandleList&) = delete;
  LPPROC_THREAD_ATTRIBUTE_LIST get() const { return list_; }

 private:
  std::vector<char> storage_;
  LPPROC_THREAD_ATTRIBUTE_LIST list_ = nullptr;
};

// Starts argv[0] by its exact path with the three handles of `child` and no others; in a process
// group of its own, so that Ctrl+C typed at the console reaches us, not the child.
PROCESS_INFORMATION create_process(const std::vector<std::string>& argv, ChildEnds& child) {
  HandleList inherited(child.data());
  STARTUPINFOEXW startup{};
  startup.StartupInfo.cb = sizeof startup;
  startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
  startup.StartupInfo.hStdInput = child[0];
  startup.StartupInfo.hStdOutput = child[1];
  startup.StartupInfo.hStdError = child[2];
  startup.lpAttributeList = inherited.get();
  const std::wstring program = wide_text(argv.at(0));
  std::wstring command_line = wide_text(windows_command_line(argv));
  PROCESS_INFORMATION started{};
  if (!CreateProcessW(program.c_str(), command_line.data(), nullptr, nullptr, TRUE,
                      CREATE_NEW_PROCESS_GROUP | EXTENDED_STARTUPINFO_PRESENT, nullptr, nullptr,
                      &startup.StartupInfo, &started)) {
    fail("cannot start " + argv[0]);
  }
  return started;
}

}  // namespace

// Windows ends no process with a signal.
std::string describe_end(int exit_status, int /*signal*/) {
  if (exit_status >= 0) return "exited with status " + std::to_string(exit_status);
  char code[16];
  std::snprintf(code, sizeof code, "0x%08lX", static_cast<unsigned long>(static_cast<DWORD>(exit_status)));
  return std::string("ended with exception ") + code;
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const ChildStreams& streams)
    : handles_(std::make_unique<Handles>()) {
  ChildEnds child;
  if (streams.input.empty()) handles_->input = pipe_for(0, child);
  else child[0] = inheritable_file(streams.input, true);
  if (streams.output.empty()) handles_->output = pipe_for(1, child);
  else child[1] = inheritable_file(streams.output, false);
  child[2] = streams.error.empty() ? inheritable_standard_error() : inheritable_file(streams.error, false);
  const PROCESS_INFORMATION started = create_process(argv, child);
  CloseHandle(started.hThread);
  handles_->process = started.hProcess;
  handles_->id = started.dwProcessId;
}

ChildProcess::~ChildProcess() {
  if (!end_) wait();
}

bool ChildProcess::write(std::string_view bytes) {
  while (!bytes.empty() && handles_->input != nullptr) {
    DWORD written = 0;
    const auto chunk = static_cast<DWORD>(std::min<std::size_t>(bytes.size(), 1u << 30));
    if (!WriteFile(handles_->input, bytes.data(), chunk, &written, nullptr)) return false;
    bytes.remove_prefix(written);
  }
  return bytes.empty();
}

std::size_t ChildProcess::read(char* buffer, std::size_t size) {
  DWORD got = 0;
  const auto most = static_cast<DWORD>(std::min<std::size_t>(size, 1u << 30));
  // A broken pipe is the end of the child's output.
  if (handles_->output == nullptr || !ReadFile(handles_->output, buffer, most, &got, nullptr)) return 0;
  return got;
}

void ChildProcess::close_input() { close_if_open(handles_->input); }

void ChildProcess::close_output() { close_if_open(handles_->output); }

ProcessEnd ChildProcess::wait() {
  if (end_) return *end_;
  close_input();
  close_output();
  DWORD code = 0;
  if (WaitForSingleObject(handles_->process, INFINITE) != WAIT_OBJECT_0 || !GetExitCodeProcess(handles_->process, &code)) {
    fail("cannot wait for a child process");
  }
  end_ = ProcessEnd{static_cast<int>(code), 0};
  return *end_;
}

void ChildProcess::kill() {
  if (!end_) TerminateProcess(handles_->process, kKilledStatus);
}

ProcessId ChildProcess::id() const { return handles_->id; }

}  // namespace quorvel::host
