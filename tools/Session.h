// What a verb works with: the options that every verb has, standard output, and one connection to the daemon, made when
// it is first needed. Used on the main thread; waits for each reply.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Vornik/VKDaemonClient.h"
#include "platform/Services.h"
#include "platform/values/Message.h"
#include "tools/ExitStatus.h"
#include "tools/text/Text.h"

namespace vkctl {

using namespace platform;

struct GlobalOptions {
  std::string service;
  double timeoutSeconds = 0;  // 0: wait as long as it takes
  std::string color = "auto";
  bool json = false;
};

class Session {
 public:
  using Request = std::function<void(Vornik::VKDaemonClient&, Vornik::VKDaemonClient::ReplyBlock)>;

  Session(std::string verb, const GlobalOptions& options) : verb_(std::move(verb)), options_(options) {}

  // --- The daemon ----------------------------------------------------------------------------------------------------

  const Services& services();
  Vornik::VKDaemonClient& client();
  const std::string& serviceName() const;
  // Sends and waits: the raw reply, which may tell of a refusal or be an error event. Throws Failure when time ran out,
  // Interrupted when a signal came.
  Message askRaw(const Request& send);
  // The same; a refusal is thrown as a Failure of `object`.
  Message ask(std::string_view object, const Request& send);
  // What a reply that tells of a failure means here. Nothing for a success.
  std::optional<Failure> failureOf(const Message& reply, std::string_view object);
  std::optional<std::chrono::nanoseconds> timeout() const;
  // Called, on a thread of the client, when the connection that was there goes away.
  void onConnectionLost(std::function<void()> block);

  // --- What a person sees --------------------------------------------------------------------------------------------

  bool json() const { return options_.json; }
  bool colored() const;
  // To standard output. Throws Failure when it cannot be written.
  void print(std::string_view text);
  void print(const Table& table);
  // As one line of JSON.
  void printJson(const PlistValue& value);
  void printJson(const Message& value);
  // One line on standard error; answers the failure's status.
  ExitStatus complain(const Failure& failure) const;
  void warn(std::string_view object, std::string_view text) const;
  // Runs `work` for each argument; failures are told one by one, the worst status is the answer.
  template <class Arguments, class Work>
  ExitStatus forEach(const Arguments& arguments, Work work) {
    ExitStatus status = ExitStatus::Done;
    for (const auto& argument : arguments) {
      try {
        work(argument);
      } catch (const Failure& failure) {
        status = worst(status, complain(failure));
        if (failure.status() == ExitStatus::Unreachable) break;
      }
    }
    return status;
  }

 private:
  std::string verb_;
  GlobalOptions options_;
  std::optional<Services> services_;
  std::shared_ptr<Vornik::VKDaemonClient> client_;
};

}  // namespace vkctl
