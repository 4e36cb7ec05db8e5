#include "posts/XmlElement.h"

#include <algorithm>
#include <array>
#include <utility>
#include <variant>
#include <vector>

namespace keltop {

namespace {

struct Entity {
  std::string_view text;
  char character;
};

constexpr std::array<Entity, 5> kEntities = {{
    {"&amp;", '&'},
    {"&lt;", '<'},
    {"&gt;", '>'},
    {"&quot;", '"'},
    {"&apos;", '\''},
}};

/// The bytes of a UTF-8 sequence, by its first one. A byte that begins none counts as one of its own.
constexpr std::size_t sequenceLength(char first) noexcept {
  const auto byte = static_cast<unsigned char>(first);
  if (byte < 0xC2 || byte > 0xF4) {
    return 1;
  }
  if (byte < 0xE0) {
    return 2;
  }
  return byte < 0xF0 ? 3 : 4;
}

/// The first pass: how long the text will be.
class CountingSink {
 public:
  void put(std::string_view text) noexcept { count_ += text.size(); }
  void indent(std::size_t depth) noexcept { count_ += depth; }
  [[nodiscard]] std::size_t count() const noexcept { return count_; }

 private:
  std::size_t count_ = 0;
};

/// The second pass, into room for all of it.
class FillingSink {
 public:
  explicit FillingSink(std::size_t count) { text_.reserve(count); }
  void put(std::string_view text) { text_.append(text); }
  void indent(std::size_t depth) { text_.append(depth, '\t'); }
  [[nodiscard]] std::string take() noexcept { return std::move(text_); }

 private:
  std::string text_;
};

/// Only the first byte of a sequence is looked at: what follows a lead byte goes out as it is, also where it is one of
/// the five characters. That is intended. A sequence that the text's end cuts short ends there.
template <typename Sink>
void writeEscaped(std::string_view text, Sink& sink) {
  std::size_t plain = 0;  // where what needs no entity began
  for (std::size_t at = 0; at < text.size();) {
    const auto* entity =
        std::find_if(kEntities.begin(), kEntities.end(), [&](const Entity& row) { return row.character == text[at]; });
    if (entity == kEntities.end()) {
      at += sequenceLength(text[at]);  // past the end, where that cuts a sequence short, is the end as well
    } else {
      sink.put(text.substr(plain, at - plain));
      sink.put(entity->text);
      plain = ++at;
    }
  }
  sink.put(text.substr(plain));
}

std::string_view upToZero(std::string_view text) noexcept {
  return text.substr(0, text.find('\0'));
}

}  // namespace

struct XmlElement::Data {
  using Content = std::variant<XmlElement, std::string>;

  struct Attribute {
    std::string name;
    std::optional<std::string> value;
  };

  Data(std::string_view elementName, Kind elementKind) : name(elementName), kind(elementKind) {}
  Data(const Data&) = delete;
  Data& operator=(const Data&) = delete;

  ~Data() {
    for (const Content& entry : content) {
      if (const auto* child = std::get_if<XmlElement>(&entry)) {
        child->data_->parent = nullptr;
      }
    }
  }

  /// Written on one line.
  [[nodiscard]] bool isSingleLine() const noexcept {
    return kind != Kind::kDeclaration && content.size() == 1 && std::holds_alternative<std::string>(content.front());
  }

  std::string name;
  Kind kind;
  Data* parent = nullptr;  // not owned: it owns this one
  std::vector<Attribute> attributes;
  std::vector<Content> content;
};

XmlElement::XmlElement(std::string_view name, Kind kind) : data_(std::make_shared<Data>(upToZero(name), kind)) {}

void XmlElement::addAttribute(std::string_view name, std::optional<std::string_view> value) {
  name = upToZero(name);
  if (isEmpty() || name.empty()) {
    return;
  }
  Data::Attribute& attribute = data_->attributes.emplace_back();
  attribute.name = name;
  if (value) {
    attribute.value = upToZero(*value);
  }
}

XmlElement XmlElement::addChildElement(std::string_view name) {
  XmlElement child(name);
  if (isEmpty() || child.data_->name.empty()) {
    return {};
  }
  attachChild(child);
  return child;
}

void XmlElement::addText(std::string_view text) {
  if (!isEmpty()) {
    data_->content.emplace_back(std::string(upToZero(text)));
  }
}

void XmlElement::attachChild(const XmlElement& child) {
  if (isEmpty() || child.isEmpty()) {
    return;
  }
  for (const Data* above = data_.get(); above != nullptr; above = above->parent) {
    if (above == child.data_.get()) {
      return;
    }
  }
  const XmlElement kept = child;  // `child` may be the very entry that is taken out below
  if (Data* former = kept.data_->parent; former != nullptr) {
    std::erase_if(former->content, [&kept](const Data::Content& entry) {
      const auto* element = std::get_if<XmlElement>(&entry);
      return element != nullptr && *element == kept;
    });
  }
  kept.data_->parent = data_.get();
  data_->content.emplace_back(kept);
}

template <typename Sink>
void XmlElement::writeTree(const Data& element, std::size_t depth, Sink& sink) {
  if (!element.name.empty()) {
    writeStartTag(element, depth, sink);
  }
  writeContent(element, depth + 1, sink);
  if (!element.name.empty() && !element.content.empty()) {
    sink.indent(element.isSingleLine() ? 0 : depth);
    sink.put("</");
    sink.put(element.name);
    sink.put(">\n");
  }
}

template <typename Sink>
void XmlElement::writeStartTag(const Data& element, std::size_t depth, Sink& sink) {
  const bool declaration = element.kind == Kind::kDeclaration;
  sink.indent(depth);
  sink.put(declaration ? "<?" : "<");
  sink.put(element.name);
  for (const auto& [name, value] : element.attributes) {
    sink.put(" ");
    sink.put(name);
    if (value) {
      sink.put("=\"");
      writeEscaped(*value, sink);
      sink.put("\"");
    }
  }
  if (declaration) {
    sink.put("?>\n");
  } else if (element.content.empty()) {
    sink.put("/>\n");
  } else {
    sink.put(element.isSingleLine() ? ">" : ">\n");
  }
}

template <typename Sink>
void XmlElement::writeContent(const Data& element, std::size_t depth, Sink& sink) {
  const bool singleLine = element.isSingleLine();
  for (const Data::Content& entry : element.content) {
    if (const auto* child = std::get_if<XmlElement>(&entry)) {
      writeTree(*child->data_, depth, sink);
    } else if (const auto& text = std::get<std::string>(entry); singleLine) {
      writeEscaped(text, sink);
    } else if (!text.empty()) {
      sink.indent(depth);
      writeEscaped(text, sink);
      sink.put("\n");
    }
  }
}

std::string XmlElement::writeXml() const {
  if (isEmpty()) {
    return {};
  }
  CountingSink counting;
  writeTree(*data_, 0, counting);
  FillingSink filling(counting.count());
  writeTree(*data_, 0, filling);
  return filling.take();
}

}  // namespace keltop
