// The file that holds settings, against a reader of its own.
//
// Input: the file's content.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "platform/linux/DataLocation.h"
#include "platform/linux/FileDescriptor.h"
#include "support/Check.h"
#include "support/Input.h"

namespace keltop::fuzz {

namespace {

/// The settings file: one in memory, which has a path as every open file has.
class SettingsFile {
 public:
  SettingsFile() : file_(::memfd_create("settings", MFD_CLOEXEC)) { check(file_.valid(), "no file in memory"); }

  void write(const std::string& content) const {
    check(::ftruncate(file_.get(), 0) == 0 &&
              ::pwrite(file_.get(), content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()),
          "the settings cannot be written");
  }

  [[nodiscard]] std::string path() const { return "/proc/self/fd/" + std::to_string(file_.get()); }

 private:
  platform::FileDescriptor file_;
};

bool isBlank(char character) {
  return character == ' ' || character == '\t' || character == '\r';
}

std::string withoutBlanks(std::string text) {
  while (!text.empty() && isBlank(text.back())) {
    text.pop_back();
  }
  while (!text.empty() && isBlank(text.front())) {
    text.erase(0, 1);
  }
  return text;
}

/// The value in the first line with the key, or the fallback where that is missing or empty.
std::string modelLocation(const std::string& content) {
  std::string location;
  std::string key;
  std::string value;
  bool inValue = false;
  for (const char character : content + "\n") {
    if (character == '\n') {
      if (inValue && withoutBlanks(key) == "DataLocation") {
        location = withoutBlanks(value);
        break;
      }
      key.clear();
      value.clear();
      inValue = false;
    } else if (character == '=' && !inValue) {
      inValue = true;
    } else {
      (inValue ? value : key) += character;
    }
  }
  return location.empty() ? "/var/lib/vs" : location;
}

void run(Input input) {
  static const SettingsFile file;
  const std::string content = input.rest();
  file.write(content);
  checkEqual("the location", modelLocation(content), platform::dataLocationFrom(nullptr, file.path()));
  checkEqual("the location, with an empty environment", modelLocation(content),
             platform::dataLocationFrom("", file.path()));
  checkEqual("the environment's", "/own", platform::dataLocationFrom("/own", file.path()));
}

}  // namespace

}  // namespace keltop::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  keltop::fuzz::run(keltop::fuzz::Input(data, size));
  return 0;
}
