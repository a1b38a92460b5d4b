// Memory that runs out at every single allocation of every request: the client gets one reply or is cut off, the daemon
// goes on, and nothing is left behind. And of every decoder: it answers what the bytes say, or nothing.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "platform/PropertyList.h"
#include "tests/vkd/FakeDaemon.h"

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
    daemon.device.files->directories[a->url->path] = 0755;
  }
};

using Make = Message (*)(const Scene&);

Message annotations(const Scene& scene) {
  return messageOf({{scene.a->uuid->text(), messageOf({{"setting", "a text that is not short"}})}});
}

const std::pair<const char*, Make> kRequests[] = {
    {"match",
     [](const Scene&) {
       return requestOf("match", {{"rules", messageOf({{kVKRuleIdentifier, ">=a"}, {kVKRuleUserElection, "0"}})}});
     }},
    {"ready",
     [](const Scene& s) {
       return requestOf("ready", {{"uuids", uuids({s.a, s.b})}});
     }},
    {"access",
     [](const Scene& s) {
       return requestOf("access", {{"uuids", uuids({s.c, s.b})}});
     }},
    {"annotate",
     [](const Scene& s) {
       return requestOf("annotate", {{"uuids", uuids({s.a})}, {"annotations", messageOf({{"election", 1}})}});
     }},
    {"bulk-annotate",
     [](const Scene& s) {
       return requestOf("bulk-annotate", {{"annotations", annotations(s)}});
     }},
    {"add",
     [](const Scene& s) {
       return requestOf("add", {{"paths", paths({s.a->url->path})}});
     }},
    {"remove",
     [](const Scene& s) {
       return requestOf("remove", {{"paths", paths({s.a->url->path})}});
     }},
    {"lock",
     [](const Scene& s) {
       return requestOf("lock", {{"paths", paths({s.a->url->path})}, {"flags", std::uint64_t{2}}});
     }},
    {"nonsense", [](const Scene&) { return requestOf("a type that does not fit into a short text"); }},
};

// Whether the n-th allocation was reached.
bool survives(const Make& make, int n) {
  Scene scene;
  Message request = make(scene);
  FakeConnection& connection = *scene.client.connection;
  allocationsLeft = n;
  try {
    scene.client.deliver(std::move(request));
    scene.daemon.work();
  } catch (const std::bad_alloc&) {
    // The platform's queues and connections end here, too.
  }
  const bool reached = std::exchange(allocationsLeft, 0) == 0;
  EXPECT_TRUE(connection.sent.size() == 1 || (connection.sent.empty() && connection.cancelled)) << "allocation " << n;
  scene.daemon.work();
  // Who was told that his request failed holds nothing.
  if (!connection.sent.empty() && connection.sent.front().get("errorcode") != nullptr) {
    EXPECT_TRUE(scene.daemon.server->holds().empty()) << "allocation " << n;
  }
  EXPECT_EQ(scene.daemon.connect(9).ask("bulk"), success());
  scene.client.die();
  EXPECT_TRUE(scene.daemon.server->holds().empty());
  EXPECT_EQ(scene.daemon.messages->keepAlives, 0);
  EXPECT_FALSE(scene.daemon.server->holdOnPlugIn(*scene.daemon.server->findPlugIn(*scene.a->uuid)));
  return reached;
}

TEST(Exhaustion, CostsOneReplyOrOneConnection) {
  for (const auto& [name, make] : kRequests) {
    SCOPED_TRACE(name);
    // Loud, so that what is logged runs out of memory, too.
    LogCapture log;
    for (int n = 1; survives(make, n) && !HasFailure(); ++n) {
    }
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

TEST(Exhaustion, OfADyingClientReleasesItsHoldsAllTheSame) {
  for (int n = 1, reached = 1; reached != 0 && !HasFailure(); ++n) {
    Scene scene;
    LogCapture log;
    for (int i = 0; i < 2; ++i) {
      scene.client.ask("lock", {{"paths", paths({scene.a->url->path})}, {"flags", std::uint64_t{2}}});
    }
    Message gone = Message::error(ConnectionError::Invalid, "gone");
    allocationsLeft = n;
    try {
      scene.client.deliver(std::move(gone));
    } catch (const std::bad_alloc&) {
    }
    reached = std::exchange(allocationsLeft, 0) == 0 ? 1 : 0;
    EXPECT_TRUE(scene.daemon.server->holds().empty()) << "allocation " << n;
    EXPECT_EQ(scene.daemon.messages->keepAlives, 0);
    EXPECT_FALSE(scene.client.object()->acceptWork());
  }
}

TEST(Exhaustion, OfADecoderIsItsAnswerOrNone) {
  const std::string text = "a text that is not short";
  const PlistValue all = PlistValue::array({text, 1, PlistValue::data(text), PlistBuilder().set(text, true).take()});
  const PlistValue value = PlistBuilder().set("key", all).take();
  const std::string xml = serializePropertyListXML(value);
  const std::string binary = "bplist00\xA2\x01\x01\x5F\x10\x18" + text + "\x08\x0B" + std::string(6, '\0') +
                             std::string("\x01\x01\0\0\0\0\0\0\0\x02", 10) + std::string(15, '\0') + "\x26";
  const SharedSlice encoded = encodePlist(value).flat();
  Message message = messageOf({{"key", text}, {"more", messageOf({{text, std::int64_t{1}}})}});
  const SharedSlice wire = encodeMessage(message).flat();
  const struct {
    const char* name;
    std::function<bool()> isWhole;  // false: nothing was answered
  } decoders[] = {
      {"XML", [&] { return isNoneOr(parsePropertyList(xml), value); }},
      {"binary",
       [&] {
         return isNoneOr(parsePropertyList(binary), PlistValue::array({text, text}));
       }},
      {"encoding", [&] { return isNoneOr(decodePlist(encoded), value); }},
      {"message", [&] { return isNoneOr(decodeMessage(wire), message); }},
  };
  for (const auto& decoder : decoders) {
    SCOPED_TRACE(decoder.name);
    EXPECT_TRUE(decoder.isWhole());
    for (int n = 1, reached = 1; reached != 0 && !HasFailure(); ++n) {
      allocationsLeft = n;
      try {
        decoder.isWhole();
      } catch (const std::bad_alloc&) {
      }
      reached = std::exchange(allocationsLeft, 0) == 0 ? 1 : 0;
    }
  }
}

}  // namespace
}  // namespace vkd::testing
