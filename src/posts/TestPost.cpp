#include "posts/TestPost.h"

#include <Poco/Exception.h>
#include <Poco/SharedPtr.h>
#include <Poco/String.h>

#include <sstream>

#include "posts/Post.h"
#include "posts/Protocol.h"
#include "product/ConsoleStream.h"
#include "product/Version.h"

namespace keltop {

namespace {

using Poco::JSON::Object;

constexpr const char* kRoomDescription = "test room";
constexpr std::int32_t kAttempt = 1;
constexpr int kAgentNumber = 201;
constexpr unsigned kJsonIndent = 2;

constexpr std::string_view kProlog = "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\r\n";

/// Ends every jazz payload and closes what nothing opened, on purpose.
constexpr std::string_view kJazzEnd = "</xml>";

/// Every other word, "form" among them, means jazz, on purpose.
std::uint32_t chooseProtocol(const SwitchMap& switches, std::string_view name) {
  const std::string* word = findSwitch(switches, name);
  if (word == nullptr) {
    return kProtocolJazz;
  }
  if (Poco::icompare(*word, "xml") == 0) {
    return kProtocolXml;
  }
  return Poco::icompare(*word, "json") == 0 ? kProtocolJson : kProtocolJazz;
}

Object::Ptr jsonUser(const PostValues& values) {
  Object::Ptr user = Poco::makeShared<Object>();
  user->set("id", values.userId);
  if (!values.firstName.empty()) {
    user->set("fname", values.firstName);
  }
  if (!values.lastName.empty()) {
    user->set("lname", values.lastName);
  }
  return user;
}

std::string jsonPayload(const TestPost& post, const PostValues& values) {
  Object::Ptr room = Poco::makeShared<Object>();
  room->set("room", values.room);
  room->set("description", kRoomDescription);
  room->set("date", values.date);
  room->set("time", values.time);
  room->set("attempt", kAttempt);
  room->set("user", jsonUser(values));
  post.completeJson(*room, values);
  Object::Ptr root = Poco::makeShared<Object>();
  root->set("room", room);
  Object document;
  document.set(post.rootName, root);
  std::ostringstream text;
  document.stringify(text, kJsonIndent);
  return text.str();
}

std::string xmlPayload(const TestPost& post, const PostValues& values, bool jazz) {
  XmlElement root(post.rootName);
  XmlElement room("room");
  room.addAttribute("number", values.room);
  room.addAttribute("date", values.date);
  room.addAttribute("time", values.time);
  room.addAttribute("description", kRoomDescription);
  addAttribute(room, "attempt", kAttempt);
  post.completeXml(room, values);
  root.attachChild(room);
  return std::string(kProlog).append(root.writeXml()).append(jazz ? kJazzEnd : "").append("\r\n");
}

std::string agent(const TestPost& post) {
  return std::string(kAgentName)
      .append("/")
      .append(kTraceVersion)
      .append(" ")
      .append(post.name)
      .append("/")
      .append(std::to_string(kAgentNumber));
}

}  // namespace

void addAttribute(XmlElement& element, std::string_view name, std::int32_t value) {
  element.addAttribute(name, std::to_string(value));
}

void addUser(XmlElement& room, const PostValues& values) {
  XmlElement user = room.addChildElement("user");
  addAttribute(user, "id", values.userId);
  if (!values.firstName.empty()) {
    user.addChildElement("fname").addText(values.firstName);
  }
  if (!values.lastName.empty()) {
    user.addChildElement("lname").addText(values.lastName);
  }
}

std::string makePayload(const TestPost& post, const PostValues& values, std::uint32_t protocol) {
  switch (protocol) {
    case kProtocolJson:
      return jsonPayload(post, values);
    case kProtocolJazz:
    case kProtocolXml:
      return xmlPayload(post, values, protocol == kProtocolJazz);
    default:
      return {};
  }
}

void sendTestPost(const SwitchMap& switches, const TestPost& post) {
  try {
    const std::uint32_t protocol = chooseProtocol(switches, post.name);
    const PostValues values = gatherValues(switches, post.valueSwitches);
    Post(switches, protocol, agent(post), makePayload(post, values, protocol));
  } catch (const Poco::Exception& error) {
    printSiteLine(post.routine, post.errorSite, "Error: ", error.displayText());
  }
}

}  // namespace keltop
