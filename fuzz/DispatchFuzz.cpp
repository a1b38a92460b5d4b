// Any requests of three clients, one after another, to a whole daemon on services in memory: each gets exactly one
// reply, which is a success or a failure with code and text and can be sent; and when the clients are gone, so is what
// they held.
//
// One request a record: u8 who asks and what for, u16 length, the message. What for 0 takes the message's own envelope.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "fuzz/Requests.h"
#include "tests/Support/FakeDaemon.h"
#include "vkd/server/VKDServer.h"

using namespace vkd;
using namespace vkd::testing;

namespace {

// Plug-ins whose UUIDs and paths a request can name: 16 times 1, 2, 3.
void furnish(FakeDaemon& daemon) {
  for (std::uint8_t number = 1; number <= 3; ++number) {
    auto record = daemon.install(std::string(1, static_cast<char>('a' + number)));
    record->uuid->bytes.fill(number);
    record->rights = PlistBuilder().set(kVKEntitlementReplacePlugIn, "b").take();
  }
  daemon.device.preferences->exclusions = PlistValue::array({PlistBuilder().set("excluded", true).take()});
}

void check(const Message& reply) {
  const bool failed = reply.getUnsigned(kVKMessageErrorCode) != 0;
  if (!reply.isDictionary() || failed != (reply.getString(kVKMessageError) != nullptr)) std::abort();
  if (!(decodeMessage(encodeMessage(reply).flat()) == reply)) std::abort();
}

void converse(FakeDaemon& daemon, std::string_view input) {
  FakeClient clients[] = {daemon.connect(1), daemon.connectManager(2),
                          daemon.connect(3, PlistBuilder().set(kVKEntitlementAllowedPlugIns, true).take())};
  while (input.size() >= kRecordHead) {
    const auto head = static_cast<std::uint8_t>(input[0]);
    std::uint16_t length;
    std::memcpy(&length, input.data() + 1, sizeof length);
    Message request = decodeMessage(SharedSlice::take(std::string(input.substr(kRecordHead, length))));
    input.remove_prefix(std::min(input.size(), kRecordHead + length));
    if (!request.isDictionary()) continue;
    if (const std::size_t type = head / 4U; type != 0) {
      request.set(kVKMessageVersion, kVKProtocolVersion);
      request.set(kVKMessageRequest, kTypes[type % std::size(kTypes)]);
    }
    check(clients[head % std::size(clients)].tell(std::move(request)));
  }
  for (FakeClient& client : clients) client.die();
  if (!daemon.server->holds().empty() || daemon.device.messages->keepAlives != 0) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Every line is made, and none is shown; but a fault says that the daemon had to help itself.
  setLogSink([](const LogLine& line) {
    if (line.level == LogLevel::Fault) std::abort();
  });
  FakeDaemon daemon;
  furnish(daemon);
  converse(daemon, std::string_view(reinterpret_cast<const char*>(data), size));
  return 0;
}
