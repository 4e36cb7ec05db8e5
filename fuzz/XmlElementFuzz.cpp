// The XML writer: a tree is built by the writer's operations and, beside it, as a model. What is written must be what
// the model's own few lines write, and, where the tree can be XML at all, what an independent reader finds in it.
//
// Input: one letter for each operation, followed by its texts, each ended by a zero byte, or its numbers.

#include <expat.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "posts/XmlElement.h"
#include "support/Check.h"
#include "support/EscapedXml.h"
#include "support/Input.h"

namespace keltop::fuzz {

namespace {

/// An element of the model; its children by their places in the list of all.
struct Node {
  std::string name;
  bool declaration = false;
  std::vector<std::pair<std::string, std::optional<std::string>>> attributes;
  std::vector<std::variant<std::size_t, std::string>> content;
  std::optional<std::size_t> parent;
};

/// Trees of elements, each built twice. The place of an element is never that of the empty element, which has none.
class Trees {
 public:
  using Place = std::optional<std::size_t>;

  Trees() { (void)add("root", XmlElement::Kind::kElement); }

  Place add(const std::string& name, XmlElement::Kind kind) {
    elements_.emplace_back(name, kind);
    nodes_.push_back({.name = name, .declaration = kind == XmlElement::Kind::kDeclaration});
    return nodes_.size() - 1;
  }

  Place addChild(Place parent, const std::string& name) {
    XmlElement child = element(parent).addChildElement(name);
    check(child.isEmpty() == (!parent || name.empty()), "the empty element in the wrong place");
    if (child.isEmpty()) {
      return {};
    }
    elements_.push_back(child);
    nodes_.push_back({.name = name, .parent = parent});
    nodes_[*parent].content.emplace_back(nodes_.size() - 1);
    return nodes_.size() - 1;
  }

  void addAttribute(Place place, const std::string& name, const std::optional<std::string>& value) {
    element(place).addAttribute(name, value);
    if (place && !name.empty()) {
      nodes_[*place].attributes.emplace_back(name, value);
    }
  }

  void addText(Place place, const std::string& text, bool withMoreBehindItsEnd) {
    element(place).addText(withMoreBehindItsEnd ? text + std::string("\0hidden", 7) : text);
    if (place) {
      nodes_[*place].content.emplace_back(text);
    }
  }

  void attach(std::size_t parent, std::size_t child) {
    elements_[parent].attachChild(elements_[child]);
    for (Place above = parent; above; above = nodes_[*above].parent) {
      if (*above == child) {
        return;
      }
    }
    if (const Place former = nodes_[child].parent) {
      std::erase_if(nodes_[*former].content, [child](const auto& entry) {
        return std::holds_alternative<std::size_t>(entry) && std::get<std::size_t>(entry) == child;
      });
    }
    nodes_[child].parent = parent;
    nodes_[parent].content.emplace_back(child);
  }

  [[nodiscard]] std::size_t size() const noexcept { return nodes_.size(); }
  [[nodiscard]] const Node& node(std::size_t place) const { return nodes_[place]; }
  [[nodiscard]] std::string written(std::size_t place) const { return elements_[place].writeXml(); }

 private:
  XmlElement element(Place place) const { return place ? elements_[*place] : XmlElement(); }

  std::vector<XmlElement> elements_;
  std::vector<Node> nodes_;
};

bool onOneLine(const Node& node) {
  return !node.declaration && node.content.size() == 1 && node.content.front().index() == 1;
}

std::string modelStartTag(const Node& node) {
  std::string tag = (node.declaration ? "<?" : "<") + node.name + " ";
  for (const auto& [name, value] : node.attributes) {
    tag += name + (value ? "=\"" + escapedXml(*value) + "\"" : "") + " ";
  }
  tag.pop_back();
  if (node.declaration) {
    return tag + "?>\n";
  }
  return tag + (node.content.empty() ? "/>\n" : onOneLine(node) ? ">" : ">\n");
}

std::string modelText(const Trees& trees, std::size_t place, std::size_t depth) {
  const Node& node = trees.node(place);
  std::string text = node.name.empty() ? "" : std::string(depth, '\t') + modelStartTag(node);
  for (const auto& entry : node.content) {
    if (entry.index() == 0) {
      text += modelText(trees, std::get<0>(entry), depth + 1);
    } else if (onOneLine(node)) {
      text += escapedXml(std::get<1>(entry));
    } else if (!std::get<1>(entry).empty()) {
      text += std::string(depth + 1, '\t') + escapedXml(std::get<1>(entry)) + "\n";
    }
  }
  if (!node.name.empty() && !node.content.empty()) {
    text += std::string(onOneLine(node) ? 0 : depth, '\t') + "</" + node.name + ">\n";
  }
  return text;
}

// What a reader finds is written down in one text, with marks that no readable text holds.
constexpr char kStart = '\1';
constexpr char kAttribute = '\2';
constexpr char kValue = '\3';
constexpr char kContent = '\4';
constexpr char kEnd = '\5';

/// A text that XML can hold: no control characters, and none of the reserved ones where the writer lets it through.
std::string readable(std::string text) {
  std::size_t untested = 0;
  for (char& character : text) {
    if (untested > 0) {
      --untested;
      character = std::string_view("&<>\"'").find(character) == std::string_view::npos ? character : 'x';
    } else {
      untested = bytesFrom(character) - 1;
    }
    if (static_cast<unsigned char>(character) < 0x20 &&
        std::string_view("\t\n\r").find(character) == std::string::npos) {
      character = '_';
    }
  }
  return text;
}

std::string readableName(const std::string& text) {
  std::string name = "n";
  for (const char character : text) {
    name += static_cast<char>('a' + static_cast<unsigned char>(character) % 26);
  }
  return name;
}

/// What a reader makes of a text in ISO-8859-1.
std::string inUtf8(const std::string& text) {
  std::string wide;
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte < 0x80) {
      wide += character;
    } else {
      wide += {static_cast<char>(0xC0U | byte >> 6U), static_cast<char>(0x80U | (byte & 0x3FU))};
    }
  }
  return wide;
}

/// Every line end of XML becomes "\n" when it is read.
std::string withReadLineEnds(const std::string& text) {
  std::string read;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\r') {
      read += text[i];
    } else if (i + 1 == text.size() || text[i + 1] != '\n') {
      read += '\n';
    }
  }
  return read;
}

std::string readValue(const std::string& value) {
  std::string read = withReadLineEnds(value);
  for (char& character : read) {
    character = character == '\n' || character == '\t' ? ' ' : character;
  }
  return read;
}

/// Builds the readable form of an element and tells what a reader must find: the layout's blanks are text to it.
std::string buildReadable(const Trees& trees, std::size_t place, std::size_t depth, XmlElement element) {
  const Node& node = trees.node(place);
  std::string found = kStart + readableName(node.name);
  std::set<std::string> names;
  for (const auto& [name, value] : node.attributes) {
    if (names.insert(readableName(name)).second) {
      const std::string text = readable(value.value_or(""));
      element.addAttribute(readableName(name), text);
      found += kAttribute + readableName(name) + kValue + readValue(text);
    }
  }
  found += kContent;
  const bool lines = !node.content.empty() && !(node.content.size() == 1 && node.content.front().index() == 1);
  std::string run = lines ? "\n" : "";
  for (const auto& entry : node.content) {
    std::string text = entry.index() == 0 ? "" : readable(std::get<1>(entry));
    if (entry.index() == 0) {
      XmlElement child = element.addChildElement(readableName(trees.node(std::get<0>(entry)).name));
      run += std::string(depth + 1, '\t') + buildReadable(trees, std::get<0>(entry), depth + 1, child) + "\n";
    } else {
      element.addText(text);
      run += !lines ? text : text.empty() ? "" : std::string(depth + 1, '\t') + text + "\n";
    }
  }
  return found + run + (lines ? std::string(depth, '\t') : "") + kEnd;
}

void onStart(void* found, const XML_Char* name, const XML_Char** attributes) {
  std::string& text = *static_cast<std::string*>(found);
  text += kStart + std::string(name);
  for (; *attributes != nullptr; attributes += 2) {
    text += kAttribute + std::string(attributes[0]) + kValue + attributes[1];
  }
  text += kContent;
}

void onEnd(void* found, const XML_Char* /*name*/) {
  *static_cast<std::string*>(found) += kEnd;
}

void onText(void* found, const XML_Char* text, int length) {
  static_cast<std::string*>(found)->append(text, static_cast<std::size_t>(length));
}

std::string readBack(const std::string& document) {
  const std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> parser(XML_ParserCreate(nullptr), XML_ParserFree);
  std::string found;
  XML_SetUserData(parser.get(), &found);
  XML_SetElementHandler(parser.get(), onStart, onEnd);
  XML_SetCharacterDataHandler(parser.get(), onText);
  if (XML_Parse(parser.get(), document.data(), static_cast<int>(document.size()), 1) != XML_STATUS_OK) {
    fail(std::string("not XML: ") + XML_ErrorString(XML_GetErrorCode(parser.get())) + "\n" + shown(document));
  }
  return found;
}

void apply(Trees& trees, Trees::Place& at, Input& input) {
  const std::uint8_t operation = input.byte();
  switch (operation) {
    case 'e':
      at = trees.addChild(at, input.text());
      break;
    case 'a': {
      const std::string name = input.text();
      trees.addAttribute(at, name, input.text());
      break;
    }
    case 'b':
      trees.addAttribute(at, input.text(), std::nullopt);
      break;
    case 't':
    case 'z':
      trees.addText(at, input.text(), operation == 'z');
      break;
    case 'n':
    case 'd':
      at = trees.add(input.text(), operation == 'n' ? XmlElement::Kind::kElement : XmlElement::Kind::kDeclaration);
      break;
    case 'x': {
      const std::size_t parent = input.byte() % trees.size();
      trees.attach(parent, input.byte() % trees.size());
      break;
    }
    case 's':
      at = input.byte() % trees.size();
      break;
    default:  // back to the element above
      at = at && trees.node(*at).parent ? trees.node(*at).parent : Trees::Place(0);
  }
}

void run(Input input) {
  Trees trees;
  Trees::Place at = 0;
  while (!input.atEnd()) {
    apply(trees, at, input);
  }
  for (const std::size_t place : {std::size_t{0}, at.value_or(0), trees.size() - 1}) {
    checkEqual("the text", modelText(trees, place, 0), trees.written(place));
  }
  XmlElement root(readableName(trees.node(0).name));
  const std::string expected = withReadLineEnds(buildReadable(trees, 0, 0, root));
  checkEqual("what was read", inUtf8(expected),
             readBack("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\r\n" + root.writeXml()));
}

}  // namespace

}  // namespace keltop::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  keltop::fuzz::run(keltop::fuzz::Input(data, size));
  return 0;
}
