// The daemon: the plug-in registry (it derives from VKDatabase) with a named service in front of it, the queue on which
// all requests are served one at a time, the holds that installers placed, and the user's preferences. main makes one;
// it lives as long as the process.
//
//   "zyp"         zypQueue    new connections
//   "service"     mainQueue   every request; completions of the service manager
//   "serverSync"  syncQueue   a leaf: the hold list, always entered synchronously
//
//   VKDServer.cpp        construction, service, ending plug-ins that were uninstalled
//   VKDServer+Holds.cpp  the hold list
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/MessageConnection.h"
#include "platform/Services.h"
#include "platform/WorkQueue.h"
#include "vkd/discovery/HoldSource.h"
#include "vkd/discovery/VKDUserPrefs.h"
#include "vkd/plugins/VKDatabase.h"

namespace vkd {

class VKDPlugInHold;
class VKDZypClient;

class VKDServer final : public VKDatabase,
                        public VKDatabaseDelegate,
                        public HoldSource,
                        public std::enable_shared_from_this<VKDServer> {
 public:
  // So many holds one client may have at a time: each costs memory, and an installer needs one.
  static constexpr std::uint32_t kMaxHoldsPerClient = 256;

  // A server on the service name, not yet accepting connections; null, with the reason in the log, when the name cannot
  // be listened on. Throws StartupFailure. Needs all services.
  static std::shared_ptr<VKDServer> initForServiceDatabase(const Services& services, std::string_view serviceName,
                                                           const std::optional<std::string>& databasePath);
  // The one most recently made, null when it is gone. From any thread.
  static std::shared_ptr<VKDServer> server();

  // Accepts connections from now on. False, with the reason in the log, when that is impossible.
  bool start();
  // Starts, then leaves the main thread to the platform's run loop. False when it could not start.
  bool run();

  // Queues a work item on the service queue. From any thread.
  void submitWork(std::function<void()> item) { mainQueue_->async(std::move(item)); }

  // Ends what runs of them. On the registry's notification thread, and for a plug-in that was uninstalled while it was
  // made ready on the service queue; waits for nothing.
  void removedPlugIns(const RegistryPlugInRecords& records) override;

  // How often the command line asked for more words. Nothing reads it.
  std::uint32_t verbose() const { return verbose_; }
  void setVerbose(std::uint32_t verbose) { verbose_ = verbose; }

  const std::shared_ptr<WorkQueue>& zypQueue() const { return zypQueue_; }
  const std::shared_ptr<WorkQueue>& mainQueue() const { return mainQueue_; }
  const std::shared_ptr<WorkQueue>& syncQueue() const { return syncQueue_; }
  const std::shared_ptr<MessageListener>& service() const { return service_; }
  // Service queue.
  VKDUserPrefs& userPrefs() const { return *userPrefs_; }

  // --- Holds; each enters "serverSync", so from anywhere else --------------------------------------------------------

  enum class HoldAdded : std::uint8_t { Yes, ClientIsGone, TooMany };
  // Puts the hold in force and tells the system, unless its client has died or has too many.
  HoldAdded addHold(std::shared_ptr<VKDPlugInHold> hold);
  // Releases the hold with this token; anybody may who knows it. An unknown token is no error.
  void unholdToken(const UUID& token);
  // Releases every hold of a client that has died.
  void unholdClient(VKDZypClient& client);
  bool holdOnPlugIn(const VKDPlugIn& plugIn) override;
  std::vector<std::shared_ptr<VKDPlugInHold>> holds();

 private:
  explicit VKDServer(const Services& services) : VKDatabase(services) {}
  bool setUp(std::string_view serviceName, const std::optional<std::string>& databasePath);
  void accept(const std::shared_ptr<PeerConnection>& peer);

  // On "serverSync".
  using Holds = std::vector<std::shared_ptr<VKDPlugInHold>>;
  Holds::iterator release(Holds::iterator hold);

  std::shared_ptr<WorkQueue> syncQueue_;
  std::uint32_t verbose_ = 0;
  std::shared_ptr<WorkQueue> zypQueue_;
  std::shared_ptr<WorkQueue> mainQueue_;
  std::shared_ptr<MessageListener> service_;
  std::shared_ptr<VKDUserPrefs> userPrefs_;

  // What only "serverSync" changes, in the order in which it was granted; and how many holds each plug-in has.
  Holds holds_;
  std::unordered_map<UUID, std::uint32_t> heldPlugIns_;
  // Whether any plug-in is held: discovery asks for each candidate, and there hardly ever is one.
  std::atomic<bool> anythingHeld_{false};
};

}  // namespace vkd
