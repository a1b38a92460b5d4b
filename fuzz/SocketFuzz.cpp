// A client's bytes on a real socket, in pieces cut anywhere, to a whole daemon on the real queues: every well-formed
// request gets exactly one reply, in order; what is no frame or no message ends the connection and nothing else; and
// when the client is gone, so is what it held.
//
// u8 how to cut, u8 what follows: even, the bytes as they are; odd, one request a record: u8 what for, u16 length, the
// message. What for 0 to 3 takes the message's own envelope.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <thread>

#include "fuzz/Requests.h"
#include "platform/linux/messages/MessageService.h"
#include "platform/linux/queues/EventLoop.h"
#include "platform/linux/queues/WorkQueue.h"
#include "tests/Support/FakeDaemon.h"
#include "tests/Support/WireClient.h"
#include "vkd/server/VKDServer.h"

using namespace vkd;
using namespace vkd::testing;

namespace {

constexpr std::uint64_t kLastId = 0xfeed;
constexpr std::size_t kLongestPiece = 40;

// One for all inputs: a daemon does not start anew for each client either.
struct SocketDaemon {
  std::string root;
  FakeServices device;
  std::shared_ptr<VKDServer> server;

  SocketDaemon() {
    std::string pattern = (std::filesystem::temp_directory_path() / "vornik-fuzz-XXXXXX").string();
    root = ::mkdtemp(pattern.data());
    for (std::uint8_t number = 1; number <= 3; ++number) {
      auto record = device.registry->add(FakeRecord::appex(std::string(1, static_cast<char>('a' + number))));
      record->uuid->bytes.fill(number);
      device.files->directories[record->url->path] = 0755;
    }
    device.codeSigning->processes[::getpid()].path = "/Applications/Host.app/run";
    Services services = device.services();
    services.queues = makeWorkQueues();
    services.messages = makeMessageService(RunningLoop(), std::make_shared<const DeviceRoot>(root));
    server = VKDServer::initForServiceDatabase(services, kVKServiceName, "/store");
    if (server == nullptr || !server->start()) std::abort();
  }
  ~SocketDaemon() {
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
  }
};

std::string streamOf(std::string_view input, bool records) {
  if (!records) return std::string(input);
  std::string stream;
  for (std::uint64_t id = 1; input.size() >= kRecordHead; ++id) {
    const auto head = static_cast<std::uint8_t>(input[0]);
    std::uint16_t length;
    std::memcpy(&length, input.data() + 1, sizeof length);
    Message request = decodeMessage(SharedSlice::take(std::string(input.substr(kRecordHead, length))));
    input.remove_prefix(std::min(input.size(), kRecordHead + length));
    if (!request) continue;
    if (const std::size_t type = head / 4U; type != 0 && request.isDictionary()) {
      request.set(kVKMessageVersion, kVKProtocolVersion);
      request.set(kVKMessageRequest, kTypes[type % std::size(kTypes)]);
    }
    stream += WireClient::frame(request, id);
  }
  return stream;
}

// What the stream asks for, told without the daemon's help.
struct Expected {
  std::vector<std::uint64_t> replies;
  bool cutOff = false, openEnd = false;

  explicit Expected(std::string_view stream) {
    while (!cutOff && !openEnd && !stream.empty()) {
      FrameHeader header;
      openEnd = stream.size() < kFrameHeaderBytes;
      if (openEnd) return;
      cutOff = header.decode(stream.substr(0, kFrameHeaderBytes)) != nullptr;
      stream.remove_prefix(kFrameHeaderBytes);
      openEnd = !cutOff && stream.size() < header.length;
      if (cutOff || openEnd) return;
      std::string payload(stream.substr(0, header.length));
      stream.remove_prefix(header.length);
      Message message = decodeMessage(SharedSlice::take(std::move(payload)));
      cutOff = header.type == FrameType::Reply || !message;
      // What is no dictionary asks for nothing.
      if (header.type == FrameType::Request && message.isDictionary()) replies.push_back(header.id);
    }
  }
};

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "not so: %s\n", what);
  std::abort();
}

void sendInPieces(WireClient& client, std::string_view stream, std::uint8_t seed) {
  std::minstd_rand random(seed);
  while (!stream.empty()) {
    std::size_t piece = seed == 0 ? stream.size() : std::min<std::size_t>(stream.size(), 1 + random() % kLongestPiece);
    if (!client.sendBytes(stream.substr(0, piece))) return;  // cut off meanwhile
    stream.remove_prefix(piece);
    if (random() % 4 == 0) std::this_thread::yield();
  }
}

void converse(const SocketDaemon& daemon, std::string stream, std::uint8_t seed) {
  Expected expected(stream);
  if (!expected.cutOff && !expected.openEnd) {
    stream += WireClient::frame(WireClient::request(kVKRequestBulk), kLastId);
    expected.replies.push_back(kLastId);
  }
  WireClient client(daemon.root);
  require(client.connected(), "it lets everybody connect");
  sendInPieces(client, stream, seed);
  for (std::uint64_t id : expected.replies) {
    std::uint64_t answered = 0;
    auto reply = client.receive(&answered);
    require(!client.timedOut(), "a request is answered");
    if (!reply && expected.cutOff) return;
    require(reply.has_value(), "who keeps to the rules is not cut off");
    require(answered == id && reply->isDictionary(), "replies come in order");
    require((reply->getUnsigned(kVKMessageErrorCode) != 0) == (reply->getString(kVKMessageError) != nullptr),
            "an error has its code and its text");
  }
  if (expected.cutOff) require(!client.receive() && !client.timedOut(), "who breaks the rules is cut off");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = [] {
    setLogSink([](const LogLine& line) { require(line.level != LogLevel::Fault, "no fault is logged"); });
    return true;
  }();
  static const SocketDaemon daemon;
  if (!quiet || size < 2) return 0;
  converse(daemon, streamOf({reinterpret_cast<const char*>(data) + 2, size - 2}, data[1] % 2 != 0), data[0]);
  for (int i = 0; i < 20000 && !daemon.server->holds().empty(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  require(daemon.server->holds().empty(), "a client's holds end with it");
  return 0;
}
