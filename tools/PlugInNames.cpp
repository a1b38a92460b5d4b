#include "tools/PlugInNames.h"

#include <filesystem>
#include <system_error>

#include "Vornik/VKError.h"
#include "Vornik/VKKeys.h"
#include "Vornik/VKProtocol.h"
#include "platform/Terminal.h"

namespace vkctl {

using namespace Vornik;

namespace {

// A plug-in whose identifier has a slash in it is named by its UUID.
bool isPath(std::string_view name) { return name.find('/') != std::string_view::npos; }

// Rules that keep the wanted plug-in and few others; the daemon compares texts as versions, so equality is looked at
// again afterwards.
PlistValue rulesFor(std::string_view name) {
  PlistBuilder rules;
  if (auto uuid = UUID::parse(name)) return rules.set(kVKRuleUUID, uuid->text()).take();
  if (!name.starts_with('/')) return rules.set(kVKRuleIdentifier, "=" + std::string(name)).take();
  std::size_t plugIns = name.rfind("/PlugIns/");
  std::size_t app = plugIns == std::string_view::npos ? plugIns : name.rfind(".app", plugIns);
  if (app != std::string_view::npos) rules.set(kVKRuleContainingApp, "=" + std::string(name.substr(0, app + 4)));
  return rules.take();
}

// The same for a path in no application: by the identifier in the manifest that lies there. Everything when nothing
// there can be read.
PlistValue rulesForBundle(ServiceBundles& bundles, std::string_view path) {
  const PlistValue manifest = bundles.bundleAtPath(path)->infoDictionary().toPlist();
  const PlistValue section = manifest[manifest.contains(kVKExtension) ? kVKExtension : kVKLegacySection];
  PlistValue identifier = section[kVKExtensionIdentifier];
  if (identifier.stringValue().empty()) identifier = manifest[kVKBundleIdentifier];
  if (identifier.stringValue().empty()) return {};
  return PlistBuilder().set(kVKRuleIdentifier, "=" + std::string(identifier.stringValue())).take();
}

bool isNamed(const PlistValue& form, std::string_view name) {
  if (auto uuid = UUID::parse(name)) return form[kVKFormUUID].stringValue() == uuid->text();
  return form[name.starts_with('/') ? kVKFormPath : kVKFormIdentifier].stringValue() == name;
}

std::string list(const std::vector<PlistValue>& forms) {
  std::string text;
  for (const PlistValue& form : forms) {
    text += text.empty() ? "" : ", ";
    text.append(form[kVKFormVersion].stringValue()).append(" ").append(form[kVKFormUUID].stringValue());
    text.append(" at ").append(form[kVKFormPath].stringValue());
  }
  return text;
}

}  // namespace

std::vector<PlistValue> PlugInNames::all(const PlistValue& rules) {
  auto match = [&](std::uint64_t flags) {
    return session_.askRaw([&](VKDaemonClient& client, VKDaemonClient::ReplyBlock reply) {
      client.matchPlugInsFlagsReply(rules, VKDiscoverAllVersions | VKDiscoverDuplicates | flags, std::move(reply));
    });
  };
  Message reply = match(mayAskForAll_ ? VKDiscoverAll : 0);
  if (mayAskForAll_ && reply.getUnsigned(kVKMessageErrorCode) == VKErrorNotPermitted) {
    mayAskForAll_ = false;
    reply = match(0);
  }
  if (auto failure = session_.failureOf(reply, session_.serviceName())) throw Failure(*failure);
  std::vector<PlistValue> forms;
  for (const PlistValue& form : session_.client().plugInsInReply(reply).elements()) forms.push_back(form);
  return forms;
}

std::vector<PlistValue> PlugInNames::candidates(std::string_view name) {
  std::string wanted(name);
  if (isPath(name)) {
    wanted = devicePathOfArgument(wanted);
    wanted = session_.services().files->canonicalPath(wanted).value_or(wanted);
  }
  PlistValue rules = rulesFor(wanted);
  if (rules.empty()) rules = rulesForBundle(*session_.services().serviceBundles, wanted);
  std::vector<PlistValue> forms = all(rules);
  std::erase_if(forms, [&](const PlistValue& form) { return !isNamed(form, wanted); });
  return forms;
}

PlistValue PlugInNames::form(std::string_view name) {
  std::vector<PlistValue> forms = candidates(name);
  if (forms.empty()) {
    std::string reason = mayAskForAll_ ? "no such plug-in" : "no such plug-in among those that this process may use";
    throw Failure(ExitStatus::NotFound, std::string(name), reason);
  }
  if (forms.size() > 1) {
    throw Failure(ExitStatus::Usage, std::string(name), "names several plug-ins, say which: " + list(forms));
  }
  return forms.front();
}

UUID PlugInNames::uuid(std::string_view name) {
  if (auto uuid = UUID::parse(name)) return *uuid;
  return UUID::parse(form(name)[kVKFormUUID].stringValue()).value_or(UUID{});
}

std::string PlugInNames::path(std::string_view name) {
  if (isPath(name)) return devicePathOfArgument(std::string(name));
  return std::string(form(name)[kVKFormPath].stringValue());
}

std::string devicePathOfArgument(const std::string& argument) {
  if (argument.starts_with('/')) return argument;
  std::error_code error;
  std::string host = (std::filesystem::current_path(error) / argument).lexically_normal().string();
  std::string root = deviceRootOfHost();
  if (error || argument.empty() || !(host + "/").starts_with(root + "/")) {
    throw Failure(ExitStatus::Usage, argument, "absolute device path required");
  }
  host.erase(0, root.size());
  return host.empty() ? "/" : host;
}

}  // namespace vkctl
