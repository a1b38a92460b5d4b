// vkctl watch: a line for each change of annotations or holds.

#include <chrono>
#include <ctime>
#include <memory>

#include "Vornik/VKProtocol.h"
#include "platform/Interrupts.h"
#include "tools/verbs/AllVerbs.h"

namespace vkctl {
namespace {

std::string now() {
  std::time_t seconds = std::time(nullptr);
  std::array<char, sizeof "2026-11-22T19:40:01Z"> text{};
  std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&seconds));
  return text.data();
}

int watch(Session& session) {
  constexpr std::string_view name = Vornik::kVKAnnotationChangeNotification;
  std::shared_ptr<Waiter> failed = Waiter::make();
  // The handler is the only one who prints, on the notifier's thread.
  auto subscription = session.services().notifier->subscribe(name, [&session, failed, name] {
    try {
      if (session.json()) {
        session.printJson(PlistBuilder().set("date", now()).set("notification", name).take());
      } else {
        session.print(now() + " " + std::string(name) + "\n");
      }
    } catch (const Failure&) {
      failed->signal();
    }
  });
  if (!subscription) throw Failure(ExitStatus::Failed, std::string(name), "cannot subscribe to the notification");
  WaitResult result = failed->wait(session.timeout());
  if (result == WaitResult::TimedOut) return asInt(ExitStatus::TimedOut);
  throw Failure(ExitStatus::Failed, "standard output", "cannot be written");
}

}  // namespace

void addWatch(Verbs& verbs) {
  CLI::App& verb = verbs.add("watch", "Prints a line whenever annotations or holds change, until interrupted",
                             {"vkctl watch", "vkctl watch --json | while read -r change; do vkctl match; done"}, watch);
  verbs.addJson(verb);
}

}  // namespace vkctl
