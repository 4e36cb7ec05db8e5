#include "support/DeniedName.h"

#include <cstdlib>
#include <filesystem>

namespace keltop {

namespace {

/// Where the object's file would be: a folder there is nothing that could be opened as one.
std::filesystem::path placeOf(const std::string& text) {
  const char* const folder = std::getenv("KELTOP_OBJECT_DIR");
  return std::filesystem::path(folder != nullptr && *folder != '\0' ? folder : "/dev/shm") /
         ("keltop.Global%5C" + text);
}

}  // namespace

DeniedName::DeniedName() {
  std::filesystem::create_directory(placeOf(text_));
}

DeniedName::~DeniedName() {
  std::error_code ignored;
  std::filesystem::remove(placeOf(text_), ignored);
}

}  // namespace keltop
