#include <string>

#include "Vornik/VKError.h"
#include "platform/PlistEncoding.h"
#include "tests/vkd/PlugInFixture.h"
#include "vkd/VKDPlugIn.h"

namespace vkd::testing {
namespace {

class VKDPlugInTest : public PlugInFixture {
 protected:
  // Why the record is no plug-in, or "served".
  std::string refusal() {
    const std::string start = "ignoring mis-configured plug-in at " + (record->url ? record->url->path : "") + ": ";
    LogCapture lines;
    if (make()) return "served";
    return lines.lines().empty() ? "silently" : lines.lines().back().text.substr(start.size());
  }
  static PlistValue assembled(const PlugInForm& form, const PlugInForm::Additions& additions) {
    PlistEncoder encoder;
    form.append(encoder, additions);
    const SharedSlice bytes = encoder.take().flat();
    EXPECT_EQ(bytes.size(), form.encodedSize(additions));
    DomainError error;
    const PlistValue value = decodePlist(bytes, &error);
    EXPECT_TRUE(value) << error.localizedDescription();
    return value;
  }
};

TEST_F(VKDPlugInTest, IsFilledFromTheRecord) {
  record->original = "original";
  record->date = 1234.9;
  record->system = true;
  record->rights = dictionary({{"zero", 0}, {"no", false}, {"text", "NO"}, {"list", list({})}});
  record->changeSection("HubProtocolVersion", 3);
  record->changeManifest("Vornik", 1);
  const auto plugIn = make();
  EXPECT_EQ(plugIn->identifier(), "test.plugin");
  EXPECT_EQ(plugIn->originalIdentifier(), "original");
  EXPECT_EQ(plugIn->uuid(), *record->uuid);
  EXPECT_EQ(plugIn->lastModified(), 1234);
  EXPECT_TRUE(plugIn->onSystemVolume());
  EXPECT_EQ(plugIn->containingPath(), "/Applications/Host.app");
  EXPECT_EQ(plugIn->hubProtocolVersion(), 3U);
  EXPECT_EQ(plugIn->bundleInfoDictionary(), record->manifest);
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
  EXPECT_EQ(refusal(), "served");
  record->container = std::nullopt;
  EXPECT_EQ(refusal(), "this plug-in has no sandbox data container");
  record->changeSection("ZoExtensionProtocol", "#Data");
  EXPECT_EQ(refusal(), "served");
  record->containing = nullptr;
  EXPECT_EQ(refusal(), "plug-ins outside containing apps must be in /System");
  record->url = FileURL{"/SystemX/Foo.appex"};
  EXPECT_EQ(refusal(), "plug-ins outside containing apps must be in /System");
  record->url = FileURL{"/System/Library/Foo.appex"};
  EXPECT_EQ(refusal(), "served");
  record->changeSection("PrincipalClass", "Mine");
  EXPECT_EQ(refusal(), "Application Extensions may not use the \"PrincipalClass\" key");
  record->url = std::nullopt;
  EXPECT_EQ(refusal(), "silently");
}

TEST_F(VKDPlugInTest, SharesTheAnnotationOfThePlugInItReplaces) {
  EXPECT_EQ(make()->annotationKey(), "test.plugin");
  record->rights = dictionary({{"com.vantrel.developer.replace-plugin", "other"}});
  EXPECT_EQ(make()->annotationKey(), "other");
  record->rights = dictionary({{"com.vantrel.developer.replace-plugin", list({"other"})}});
  EXPECT_EQ(make()->annotationKey(), "test.plugin");
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
  plugIn->setLocalizedName("Third");
  EXPECT_EQ(plugIn->localizedName(), "Third");
}

TEST_F(VKDPlugInTest, AnApplicationExtensionSharesItsBundleAndNothingElse) {
  record->changeSection("Shared", "Resources");
  const auto plugIn = make();
  PlistBuilder form;
  plugIn->augmentForm(form);
  EXPECT_EQ(form["extensions"], dictionary({{".", "token:" + plugIn->path()}}));
  EXPECT_TRUE(plugIn->resourceExtensions());
  EXPECT_EQ(device.sandbox->issued.size(), 1U) << "a token that was issued is kept";
}

TEST_F(VKDPlugInTest, OtherPlugInsShareWhatTheyName) {
  record->url = FileURL{"/Applications/Host.app/PlugIns/p.plugin"};
  record->changeSection("ZoExtensionProtocol", "P");
  EXPECT_FALSE(make()->resourceExtensions()) << "without a list the form stays as it is";
  record->changeSection("Shared", list({"A", 7, ".", "B"}));
  device.sandbox->refused = {"/Applications/Host.app/PlugIns/p.plugin/B"};
  const auto plugIn = make();
  const PlistValue expected = dictionary({{"A", "token:" + plugIn->path() + "/A"}, {".", "token:" + plugIn->path()}});
  EXPECT_EQ(plugIn->resourceExtensions(), expected);
  EXPECT_TRUE(log.has(LogLevel::Info, "ops",
                      "failed to make extension for " + plugIn->path() + "/B in plug-in at " + plugIn->path() +
                          ": No such file or directory"))
      << log.all();
  device.sandbox->refused.clear();
  EXPECT_EQ(plugIn->resourceExtensions().size(), 3U) << "what was refused is asked for again";
  record->changeSection("Shared", "C");
  device.sandbox->refused = {plugIn->path() + "/C"};
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
  EXPECT_EQ(form->identifier(), "test.plugin");
  EXPECT_EQ(form->version(), "1.0");
  EXPECT_EQ(form->uuid(), plugIn->uuid().text());

  const PlistValue exported = plugIn->exportForm(nullptr);
  EXPECT_EQ(assembled(*form, {}), exported);
  const PlistValue annotation = dictionary({{"election", 1}}), tokens = dictionary({{".", "t"}});
  EXPECT_EQ(assembled(*form, {annotation, tokens, "U", "I"}), PlistBuilder(exported)
                                                                  .set("annotations", annotation)
                                                                  .set("extensions", tokens)
                                                                  .set("overrider", "U")
                                                                  .set("overriding", "I")
                                                                  .take());
  plugIn->setLocalizedName("Other");
  EXPECT_EQ(assembled(*plugIn->form(nullptr), {})["localizedDisplayName"], PlistValue("Other"));
}

TEST_F(VKDPlugInTest, TheManifestIsReferredToNotCopied) {
  record->changeManifest("Long", std::string(5000, 'x'));
  PlistEncoder encoder;
  make()->form(nullptr)->append(encoder, {});
  const std::string_view manifest = record->manifest.encoded().view();
  const Rope rope = encoder.take();
  EXPECT_TRUE(std::any_of(rope.pieces().begin(), rope.pieces().end(),
                          [&](const SharedSlice& piece) { return piece.view().data() == manifest.data(); }));
}

TEST_F(VKDPlugInTest, APlugInWithoutOriginalIdentifierHasNoForm) {
  record->original.clear();
  std::optional<DomainError> error;
  EXPECT_EQ(make()->form(&error), nullptr);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, VKErrorInvalidPlugIn);
}

}  // namespace
}  // namespace vkd::testing
