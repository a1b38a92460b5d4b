#include "bench/SampleRoot.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/plists/PropertyList.h"

namespace bench {

namespace fs = std::filesystem;
using platform::PlistBuilder;
using platform::PlistValue;

namespace {

constexpr std::size_t kPlugInsPerApplication = 100;
constexpr std::size_t kManifestBytes = 3000;
// One of this many serves the extension point that few serve.
constexpr std::size_t kFewStride = 10;
constexpr std::size_t kFew = 100;

void writeFile(const fs::path& path, const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }

PlistValue manifest(std::size_t index) {
  std::string number = std::to_string(index);
  PlistBuilder attributes;
  attributes.set("ZoExtensionVersion", "1." + number);
  for (int i = 0; i < 12; ++i) {
    attributes.set("SupportsKind" + std::to_string(i), PlistValue::array({i, true, "com.example.kind." + number}));
  }
  PlistValue section = PlistBuilder()
                           .set("ZoExtensionAttributes", attributes.take())
                           .set("ZoExtensionPointIdentifier", index < kFew * kFewStride && index % kFewStride == 0
                                                                  ? "com.example.bench.few"
                                                                  : "com.example.bench.many")
                           .set("ZoExtensionProtocol", "BenchProtocol")
                           .take();
  return PlistBuilder()
      .set("KvBundleIdentifier", "com.example.bench.plugin" + number)
      .set("KvBundleVersion", number)
      .set("KvBundleName", "Plug-in " + number)
      .set("KvBundleExecutable", "plugin")
      .set("ZYPService", PlistBuilder().set("ServiceType", "Application").take())
      .set("ZoExtension", section)
      .take();
}

std::string manifestText(std::size_t index) {
  PlistValue value = manifest(index);
  std::string text = platform::serializePropertyListXML(value);
  if (text.size() < kManifestBytes) {
    std::string filler(kManifestBytes - text.size(), 'x');
    text = platform::serializePropertyListXML(PlistBuilder(value).set("Purpose", filler).take());
  }
  return text;
}

}  // namespace

SampleRoot::SampleRoot() {
  std::string pattern = (fs::temp_directory_path() / "vkd-bench-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) std::abort();
  path_ = pattern;
  fs::permissions(path_, fs::perms(0755));
  fs::create_directories(path_ + "/Applications");
}

SampleRoot::~SampleRoot() {
  std::error_code ignored;  // a scratch directory that stays behind harms nobody
  fs::remove_all(path_, ignored);
}

void SampleRoot::fillTo(std::size_t count) {
  while (manifests_.size() < count) {
    addApplication(manifests_.size(), std::min(count, manifests_.size() + kPlugInsPerApplication));
  }
}

void SampleRoot::addApplication(std::size_t first, std::size_t last) {
  std::string number = std::to_string(first / kPlugInsPerApplication);
  std::string application = path_ + "/Applications/App" + number + ".app";
  fs::create_directories(application + "/PlugIns");
  PlistBuilder info;
  info.set("KvBundleIdentifier", "com.example.bench.app" + number).set("KvBundleName", "App " + number);
  writeFile(application + "/Info.plist", platform::serializePropertyListXML(info.take()));
  for (std::size_t index = first; index < last; ++index) addPlugIn(application, index);
}

void SampleRoot::addPlugIn(const std::string& application, std::size_t index) {
  std::string bundle = application + "/PlugIns/P" + std::to_string(index) + ".appex";
  fs::create_directories(bundle);
  std::string text = manifestText(index);
  manifestBytes_ += text.size();
  manifests_.push_back(bundle + "/Info.plist");
  writeFile(manifests_.back(), text);
  writeFile(bundle + "/plugin", "#!/bin/true\n");
  fs::permissions(bundle + "/plugin", fs::perms(0755));
}

}  // namespace bench
