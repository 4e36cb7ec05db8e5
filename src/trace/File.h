#pragma once

#include <cstdint>
#include <string>

namespace QXUTIL {

/// One entry of a folder's listing.
class File {
 public:
  enum class Kind : std::uint32_t { file = 1, directory = 2 };

  File() = default;
  virtual ~File() = default;
  File(const File&) = default;
  File(File&&) = default;
  File& operator=(const File&) = default;
  File& operator=(File&&) = default;

  Kind kind = Kind::file;
  std::string folder;
  std::string name;
  std::string path;
  std::int64_t created = 0;  ///< these three in seconds since 1970
  std::int64_t accessed = 0;
  std::int64_t written = 0;
  std::uint32_t size = 0;  ///< the low 32 bits, in bytes
};

}  // namespace QXUTIL
