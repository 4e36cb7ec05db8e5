#pragma once

#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>

namespace keltop {

/// Text on its way to standard output. It collects what is inserted and passes it on in one piece when flushed, so
/// that a block of lines costs one write and lines of several threads mix as little as possible. Whoever is about to
/// block flushes first: what is known must be on the screen.
///
/// A text that cannot be written (closed or full output) is dropped; the stream stays good and the next text is tried.
class ConsoleStream : public std::ostream {
 public:
  ConsoleStream();
  ~ConsoleStream() override;
  ConsoleStream(const ConsoleStream&) = delete;
  ConsoleStream& operator=(const ConsoleStream&) = delete;

  /// Inserts the text without the formatting of a stream, for who prints much and often.
  ConsoleStream& append(std::string_view text);

 private:
  class Buffer : public std::streambuf {
   public:
    Buffer();
    void append(std::string_view text);

   protected:
    int_type overflow(int_type character) override;
    std::streamsize xsputn(const char_type* text, std::streamsize length) override;
    int sync() override;

   private:
    std::string pending_;
  };

  Buffer buffer_;
};

/// Prints the line of an error that is known by the fixed number of its place: "ROUTINE(SITE) MESSAGE".
void printSiteLine(std::string_view routine, unsigned site, std::string_view message, std::string_view detail = {});

}  // namespace keltop
