#pragma once

#include <Poco/JSON/Object.h>

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "posts/PostValues.h"
#include "posts/XmlElement.h"
#include "product/SwitchMap.h"

namespace keltop {

/// What the test posts do differently.
struct TestPost {
  std::string_view routine;
  /// The switch that asks for the post, names its protocol and names it in the user agent.
  std::string_view name;
  unsigned errorSite;
  const char* rootName;
  std::span<const ValueSwitch> valueSwitches;
  /// Adds what this post tells about the room to what every post tells.
  void (*completeJson)(Poco::JSON::Object& room, const PostValues& values);
  void (*completeXml)(XmlElement& room, const PostValues& values);
};

/// Sends the post that the switches ask for. A failure of the network library is printed.
void sendTestPost(const SwitchMap& switches, const TestPost& post);

/// The text that the post sends; none for a protocol that the posts do not speak.
[[nodiscard]] std::string makePayload(const TestPost& post, const PostValues& values, std::uint32_t protocol);

/// Puts a number in, in plain decimal.
void addAttribute(XmlElement& element, std::string_view name, std::int32_t value);

/// Adds the user with the names that there are.
void addUser(XmlElement& room, const PostValues& values);

inline constexpr std::int32_t kSequence = 1;

}  // namespace keltop
