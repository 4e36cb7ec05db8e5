// A process that traces as fast or as slowly as it is told to. It makes the writer's passes itself, so that it knows
// which records were written. Only the module of the program is used, with rotation.
//
//   flood TAG LENGTH [PAUSE]
//           prints "ready", waits for a line on standard input, writes until the next one, or the end of the input,
//           lines whose text is "TAG:NUMBER:" filled up to the length, with that many milliseconds between two passes,
//           and prints how many
//   steps   writes each line of standard input, and prints "done" when its pass is over

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "trace/LogsControl.h"
#include "trace/ProgramModule.h"
#include "trace/ThreadLogData.h"
#include "trace/TraceWriter.h"

namespace keltop {
namespace {

constexpr std::uint64_t kRecordsOfAPass = 100;

class Agent {
 public:
  Agent() { (void)control_.registerModule(1, kKeltopModule, {}); }

  void push(std::string text) { control_.push(makeRecord(kKeltopModule, ThreadLogData::kOrdinary, std::move(text))); }
  void pass() { writer_.pass(); }

 private:
  LogsControl control_{LogsControl::Writer::none};
  TraceWriter writer_{control_};
};

void waitForLine() {
  std::string line;
  std::getline(std::cin, line);
}

int flood(const std::string& tag, std::size_t length, std::chrono::milliseconds pause) {
  Agent agent;
  std::cout << "ready" << std::endl;
  waitForLine();
  std::atomic<bool> enough = false;
  const std::jthread listener([&enough] {
    waitForLine();
    enough = true;
  });
  std::uint64_t written = 0;
  while (!enough) {
    for (std::uint64_t i = 0; i < kRecordsOfAPass; ++i) {
      std::string text = tag + ":" + std::to_string(written++) + ":";
      text.resize(length, 'x');
      agent.push(std::move(text));
    }
    // The record that the pass gives up, so that it ends at once and not after a wait.
    agent.push("given up");
    agent.pass();
    std::this_thread::sleep_for(pause);
  }
  std::cout << written << std::endl;
  return EXIT_SUCCESS;
}

int steps() {
  Agent agent;
  for (std::string line; std::getline(std::cin, line);) {
    agent.push(line);
    agent.pass();
    std::cout << "done" << std::endl;
  }
  return EXIT_SUCCESS;
}

int run(const std::vector<std::string>& words) {
  if ((words.size() == 3 || words.size() == 4) && words[0] == "flood") {
    const std::chrono::milliseconds pause(words.size() == 4 ? std::stoi(words[3]) : 0);
    return flood(words[1], std::stoul(words[2]), pause);
  }
  if (words.size() == 1 && words[0] == "steps") {
    return steps();
  }
  std::cerr << "no such command\n";
  return EXIT_FAILURE;
}

}  // namespace
}  // namespace keltop

int main(int count, char** arguments) {
  return keltop::run(std::vector<std::string>(arguments + 1, arguments + count));
}
