// The whole platform in memory, for tests of the daemon: services that answer what a test put into them and remember
// what they were asked.
//
//   FakeServices device;                         // every member of platform::Services
//   device.registry->add(FakeRecord::appex("a"));
//   auto database = VKDatabase::initWithDatabase(device.services(), "/store");
//   LogCapture log;
//   …
//   EXPECT_EQ(log.count("purging cache"), 1);
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/Log.h"
#include "platform/Services.h"
#include "tests/vkd/FakeFileSystem.h"
#include "tests/vkd/FakeRegistry.h"
#include "vkd/HostClient.h"

namespace vkd::testing {

using namespace platform;

// Items of async() wait for drain(); sync() runs at once. For tests on one thread.
struct FakeQueue : WorkQueue {
  explicit FakeQueue(std::string label) : name(std::move(label)) {}
  std::string name;
  int depth = 0, entries = 0;
  std::vector<std::function<void()>> waiting;

  void async(std::function<void()> item) override { waiting.push_back(std::move(item)); }
  void drain() {
    while (!waiting.empty()) {
      auto item = std::move(waiting.front());
      waiting.erase(waiting.begin());
      sync(item);
    }
  }
  bool isCurrent() const override { return depth > 0; }
  std::string_view label() const override { return name; }

 protected:
  void enter(void (*item)(void*), void* context) override {
    if (depth > 0) throw std::logic_error("entered from itself: " + name);
    struct Scope {
      int& depth;
      ~Scope() { --depth; }
    } scope{depth};
    ++depth;
    ++entries;
    item(context);
  }
};

struct FakeQueues : WorkQueueFactory {
  std::vector<std::shared_ptr<FakeQueue>> made;
  std::shared_ptr<WorkQueue> serial(std::string label, WorkQueue::Order, WorkQueue::QoS) override {
    return made.emplace_back(std::make_shared<FakeQueue>(std::move(label)));
  }
  FakeQueue& named(std::string_view label) const {
    for (const auto& queue : made) {
      if (queue->name == label) return *queue;
    }
    throw std::out_of_range("no such queue");
  }
};

struct FakeUsers : UserManager {
  bool multiUser = false;
  bool isMultiUser() override { return multiUser; }
};

struct FakeContainers : ContainerService {
  std::optional<FileURL> container = FileURL{"/var/users/0/Containers/10/com.vantrel.vkd"};
  std::uint64_t errorCode = 0;
  std::optional<FileURL> userDataContainer(std::uint32_t, std::string_view, std::uint64_t* error) override {
    if (!container) *error = errorCode;
    return container;
  }
};

struct FakePreferences : Preferences {
  PlistValue exclusions, visible;  // what another process wrote, and what was synchronised
  void synchronize(std::string_view) override { visible = exclusions; }
  PlistValue value(std::string_view, std::string_view) override { return visible; }
};

struct FakeNotifier : SystemNotifier {
  std::vector<std::string> posts;
  void post(std::string_view name) override { posts.emplace_back(name); }
  std::unique_ptr<Subscription> subscribe(std::string_view, std::function<void()>) override { return nullptr; }
};

struct FakeSandbox : SandboxService {
  std::set<std::int32_t> sandboxed;
  std::set<std::string> refused;
  std::vector<std::string> issued;
  bool isSandboxed(std::int32_t pid) override { return sandboxed.contains(pid); }
  std::optional<std::string> issueReadExtension(std::string_view path, int* errorNumber) override {
    constexpr int kNoEntry = 2;
    if (refused.contains(std::string(path))) return *errorNumber = kNoEntry, std::nullopt;
    return "token:" + issued.emplace_back(path);
  }
  std::int64_t consume(std::string_view) override { return 1; }
  void release(std::int64_t) override {}
};

struct FakeServiceBundle : ServiceBundle {
  std::optional<std::string> path, executable, support;
  Message manifest;
  std::optional<std::string> stringProperty(Property property) const override {
    return property == Property::BundlePath ? path : property == Property::ExecutablePath ? executable : support;
  }
  Message infoDictionary() const override { return manifest; }
  std::string description() const override { return "<bundle>"; }
};

struct FakeServiceBundles : ServiceBundles {
  std::set<std::string> withoutExecutable;
  std::shared_ptr<ServiceBundle> bundleAtPath(std::string_view path) override {
    auto bundle = std::make_shared<FakeServiceBundle>();
    bundle->path = bundle->support = path;
    if (!withoutExecutable.contains(*bundle->path)) bundle->executable = *bundle->path + "/run";
    return bundle;
  }
  // Executables are named <bundle>/run here.
  std::shared_ptr<ServiceBundle> bundleOfExecutable(std::string_view path) override {
    return bundleAtPath(path.substr(0, path.rfind('/')));
  }
  std::shared_ptr<ServiceBundle> mainBundle() override { return bundleAtPath("/main"); }
};

struct FakeCoreBundle : CoreBundle {
  std::string path;
  int flushes = 0;
  std::string description() const override { return "<core " + path + ">"; }
  std::optional<std::string> bundleIdentifier() const override { return path; }
  void flushCaches() override { ++flushes; }
};

struct FakeCoreBundles : CoreBundles {
  bool exist = true;
  std::shared_ptr<CoreBundle> bundleAtPath(std::string_view path) override {
    if (!exist) return nullptr;
    auto bundle = std::make_shared<FakeCoreBundle>();
    bundle->path = path;
    return bundle;
  }
};

struct FakeServiceManager : ServiceManager {
  struct Added {
    std::int32_t pid;
    std::string executable;
    Message overlay;
  };
  int answer = 0;
  std::vector<Added> added;
  std::vector<std::string> removed;  // "identifier version"
  int addExternalService(std::int32_t pid, std::string_view executable, const Message& overlay) override {
    added.push_back({pid, std::string(executable), overlay});
    return answer;
  }
  void removeExternalService(std::string_view identifier, std::string_view version, std::shared_ptr<WorkQueue> queue,
                             std::function<void(int)> completion) override {
    removed.push_back(std::string(identifier) + " " + std::string(version));
    queue->async([completion = std::move(completion), result = answer] { completion(result); });
  }
};

struct FakeAssertions : AssertionService {
  std::vector<Message> instances;
  std::set<std::string> asked;
  std::vector<Message> busyExtensionInstances(const std::set<std::string>& identifiers) override {
    asked = identifiers;
    return instances;
  }
};

struct FakeConsent : ConsentService {
  std::optional<std::vector<Record>> records = std::vector<Record>();
  std::optional<std::vector<Record>> informationForBundle(const CoreBundle&) override { return records; }
};

// Child → parent.
struct FakeTypes : TypeConformance {
  std::set<std::pair<std::string, std::string>> pairs;
  bool conforms(std::string_view type, std::string_view parent) override {
    return type == parent || pairs.contains({std::string(type), std::string(parent)});
  }
};

struct FakeActivationRules : ActivationRuleEvaluator {
  bool answer = true;
  PlistValue rule, items;
  bool evaluate(const PlistValue& theRule, const PlistValue& description) override {
    rule = theRule;
    items = description;
    return answer;
  }
};

struct FakeSdks : ExtensionSdkRegistry {
  Message sdk(std::string_view) override { return {}; }
};

struct FakeServices {
  std::shared_ptr<FakeQueues> queues = std::make_shared<FakeQueues>();
  // In place of the fakes, when there.
  std::shared_ptr<WorkQueueFactory> otherQueues;
  std::shared_ptr<CodeSigning> otherCodeSigning;
  std::shared_ptr<FakeFileSystem> files = std::make_shared<FakeFileSystem>();
  std::shared_ptr<FakeRegistry> registry = std::make_shared<FakeRegistry>();
  std::shared_ptr<FakeUsers> users = std::make_shared<FakeUsers>();
  std::shared_ptr<FakeContainers> containers = std::make_shared<FakeContainers>();
  std::shared_ptr<FakePreferences> preferences = std::make_shared<FakePreferences>();
  std::shared_ptr<FakeNotifier> notifier = std::make_shared<FakeNotifier>();
  std::shared_ptr<FakeSandbox> sandbox = std::make_shared<FakeSandbox>();
  std::shared_ptr<FakeServiceBundles> serviceBundles = std::make_shared<FakeServiceBundles>();
  std::shared_ptr<FakeCoreBundles> coreBundles = std::make_shared<FakeCoreBundles>();
  std::shared_ptr<FakeServiceManager> serviceManager = std::make_shared<FakeServiceManager>();
  std::shared_ptr<FakeAssertions> assertions = std::make_shared<FakeAssertions>();
  std::shared_ptr<FakeConsent> consent = std::make_shared<FakeConsent>();
  std::shared_ptr<FakeTypes> types = std::make_shared<FakeTypes>();
  std::shared_ptr<FakeActivationRules> activationRules = std::make_shared<FakeActivationRules>();
  std::shared_ptr<FakeSdks> sdks = std::make_shared<FakeSdks>();

  Services services() const {
    Services all;
    all.queues = queues;
    if (otherQueues != nullptr) all.queues = otherQueues;
    all.files = files;
    all.registry = registry;
    all.users = users;
    all.containers = containers;
    all.preferences = preferences;
    all.notifier = notifier;
    all.sandbox = sandbox;
    all.serviceBundles = serviceBundles;
    all.coreBundles = coreBundles;
    all.serviceManager = serviceManager;
    all.assertions = assertions;
    all.consent = consent;
    all.types = types;
    all.activationRules = activationRules;
    all.sdks = sdks;
    return all;
  }
};

struct FakeHost : HostClient {
  std::int32_t id = 77;
  std::string executable = "/Applications/Host.app/Host";
  PlistValue rights;
  std::int32_t pid() const override { return id; }
  const std::string& path() const override { return executable; }
  PlistValue entitlementValueForKey(std::string_view name) const override { return rights[name]; }
  bool hasEntitlement(std::string_view name) const override { return rights[name] && !rights[name].equals(false); }
};

// Collects log lines while it lives.
class LogCapture {
 public:
  LogCapture() {
    setLogSink([this](const LogLine& line) { lines_.push_back(line); });
  }
  ~LogCapture() { setLogSink({}); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<LogLine>& lines() const { return lines_; }
  // Whether exactly this was logged.
  bool has(LogLevel level, std::string_view category, std::string_view text) const {
    for (const LogLine& line : lines_) {
      if (line.level == level && line.category == category && line.text == text) return true;
    }
    return false;
  }
  // How many lines contain the text.
  int count(std::string_view part) const {
    int number = 0;
    for (const LogLine& line : lines_) number += line.text.find(part) != std::string::npos ? 1 : 0;
    return number;
  }
  std::string all() const {
    std::string text;
    for (const LogLine& line : lines_) text += line.category + ": " + line.text + "\n";
    return text;
  }

 private:
  std::vector<LogLine> lines_;
};

}  // namespace vkd::testing
