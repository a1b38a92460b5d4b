// A device root full of plug-ins, made in a scratch directory and removed at the end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

class SampleRoot {
 public:
  SampleRoot();
  ~SampleRoot();
  SampleRoot(const SampleRoot&) = delete;
  SampleRoot& operator=(const SampleRoot&) = delete;

  // Adds application plug-ins until there are `count`, a hundred an application, each with a manifest of about 3 KB.
  // A hundred of the first thousand serve the extension point "com.example.bench.few".
  void fillTo(std::size_t count);

  const std::string& path() const { return path_; }
  // Host paths of the manifests written so far, and their bytes.
  const std::vector<std::string>& manifests() const { return manifests_; }
  std::uint64_t manifestBytes() const { return manifestBytes_; }

 private:
  void addApplication(std::size_t first, std::size_t last);
  void addPlugIn(const std::string& application, std::size_t index);

  std::string path_;
  std::vector<std::string> manifests_;
  std::uint64_t manifestBytes_ = 0;
};

}  // namespace bench
