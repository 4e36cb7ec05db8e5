#include <Poco/BufferedStreamBuf.h>
#include <Poco/Exception.h>
#include <Poco/StreamCopier.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <istream>
#include <stdexcept>
#include <string>
#include <utility>

#include "servers/BodyUntilFailure.h"

namespace keltop {
namespace {

/// The library's kind of stream buffer: it gives the text in pieces, and then fails or ends.
class Source : public Poco::BufferedStreamBuf {
 public:
  Source(std::string text, std::size_t piece, bool fails)
      : Poco::BufferedStreamBuf::BasicBufferedStreamBuf(4096, std::ios::in),
        text_(std::move(text)),
        piece_(piece),
        fails_(fails) {}

 private:
  int readFromDevice(char* buffer, std::streamsize length) override {
    if (at_ == text_.size() && fails_) {
      throw Poco::TimeoutException("why");
    }
    const std::size_t count = std::min({piece_, static_cast<std::size_t>(length), text_.size() - at_});
    text_.copy(buffer, count, at_);
    at_ += count;
    return static_cast<int>(count);
  }

  const std::string text_;
  const std::size_t piece_;
  const bool fails_;
  std::size_t at_ = 0;
};

std::string copied(std::size_t length, std::size_t piece, bool fails) {
  Source source(std::string(length, 'x'), piece, fails);
  std::istream body(&source);
  BodyUntilFailure untilFailure(body);
  std::istream stream(&untilFailure);
  std::string text;
  Poco::StreamCopier::copyToString(stream, text, 8192);
  return text;
}

TEST(BodyUntilFailure, givesEveryByteWhereTheBodyEndsAndWhereItFails) {
  for (const bool fails : {false, true}) {
    for (const std::size_t length : {0U, 1U, 5U, 300U, 4095U, 4096U, 8191U, 8192U, 8193U, 100'000U}) {
      for (const std::size_t piece : {1U, 1000U, 10'000U}) {
        EXPECT_EQ(copied(length, piece, fails), std::string(length, 'x')) << length << " in pieces of " << piece;
      }
    }
  }
}

TEST(BodyUntilFailure, givesSingleCharactersToo) {
  Source source("ab", 1, true);
  std::istream body(&source);
  BodyUntilFailure untilFailure(body);
  std::istream stream(&untilFailure);
  EXPECT_EQ(stream.get(), 'a');
  EXPECT_EQ(stream.get(), 'b');
  EXPECT_EQ(stream.get(), std::istream::traits_type::eof());
}

}  // namespace
}  // namespace keltop
