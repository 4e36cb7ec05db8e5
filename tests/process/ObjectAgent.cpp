// A process that a test drives over standard input, one command a line: it holds and uses machine-wide objects as
// keltop does. Each command is answered by one line.

#include <cstdint>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>

#include "platform/KernelObjects.h"
#include "platform/OpenAccess.h"
#include "semaphore/EventSemaphore.h"
#include "semaphore/GlobalName.h"
#include "semaphore/Mutex.h"
#include "semaphore/MutexAutoLock.h"

namespace {

namespace platform = keltop::platform;
using platform::ObjectHandle;

std::string created(ObjectHandle handle) {
  return std::to_string(static_cast<std::uintptr_t>(handle)) + " " + std::to_string(platform::lastError());
}

std::string outcome(bool done) {
  return done ? "0" : std::to_string(platform::lastError());
}

/// Creates, opens, sets and closes one event over and over, and says how often it went wrong.
std::string churn(const std::string& name, int rounds) {
  int failures = 0;
  for (int i = 0; i < rounds; ++i) {
    SEMAPHORE::EventSemaphore first;
    SEMAPHORE::EventSemaphore second;
    // While this process holds the event it must be there to open, and be one and the same.
    if (!first.create(name) || !second.open(name) || !platform::setEvent(first.handle()) ||
        platform::waitForObject(second.handle(), 0) != platform::kWaitObject) {
      ++failures;
    }
  }
  return std::to_string(failures);
}

class Agent {
 public:
  std::string answer(const std::string& line) {
    std::istringstream words(line);
    std::string command;
    words >> command;
    const platform::OpenAccess access;
    if (command == "create-event") {
      return created(platform::createEvent(&access, name(words)));
    }
    if (command == "open-event") {
      return created(platform::openEvent(name(words)));
    }
    if (command == "create-mutex") {
      return created(platform::createMutex(&access, name(words)));
    }
    if (command == "create-semaphore") {
      const std::string object = name(words);
      const auto initial = number<std::int32_t>(words);
      return created(platform::createSemaphore(&access, initial, number<std::int32_t>(words), object));
    }
    if (command == "exclusive-mutex") {
      SEMAPHORE::Mutex mutex;
      return mutex.create(text(words), false) ? "1" : "0";
    }
    if (command == "autolock") {
      const std::string object = text(words);
      autoLock_ = std::make_unique<SEMAPHORE::MutexAutoLock>(object, text(words));
      return "locked";
    }
    if (command == "autounlock") {
      autoLock_.reset();
      return "unlocked";
    }
    if (command == "churn") {
      const std::string object = text(words);
      return churn(object, number<int>(words));
    }
    return answerOnHandle(command, words);
  }

 private:
  static std::string answerOnHandle(const std::string& command, std::istringstream& words) {
    const auto handle = static_cast<ObjectHandle>(number<std::uintptr_t>(words));
    if (command == "set") {
      return outcome(platform::setEvent(handle));
    }
    if (command == "release") {
      return outcome(platform::releaseMutex(handle));
    }
    if (command == "post") {
      return outcome(platform::releaseSemaphore(handle));
    }
    if (command == "close") {
      return outcome(platform::closeObject(handle));
    }
    if (command == "wait") {
      return std::to_string(platform::waitForObject(handle, number<std::uint32_t>(words)));
    }
    if (command == "close-in-thread") {
      bool closed = false;
      std::thread([&] { closed = platform::closeObject(handle); }).join();
      return outcome(closed);
    }
    if (command == "wait-in-thread") {  // which ends at once, with whatever it then owns
      std::uint32_t result = 0;
      std::thread([&] { result = platform::waitForObject(handle, 0); }).join();
      return std::to_string(result);
    }
    return "?";
  }

  static std::string text(std::istringstream& words) {
    std::string word;
    words >> word;
    return word;
  }

  static std::string name(std::istringstream& words) { return SEMAPHORE::globalName(text(words)); }

  template <typename Number>
  static Number number(std::istringstream& words) {
    Number value = 0;
    words >> value;
    return value;
  }

  std::unique_ptr<SEMAPHORE::MutexAutoLock> autoLock_;
};

}  // namespace

int main() {
  Agent agent;
  std::string line;
  while (std::getline(std::cin, line)) {
    if (!line.empty() && line.back() == '\r') {
      line.pop_back();
    }
    std::cout << agent.answer(line) << std::endl;
  }
}
