// One request of a client, from its message to its one reply.
//
//   Open --done, fail…--> Sending --> Sent        the reply went to the connection; a second one is impossible
//    \--client no longer accepts work--> (stays Open, and nothing is sent)
//
// Made on the delivery of the client's connection, then used on the service queue only, where dispatch checks the
// envelope and runs the handler of the request type. A handler ends every path with exactly one of done, failMessage
// and failError (or processPaths, which calls done). One that ends without, or throws, is answered for by dispatch.
//
//   Transaction.cpp               the frame: envelope, dispatch, walkers, sending
//   Transaction+Discovery.cpp     "match"
//   Transaction+Ready.cpp         "ready", "access"
//   Transaction+Annotations.cpp   "annotate", "bulk-annotate"
//   Transaction+Registration.cpp  "add", "remove", "bulk"
//   Transaction+Holds.cpp         "lock"
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/MessageConnection.h"
#include "platform/values/DomainError.h"
#include "platform/values/Message.h"
#include "vkd/server/VKDServer.h"
#include "vkd/server/VKDZypClient.h"

namespace vkd {

class Transaction {
 public:
  // Both answer whether to go on; who answers false has failed the request already.
  using PathVisit = std::function<bool(const std::string& path, bool resolved)>;
  using PlugInVisit = std::function<bool(const std::shared_ptr<VKDPlugIn>& plugIn)>;

  static std::shared_ptr<Transaction> initWithRequestForClient(Message request, std::shared_ptr<VKDZypClient> client);
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  // Service queue. Throws nothing.
  void dispatch();

  const std::shared_ptr<VKDZypClient>& client() const { return client_; }
  const Message& request() const { return request_; }
  const Message& reply() const { return reply_; }
  std::uint64_t version() const { return version_; }
  VKDServer& server() const { return *client_->server(); }
  // Null once the connection is gone.
  std::shared_ptr<MessageConnection> connection() const { return client_->connection(); }

 private:
  enum class State : std::uint8_t { Open, Sending, Sent };
  struct Handler {
    std::string_view request;
    void (Transaction::*run)();
  };
  static const Handler kHandlers[];

  Transaction(Message request, std::shared_ptr<VKDZypClient> client);

  // --- Frame ---------------------------------------------------------------------------------------------------------

  void route();
  void run(const Handler& handler);
  // What is left to do for the client when a request was given up half-way.
  void abandon(const char* reason);

  // --- Walkers: true when every element was visited and every visit answered true ------------------------------------

  // Calls the visit with each path of "paths" in canonical form and true, or as received and false when it has none.
  bool marshalPaths(const PathVisit& visit);
  // The same, and done when it answers true.
  bool processPaths(const PathVisit& visit);
  // Calls the visit with the plug-in of each UUID of "uuids". Sends nothing when it answers true.
  bool processUuidList(const PlugInVisit& visit);
  bool visitPath(const Message& element, const PathVisit& visit);
  bool visitUuid(const Message& element, const PlugInVisit& visit);

  // --- Ends ----------------------------------------------------------------------------------------------------------

  void done();
  // Without message the reply carries the code only. What the handler has put into the reply stays there.
  void failMessage(std::int64_t code, std::optional<std::string_view> message);
  // An error of the daemon's own domain keeps its code, any other gets the default one.
  void failError(std::int64_t defaultCode, const DomainError& error);

  // --- Handlers ------------------------------------------------------------------------------------------------------

  void matchPlugIns();
  void readyPlugIns();
  void accessPlugIns();
  void annotatePlugIns();
  void bulkAnnotatePlugIns();
  void addPlugIns();
  void removePlugIns();
  void bulkPlugIns();
  void lockDownPlugIns();

  bool mayDiscoverAll() const;
  bool denyAccess(const VKDPlugIn& plugIn, std::string_view reason);
  PlistValue requestedAnnotations();
  bool bulkAnnotate(std::string_view uuidText, const PlistValue& extension);
  void releaseHolds(const Message& tokens);
  bool collectHeld(const FileURL& url, std::uint64_t flags, VKDPlugIns& plugIns);
  bool refuseBusy(const VKDPlugIns& plugIns);
  void grantHold(const VKDPlugIns& plugIns);

  const std::shared_ptr<VKDZypClient> client_;
  const Message request_;
  Message reply_;
  std::uint64_t version_ = 0;
  State state_ = State::Open;
};

}  // namespace vkd
