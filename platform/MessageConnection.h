// The IPC service: a listener on a named service, and the two ends of a connection. The daemon's is a PeerConnection, a
// client's a ServiceConnection.
//
//   life of a connection:   made --resume--> live --peer gone, garbage, cut off--> invalid
//                                              |
//                                              +-- peer announces its end: TerminationImminent, still live
//
// Both are set up first and deliver nothing before resume(). Events of one connection are delivered one at a time, in
// order; the last one is the error event ConnectionError::Invalid (daemon side) after which nothing follows.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/WorkQueue.h"
#include "platform/values/DomainError.h"
#include "platform/values/Message.h"

namespace platform {

// A larger message cuts its sender off.
inline constexpr std::uint64_t kMaxMessageBytes = std::uint64_t{64} << 20;

// Why a service cannot be listened on. The code is the system's error number, 0 when the system has no part in it.
[[gnu::visibility("default")]] inline constexpr char MessageErrorDomainText[] = "Message";
inline constexpr std::string_view MessageErrorDomain{MessageErrorDomainText};

// Who the peer is, as the kernel said when it connected. Opaque: CodeSigningTask and ProcessInfo read it.
class AuditToken {
 public:
  virtual ~AuditToken() = default;
  virtual std::int32_t pid() const = 0;
};

class MessageConnection {
 public:
  using EventHandler = std::function<void(Message event)>;

  virtual ~MessageConnection() = default;

  // 0 when unknown (a client's connection to a service that is not there).
  virtual std::int32_t peerPid() const = 0;
  // Messages and error events, on the delivery of this connection; before resume() only. Released after Invalid.
  virtual void setEventHandler(EventHandler handler) = 0;
  virtual void resume() = 0;

  // Never blocks and never fails: what the socket does not take at once is kept and sent when it does, up to a bound
  // after which the peer is cut off. Anything sent on an invalid connection is dropped. From any thread.
  virtual void send(const Message& message) = 0;
  // Cuts the connection: pending replies get Invalid, so does the event handler. From any thread.
  virtual void cancel() = 0;

  // For texts: "<MessageConnection 0x… pid 812>".
  virtual std::string description() const = 0;
};

// The daemon's end.
class PeerConnection : public MessageConnection {
 public:
  // Never null.
  virtual std::shared_ptr<AuditToken> peerAuditToken() const = 0;
  // Keeps `context` alive as long as the connection; before resume() only.
  virtual void setContext(std::shared_ptr<void> context) = 0;
};

// A client's end.
class ServiceConnection : public MessageConnection {
 public:
  using ReplyHandler = std::function<void(Message reply)>;

  // Calls `handler` exactly once, asynchronously on `queue`: with the reply, or with an error event. From any thread.
  virtual void sendWithReply(const Message& message, std::shared_ptr<WorkQueue> queue, ReplyHandler handler) = 0;
};

class MessageListener {
 public:
  using ConnectionHandler = std::function<void(std::shared_ptr<PeerConnection> peer)>;

  virtual ~MessageListener() = default;
  // Called on the delivery queue for each new peer; before resume() only. A connection that the handler does not resume
  // is dropped.
  virtual void setConnectionHandler(ConnectionHandler handler) = 0;
  // Accepts from now on. Nothing, or why the service cannot be listened on (MessageErrorDomain).
  [[nodiscard]] virtual std::optional<DomainError> resume() = 0;
};

class MessageService {
 public:
  virtual ~MessageService() = default;
  // Null when the name is in use by a living daemon or cannot be a name; *error (may be null; MessageErrorDomain) says
  // which.
  virtual std::shared_ptr<MessageListener> listen(std::string_view serviceName,
                                                  std::shared_ptr<WorkQueue> deliveryQueue, DomainError* error) = 0;
  // A client's connection; made at once, connected at the first send. Its events arrive on `deliveryQueue`. When the
  // daemon goes away pending requests get ConnectionError::Interrupted and the next send connects anew.
  virtual std::shared_ptr<ServiceConnection> connect(std::string_view serviceName,
                                                     std::shared_ptr<WorkQueue> deliveryQueue) = 0;
  // While count > 0 the process is busy and must not be reclaimed as idle. From any thread.
  virtual void beginKeepAlive() = 0;
  virtual void endKeepAlive() = 0;
};

}  // namespace platform
