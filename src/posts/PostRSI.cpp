#include "posts/PostRSI.h"

#include <array>

#include "posts/TestPost.h"

namespace keltop {

namespace {

/// The help also lists "-description"; it changes nothing, on purpose.
constexpr const char* kStatusDescription = "Coffee";

constexpr std::array<ValueSwitch, 5> kValueSwitches = {{
    {"ROOM", &PostValues::room},
    {"FNAME", &PostValues::firstName},
    {"LNAME", &PostValues::lastName},
    {"ID", &PostValues::userId},
    {"CODE", &PostValues::statusCode},
}};

/// The status' description takes the place of the room's, on purpose: the document has one.
void completeJson(Poco::JSON::Object& room, const PostValues& values) {
  room.set("code", values.statusCode);
  room.set("description", kStatusDescription);
}

void completeXml(XmlElement& room, const PostValues& values) {
  addAttribute(room, "status", values.statusCode);
  addAttribute(room, "sequence", kSequence);
  XmlElement status = room.addChildElement("status");
  addAttribute(status, "code", values.statusCode);
  status.addAttribute("description", kStatusDescription);
  addUser(room, values);
}

constexpr TestPost kRoomStatus = {.routine = "PostRSI",
                                  .name = "RSI",
                                  .errorSite = 674,
                                  .rootName = "room_status",
                                  .valueSwitches = kValueSwitches,
                                  .completeJson = completeJson,
                                  .completeXml = completeXml};

}  // namespace

void PostRSI(const SwitchMap& switches) {
  sendTestPost(switches, kRoomStatus);
}

}  // namespace keltop
