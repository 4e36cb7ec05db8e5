#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace keltop::view {

/// Writes JSON (RFC 8259) into a text, one value after the other, with the commas that belong between them. The text is
/// ASCII, and so valid UTF-8, whatever is written.
class JsonWriter {
 public:
  /// The text must outlive the writer.
  explicit JsonWriter(std::string& to) : to_(to) {}

  JsonWriter& beginObject() { return begin('{'); }
  JsonWriter& endObject() { return end('}'); }
  JsonWriter& beginArray() { return begin('['); }
  JsonWriter& endArray() { return end(']'); }

  /// A member's name: text of this program, ASCII without quotes.
  JsonWriter& name(std::string_view name);

  /// A text whose characters are the bytes: the character with the number 0 to 255 for each. Nothing is lost, whatever
  /// the bytes are; who reads it decides what they mean.
  JsonWriter& bytes(std::string_view bytes);

  /// UTF-8 as text; of what is not, each byte that is not as the character with its number.
  JsonWriter& text(std::string_view text);

  /// RFC 4648, 4.
  JsonWriter& base64(std::string_view bytes);

  JsonWriter& number(std::int64_t value);
  JsonWriter& number(std::uint64_t value);
  JsonWriter& number(double value);
  JsonWriter& boolean(bool value);
  JsonWriter& null();

 private:
  JsonWriter& begin(char bracket);
  JsonWriter& end(char bracket);
  void separate();
  void character(std::uint32_t code);

  std::string& to_;
  bool first_ = true;
};

/// The length of the UTF-8 character that begins a text (RFC 3629: no surrogates, nothing over-long); 0 where there is
/// none. Stores the character's number.
[[nodiscard]] std::size_t utf8Length(std::string_view text, std::uint32_t& code) noexcept;

/// Whether that is UTF-8 without control characters but for tabulator, line feed and carriage return.
[[nodiscard]] bool isText(std::string_view bytes) noexcept;

}  // namespace keltop::view
