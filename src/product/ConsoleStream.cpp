#include "product/ConsoleStream.h"

#include "platform/StandardOutput.h"

namespace keltop {

namespace {

/// From this size on a text is written straight through: collecting it would only copy it.
constexpr std::size_t kWriteThroughSize = 65536;

/// Room for what is usually printed between two flushes, so that collecting it does not move it again and again.
constexpr std::size_t kUsualBlockSize = 1024;

}  // namespace

ConsoleStream::Buffer::Buffer() {
  pending_.reserve(kUsualBlockSize);
}

void ConsoleStream::Buffer::append(std::string_view text) {
  if (text.size() >= kWriteThroughSize) {
    sync();
    (void)platform::writeStandardOutput(text);
  } else {
    pending_.append(text);
  }
}

ConsoleStream::ConsoleStream() : std::ostream(nullptr) {
  rdbuf(&buffer_);
}

ConsoleStream::~ConsoleStream() {
  flush();
}

ConsoleStream& ConsoleStream::append(std::string_view text) {
  buffer_.append(text);
  return *this;
}

ConsoleStream::Buffer::int_type ConsoleStream::Buffer::overflow(int_type character) {
  if (!traits_type::eq_int_type(character, traits_type::eof())) {
    pending_.push_back(traits_type::to_char_type(character));
  }
  return traits_type::not_eof(character);
}

std::streamsize ConsoleStream::Buffer::xsputn(const char_type* text, std::streamsize length) {
  append({text, static_cast<std::size_t>(length)});
  return length;
}

int ConsoleStream::Buffer::sync() {
  if (!pending_.empty()) {
    (void)platform::writeStandardOutput(pending_);
    pending_.clear();
  }
  return 0;
}

void printSiteLine(std::string_view routine, unsigned site, std::string_view message, std::string_view detail) {
  ConsoleStream console;
  console << routine << '(' << site << ") " << message << detail << '\n';
}

}  // namespace keltop
