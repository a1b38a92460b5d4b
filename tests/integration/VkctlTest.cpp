// vkctl as scripts and people meet it: exit statuses, streams, formats, and the messages that it sends.

#include "tests/integration/Device.h"

namespace integration {
namespace {

constexpr const char* kUnknownUUID = "00000000-0000-4000-8000-000000000000";

class VkctlTest : public Device {
 protected:
  static constexpr std::string_view kPlugIn = "/Applications/Photos.app/PlugIns/Share.appex";
  VkctlTest() {
    addApplication(kPhotos);
    addPlugIn(kPlugIn, manifest("com.example.share"));
  }
  static std::size_t lines(const std::string& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  }
  std::string uuid() const { return std::string(form(kPhotos, "com.example.share")["uuid"].stringValue()); }
};

TEST_F(VkctlTest, StatusesAndOneLineForEachError) {
  startDaemon();
  const struct {
    int status;
    std::vector<std::string> words;
    const char* error;  // a part of the one line on standard error; empty: nothing there
    std::size_t lines = 1;
  } cases[] = {
      {0, {"match"}, ""},
      {0, {"match", "--exists"}, ""},
      {0, {"ready", "com.example.share"}, ""},
      {0, {"release", kUnknownUUID}, ""},
      {2, {"mach"}, "vkctl: mach: no such verb; did you mean match?"},
      {2, {"match", "--rul", "A=b"}, "vkctl: match: --rul: no such option; did you mean --rule?"},
      {2, {}, "a verb is missing"},
      {2, {"show"}, "plug-in is required"},
      {2, {"show", "./Share.appex"}, "./Share.appex: absolute device path required"},
      {2, {"--timeout", "1e300", "match"}, "is no number of seconds"},
      {2, {"match", "--rule", "novalue"}, "novalue: a rule is KEY=PATTERN"},
      {2, {"match", "--rules", "/nonexistent"}, "/nonexistent: cannot be read"},
      {2, {"annotate", "com.example.share"}, "nothing to annotate"},
      {2, {"release", "x"}, "vkctl: release: x: no token"},
      {2, {"hold", "/Applications/Photos.app", "--"}, "nothing behind --"},
      {3, {"match", "--exists", "--rule", "Nowhere=true"}, ""},
      {4, {"show", "com.example.none"}, "vkctl: show: com.example.none: no such plug-in"},
      {4, {"show", "/Applications/Photos.app"}, "no such plug-in"},
      {4, {"ready", kUnknownUUID}, "no such plugin (uuid not found) (VKErrorInvalidRequest, 4)"},
      {4, {"hold", "/Applications/None.app"}, "invalid path: /Applications/None.app (VKErrorPath, 9)"},
      {4, {"hold", "--plug-in", "/Applications"}, "no plug-in at path:/Applications (VKErrorPath, 9)"},
      {5, {"remove", std::string(kPlugIn)}, "caller lacks entitlement for this operation (VKErrorNotPermitted, 11)"},
      {7, {"-S", "com.example.nobody", "match"}, "com.example.nobody: the daemon cannot be reached"},
      // Each argument is tried, and the worst status wins.
      {4, {"ready", "com.example.none", "com.example.share", kUnknownUUID}, "no such plug-in", 2},
      {4, {"add", "/Applications/None.appex", std::string(kPlugIn)}, "invalid plugin path: /Applications/None.appex"},
      {42, {"hold", "/Applications/Photos.app", "--", "sh", "-c", "exit 42"}, ""},
      {137, {"hold", "/Applications/Photos.app", "--", "sh", "-c", "kill -9 $$"}, ""},
      {127, {"hold", "/Applications/Photos.app", "--", "no-such-command"}, "no-such-command: No such file"},
  };
  for (const auto& [status, words, error, count] : cases) {
    Result result = vkctl(words);
    std::string what;
    for (const std::string& word : words) what += word + " ";
    EXPECT_EQ(result.status, status) << what << result.err;
    EXPECT_EQ(lines(result.err), *error == '\0' ? 0U : count) << what << result.err;
    EXPECT_NE(result.err.find(error), std::string::npos) << what << result.err;
    if (status != 0) {
      EXPECT_EQ(result.out, "") << what;
    }
  }
}

TEST_F(VkctlTest, EveryVerbHelpsOnStandardOutputWithExamplesFirst) {
  for (const char* verb : {"match", "show", "status", "diagnose", "ready", "launch", "access", "elect", "annotate",
                           "bulk-annotate", "add", "remove", "hold", "release", "watch", "send"}) {
    Result help = vkctl({verb, "--help"});
    EXPECT_EQ(help.status, 0) << verb;
    EXPECT_EQ(help.err, "");
    std::size_t examples = help.out.find("Examples:\n  "), options = help.out.find("--help");
    EXPECT_LT(examples, options) << help.out;
    EXPECT_NE(help.out.find(std::string("vkctl ") + verb), std::string::npos);
  }
  EXPECT_EQ(vkctl({"--version"}).out, "vkctl " VORNIK_VERSION ", protocol 3\n");
}

TEST_F(VkctlTest, TimeRunsOutOnADaemonThatDoesNotAnswer) {
  startDaemon();
  daemon().pause();
  Result result = vkctl({"--timeout", "0.05", "match"});
  daemon().signal(SIGCONT);
  EXPECT_EQ(result.status, 8);
  EXPECT_EQ(result.err, "vkctl: match: com.vantrel.vornik.vkd: no answer in time\n");
}

TEST_F(VkctlTest, APlugInIsNamedByUUIDIdentifierOrPath) {
  addPlugIn("/Applications/Photos.app/PlugIns/Twin.appex", manifest("com.example.twin", "1"));
  addPlugIn("/Applications/Photos.app/PlugIns/Twin2.appex", manifest("com.example.twin", "2"));
  addPlugIn("/System/Library/PlugIns/Tool.appex", manifest("com.example.tool"));
  startDaemon();
  EXPECT_EQ(vkctl({"ready", "/System/Library/PlugIns/Tool.appex"}).status, 0);
  std::string byName = vkctl({"show", "com.example.share", "--json"}).out;
  EXPECT_EQ(vkctl({"show", uuid(), "--json"}).out.size(), byName.size());
  EXPECT_EQ(vkctl({"show", std::string(kPlugIn) + "/", "--json"}).out.size(), byName.size());
  EXPECT_EQ(::vkctl::plistFromJson(byName)["path"].stringValue(), kPlugIn);
  Result several = vkctl({"show", "com.example.twin"});
  EXPECT_EQ(several.status, 2);
  EXPECT_NE(several.err.find("/Applications/Photos.app/PlugIns/Twin2.appex"), std::string::npos) << several.err;
  EXPECT_EQ(vkctl({"elect", "/Applications/Photos.app/PlugIns/Twin2.appex", "1"}).status, 0);
}

TEST_F(VkctlTest, WhatOthersWroteIsEscaped) {
  addPlugIn("/Applications/Photos.app/PlugIns/\x1b[31mRed\n.appex", manifest("com.example.red"));
  startDaemon();
  Result table = vkctl({"match", "--rule", "ZoExtensionIdentifier=com.example.red"});
  EXPECT_EQ(lines(table.out), 1U) << table.out;
  EXPECT_NE(table.out.find("/PlugIns/\\x1b[31mRed\\n.appex"), std::string::npos) << table.out;
  EXPECT_EQ(vkctl({"match", "--json"}).out.find('\x1b'), std::string::npos);
  EXPECT_EQ(vkctl({"match", "--color=always"}).out.find('\x1b'), std::string::npos);
}

TEST_F(VkctlTest, AnnotationsFromFilesOfBothForms) {
  startDaemon();
  writePlist("/settings.plist", dictionary("com.example.share", dictionary("quality", PlistValue(2))));
  ASSERT_EQ(vkctl({"bulk-annotate", host("/settings.plist")}).status, 0);
  EXPECT_EQ(form("", "com.example.share")["annotations"]["extension"]["quality"].intValue(), 2);
  ASSERT_EQ(vkctl({"annotate", "com.example.share", "--election", "-3", "--extension", "-"}, R"({"a": 1.5})").status,
            0);
  PlistValue annotations = form("", "com.example.share")["annotations"];
  EXPECT_EQ(annotations["election"].intValue(), -3);
  EXPECT_EQ(annotations["extension"], dictionary("a", 1.5));
  Result nonsense = vkctl({"annotate", "com.example.share", "--extension", "-"}, "[1]");
  EXPECT_EQ(nonsense.status, 2);
}

TEST_F(VkctlTest, StatusTellsOfTheDaemon) {
  startDaemon();
  PlistValue state = ::vkctl::plistFromJson(vkctl({"status", "--json"}).out);
  EXPECT_EQ(state["pid"].intValue(), daemon().pid());
  EXPECT_EQ(state["protocol"].intValue(), 3);
  EXPECT_EQ(state["version"].stringValue(), VORNIK_VERSION);
  EXPECT_EQ(state["plugIns"]["all"].intValue(), 1);
  EXPECT_FALSE(state["complete"].boolValue());
  Result unreachable = vkctl({"status", "--json", "-S", "com.example.nobody"});
  EXPECT_EQ(unreachable.status, 7);
  EXPECT_EQ(unreachable.out, "{\"reachable\":false,\"service\":\"com.example.nobody\"}\n");
}

// --- send -----------------------------------------------------------------------------------------------------------

TEST_F(VkctlTest, SendCarriesEveryMessageExactly) {
  startDaemon();
  const std::string requests[] = {
      R"({"request": "bulk", "version": {"$uint": 3}, "flags": {"$uint": 7}})",
      "",
      R"({"request": "bulk", "version": 3})",
      "nonsense",
      R"({"request": "ready", "version": {"$uint": 3}, "uuids": ["text"]})",
  };
  const std::string replies[] = {
      "{}",
      R"~({"error":"unsupported protocol version 0 (current 3)","errorcode":{"$uint":7}})~",
      R"~({"error":"invalid request (bad uuid array)","errorcode":{"$uint":4}})~",
  };
  std::string input, output;
  for (const std::string& request : requests) input += request + "\n";
  for (const std::string& reply : replies) output += reply + "\n";
  Result result = vkctl({"send"}, input);
  EXPECT_EQ(result.out, output);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(lines(result.err), 1U) << result.err;
  EXPECT_NE(result.err.find("vkctl: send: line 4: "), std::string::npos) << result.err;

  Result match = vkctl({"send"}, "{\"request\": \"match\", \"version\": {\"$uint\": 3}}\n");
  EXPECT_TRUE(match.out.starts_with("{\"matches\":{\"$plist\":[{")) << match.out;
  Result quiet = vkctl({"send", "-n"}, "{\"request\": \"Match\", \"version\": {\"$uint\": 3}}\n");
  EXPECT_EQ(quiet.out, "");
  EXPECT_EQ(quiet.status, 0);
}

TEST_F(VkctlTest, SendKeepsOneConnectionAndTellsWhenItBreaks) {
  startDaemon();
  std::string request = "{\"request\": \"bulk\", \"version\": {\"$uint\": 3}}\n";
  auto client = start({VKCTL_PROGRAM, "send"});
  client->write(R"({"request": "lock", "version": {"$uint": 3}, "flags": {"$uint": 2}, "paths": [")" +
                std::string(kPlugIn) + "\"]}\n");
  ASSERT_TRUE(client->says("{\"uuids\":{\"$uuid\":\""));
  EXPECT_EQ(seenBy(kPhotos), "") << "held on that connection";
  auto idle = start({VKCTL_PROGRAM, "send"});
  idle->write(request);
  ASSERT_TRUE(idle->says("{}"));
  daemon().pause();
  client->write(request);
  daemon().signal(SIGKILL);
  daemon().signal(SIGCONT);
  Result result = client->finish();
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.out.find("{\"$error\":\""), std::string::npos) << result.out;
  idle->write(request);
  EXPECT_EQ(idle->finish().status, 1) << "broke between two requests";
}

// --- diagnose -------------------------------------------------------------------------------------------------------

TEST_F(VkctlTest, DiagnoseTellsAllThatIsWrongAtOnce) {
  writePlist("/Applications/Soon.app/Info.plist", dictionary("CatalonPlaceholder", true));
  const std::string bad = "/Applications/Soon.app/PlugIns/Bad.appex", photos = std::string(kPhotos) + "/PlugIns/";
  PlistBuilder section;
  section.set("PrincipalClass", "Mine").set("PassProxy", true).set("EmbeddedCode", true);
  addPlugIn(bad, PlistBuilder(manifest("bad", "1", section.take())).set("CatalonDataContainer", false).take(),
            dictionary("a", true));
  ::chmod(host(bad + "/plugin.entitlements").c_str(), 0666);
  ::chmod(host(bad + "/plugin").c_str(), 0644);
  // What the registry would refuse is read, too.
  write(photos + "Text.appex/Info.plist", "no property list");
  writePlist(photos + "Other.appex/Info.plist", dictionary("KvBundleIdentifier", "a"));
  addPlugIn("/Loose.appex", manifest("loose", "1", dictionary("ZoExtensionPointIdentifier", 5)));
  const PlistValue old = dictionary("Vornik", dictionary("ZoExtensionAttributes", PlistBuilder().take()));
  addPlugIn("/System/Old.plugin",
            PlistBuilder(old).set("KvBundleIdentifier", "old").set("KvBundleExecutable", "missing").take());

  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {bad,
       {"Application Extensions may not use the \"PrincipalClass\" key", "the \"PassProxy\" key is not supported",
        "hybrid plug-ins are not supported", "is only a placeholder", "may not be executed",
        "entitlements do not count", "it has no data container"}},
      {std::string(kPlugIn), {"/PlugIns/Share.appex: nothing keeps it from being served"}},
      {"/None.appex", {"there is no bundle here"}},
      {photos + "Text.appex", {"cannot be read: "}},
      {photos + "Other.appex", {"this is no plug-in"}},
      {"/Loose.appex", {"lies in no application", "extension point is no text"}},
      {"/System/Old.plugin", {"missing \"ZoExtensionProtocol\" key", "is not there"}},
  };
  for (const auto& [path, texts] : cases) {
    Result result = vkctl({"diagnose", path});
    EXPECT_EQ(result.status, path == kPlugIn ? 0 : 3) << path;
    for (const std::string& text : texts) EXPECT_NE(result.out.find(text), std::string::npos) << result.out;
  }
  Result several = vkctl({"diagnose", "--json", bad, std::string(kPlugIn)});
  EXPECT_EQ(several.status, 3);
  const PlistValue bundles = ::vkctl::plistFromJson(several.out)["bundles"];
  EXPECT_EQ(bundles.at(0)["problems"].size(), 7U) << several.out;
  EXPECT_EQ(bundles.at(1)["problems"].size(), 0U) << several.out;
}

}  // namespace
}  // namespace integration
