#include "tools/Session.h"

#include <cstdio>
#include <cstdlib>

#include "Vornik/VKError.h"
#include "Vornik/VKErrorTexts.h"
#include "Vornik/VKKeys.h"
#include "Vornik/VKProtocol.h"
#include "platform/Interrupts.h"
#include "platform/Terminal.h"
#include "tools/text/JsonMessage.h"

namespace vkctl {
namespace {

using namespace Vornik;

// A reply on its way from the client's queue to the main thread, which may have given up waiting.
struct PendingReply {
  std::unique_ptr<Waiter> waiter = Waiter::make();
  Message reply;
};

ExitStatus statusOfCode(std::int64_t code, std::string_view text) {
  switch (code) {
    case VKErrorVersion:
      return ExitStatus::Unreachable;
    case VKErrorPath:
      // vkctl sends absolute paths only: what is left is that nothing is there.
      return ExitStatus::NotFound;
    case VKErrorNotPermitted:
      return text.ends_with(kVKPlugInOnHold) ? ExitStatus::Busy : ExitStatus::NotPermitted;
    case VKErrorBusy:
      return ExitStatus::Busy;
    default:
      return text == kVKNoSuchPlugIn || text == kVKNoPlugInWithUUID ? ExitStatus::NotFound : ExitStatus::Failed;
  }
}

std::string_view remedyOf(std::int64_t code, std::string_view text) {
  if (code == VKErrorVersion) return "; this vkctl and that daemon speak different versions";
  if (text == kVKCallerLacksEntitlement || text == kVKUnauthorizedDiscovery) {
    return "; that takes the entitlement com.vantrel.private.vornik.manager";
  }
  return "";
}

}  // namespace

const Services& Session::services() {
  if (!services_) services_ = machineServices();
  return *services_;
}

VKDaemonClient& Session::client() {
  if (!client_) client_ = VKDaemonClient::initWithServiceName(services(), options_.service);
  return *client_;
}

const std::string& Session::serviceName() const {
  static const std::string usual(kVKServiceName);
  return options_.service.empty() ? usual : options_.service;
}

std::optional<std::chrono::nanoseconds> Session::timeout() const {
  if (options_.timeoutSeconds <= 0) return std::nullopt;
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(options_.timeoutSeconds));
}

void Session::onConnectionLost(std::function<void()> block) {
  client().setEventBlock([block = std::move(block)](const Message& event) {
    const auto* error = event.as<Message::ErrorEvent>();
    bool lost = error != nullptr && error->error != ConnectionError::TerminationImminent;
    if (lost && block) block();
  });
}

Message Session::askRaw(const Request& send) {
  auto pending = std::make_shared<PendingReply>();
  send(client(), [pending](const Message& reply) {
    pending->reply = reply;
    pending->waiter->signal();
  });
  switch (pending->waiter->wait(timeout())) {
    case WaitResult::Done:
      return std::move(pending->reply);
    case WaitResult::TimedOut:
      throw Failure(ExitStatus::TimedOut, serviceName(), "no answer in time");
    case WaitResult::Interrupted:
      break;
  }
  throw Interrupted{InterruptScope::take().number};
}

Message Session::ask(std::string_view object, const Request& send) {
  Message reply = askRaw(send);
  if (auto failure = failureOf(reply, object)) throw Failure(*failure);
  return reply;
}

std::optional<Failure> Session::failureOf(const Message& reply, std::string_view object) {
  std::optional<DomainError> error;
  try {
    error = VKDaemonClient::errorInReply(reply);
  } catch (const VKInternalInconsistency& inconsistency) {
    return Failure(ExitStatus::Failed, std::string(object), inconsistency.what());
  }
  if (!error) return std::nullopt;
  std::string text = error->localizedDescription();
  if (const auto* event = reply.as<Message::ErrorEvent>()) {
    // This side never cancels its connection: an invalid one is one that could not be made.
    if (event->error != ConnectionError::Invalid) {
      return Failure(ExitStatus::Failed, serviceName(), "the connection broke: " + text);
    }
    return Failure(ExitStatus::Unreachable, serviceName(),
                   "the daemon cannot be reached: " + text + "; is vkd running?");
  }
  std::string reason = text + " (";
  if (auto name = VKErrorName(error->code)) reason.append(*name).append(", ");
  reason += std::to_string(error->code) + ")";
  reason += remedyOf(error->code, text);
  return Failure(statusOfCode(error->code, text), std::string(object), reason);
}

bool Session::colored() const {
  if (options_.color == "always") return true;
  if (options_.color == "never" || !isTerminal(StandardStream::Output)) return false;
  const char* noColor = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  return (noColor == nullptr || *noColor == '\0') && (terminal == nullptr || std::string_view(terminal) != "dumb");
}

void Session::print(std::string_view text) {
  bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
  if (!written) throw Failure(ExitStatus::Failed, "standard output", "cannot be written");
}

void Session::printJson(const PlistValue& value) { print(jsonFromPlist(value) + "\n"); }

void Session::printJson(const Message& value) { print(jsonFromMessage(value) + "\n"); }

void Session::print(const Table& table) {
  bool person = isTerminal(StandardStream::Output);
  print(table.text(person && !table.empty(), colored()));
}

ExitStatus Session::complain(const Failure& failure) const {
  warn(failure.object(), failure.what());
  return failure.status();
}

void Session::warn(std::string_view object, std::string_view text) const {
  std::string line = "vkctl: " + verb_ + ": ";
  if (!object.empty()) line += escaped(object) + ": ";
  line += escaped(text) + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace vkctl
