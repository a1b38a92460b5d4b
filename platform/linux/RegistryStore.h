// What the registry keeps across restarts: payloads under keys, in the journal `records` of its folder. Changes are
// collected, handed to the kernel together (append: what follows survives the end of the process) and flushed (sync:
// it survives a power cut). When more than half of the file is out of date it is written anew beside and moved over.
//
// A folder or file that cannot be used is logged and never stops the registry: what cannot be written stays pending,
// and without a file registrations last as long as the process. A file that cannot be read is kept aside under a dated
// name. Only one process at a time writes (it locks the folder). Used by one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/SharedBytes.h"
#include "platform/linux/DeviceRoot.h"
#include "platform/linux/RegistryJournal.h"
#include "platform/linux/UniqueFd.h"

namespace platform {

class RegistryStore {
 public:
  static constexpr std::string_view kDirectory = "/var/db/catalon";
  static constexpr const char* kFileName = "records";

  struct Entry {
    std::string key;
    SharedSlice payload;
  };

  explicit RegistryStore(std::shared_ptr<const DeviceRoot> root) : root_(std::move(root)) {}

  // Opens the file and answers what it holds, in the order in which it was written. Called once, first.
  std::vector<Entry> load();

  // Payloads are never empty, and stay referenced until they are written.
  void put(std::string_view key, SharedSlice payload);
  void remove(std::string_view key);
  // False when something stays pending; logged once until it works again.
  bool append();
  bool sync();

 private:
  struct Place {
    std::uint64_t offset;
    std::uint64_t size;
  };
  using Places = std::unordered_map<std::string, Place>;

  bool openFolder();
  bool makeFolder();
  void lockFolder();
  void openFile();
  void adopt(const JournalEnd& end);
  bool keepAside();
  bool createFile();
  bool appendPending();
  bool rewrite();
  bool copyLive(int target, Places& places, std::uint64_t& end) const;
  bool isRewriteDue() const;
  bool flushParents() const;
  bool failed(const char* what);

  const std::shared_ptr<const DeviceRoot> root_;
  UniqueFd folder_;
  UniqueFd file_;
  bool writable_ = true;     // nobody else has the folder locked, and no file that was not understood is in the way
  bool rewriteDue_ = false;  // the file on disk must not be appended to
  bool flushDue_ = false;
  bool folderFlushDue_ = false;   // the file has a new name
  bool parentsFlushDue_ = false;  // so has the folder
  bool failing_ = false;
  std::uint64_t end_ = 0;   // of what is valid in the file
  std::uint64_t live_ = 0;  // bytes of it that count
  Places places_;
  std::unordered_map<std::string, SharedSlice> pending_;  // an empty payload removes
};

}  // namespace platform
