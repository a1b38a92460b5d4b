// The whole platform in memory, for tests of the daemon: services that answer what a test put into them and remember
// what they were asked.
//
//   FakeServices device;                         // every member of platform::Services
//   device.registry->add(FakeRecord::appex("a"));
//   *device.hook = [](std::string_view service) { if (service == "sandbox") throw std::bad_alloc(); };
//   auto database = VKDatabase::initWithDatabase(device.services(), "/store");
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/CodeSigningTask.h"
#include "platform/Services.h"
#include "tests/Support/CapturedLog.h"
#include "tests/Support/FakeFileSystem.h"
#include "tests/Support/FakeMessages.h"
#include "tests/Support/FakeRegistry.h"
#include "tests/Support/InlineQueue.h"
#include "tests/Support/Values.h"
#include "vkd/plugins/HostClient.h"

namespace vkd::testing {

using namespace platform;

using namespace support;

struct FakeUsers : UserManager {
  bool multiUser = false;
  bool isMultiUser() override { return multiUser; }
};

struct FakeContainers : ContainerService {
  std::optional<FileURL> container = FileURL{"/var/users/0/Containers/10/com.vantrel.vkd"};
  std::optional<FileURL> userDataContainer(std::uint32_t, std::string_view, std::uint64_t* error) override {
    constexpr std::uint64_t kError = 9;
    if (!container) *error = kError;
    return container;
  }
};

struct FakePreferences : Preferences {
  Asked asked;
  PlistValue exclusions, visible;  // what another process wrote, and what was synchronised
  void synchronize(std::string_view) override { visible = asked.then(exclusions); }
  PlistValue value(std::string_view, std::string_view) override { return asked.then(visible); }
};

struct FakeNotifier : SystemNotifier {
  Asked asked;
  std::vector<std::string> posts;
  void post(std::string_view name) override { asked(), posts.emplace_back(name); }
  std::unique_ptr<Subscription> subscribe(std::string_view, std::function<void()>) override { return nullptr; }
};

struct FakeSandbox : SandboxService {
  Asked asked;
  std::set<std::int32_t> sandboxed;
  std::set<std::string> refused;
  std::vector<std::string> issued;
  bool isSandboxed(std::int32_t pid) override { return sandboxed.contains(pid); }
  std::optional<std::string> issueReadExtension(std::string_view path, int* errorNumber) override {
    constexpr int kNoEntry = 2;
    asked();
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

// Executables are named <bundle>/run here.
struct FakeServiceBundles : ServiceBundles {
  std::set<std::string> withoutExecutable;
  std::shared_ptr<ServiceBundle> bundleAtPath(std::string_view path) override {
    auto bundle = std::make_shared<FakeServiceBundle>();
    bundle->path = bundle->support = path;
    if (!withoutExecutable.contains(*bundle->path)) bundle->executable = *bundle->path + "/run";
    return bundle;
  }
  std::shared_ptr<ServiceBundle> bundleOfExecutable(std::string_view path) override {
    return bundleAtPath(path.substr(0, path.rfind('/')));
  }
  std::shared_ptr<ServiceBundle> mainBundle() override { return bundleAtPath("/main"); }
};

struct FakeCoreBundle : CoreBundle {
  std::string path;
  std::string description() const override { return "<core " + path + ">"; }
  std::optional<std::string> bundleIdentifier() const override { return path; }
  void flushCaches() override {}
};

struct FakeCoreBundles : CoreBundles {
  bool exist = true;
  std::shared_ptr<CoreBundle> bundleAtPath(std::string_view path) override {
    auto bundle = std::make_shared<FakeCoreBundle>();
    bundle->path = path;
    return exist ? bundle : nullptr;
  }
};

// Keeps services as the real one: those of a bundle, until they are removed.
struct FakeServiceManager : ServiceManager {
  struct Added {
    std::int32_t pid;
    std::string executable;
    Message overlay;
  };
  Asked asked;
  int answer = 0;               // to what is to be added
  std::vector<int> ends = {0};  // and to a removal: once each
  std::vector<Added> added;
  std::vector<std::string> removed;  // "identifier version"
  std::set<std::string> services;    // executables
  int addExternalService(std::int32_t pid, std::string_view executable, const Message& overlay) override {
    added.push_back({pid, std::string(executable), overlay});
    if (answer == 0) services.emplace(executable);
    return asked.then(answer);
  }
  void removeExternalService(std::string_view identifier, std::string_view version, std::shared_ptr<WorkQueue> queue,
                             std::function<void(int)> completion) override {
    removed.push_back(std::string(identifier) + " " + std::string(version));
    std::erase_if(services, [&](const std::string& path) { return path.find(identifier) != std::string::npos; });
    asked();
    for (int end : ends) queue->async([completion, end] { completion(end); });
  }
};

struct FakeAssertions : AssertionService {
  Asked asked;
  std::vector<Message> instances;
  std::set<std::string> identifiers;  // that were asked about last
  std::vector<Message> busyExtensionInstances(const std::set<std::string>& of) override {
    identifiers = of;
    return asked.then(instances);
  }
};

struct FakeConsent : ConsentService {
  Asked asked;
  std::optional<std::vector<Record>> records = std::vector<Record>();
  std::optional<std::vector<Record>> informationForBundle(const CoreBundle&) override { return asked.then(records); }
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

// By process id.
struct FakeCodeSigning : CodeSigning {
  struct Process {
    std::optional<std::string> path;
    std::shared_ptr<Vornik::VKBundle> ownBundle;
    PlistValue rights;
    bool unreadable = false;
    int looks = 0;
  };
  Asked asked;
  std::map<std::int32_t, Process> processes;

  struct Task : CodeSigningTask {
    Task(const Asked& hook, Process& it) : asked(hook), process(it) {}
    const Asked& asked;
    Process& process;
    PlistValue entitlement(std::string_view name, std::optional<DomainError>* error) override {
      return entitlements(error)[name];
    }
    PlistValue entitlements(std::optional<DomainError>* error) override {
      asked();
      ++process.looks;
      if (!process.unreadable) return process.rights;
      *error = DomainError{FileErrorDomain, 1, std::nullopt};
      return {};
    }
  };
  std::unique_ptr<CodeSigningTask> task(std::shared_ptr<AuditToken> token) override {
    return std::make_unique<Task>(asked, processes[token->pid()]);
  }
  std::optional<std::string> executablePath(std::int32_t pid) override { return asked.then(processes[pid].path); }
};

struct FakeServices {
  std::shared_ptr<Hook> hook = std::make_shared<Hook>();

  std::shared_ptr<InlineQueues> queues = std::make_shared<InlineQueues>();
  std::shared_ptr<FakeMessages> messages = std::make_shared<FakeMessages>();
  std::shared_ptr<FakeFileSystem> files = std::make_shared<FakeFileSystem>();
  std::shared_ptr<FakeUsers> users = std::make_shared<FakeUsers>();
  std::shared_ptr<FakeContainers> containers = std::make_shared<FakeContainers>();
  std::shared_ptr<FakeServiceBundles> serviceBundles = std::make_shared<FakeServiceBundles>();
  std::shared_ptr<FakeCoreBundles> coreBundles = std::make_shared<FakeCoreBundles>();
  std::shared_ptr<FakeTypes> types = std::make_shared<FakeTypes>();
  std::shared_ptr<FakeActivationRules> activationRules = std::make_shared<FakeActivationRules>();
  std::shared_ptr<FakeSdks> sdks = std::make_shared<FakeSdks>();
  std::shared_ptr<FakeRegistry> registry = hooked<FakeRegistry>("registry");
  std::shared_ptr<FakePreferences> preferences = hooked<FakePreferences>("preferences");
  std::shared_ptr<FakeNotifier> notifier = hooked<FakeNotifier>("notifier");
  std::shared_ptr<FakeSandbox> sandbox = hooked<FakeSandbox>("sandbox");
  std::shared_ptr<FakeServiceManager> serviceManager = hooked<FakeServiceManager>("service manager");
  std::shared_ptr<FakeAssertions> assertions = hooked<FakeAssertions>("assertions");
  std::shared_ptr<FakeConsent> consent = hooked<FakeConsent>("consent");
  std::shared_ptr<FakeCodeSigning> codeSigning = hooked<FakeCodeSigning>("code signing");

  Services services() const {
    return {queues,          messages,       files,      registry,    codeSigning, serviceBundles,
            coreBundles,     serviceManager, assertions, sandbox,     consent,     types,
            activationRules, users,          containers, preferences, sdks,        notifier};
  }

 private:
  template <class Fake>
  std::shared_ptr<Fake> hooked(std::string_view service) {
    auto fake = std::make_shared<Fake>();
    fake->asked = {hook, service};
    return fake;
  }
};

struct FakeHost : HostClient {
  std::int32_t id = 77;
  std::string executable = "/Applications/Host.app/Host";
  std::shared_ptr<Vornik::VKBundle> ownBundle;
  PlistValue rights;
  std::int32_t pid() const override { return id; }
  const std::string& path() const override { return executable; }
  const std::shared_ptr<Vornik::VKBundle>& bundle() const override { return ownBundle; }
  PlistValue entitlementValueForKey(std::string_view name) const override { return rights[name]; }
  bool hasEntitlement(std::string_view name) const override { return rights[name] && !rights[name].equals(false); }
};

}  // namespace vkd::testing
