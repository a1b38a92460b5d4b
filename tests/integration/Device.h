// A device in a scratch folder with the real daemon on it: a test writes bundles, runs hosts (copies of vkctl, each
// with its own entitlements) and looks at what they are told.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/plists/PropertyList.h"
#include "platform/values/PlistValue.h"
#include "tests/integration/Program.h"
#include "tools/text/JsonMessage.h"

namespace integration {

using namespace platform;
namespace fs = std::filesystem;

class Device : public testing::Test {
 protected:
  static constexpr std::string_view kShare = "com.vantrel.share-services";
  static constexpr std::string_view kPhotos = "/Applications/Photos.app";
  static constexpr std::string_view kManager = "com.vantrel.private.vornik.manager";

  Device() {
    std::string pattern = (fs::temp_directory_path() / "vornik-device-XXXXXX").string();
    root_ = mkdtemp(pattern.data());
    scratch_ = root_.string() + "-scratch";
    fs::create_directories(scratch_);
    setenv("VANTREL_ROOT", root_.c_str(), 1);
  }
  ~Device() override {
    daemon_.reset();
    std::error_code ignored;
    fs::remove_all(root_, ignored);
    fs::remove_all(scratch_, ignored);
  }

  // --- What is on the device -----------------------------------------------------------------------------------------

  fs::path host(std::string_view devicePath) const { return root_.string() + std::string(devicePath); }
  void write(std::string_view devicePath, std::string_view bytes) const {
    fs::path path = host(devicePath);
    fs::create_directories(path.parent_path());
    fs::path aside = path.string() + ".new";
    std::ofstream(aside, std::ios::binary) << bytes;
    ::chmod(aside.c_str(), 0644);
    fs::rename(aside, path);
  }
  void writePlist(std::string_view devicePath, const PlistValue& value) const {
    write(devicePath, serializePropertyListXML(value));
  }
  void install(const char* program, std::string_view devicePath) const {
    fs::path path = host(devicePath);
    fs::create_directories(path.parent_path());
    fs::copy_file(program, path, fs::copy_options::overwrite_existing);
    ::chmod(path.c_str(), 0755);
  }
  // A flat application that is a host, too; its executable is its name without ".app".
  void addApplication(std::string_view path, const PlistValue& entitlements = {}) const {
    std::string name = fs::path(path).stem();
    writePlist(std::string(path) + "/Info.plist", PlistBuilder()
                                                      .set("KvBundleIdentifier", "com.example." + name)
                                                      .set("KvBundleName", name)
                                                      .set("KvBundleExecutable", name)
                                                      .take());
    if (entitlements) writePlist(executable(path) + ".entitlements", entitlements);
    install(VKCTL_PROGRAM, executable(path));
  }
  // A share service unless the section says otherwise.
  static PlistValue manifest(std::string_view identifier, std::string_view version = "1.0", PlistValue section = {}) {
    PlistBuilder plugIn(section);
    if (!section["ZoExtensionPointIdentifier"]) plugIn.set("ZoExtensionPointIdentifier", kShare);
    if (!section["ZoExtensionAttributes"]) plugIn.set("ZoExtensionAttributes", PlistBuilder().take());
    return PlistBuilder()
        .set("KvBundleIdentifier", identifier)
        .set("KvBundleVersion", "1")
        .set("KvBundleShortVersionString", version)
        .set("KvBundleExecutable", "plugin")
        .set("ZoExtension", plugIn.take())
        .take();
  }
  void addPlugIn(std::string_view path, const PlistValue& manifest, const PlistValue& entitlements = {}) const {
    std::string executable = std::string(path) + "/plugin";
    if (entitlements) writePlist(executable + ".entitlements", entitlements);
    if (manifest["KvBundleExecutable"]) install(SAMPLE_PLUGIN, executable);
    writePlist(std::string(path) + "/Info.plist", manifest);
  }
  static PlistValue dictionary(std::string_view key, PlistValue value) {
    return PlistBuilder().set(key, std::move(value)).take();
  }
  static std::string executable(std::string_view app) { return std::string(app) + "/" + fs::path(app).stem().string(); }

  // --- What runs on it -----------------------------------------------------------------------------------------------

  void startDaemon(const std::vector<std::string>& options = {}) {
    daemon_ = start(with(VKD_PROGRAM, options), {{"VANTREL_LOG", "debug"}, {"VANTREL_LOG_PRIVATE", "1"}});
    ASSERT_TRUE(eventually([&] { return daemon_->hasEnded() || vkctl({"status"}).status == 0; }));
    ASSERT_FALSE(daemon_->hasEnded()) << daemon_->err();
  }
  void stopDaemon(int signal = SIGTERM) {
    daemon_->signal(signal);
    daemon_->finish();
    daemon_.reset();
  }
  Program& daemon() { return *daemon_; }

  std::unique_ptr<Program> start(const std::vector<std::string>& command, Program::Environment environment = {}) const {
    environment.try_emplace("VANTREL_ROOT", root_);
    environment.try_emplace("VANTREL_LOG", "");
    return std::make_unique<Program>(scratch_, command, environment);
  }
  Result run(const std::vector<std::string>& command, const std::string& input = "") const {
    auto program = start(command);
    if (!input.empty()) program->write(input);
    return program->finish();
  }
  // From outside of every application, without entitlements.
  static std::vector<std::string> with(const std::string& program, const std::vector<std::string>& words) {
    std::vector<std::string> command{program};
    command.insert(command.end(), words.begin(), words.end());
    return command;
  }
  Result vkctl(const std::vector<std::string>& words, const std::string& input = "") const {
    return run(with(VKCTL_PROGRAM, words), input);
  }
  // As the host application at this path.
  Result as(std::string_view app, const std::vector<std::string>& words, const std::string& input = "") const {
    return run(with(host(executable(app)), words), input);
  }
  std::unique_ptr<Program> startAs(std::string_view app, const std::vector<std::string>& words) const {
    return start(with(host(executable(app)), words));
  }
  // The forms that a host is told of.
  std::vector<PlistValue> matches(std::string_view app, std::vector<std::string> words = {}) const {
    words.insert(words.begin(), {"match", "--json"});
    Result result = app.empty() ? vkctl(words) : as(app, words);
    EXPECT_EQ(result.status, 0) << result.err;
    std::vector<PlistValue> forms;
    for (const PlistValue& form : vkctl::plistFromJson(result.out)["matches"].elements()) forms.push_back(form);
    return forms;
  }
  // "identifier version" of each, sorted, joined by ", ".
  std::string seenBy(std::string_view app, const std::vector<std::string>& words = {}) const {
    std::vector<std::string> names;
    for (const PlistValue& form : matches(app, words)) {
      names.push_back(std::string(form["identifier"].stringValue()) + " " + std::string(form["version"].stringValue()));
    }
    std::sort(names.begin(), names.end());
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
    return text;
  }
  // Nothing when it is not seen.
  PlistValue form(std::string_view app, std::string_view identifier, const std::vector<std::string>& words = {}) const {
    for (const PlistValue& form : matches(app, words)) {
      if (form["identifier"].stringValue() == identifier) return form;
    }
    return {};
  }
  bool logSays(const std::string& text) const { return daemon_->err().find(text) != std::string::npos; }

  fs::path root_, scratch_;

 private:
  std::unique_ptr<Program> daemon_;
};

}  // namespace integration
