#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "Vornik/VKPlugInCore.h"
#include "bench/DaemonProcess.h"
#include "bench/Limits.h"
#include "bench/Roads.h"
#include "bench/SampleRoot.h"
#include "bench/WireClient.h"

namespace bench {

namespace {

using platform::Message;
using platform::PlistBuilder;
using platform::PlistValue;
using platform::SharedSlice;

constexpr std::size_t kRequestSize = 64;

std::string matchFrame(const PlistValue& rules) {
  Message request = WireClient::request("match");
  if (rules) request.set("rules", Message::fromPlist(rules));
  return WireClient::frame(request);
}

PlistValue rule(const char* key, const char* pattern) { return PlistBuilder().set(key, pattern).take(); }

// The forms of a reply, checked; ends the benchmark when there are not as many as there must be.
PlistValue formsIn(std::string payload, std::size_t expected) {
  Message reply = platform::decodeMessage(SharedSlice::take(std::move(payload)));
  const Message* matches = reply.get("matches");
  PlistValue forms;
  if (matches != nullptr && matches->as<platform::Rope>() != nullptr) {
    // decodeMessage has validated the encoding; this only takes a view of it.
    forms = platform::decodePlist(matches->as<platform::Rope>()->flat(), nullptr, platform::kPlistMaxMessageDepth);
  }
  if (forms.size() != expected) {
    std::fprintf(stderr, "%zu forms in place of %zu\n", forms.size(), expected);
    std::exit(1);
  }
  return forms;
}

// One request with its reply read and checked; answers the bytes of the reply.
std::size_t validated(WireClient& client, const std::string& frame) {
  client.send(frame);
  std::string payload = client.receive();
  std::size_t size = payload.size();
  Message reply = platform::decodeMessage(SharedSlice::take(std::move(payload)));
  if (reply.get("matches") == nullptr) std::exit(1);
  return size;
}

void expectForms(WireClient& client, const std::string& frame, std::size_t expected) {
  client.send(frame);
  formsIn(client.receive(), expected);
}

void rebuild(WireClient& client, const std::string& frame, std::size_t expected) {
  client.send(frame);
  std::size_t built = 0;
  for (const PlistValue& form : formsIn(client.receive(), expected).elements()) {
    built += Vornik::VKPlugInCore::initWithForm(form) != nullptr ? 1 : 0;
  }
  if (built != expected) std::exit(1);
}

void readReady(EchoServer& echo, std::size_t size) {
  static const std::string request(kRequestSize, 'q');
  std::string payload(size, '\0');
  writeAll(echo.socket(0), request.data(), request.size());
  readAll(echo.socket(0), payload.data(), payload.size());
}

void measureAll(Table& table, WireClient& client, const std::string& frame, std::size_t count, int rounds) {
  std::size_t size = validated(client, frame);
  EchoServer ready(EchoServer::Kind::ThreadPerSocket, 1, kRequestSize, size);
  std::vector<double> limits;
  std::vector<double> matches;
  std::vector<double> rebuilt;
  for (int round = 0; round < rounds; ++round) {
    limits.push_back(samples(1, [&] { readReady(ready, size); }).front());
    matches.push_back(samples(1, [&] { validated(client, frame); }).front());
    rebuilt.push_back(samples(1, [&] { rebuild(client, frame, count); }).front());
  }
  std::string all = "match of all " + std::to_string(count);
  table.add({all + ", reply validated", "the same bytes ready", median(matches), median(limits), 2.5});
  table.add({all + ", every form rebuilt", "the same bytes ready", median(rebuilt), median(limits), 9.0});
}

double fewSeconds(WireClient& client, const std::string& frame) {
  return median(samples(300, [&] { validated(client, frame); }));
}

}  // namespace

void measureMatches(Table& table) {
  SampleRoot root;
  const std::string few = matchFrame(rule("ZoExtensionPointIdentifier", "com.example.bench.few"));
  const std::string everything = matchFrame(PlistValue());

  root.fillTo(1000);
  auto small = std::make_unique<DaemonProcess>(root.path());
  double fewOfThousand = 0;
  {
    WireClient client(root.path());
    expectForms(client, few, 100);
    fewOfThousand = fewSeconds(client, few);
    measureAll(table, client, everything, 1000, 40);
  }
  small.reset();

  root.fillTo(10'000);
  double fewOfTenThousand = 0;
  {
    DaemonProcess daemon(root.path());
    WireClient client(root.path());
    std::size_t replySize = validated(client, few);
    BlobTable blobs(10'000, replySize / 100);
    std::vector<double> limits;
    std::vector<double> matches;
    for (int round = 0; round < 30; ++round) {
      limits.push_back(median(samples(20, [&] { blobs.findFew(); })));
      matches.push_back(median(samples(20, [&] { validated(client, few); })));
    }
    fewOfTenThousand = median(matches);
    table.add({"match of 100 among 10,000, validated", "tuned SQLite query in process", fewOfTenThousand,
               median(limits), 0.9});
    expectForms(client, everything, 10'000);
    measureAll(table, client, everything, 10'000, 10);
    table.add({"resident memory, 10,000 plug-ins", "bytes of their manifests",
               static_cast<double>(residentBytes(daemon.pid())), static_cast<double>(root.manifestBytes()), 3.0});
  }

  root.fillTo(100'000);
  DaemonProcess daemon(root.path());
  WireClient client(root.path());
  validated(client, few);
  table.add({"match of 100 among 100,000", "among 1,000", fewSeconds(client, few), fewOfThousand, 1.3});
}

}  // namespace bench
