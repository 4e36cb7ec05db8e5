#include <benchmark/benchmark.h>
#include <tinyxml2.h>

#include <cstdint>
#include <string>

#include "posts/XmlElement.h"

// The same tree of 10,000 elements, written by XmlElement and by TinyXML2: rooms with two attributes, each with nine
// elements that hold a text. Every tenth value has characters that need an entity.

namespace {

constexpr int kRooms = 1000;
constexpr int kNamesInRoom = 9;
constexpr std::int64_t kElements = kRooms * (1 + kNamesInRoom);

std::string valueOf(int number) {
  return std::string(number % 10 == 0 ? "Orvin & \"Sons\" " : "Orvin and sons ").append(std::to_string(number));
}

keltop::XmlElement ownTree() {
  keltop::XmlElement root("rooms");
  for (int room = 0; room < kRooms; ++room) {
    keltop::XmlElement element = root.addChildElement("room");
    element.addAttribute("number", std::to_string(room));
    element.addAttribute("description", valueOf(room));
    for (int name = 0; name < kNamesInRoom; ++name) {
      element.addChildElement("fname").addText(valueOf(name));
    }
  }
  return root;
}

void fillTinyTree(tinyxml2::XMLDocument& document) {
  tinyxml2::XMLElement* root = document.NewElement("rooms");
  document.InsertEndChild(root);
  for (int room = 0; room < kRooms; ++room) {
    tinyxml2::XMLElement* element = root->InsertNewChildElement("room");
    element->SetAttribute("number", room);
    element->SetAttribute("description", valueOf(room).c_str());
    for (int name = 0; name < kNamesInRoom; ++name) {
      element->InsertNewChildElement("fname")->SetText(valueOf(name).c_str());
    }
  }
}

void writeOwnTree(benchmark::State& state) {
  const keltop::XmlElement root = ownTree();
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(root.writeXml());
  }
  state.SetItemsProcessed(state.iterations() * kElements);
}

void writeTinyTree(benchmark::State& state) {
  tinyxml2::XMLDocument document;
  fillTinyTree(document);
  for ([[maybe_unused]] auto _ : state) {
    tinyxml2::XMLPrinter printer;
    document.Print(&printer);
    benchmark::DoNotOptimize(std::string(printer.CStr()));
  }
  state.SetItemsProcessed(state.iterations() * kElements);
}

void buildAndWriteOwnTree(benchmark::State& state) {
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(ownTree().writeXml());
  }
  state.SetItemsProcessed(state.iterations() * kElements);
}

void buildAndWriteTinyTree(benchmark::State& state) {
  for ([[maybe_unused]] auto _ : state) {
    tinyxml2::XMLDocument document;
    fillTinyTree(document);
    tinyxml2::XMLPrinter printer;
    document.Print(&printer);
    benchmark::DoNotOptimize(std::string(printer.CStr()));
  }
  state.SetItemsProcessed(state.iterations() * kElements);
}

BENCHMARK(writeOwnTree);
BENCHMARK(writeTinyTree);
BENCHMARK(buildAndWriteOwnTree);
BENCHMARK(buildAndWriteTinyTree);

}  // namespace

BENCHMARK_MAIN();
