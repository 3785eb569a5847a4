#include <windows.h>

#include <system_error>

#include "tools/convert/convert_error.h"
#include "tools/convert/mapped_file.h"

namespace quorvel::convert {
namespace {

std::string last_error() { return std::error_code(static_cast<int>(GetLastError()), std::system_category()).message(); }

// Closes a handle when it goes: the view keeps the mapping alive on its own.
struct ScopedHandle {
  ~ScopedHandle() {
    if (handle != nullptr && handle != INVALID_HANDLE_VALUE) CloseHandle(handle);
  }
  HANDLE handle;
};

}  // namespace

MappedFile::MappedFile(const std::filesystem::path& path) : path_(path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    throw ConvertError(path, "is not a regular file");
  }
  // Others may read, replace or delete the file meanwhile, as on POSIX.
  const ScopedHandle file{CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr)};
  if (file.handle == INVALID_HANDLE_VALUE) throw ConvertError(path, "cannot be opened: " + last_error());
  LARGE_INTEGER size{};
  if (GetFileType(file.handle) != FILE_TYPE_DISK || !GetFileSizeEx(file.handle, &size)) {
    throw ConvertError(path, "is not a regular file");
  }
  size_ = static_cast<std::size_t>(size.QuadPart);
  if (size_ == 0) return;  // a view of nothing cannot be made
  const ScopedHandle mapping{CreateFileMappingW(file.handle, nullptr, PAGE_READONLY, 0, 0, nullptr)};
  const void* view = mapping.handle ? MapViewOfFile(mapping.handle, FILE_MAP_READ, 0, 0, 0) : nullptr;
  if (view == nullptr) throw ConvertError(path, "cannot be mapped: " + last_error());
  data_ = static_cast<const std::uint8_t*>(view);
}

void MappedFile::unmap() noexcept {
  if (data_) UnmapViewOfFile(data_);
  data_ = nullptr;
}

void prefetch_pages(std::span<const std::uint8_t> bytes) {
  if (bytes.empty()) return;
  WIN32_MEMORY_RANGE_ENTRY range{const_cast<std::uint8_t*>(bytes.data()), bytes.size()};
  PrefetchVirtualMemory(GetCurrentProcess(), 1, &range, 0);
}

// Unlocking pages that were never locked takes them out of this process's
// working set; they stay in the file cache. The pages at both ends may hold
// a neighbour's bytes too: it only faults them in again.
void release_pages(std::span<const std::uint8_t> bytes) {
  if (!bytes.empty()) VirtualUnlock(const_cast<std::uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace quorvel::convert
