#include "view/Json.h"

#include <Poco/NumberFormatter.h>

#include <array>

namespace keltop::view {

namespace {

constexpr std::string_view kHexDigits = "0123456789abcdef";
constexpr std::uint32_t kFirstPrintable = 0x20;
constexpr std::uint32_t kDelete = 0x7F;

std::uint32_t byteOf(char character) noexcept {
  return static_cast<unsigned char>(character);
}

/// What a first byte says of its character: its length, the bits of the number in it, and the smallest number that
/// needs that length.
struct Lead {
  std::uint32_t mask;
  std::uint32_t mark;
  std::size_t length;
  std::uint32_t smallest;
};
constexpr std::array<Lead, 4> kLeads{
    {{0x80, 0x00, 1, 0}, {0xE0, 0xC0, 2, 0x80}, {0xF0, 0xE0, 3, 0x800}, {0xF8, 0xF0, 4, 0x10000}}};

}  // namespace

std::size_t utf8Length(std::string_view text, std::uint32_t& code) noexcept {
  for (const Lead& lead : kLeads) {
    if (text.size() < lead.length || (byteOf(text[0]) & lead.mask) != lead.mark) {
      continue;
    }
    code = byteOf(text[0]) & ~lead.mask;
    for (std::size_t i = 1; i < lead.length; ++i) {
      if ((byteOf(text[i]) & 0xC0U) != 0x80U) {
        return 0;
      }
      code = (code << 6U) | (byteOf(text[i]) & 0x3FU);
    }
    const bool valid = code >= lead.smallest && code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
    return valid ? lead.length : 0;
  }
  return 0;
}

bool isText(std::string_view bytes) noexcept {
  while (!bytes.empty()) {
    std::uint32_t code = 0;
    const std::size_t length = utf8Length(bytes, code);
    if (length == 0 || code == kDelete || (code < kFirstPrintable && code != '\t' && code != '\n' && code != '\r')) {
      return false;
    }
    bytes.remove_prefix(length);
  }
  return true;
}

void JsonWriter::separate() {
  if (!first_) {
    to_ += ',';
  }
  first_ = false;
}

JsonWriter& JsonWriter::begin(char bracket) {
  separate();
  to_ += bracket;
  first_ = true;
  return *this;
}

JsonWriter& JsonWriter::end(char bracket) {
  to_ += bracket;
  first_ = false;
  return *this;
}

JsonWriter& JsonWriter::name(std::string_view name) {
  separate();
  to_.append("\"").append(name).append("\":");
  first_ = true;
  return *this;
}

void JsonWriter::character(std::uint32_t code) {
  if (code == '"' || code == '\\') {
    to_.append({'\\', static_cast<char>(code)});
  } else if (code >= kFirstPrintable && code < kDelete) {
    to_ += static_cast<char>(code);
  } else if (code > 0xFFFF) {  // two halves, as UTF-16 has them
    character(0xD800 + ((code - 0x10000) >> 10U));
    character(0xDC00 + ((code - 0x10000) & 0x3FFU));
  } else {
    to_.append({'\\', 'u', kHexDigits[code >> 12U], kHexDigits[(code >> 8U) & 0xFU], kHexDigits[(code >> 4U) & 0xFU],
                kHexDigits[code & 0xFU]});
  }
}

JsonWriter& JsonWriter::bytes(std::string_view bytes) {
  separate();
  to_ += '"';
  for (const char byte : bytes) {
    character(byteOf(byte));
  }
  to_ += '"';
  return *this;
}

JsonWriter& JsonWriter::text(std::string_view text) {
  separate();
  to_ += '"';
  while (!text.empty()) {
    std::uint32_t code = 0;
    const std::size_t length = utf8Length(text, code);
    character(length == 0 ? byteOf(text[0]) : code);
    text.remove_prefix(length == 0 ? 1 : length);
  }
  to_ += '"';
  return *this;
}

JsonWriter& JsonWriter::base64(std::string_view bytes) {
  static constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  separate();
  to_.reserve(to_.size() + bytes.size() / 3 * 4 + 6);
  to_ += '"';
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::string_view three = bytes.substr(i, 3);
    std::uint32_t bits = 0;
    for (std::size_t k = 0; k < 3; ++k) {
      bits = (bits << 8U) | (k < three.size() ? byteOf(three[k]) : 0);
    }
    for (std::size_t k = 0; k < 4; ++k) {
      to_ += k <= three.size() ? kLetters[(bits >> (18U - 6U * k)) & 0x3FU] : '=';
    }
  }
  to_ += '"';
  return *this;
}

JsonWriter& JsonWriter::number(std::int64_t value) {
  separate();
  to_ += std::to_string(value);
  return *this;
}

JsonWriter& JsonWriter::number(std::uint64_t value) {
  separate();
  to_ += std::to_string(value);
  return *this;
}

JsonWriter& JsonWriter::number(double value) {
  constexpr int kDigitsBehindThePoint = 3;
  separate();
  to_ += Poco::NumberFormatter::format(value, kDigitsBehindThePoint);
  return *this;
}

JsonWriter& JsonWriter::boolean(bool value) {
  separate();
  to_ += value ? "true" : "false";
  return *this;
}

JsonWriter& JsonWriter::null() {
  separate();
  to_ += "null";
  return *this;
}

}  // namespace keltop::view
