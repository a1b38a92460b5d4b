// What lies on the device and is, was or might be registered: applications, folders of plug-ins and the bundles in
// them. Looking at a place brings what is registered there in line with the disk; events and requests say what to look
// at.
//
//   application folder   /Applications             its directories *.app are applications
//     application        …/X.app                   its support directory's PlugIns is a folder of plug-ins
//       folder           …/X.app/Contents/PlugIns  every directory in it may be a plug-in
//         bundle         …/PlugIns/Y.appex         registered when its manifest is one of a plug-in
//   system folder        /System/Library/PlugIns   the same without an application
//   any other folder     /opt/plugins              only bundles that were registered by path, or that a link in one of
//                                                  the others leads to
//
// A directory is watched before it is looked at, so that no change falls between the two. At start, when somebody waits
// for the first answer, bundles are looked at unwatched, and soon after once more. What cannot be looked at for a
// passing reason stays as it is and is tried again. Everything here is done by one thread at a time.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/linux/registry/RegistryAgenda.h"
#include "platform/linux/registry/RegistryBundle.h"
#include "platform/linux/registry/RegistryIndex.h"
#include "platform/linux/registry/RegistryPathFollower.h"
#include "platform/linux/registry/RegistryRecord.h"
#include "platform/linux/registry/RegistryStore.h"
#include "platform/linux/registry/RegistryWatcher.h"

namespace platform {

class RegistryInventory {
 public:
  // What looking at places has changed.
  struct Changes {
    RegistryIndex::Records removed, installed;
    bool empty() const { return removed.empty() && installed.empty(); }
  };

  RegistryInventory(std::shared_ptr<RegistryContext> context, std::shared_ptr<RegistryIndex> index,
                    RegistryStore& store, RegistryWatcher& watcher, RegistryAgenda& agenda);

  // Takes over what was stored and looks at everything.
  void load();
  void look(const RegistryUnit& unit);
  // Puts on the agenda what an event in a directory says.
  void noteEvent(const std::string& directory, std::string_view name);

  // Registers or unregisters the bundle at a canonical path; false when there is no plug-in bundle, or none registered.
  bool request(const std::string& path);
  bool withdraw(const std::string& path);

  // Visits all that is to be stored.
  void visitStored(const RegistryStore::Visitor& visit) const;
  Changes takeChanges() { return std::exchange(changes_, {}); }

 private:
  static constexpr std::size_t kMaxWatched = 3;
  using Holds = std::array<RegistryWatcher::Hold, kMaxWatched>;
  static constexpr Holds kNoHolds{RegistryWatcher::kNone, RegistryWatcher::kNone, RegistryWatcher::kNone};

  struct Bundle {
    RegistryEntry entry;                     // registered, withdrawn or only wished for; none of these when empty
    std::shared_ptr<RegistryRecord> record;  // when it is registered
    Holds holds = kNoHolds;
    std::uint32_t visit = 0;  // in which it was looked at
    std::uint16_t links = 0;  // that lead here from a place of bundles
    bool requested = false;
    bool stored = false;
  };
  struct Folder {
    std::string path;
    std::shared_ptr<RegistryApp> application;  // that contains it
    bool listed = false;                       // whatever lies in it is registered
    RegistryWatcher::Hold hold = RegistryWatcher::kNone;
    std::map<std::string, Bundle, std::less<>> bundles;
  };
  struct Application {
    std::shared_ptr<RegistryApp> record;
    std::string plugIns;  // the folder
    Holds holds = kNoHolds;
    std::uint32_t pass = 0;  // in which it was looked at
    std::uint16_t links = 0;
  };
  struct TopFolder {
    std::string path;       // as everybody knows it
    std::string canonical;  // where it is; empty when it is not there
    RegistryWatcher::Hold hold = RegistryWatcher::kNone;
  };
  struct Link {
    RegistryUnit::Kind kind = RegistryUnit::Kind::Bundle;
    std::string target;  // empty when it leads to no directory of the device
  };

  // Everything.
  void lookAtEverything();
  void lookAtTheRest();
  void resolve(TopFolder& top);
  void lookAtApplicationFolder(TopFolder& top);
  void lookAtSystemFolder();

  // Applications.
  void lookAtApplication(const std::string& path);
  Application& makeApplication(const std::string& path);
  void dropApplication(const std::string& path);
  bool readApplication(const std::string& path, Application& application, RegistryBundle& found);
  void attachFolder(Application& application, const RegistryBundle& found);
  std::optional<std::string> placeOfPlugIns(const std::string& path);
  bool isInApplicationFolder(std::string_view path) const;
  bool isWanted(const std::string& path) const;
  std::string applicationAround(const std::string& folderPath) const;

  // Folders of plug-ins.
  Folder* findFolder(const std::string& path);
  Folder& makeFolder(const std::string& path);
  void lookAtFolder(const std::string& path);
  void lookAtKnown(const std::string& path);
  void adoptFolder(const std::string& path);
  void detachFolder(const std::string& path);
  void dropIfUnused(const std::string& path);

  // Bundles.
  void lookAtBundle(const std::string& path);
  // `directory` is the open folder, if that is at hand.
  void lookAtBundle(Folder& folder, const std::string& name, int directory = -1);
  void compare(const Folder& folder, const std::string& path, Bundle& bundle, RegistryBundle& found);
  bool isUnchanged(const Folder& folder, const Bundle& bundle, const RegistryBundle& found) const;
  void leaveForLater(const Folder& folder, const std::string& path, Bundle& bundle);
  void install(const Folder& folder, const std::string& path, Bundle& bundle, bool localized);
  void uninstall(Bundle& bundle);
  void removeBundle(Folder& folder, const std::string& name, bool wanted);
  void keepVanished(const std::string& path);
  void persist(const std::string& path, Bundle& bundle);
  Bundle* findBundle(const std::string& path);
  // Not looked for when no language asks for them.
  bool hasLocalizedNames(const RegistryBundle& found) const {
    return !context_->languages.names().empty() && found.hasLocalizedNames();
  }

  // Links in places of applications and bundles.
  bool lookAtLink(const std::string& path, RegistryUnit::Kind kind);
  void dropLink(const std::string& path);
  void dropLinksIn(const std::string& folder);
  void countLink(const Link& link, int change);
  void lookAtTarget(const Link& link);

  // Following.
  void hold(RegistryWatcher::Hold& hold, const std::string& path, RegistryWatcher::Changes changes);
  bool holdAll(Holds& holds, const RegistryBundle& found, std::size_t count);
  void watch(Holds& holds, std::size_t count, RegistryBundle& found, int directory = -1);
  void releaseAll(Holds& holds);
  void noteBundleEvent(const std::string& directory);
  void noteApplicationEvent(const std::string& directory, std::string_view name);
  void note(RegistryUnit::Kind kind, std::string path);
  void retry(RegistryUnit::Kind kind, std::string path);

  const std::shared_ptr<RegistryContext> context_;
  const std::shared_ptr<RegistryIndex> index_;
  RegistryStore& store_;
  RegistryWatcher& watcher_;
  RegistryAgenda& agenda_;

  std::vector<TopFolder> applicationFolders_;
  TopFolder systemFolder_;
  std::unordered_map<std::string, Application> applications_;
  std::unordered_map<std::string, Folder> folders_;
  std::unordered_map<std::string, Link> links_;
  RegistryPathFollower follower_;
  std::deque<std::string> vanished_;  // requested bundles that are not there, the longest gone first
  std::uint32_t pass_ = 0;            // over everything
  std::uint32_t visit_ = 0;           // of a folder
  bool watchesBundles_ = false;       // not at the first look
  bool incomplete_ = false;           // something could not be looked at: nobody can say what is not wanted any more
  bool contested_ = false;            // links lead several applications to one folder of plug-ins; the first has it
  Changes changes_;
};

}  // namespace platform
