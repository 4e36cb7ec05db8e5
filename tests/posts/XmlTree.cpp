#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "posts/XmlElement.h"

namespace {

/// The zero-ended fields of the records, one after another.
class Fields {
 public:
  explicit Fields(std::string_view rest) : rest_(rest) {}
  [[nodiscard]] bool atEnd() const noexcept { return rest_.empty(); }

  std::string_view next() {
    const std::size_t end = rest_.find('\0');
    if (end == std::string_view::npos) {
      throw std::runtime_error("a record without its end");
    }
    const std::string_view field = rest_.substr(0, end);
    rest_.remove_prefix(end + 1);
    return field;
  }

 private:
  std::string_view rest_;
};

keltop::XmlElement build(Fields& fields) {
  // The top element of the records is the first child of a root that is not written.
  keltop::XmlElement root("root");
  keltop::XmlElement top;
  std::vector<keltop::XmlElement> open = {root};
  while (!fields.atEnd()) {
    const std::string_view record = fields.next();
    if (record == "element") {
      open.push_back(open.back().addChildElement(fields.next()));
      top = top.isEmpty() ? open.back() : top;
    } else if (record == "attribute") {
      const std::string_view name = fields.next();
      open.back().addAttribute(name, fields.next());
    } else if (record == "text") {
      open.back().addText(fields.next());
    } else if (record == "end") {
      open.pop_back();
    } else {
      throw std::runtime_error("an unknown record");
    }
  }
  return top;
}

}  // namespace

int main() {
  const std::string records{std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
  Fields fields(records);
  std::cout << build(fields).writeXml();
}
