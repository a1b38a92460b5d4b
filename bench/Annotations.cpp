#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "bench/DaemonProcess.h"
#include "bench/Limits.h"
#include "bench/Roads.h"
#include "bench/SampleRoot.h"
#include "bench/WireClient.h"
#include "platform/plists/PropertyList.h"

namespace bench {

namespace {

using platform::Message;
using platform::PlistBuilder;
using platform::PlistValue;

// A store with annotations as settings screens leave them.
std::string storeOf(std::size_t entries) {
  PlistBuilder data;
  for (std::size_t i = 0; i < entries; ++i) {
    PlistValue extension = PlistBuilder().set("order", i).set("pinned", i % 2 == 0).set("name", "Plug-in").take();
    data.set("com.example.bench.other" + std::to_string(i),
             PlistBuilder().set("election", 1).set("extension", extension).take());
  }
  return platform::serializePropertyListXML(PlistBuilder().set("version", 16).set("data", data.take()).take());
}

std::string contentOf(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

platform::UUID firstPlugIn(WireClient& client) {
  Message reply = client.call(WireClient::request("match"));
  PlistValue forms = reply.get("matches")->toPlist();
  return platform::UUID::parse(forms.at(0)["uuid"].stringValue()).value();
}

void measureStore(Table& table, std::size_t entries, double target) {
  SampleRoot root;
  root.fillTo(1);
  std::string directory = root.path() + "/var/db";
  std::filesystem::create_directories(directory);
  std::string path = directory + "/Vornik-Annotations";
  std::ofstream(path) << storeOf(entries);
  DaemonProcess daemon(root.path());
  WireClient client(root.path());
  Message request = WireClient::request("annotate");
  request.set("uuids", Message::Array{firstPlugIn(client)});
  auto annotate = [&, election = std::int64_t{0}]() mutable {
    Message annotations = Message::dictionary();
    annotations.set("election", ++election % 200);
    request.set("annotations", annotations);
    client.call(request);
  };
  annotate();
  std::string ready = contentOf(path);
  if (ready.size() < 100 * entries) std::exit(1);
  std::vector<double> limits;
  std::vector<double> changes;
  for (int round = 0; round < 60; ++round) {
    limits.push_back(samples(1, [&] { replaceFile(directory + "/limit", ready); }).front());
    changes.push_back(samples(1, annotate).front());
  }
  table.add({"one \"annotate\", " + std::to_string(entries) + " entries stored", "ready bytes replaced and flushed",
             median(changes), median(limits), target});
}

}  // namespace

void measureAnnotations(Table& table) {
  measureStore(table, 100, 1.3);
  measureStore(table, 5000, 2.0);
}

}  // namespace bench
