#pragma once

#include <istream>
#include <streambuf>

namespace keltop {

/// The bytes of a request's body as far as they come. The library's stream drops what it has just received when the
/// next receive fails: a client that stalls or resets in mid-body would not be seen to have sent anything. Here such a
/// failure is the end of the body, behind every byte that came before it.
class BodyUntilFailure : public std::streambuf {
 public:
  /// The stream must outlive this object.
  explicit BodyUntilFailure(std::istream& body) : body_(body) {}

 protected:
  std::streamsize xsgetn(char_type* text, std::streamsize length) override;
  int_type underflow() override;

 private:
  std::istream& body_;
  char_type one_ = 0;  ///< for who reads a character at a time
};

}  // namespace keltop
