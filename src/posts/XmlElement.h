#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace keltop {

/// A handle to an element of a small XML tree. Copying it shares the element, which lives as long as some handle to it;
/// an element's content holds handles to its children. A default-made handle refers to no element: it is the empty
/// element, on which every operation does nothing. One thread at a time may use a tree.
///
/// Texts are bytes and end at their first zero byte. A name without characters is no name.
class XmlElement {
 public:
  enum class Kind { kElement, kDeclaration };

  /// The empty element.
  XmlElement() noexcept = default;

  /// An element of its own, with no parent. Without a name it writes no tags, only its content. A declaration's tag has
  /// question marks, as a processing instruction's.
  explicit XmlElement(std::string_view name, Kind kind = Kind::kElement);

  [[nodiscard]] bool isEmpty() const noexcept { return data_ == nullptr; }

  /// Adds an attribute after those that exist, also when one of that name does. Without a value the name stands alone.
  /// Without a name nothing changes.
  void addAttribute(std::string_view name, std::optional<std::string_view> value);

  /// Makes a new element the last content of this one and gives it; the empty element when there is no name.
  XmlElement addChildElement(std::string_view name);

  /// Makes the text the last content. An empty text writes nothing and still is content.
  void addText(std::string_view text);

  /// Makes an existing element the last content, taking it away from the parent it had. The empty element, this element
  /// and those above it cannot be attached; then nothing changes.
  void attachChild(const XmlElement& child);

  /// The tree in its formatted form: a line for each tag and text, indented by tabs and ended by "\n"; an element whose
  /// only content is one text is one line. Values and texts have the five characters that XML reserves written as
  /// entities. The empty element gives an empty text.
  [[nodiscard]] std::string writeXml() const;

  /// Whether both handles refer to the same element.
  friend bool operator==(const XmlElement&, const XmlElement&) noexcept = default;

 private:
  struct Data;

  template <typename Sink>
  static void writeTree(const Data& element, std::size_t depth, Sink& sink);
  template <typename Sink>
  static void writeStartTag(const Data& element, std::size_t depth, Sink& sink);
  template <typename Sink>
  static void writeContent(const Data& element, std::size_t depth, Sink& sink);

  std::shared_ptr<Data> data_;
};

}  // namespace keltop
