#pragma once

#include <Poco/Exception.h>

#include <cstddef>
#include <ostream>
#include <streambuf>
#include <string>
#include <utility>

namespace keltop {

/// Output that fails with an exception of the library, which it passes on, at one piece of text, and works before it.
class FailingStream : public std::ostream {
 public:
  explicit FailingStream(std::string failAt) : std::ostream(nullptr), buffer_(std::move(failAt)) {
    rdbuf(&buffer_);
    exceptions(std::ios::badbit);
  }

  /// What came before that piece.
  [[nodiscard]] const std::string& shown() const noexcept { return buffer_.shown; }

 private:
  class Buffer : public std::streambuf {
   public:
    explicit Buffer(std::string failAt) : failAt_(std::move(failAt)) {}

    std::string shown;

   private:
    std::streamsize xsputn(const char* text, std::streamsize length) override {
      const std::string piece(text, static_cast<std::size_t>(length));
      if (piece == failAt_) {
        throw Poco::IOException("why");
      }
      shown += piece;
      return length;
    }
    int_type overflow(int_type character) override {
      shown.push_back(traits_type::to_char_type(character));
      return character;
    }

    std::string failAt_;
  };

  Buffer buffer_;
};

}  // namespace keltop
