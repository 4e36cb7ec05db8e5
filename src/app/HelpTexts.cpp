#include "app/HelpTexts.h"

#include <array>
#include <string_view>

#include "product/Version.h"

namespace keltop {

namespace {

constexpr std::string_view kLegalNotice = "Copyright (c) 2024 Vantrel Corporation. All rights reserved.";

constexpr std::array<std::string_view, 7> kShortOptions = {
    "\r\nOptions: ",
    "-h or -?  Expanded help.",
    "-p        Port number to use.",
    "-raw      Read raw TCP traffic. No response will be sent.",
    "-isi      Perform a test inventory post. Run with -h for options.",
    "-rsi      Perform a test room status post. Run with -h for options.",
    "",
};

// "a inventory" and "Quanity" are the product's own words, kept as they are.
constexpr std::array<std::string_view, 21> kExpandedHelp = {
    "\r\nInventory / Room Status testing.",
    "  Options:",
    "  -isi <protocol> Perform a inventory test post using the specified protocol",
    "  -rsi <protocol> Perform a room status test post using the specified protocol",
    "  -url URL to send post.",
    "\r\n  Protocol options.",
    "          jazz - Post special XML packet for Jazz.",
    "          json - Post json packet.",
    "          form - Post as a form post.",
    "          xml - Post XML packet.",
    "\r\n  Optional arguments:",
    "  -description Item or status description.",
    "  -room   Room number to use.",
    "  -id     User id.",
    "  -fname  First name of user.",
    "  -lname  Last name of user.",
    "  -count  Quanity of items for inventory post.",
    "  -code   Status code for room status post.",
    "  -item   Item ID for inventory post.",
    "  -category Category ID for inventory post.",
    "\r\n  Example: keltop -rsi jazz -url http://127.0.0.1/rsi",
};

template <std::size_t Count>
void printLines(std::ostream& console, const std::array<std::string_view, Count>& lines) {
  for (const std::string_view line : lines) {
    console << line << '\n';
  }
  console.flush();
}

}  // namespace

void printBanner(std::ostream& console) {
  console << "KELTOP.EXE - " << kFileVersion << " Built: " << kBuildDate << "\r\n"
          << "Vantrel Corporation"
          << "\r\n"
          << kLegalNotice << "\r\n\r\nWeb services test application." << std::endl;
}

void printShortOptions(std::ostream& console) {
  printLines(console, kShortOptions);
}

void printExpandedHelp(std::ostream& console) {
  printLines(console, kExpandedHelp);
}

}  // namespace keltop
