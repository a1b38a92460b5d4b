// What the registry keeps across restarts: payloads under keys, in the journal `records` of its folder. Changes are
// handed to the kernel together (append: they survive the end of the process) and flushed (sync: they survive a power
// cut). When more than half of the file is out of date, or it is not certain what is in it, all that counts is written
// anew beside it and moved over.
//
// A folder or file that cannot be used is logged and never stops the registry: registrations then last as long as the
// process, or until it can be used. A file that cannot be read is kept aside under a dated name. Only one process at a
// time writes (it locks the folder). Used by one thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/files/DeviceRoot.h"
#include "platform/linux/files/UniqueFd.h"
#include "platform/linux/registry/RegistryJournal.h"
#include "platform/values/SharedBytes.h"

namespace platform {

class RegistryStore {
 public:
  static constexpr std::string_view kDirectory = "/var/db/catalon";
  static constexpr const char* kFileName = "records";

  struct Entry {
    SharedSlice key;
    SharedSlice payload;
  };

  using Visitor = std::function<void(std::string_view key, const SharedSlice& payload)>;
  // Visits everything that counts at present, changes that are not yet appended included.
  using Content = std::function<void(const Visitor& visit)>;

  RegistryStore(std::shared_ptr<const DeviceRoot> root, Content content)
      : root_(std::move(root)), content_(std::move(content)) {}

  // Opens the file and answers what it holds, in the order in which it was written. Called once, first.
  std::vector<Entry> load();

  // Payloads are never empty.
  void put(std::string_view key, const SharedSlice& payload) { change(key, payload.view()); }
  void remove(std::string_view key) { change(key, {}); }
  // False when the file does not say what counts, or may not after a power cut; logged once until it does again.
  bool append();
  bool sync();

 private:
  bool openFolder();
  bool makeFolder();
  void lockFolder();
  void openFile();
  void adopt(const JournalEnd& end);
  bool keepAside(bool partlyRead);
  bool createFile();
  void change(std::string_view key, std::string_view payload);
  bool writeChanges();
  bool rewrite();
  bool writeContent(int target, std::uint64_t& end) const;
  bool isRewriteDue();
  bool failed(const char* what);

  const std::shared_ptr<const DeviceRoot> root_;
  const Content content_;
  UniqueFd folder_;
  UniqueFd file_;
  bool writable_ = true;     // nobody else has the folder locked, and no file that was not understood is in the way
  bool rewriteDue_ = false;  // the file on disk must not be appended to
  bool changed_ = false;     // since the last attempt to append
  bool flushDue_ = false;
  bool folderFlushDue_ = false;  // the file has a new name
  bool aboveFlushDue_ = true;    // whoever made the folder may not have flushed its name
  bool failing_ = false;
  std::uint64_t end_ = 0;   // of what is valid in the file
  std::uint64_t live_ = 0;  // bytes that counted when that was last looked at
  std::string changes_;     // entries that are not yet written
};

}  // namespace platform
