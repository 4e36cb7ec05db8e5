#include "platform/Files.h"

#include <direct.h>
#include <fcntl.h>
#include <io.h>
#include <share.h>
#include <sys/stat.h>
#include <windows.h>

#include <algorithm>
#include <cstdio>

namespace keltop::platform {

namespace {

/// The byte, past any content, that a writer holds: the run-time library moves to the end and writes in two steps, and
/// two processes between them would write over each other.
constexpr LONGLONG kGateByte = 0x7FFF'FFFF'0000'0000;

/// Milliseconds. Whoever holds back the writers longer is stopped; its file must not stop everybody else. A sleep may
/// take a tick of the system's clock, some 16 ms, whatever it was asked for.
constexpr ULONGLONG kGatePatience = 2000;
constexpr DWORD kGateRetry = 1;

HANDLE systemHandle(FileHandle file) noexcept {
  return reinterpret_cast<HANDLE>(::_get_osfhandle(file));
}

OVERLAPPED gatePlace() noexcept {
  LARGE_INTEGER offset = {};
  offset.QuadPart = kGateByte;
  OVERLAPPED place = {};
  place.Offset = offset.LowPart;
  place.OffsetHigh = static_cast<DWORD>(offset.HighPart);
  return place;
}

bool holdGate(FileHandle file) noexcept {
  constexpr DWORD kNow = LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY;
  const ULONGLONG begin = ::GetTickCount64();
  do {
    OVERLAPPED place = gatePlace();
    if (::LockFileEx(systemHandle(file), kNow, 0, 1, 0, &place) != FALSE) {
      return true;
    }
    if (::GetLastError() != ERROR_LOCK_VIOLATION && ::GetLastError() != ERROR_IO_PENDING) {
      return false;
    }
    ::Sleep(kGateRetry);
  } while (::GetTickCount64() - begin < kGatePatience);
  return false;
}

FileHandle openWith(const std::string& path, int flags, int share, int mode) noexcept {
  int file = kNoFile;
  return ::_sopen_s(&file, path.c_str(), flags, share, mode) == 0 ? file : kNoFile;
}

}  // namespace

bool probeFile(const std::string& path) noexcept {
  const FileHandle file = openWith(path, _O_BINARY | _O_RDONLY, _SH_DENYWR, _S_IREAD);
  return file != kNoFile && closeFile(file);
}

FileHandle openSharedAppend(const std::string& path) noexcept {
  return openWith(path, _O_RDWR | _O_APPEND | _O_CREAT | _O_BINARY, _SH_DENYNO, _S_IREAD | _S_IWRITE);
}

bool appendToFile(FileHandle file, std::string_view text) noexcept {
  const AppendGate gate(file);
  const int written = ::_write(file, text.data(), static_cast<unsigned>(text.size()));
  if (written == static_cast<int>(text.size())) {
    return true;
  }
  // Unless somebody has written past it, who did not wait any longer for the gate.
  if (written > 0 && ::_tell(file) == ::_filelengthi64(file)) {
    (void)::_chsize(file, ::_tell(file) - written);
  }
  return false;
}

bool commitFile(FileHandle file) noexcept {
  return ::_commit(file) == 0;
}

bool closeFile(FileHandle file) noexcept {
  return ::_close(file) == 0;
}

std::int64_t tellFile(FileHandle file) noexcept {
  return std::min<std::int64_t>(::_tell(file), ::_filelengthi64(file));
}

bool truncateFile(FileHandle file, std::int64_t size) noexcept {
  return ::_chsize(file, static_cast<long>(size)) == 0;
}

AppendGate::AppendGate(FileHandle file) noexcept : file_(file), held_(holdGate(file)) {}

AppendGate::~AppendGate() {
  if (held_) {
    OVERLAPPED place = gatePlace();
    (void)::UnlockFileEx(systemHandle(file_), 0, 1, 0, &place);
  }
}

bool copyOpenFile(FileHandle /*file*/, const std::string& path, const std::string& to) noexcept {
  return copyFile(path, to);
}

bool copyFile(const std::string& from, const std::string& to) noexcept {
  return ::CopyFileA(from.c_str(), to.c_str(), FALSE) != FALSE;
}

bool removeFile(const std::string& path) noexcept {
  return std::remove(path.c_str()) == 0;
}

bool pathExists(const std::string& path) noexcept {
  return ::_access(path.c_str(), 0) == 0;
}

bool makeFolder(const std::string& path) noexcept {
  return ::_mkdir(path.c_str()) == 0;
}

std::vector<FoundFile> findFiles(const std::string& folder, const std::string& pattern) {
  std::vector<FoundFile> found;
  _finddata64i32_t entry = {};
  const std::string wanted = folder + "\\" + pattern;
  const std::intptr_t search = ::_findfirst64i32(wanted.c_str(), &entry);
  if (search == -1) {
    return found;
  }
  do {
    if ((entry.attrib & _A_SUBDIR) == 0) {
      found.push_back({entry.name, entry.time_create, entry.time_access, entry.time_write, entry.size});
    }
  } while (::_findnext64i32(search, &entry) == 0);
  (void)::_findclose(search);
  // Most file systems list in this order anyway; the others must give the same result.
  std::sort(found.begin(), found.end(), [](const FoundFile& a, const FoundFile& b) { return a.name < b.name; });
  return found;
}

}  // namespace keltop::platform
