#include "posts/PostISI.h"

#include <array>

#include "posts/TestPost.h"

namespace keltop {

namespace {

constexpr const char* kItemDescription = "clean";

/// A text in both forms, never a number.
constexpr const char* kPrice = "1.00";

/// "CODE" is read and goes nowhere, on purpose: an inventory post carries no status.
constexpr std::array<ValueSwitch, 8> kValueSwitches = {{
    {"ROOM", &PostValues::room},
    {"FNAME", &PostValues::firstName},
    {"LNAME", &PostValues::lastName},
    {"ID", &PostValues::userId},
    {"CODE", &PostValues::statusCode},
    {"ITEM", &PostValues::itemId},
    {"COUNT", &PostValues::quantity},
    {"CATEGORY", &PostValues::categoryId},
}};

/// The item's description takes the place of the room's, on purpose: the document has one. The category is told in the
/// XML form only.
void completeJson(Poco::JSON::Object& room, const PostValues& values) {
  room.set("id", values.itemId);
  room.set("price", kPrice);
  room.set("description", kItemDescription);
  room.set("quantity", values.quantity);
}

void completeXml(XmlElement& room, const PostValues& values) {
  addAttribute(room, "sequence", kSequence);
  addUser(room, values);
  XmlElement item = room.addChildElement("item");
  addAttribute(item, "id", values.itemId);
  addAttribute(item, "quantity", values.quantity);
  item.addAttribute("description", kItemDescription);
  item.addAttribute("price", kPrice);
  addAttribute(item, "catid", values.categoryId);
}

constexpr TestPost kInventory = {.routine = "PostISI",
                                 .name = "ISI",
                                 .errorSite = 911,
                                 .rootName = "inventory",
                                 .valueSwitches = kValueSwitches,
                                 .completeJson = completeJson,
                                 .completeXml = completeXml};

}  // namespace

void PostISI(const SwitchMap& switches) {
  sendTestPost(switches, kInventory);
}

}  // namespace keltop
