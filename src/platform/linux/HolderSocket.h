#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "platform/linux/StateFile.h"

namespace keltop::platform {

/// Where a named object's file lies, or lay: what its holders and those who look for it agree on without the file.
struct ObjectPlace {
  std::string path;  ///< the file's, as it was asked for
  std::string key;   ///< the same for everyone, whatever way leads to the folder; empty where the folder is not there
  dev_t device = 0;  ///< the folder's file system
};

/// What came of asking the holders of an object for its file.
struct HolderAnswer {
  std::optional<StateFile> file;  ///< opened anew, none of its locks taken
  bool silent = false;            ///< somebody may hold the object and did not answer: stopped, or means harm
};

/// A socket by which a process that holds a named object hands its file to those who do not find it under its name:
/// names can be removed, moved and overwritten while the object lives. The sockets are in the kernel's own namespace
/// (abstract addresses), which nobody can clean, and go with their process.
///
/// A thread of this process answers; it sleeps otherwise. Nothing here throws. An object whose holders can have no
/// socket or no thread is found by its name only.
class HolderSocket {
 public:
  /// Answers for `file`, an open descriptor that must outlive this object, until its destruction.
  HolderSocket(const ObjectPlace& place, int file) noexcept;
  ~HolderSocket();
  HolderSocket(const HolderSocket&) = delete;
  HolderSocket& operator=(const HolderSocket&) = delete;

  /// Asks whoever has a socket for that place, for two seconds at most. Whether the object lives is not said: look at
  /// its file.
  [[nodiscard]] static HolderAnswer ask(const ObjectPlace& place) noexcept;

 private:
  int listening_ = -1;
};

}  // namespace keltop::platform
