// Which type descends from which, as /System/Library/Types/*.plist declare it: arrays of dictionaries with `identifier`
// and `conforms-to` (an array of identifiers, or one).
//
// Asked thousands of times a request: an answer walks a table in memory. The files are looked at again at most every
// kTypesRecheckInterval, and read again when one of them, or the directory, changed. Safe from any thread.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/FileSystem.h"
#include "platform/Rules.h"
#include "platform/linux/files/DeviceRoot.h"

namespace platform {

// A changed declaration counts after this time at the latest; until then nobody asks the file system.
inline constexpr std::chrono::milliseconds kTypesRecheckInterval{100};
// After so many steps from a type to a parent the answer is no: it must stay a matter of microseconds, whatever
// somebody declared.
inline constexpr std::size_t kMaxTypeSteps = 512;

class LinuxTypeConformance final : public TypeConformance {
 public:
  explicit LinuxTypeConformance(std::shared_ptr<const DeviceRoot> root);
  ~LinuxTypeConformance() override;
  // An undeclared type conforms to itself alone. A type that is only named as a parent is declared by that.
  bool conforms(std::string_view type, std::string_view parent) override;

 private:
  struct Table;
  struct FileState;
  std::shared_ptr<const Table> current();
  std::vector<FileState> look() const;
  std::shared_ptr<const Table> read(const std::vector<FileState>& files) const;

  const std::shared_ptr<const DeviceRoot> root_;
  std::mutex mutex_;  // guards what follows
  std::int64_t nextLook_ = 0;
  bool settled_ = false;  // the files had been left alone when they were read
  std::vector<FileState> files_;
  std::shared_ptr<const Table> table_;
};

}  // namespace platform
