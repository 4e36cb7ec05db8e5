#include "trace/FormatTrace.h"

#include <array>
#include <charconv>
#include <utility>

#include "trace/ThreadLogData.h"

namespace keltop {

namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::size_t kTimeStampLength = 23;
constexpr std::size_t kIdWidth = 4;
constexpr std::size_t kTypeWidth = 8;

/// What the receiver of pushed lines knows them by.
constexpr std::uint32_t kPushKind = 3;
constexpr std::size_t kPushKindWidth = 2;
constexpr std::size_t kPushModuleWidth = 6;

void appendTypeColumn(std::string& text, std::uint32_t type) {
  static constexpr std::string_view kDigits = "0123456789ABCDEF";
  for (std::size_t digit = kTypeWidth; digit-- > 0;) {
    text += kDigits[type >> (4U * digit) & 0xFU];
  }
}

std::string makeSecondStamp(const platform::LocalTime& time) {
  std::string text;
  appendNumber(text, time.year, 4);
  for (const auto& [separator, number] :
       {std::pair('/', time.month), std::pair('/', time.day), std::pair('-', time.hour), std::pair(':', time.minute),
        std::pair(':', time.second)}) {
    text += separator;
    appendNumber(text, number, 2);
  }
  return text += ':';
}

/// A time stamp up to its milliseconds, which is made once for all records that a thread makes in one second. Nothing
/// here needs an end: static objects may trace when the thread's others have gone.
std::string_view secondStamp(const platform::LocalTime& time) {
  thread_local platform::LocalTime second;
  thread_local std::array<char, kTimeStampLength> text;
  thread_local std::size_t length = 0;
  platform::LocalTime wanted = time;
  wanted.milliseconds = 0;
  if (length == 0 || wanted != second) {
    length = makeSecondStamp(time).copy(text.data(), text.size());
    second = wanted;
  }
  return {text.data(), length};
}

}  // namespace

void appendNumber(std::string& text, std::uint32_t number, std::size_t width, char fill) {
  std::array<char, 10> digits = {};
  const char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  const auto length = static_cast<std::size_t>(end - digits.data());
  text.append(width > length ? width - length : 0, fill).append(digits.data(), length);
}

std::string timeStamp(const platform::LocalTime& time) {
  std::string text;
  text.reserve(kTimeStampLength);
  text += secondStamp(time);
  appendNumber(text, time.milliseconds, 3);
  return text;
}

std::string compactTimeStamp(const platform::LocalTime& time) {
  std::string text = std::to_string(time.year);
  for (const std::uint16_t number : {time.month, time.day, time.hour, time.minute, time.second}) {
    appendNumber(text, number, 2);
  }
  appendNumber(text, time.milliseconds, 3);
  return text;
}

std::string traceLine(std::string_view fileName, const ThreadLogData& record) {
  std::string line(fileName);
  for (const std::uint32_t id : {record.processId, record.threadId}) {
    line += ' ';
    appendNumber(line, id, kIdWidth);
  }
  line.append(" ").append(record.timeStamp).append(" ");
  appendTypeColumn(line, record.type);
  return line.append(" ").append(record.text).append(kLineEnd);
}

std::string pushMessage(std::uint32_t module, std::string_view line) {
  std::string message;
  appendNumber(message, kPushKind, kPushKindWidth, ' ');
  message += '~';
  appendNumber(message, module, kPushModuleWidth, ' ');
  return message.append("~ ").append(line);
}

}  // namespace keltop
