#include <string>

#include "Vornik/VKError.h"
#include "platform/values/PlistEncoding.h"
#include "tests/Support/PlugInFixture.h"
#include "vkd/plugins/VKDPlugIn.h"

namespace vkd::testing {
namespace {

class VKDPlugInTest : public PlugInFixture {
 protected:
  // Why the record is no plug-in, or "served".
  std::string refusal() {
    CapturedLog lines;
    if (make()) return "served";
    return lines.lines().empty() ? "silently" : lines.lines().back().text;
  }
  static PlistValue assembled(const PlugInForm& form, const PlugInForm::Additions& additions) {
    PlistEncoder encoder;
    form.append(encoder, additions);
    const SharedSlice bytes = encoder.take().flat();
    EXPECT_EQ(bytes.size(), form.encodedSize(additions));
    return decodePlist(bytes);
  }
};

TEST_F(VKDPlugInTest, IsFilledFromTheRecord) {
  record->original = "original";
  record->date = 1234.9;
  record->system = true;
  record->rights = dictionary({{"zero", 0}, {"no", false}, {"text", "NO"}, {"list", list({})}});
  record->changeSection("HubProtocolVersion", 3);
  record->changeManifest("Vornik", 1);
  const PlistValue manifest = record->manifest;
  record->changeManifest("KvBundleInfoPlistURL", "/somewhere");
  record->name = "Name";
  record->shortName = "Short";
  record->containing->name = "Host";
  const auto plugIn = make();
  const PlistValue form = dictionary({{"hubProtocolVersion", 3},
                                      {"path", pathOf("test.plugin")},
                                      {"containingPath", "/Applications/Host.app"},
                                      {"systemResident", true},
                                      {"identifier", "test.plugin"},
                                      {"original-identifier", "original"},
                                      {"version", "1.0"},
                                      {"bundleInfo", manifest},
                                      {"localizedContainingDisplayName", "Host"},
                                      {"localizedDisplayName", "Name"},
                                      {"localizedShortName", "Short"},
                                      {"info", record->plugInDictionary()},
                                      {"entitlements", record->rights},
                                      {"uuid", record->uuid->text()},
                                      {"lastmodified", 1234}});
  EXPECT_EQ(plugIn->exportFormWithoutAnnotations(nullptr), form);
  for (const char* name : {"zero", "no", "absent"}) EXPECT_FALSE(plugIn->hasEntitlement(name)) << name;
  for (const char* name : {"text", "list"}) EXPECT_TRUE(plugIn->hasEntitlement(name)) << name;
  record->changeSection("HubProtocolVersion", PlistValue());
  EXPECT_EQ(make()->hubProtocolVersion(), 1U);
  record->changeManifest("Vornik", PlistValue());
  EXPECT_EQ(make()->hubProtocolVersion(), 2U);
  record->uuid = std::nullopt;
  EXPECT_NE(make()->uuid(), make()->uuid());
}

TEST_F(VKDPlugInTest, IsServedOnlyWhenItsPlacementIsRight) {
  const std::string ignored = "ignoring mis-configured plug-in at ",
                    outside = ": plug-ins outside containing apps must be in /System";
  EXPECT_EQ(refusal(), "served");
  record->container = std::nullopt;
  EXPECT_EQ(refusal(), ignored + pathOf("test.plugin") + ": this plug-in has no sandbox data container");
  record->changeSection("ZoExtensionProtocol", "#Data");
  EXPECT_EQ(refusal(), "served");
  record->containing = nullptr;
  EXPECT_EQ(refusal(), ignored + pathOf("test.plugin") + outside);
  record->url = FileURL{"/SystemX/Foo.appex"};
  EXPECT_EQ(refusal(), ignored + "/SystemX/Foo.appex" + outside);
  record->url = FileURL{"/System/Library/Foo.appex"};
  EXPECT_EQ(refusal(), "served");
  record->changeSection("PrincipalClass", "Mine");
  EXPECT_TRUE(refusal().ends_with(": Application Extensions may not use the \"PrincipalClass\" key"));
  record->url = std::nullopt;
  EXPECT_EQ(refusal(), "silently");
}

TEST_F(VKDPlugInTest, SharesTheAnnotationOfTheOnePlugInItReplaces) {
  const std::pair<PlistValue, const char*> cases[] = {
      {{}, "test.plugin"}, {"other", "other"}, {list({"other"}), "test.plugin"}};
  for (const auto& [replaced, key] : cases) {
    record->rights = dictionary({{"com.vantrel.developer.replace-plugin", replaced}});
    EXPECT_EQ(make()->annotationKey(), key);
  }
}

TEST_F(VKDPlugInTest, DisplayNamesAreFetchedUntilThereIsOne) {
  const auto plugIn = make();
  EXPECT_FALSE(plugIn->localizedName());
  record->name = "First";
  record->containing->name = "Host";
  EXPECT_EQ(plugIn->localizedName(), "First");
  EXPECT_EQ(plugIn->localizedContainingName(), "Host");
  EXPECT_FALSE(plugIn->localizedShortName());
  record->name = "Second";
  EXPECT_EQ(plugIn->localizedName(), "First");
}

TEST_F(VKDPlugInTest, SharesResourcesByTokens) {
  record->changeSection("Shared", "Resources");
  const auto extension = make();
  PlistBuilder form;
  for (int i = 0; i < 2; ++i) extension->augmentForm(form);
  EXPECT_EQ(form["extensions"], dictionary({{".", "token:" + extension->path()}})) << "its bundle and nothing else";
  EXPECT_EQ(device.sandbox->issued.size(), 1U) << "a token that was issued is kept";

  // Other plug-ins share what they name.
  const std::string path = "/Applications/Host.app/PlugIns/p.plugin";
  record->url = FileURL{path};
  record->changeSection("ZoExtensionProtocol", "P");
  record->changeSection("Shared", {});
  EXPECT_FALSE(make()->resourceExtensions()) << "without a list the form stays as it is";
  record->changeSection("Shared", list({"A", 7, ".", "B"}));
  device.sandbox->refused = {path + "/B", path + "/C"};
  const auto plugIn = make();
  EXPECT_EQ(plugIn->resourceExtensions(), dictionary({{"A", "token:" + path + "/A"}, {".", "token:" + path}}));
  EXPECT_EQ(log.count("failed to make extension for " + path + "/B in plug-in at " + path + ": No such file"), 1)
      << log;
  device.sandbox->refused.erase(path + "/B");
  EXPECT_EQ(plugIn->resourceExtensions().size(), 3U) << "what was refused is asked for again";
  record->changeSection("Shared", "C");
  EXPECT_EQ(make()->resourceExtensions(), dictionary({})) << "no token, but a dictionary";
}

TEST_F(VKDPlugInTest, TheKeptFormEqualsTheExportedOneWithAnythingAdded) {
  record->rights = dictionary({{"e", true}});
  record->name = "Name";
  record->changeManifest("Long", std::string(5000, 'x'));
  const auto plugIn = make();
  const PlugInForm* form = plugIn->form(nullptr);
  ASSERT_NE(form, nullptr);
  EXPECT_EQ(form, plugIn->form(nullptr));
  const PlistValue exported = plugIn->exportForm(nullptr);
  EXPECT_EQ(assembled(*form, {}), exported);
  const PlistValue annotation = dictionary({{"election", 1}}), tokens = dictionary({{".", "t"}});
  PlistBuilder all(exported);
  all.set("annotations", annotation).set("extensions", tokens).set("overrider", "U").set("overriding", "I");
  EXPECT_EQ(assembled(*form, {annotation, tokens, "U", "I"}), all.take());
  plugIn->setLocalizedName("Other");
  EXPECT_EQ(assembled(*plugIn->form(nullptr), {})["localizedDisplayName"], PlistValue("Other"));

  PlistEncoder encoder;
  plugIn->form(nullptr)->append(encoder, {});
  const Rope rope = encoder.take();
  const char* manifest = record->manifest.encoded().view().data();
  EXPECT_TRUE(std::ranges::any_of(rope.pieces(), [&](const auto& piece) { return piece.view().data() == manifest; }))
      << "the manifest is referred to, not copied";
  record->original.clear();
  std::optional<DomainError> error;
  EXPECT_EQ(make()->form(&error), nullptr);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, VKErrorInvalidPlugIn);
}

}  // namespace
}  // namespace vkd::testing
