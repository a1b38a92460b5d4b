// Memory that runs out at every single allocation of every request: the client gets one reply or is cut off, the daemon
// goes on, and nothing is left behind. And of every decoder: it answers what the bytes say, or nothing.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "platform/plists/PropertyList.h"
#include "tests/Support/FakeDaemon.h"

namespace {

// The allocation that fails: counted down while above 0.
int allocationsLeft = 0;

void* allocate(std::size_t size) noexcept {
  if (allocationsLeft > 0 && --allocationsLeft == 0) return nullptr;
  return std::malloc(size);
}

}  // namespace

// Out of line: in line, the compiler takes malloc and delete for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (void* memory = allocate(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace vkd::testing {
namespace {

// A daemon with three plug-ins, and a client of it.
struct Scene {
  FakeDaemon daemon;
  std::shared_ptr<FakeRecord> a = daemon.install("a"), b = daemon.install("b"), c = daemon.install("c");
  FakeClient client = daemon.connectManager();

  Scene() {
    b->rights = PlistBuilder().set(kVKEntitlementReplacePlugIn, "a").set(kVKEntitlementAutoElect, true).take();
  }
  // Runs `body` with the n-th allocation failing; whether that one was reached.
  template <class Body>
  static bool runs(int n, const Body& body) {
    allocationsLeft = n;
    try {
      body();
    } catch (const std::bad_alloc&) {
      // The platform's queues and connections end here, too.
    }
    return std::exchange(allocationsLeft, 0) == 0;
  }
};

const std::string kText = "a text that is not short";
const Message kLock = lockRequest({pathOf("a")}, 2);
const Message kRules = messageOf({{kVKRuleIdentifier, ">=a"}, {kVKRuleUserElection, "0"}});
const Message kSettings = messageOf({{uuidOf("a").text(), messageOf({{"setting", kText}})}});
const Message kRequests[] = {
    requestOf("match", {{"rules", kRules}}),
    requestOf("ready", {{"uuids", uuids({"a", "b"})}}),
    requestOf("access", {{"uuids", uuids({"c", "b"})}}),
    annotateRequest({"a"}, election(1)),
    requestOf("bulk-annotate", {{"annotations", kSettings}}),
    requestOf("add", {{"paths", listOf({pathOf("a")})}}),
    requestOf("remove", {{"paths", listOf({pathOf("a")})}}),
    kLock,
    requestOf(kText),
};

// Whether the n-th allocation was reached.
bool survives(Message request, int n) {
  Scene scene;
  FakePeer& connection = *scene.client.connection;
  const bool reached = Scene::runs(n, [&] {
    scene.client.deliver(std::move(request));
    scene.daemon.work();
  });
  EXPECT_TRUE(connection.sent.size() == 1 || (connection.sent.empty() && connection.cancelled)) << "allocation " << n;
  scene.daemon.work();
  // Who was told that his request failed holds nothing.
  if (!connection.sent.empty() && connection.sent.front().get("errorcode") != nullptr) {
    EXPECT_TRUE(scene.daemon.server->holds().empty()) << "allocation " << n;
  }
  EXPECT_EQ(scene.daemon.connect(9).ask("bulk"), success());
  scene.client.die();
  EXPECT_TRUE(scene.daemon.server->holds().empty());
  EXPECT_EQ(scene.daemon.device.messages->keepAlives, 0);
  EXPECT_FALSE(scene.daemon.isHeld("a"));
  return reached;
}

TEST(Exhaustion, CostsOneReplyOrOneConnection) {
  for (const Message& request : kRequests) {
    SCOPED_TRACE(request.description());
    // Loud, so that what is logged runs out of memory, too.
    CapturedLog log;
    for (int n = 1; survives(request, n) && !HasFailure(); ++n) continue;
  }
}

TEST(Exhaustion, OfADyingClientReleasesItsHoldsAllTheSame) {
  for (int n = 1, reached = 1; reached != 0 && !HasFailure(); ++n) {
    Scene scene;
    CapturedLog log;
    for (int i = 0; i < 2; ++i) scene.client.tell(kLock);
    reached = Scene::runs(n, [&] { scene.client.die(); }) ? 1 : 0;
    EXPECT_TRUE(scene.daemon.server->holds().empty()) << "allocation " << n;
    EXPECT_EQ(scene.daemon.device.messages->keepAlives, 0);
    EXPECT_FALSE(scene.client.object()->acceptWork());
  }
}

// Whether it is the one that was expected; nothing is right, too, anything else is not.
template <class Value>
bool isNoneOr(const Value& answer, const Value& expected) {
  const int left = std::exchange(allocationsLeft, 0);
  EXPECT_TRUE(!answer || answer == expected);
  allocationsLeft = left;
  return static_cast<bool>(answer);
}

TEST(Exhaustion, OfADecoderIsItsAnswerOrNone) {
  const PlistValue value =
      dictionary({{"key", list({kText, 1, PlistValue::data(kText), dictionary({{kText, true}})})}});
  const PlistValue pair = list({kText, kText});
  const std::string xml = serializePropertyListXML(value);
  const std::string binary = "bplist00\xA2\x01\x01\x5F\x10\x18" + kText + "\x08\x0B" + std::string(6, '\0') +
                             std::string("\x01\x01\0\0\0\0\0\0\0\x02", 10) + std::string(15, '\0') + "\x26";
  const SharedSlice encoded = encodePlist(value).flat(), wire = encodeMessage(kSettings).flat();
  const std::pair<const char*, std::function<bool()>> decoders[] = {
      {"XML", [&] { return isNoneOr(parsePropertyList(xml), value); }},
      {"binary", [&] { return isNoneOr(parsePropertyList(binary), pair); }},
      {"encoding", [&] { return isNoneOr(decodePlist(encoded), value); }},
      {"message", [&] { return isNoneOr(decodeMessage(wire), kSettings); }},
  };
  for (const auto& [name, isWhole] : decoders) {
    SCOPED_TRACE(name);
    EXPECT_TRUE(isWhole());
    for (int n = 1; Scene::runs(n, isWhole) && !HasFailure(); ++n) continue;
  }
}

}  // namespace
}  // namespace vkd::testing
