#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Vornik/VKError.h"
#include "Vornik/VKPlugInCore.h"
#include "platform/PlistEncoding.h"
#include "tests/Support/CapturedLog.h"

namespace Vornik {
namespace {

PlistValue dictionary(std::vector<std::pair<std::string, PlistValue>> entries) {
  return PlistValue::dictionary(std::move(entries));
}

// A record as the daemon fills one.
class FilledPlugIn : public VKPlugInCore {
 public:
  static std::shared_ptr<FilledPlugIn> make(const PlistValue& manifest) {
    std::shared_ptr<FilledPlugIn> plugIn(new FilledPlugIn);
    plugIn->initializeWithNameUrlBundleInfoInfoUuid("com.example.share", FileURL{"/A.app/PlugIns/S.appex"}, manifest,
                                                    {}, UUID{{0xab}});
    plugIn->setOriginalIdentifier("com.example.original");
    plugIn->setHubProtocolVersion(2);
    plugIn->setLastModified(1234);
    return plugIn;
  }
  void fillOptional() {
    setOnSystemVolume(true);
    setEntitlements(dictionary({{"e", true}}));
    setContainingUrl(FileURL{"/A.app"});
    setLocalizedName("Teilen");
    setLocalizedShortName("T");
    setLocalizedContainingName("A");
    setAnnotations(dictionary({{"election", 1}}));
  }
};

const PlistValue kSection = dictionary({{"ZoExtensionAttributes", dictionary({{"ZoExtensionVersion", "1.2"}})}});
const PlistValue kManifest = dictionary({{"KvBundleInfoPlistURL", "/somewhere"}, {"ZoExtension", kSection}});
const PlistValue kMinimalForm = dictionary({{"hubProtocolVersion", 2},
                                            {"path", "/A.app/PlugIns/S.appex"},
                                            {"systemResident", false},
                                            {"identifier", "com.example.share"},
                                            {"original-identifier", "com.example.original"},
                                            {"version", "1.2"},
                                            {"bundleInfo", dictionary({{"ZoExtension", kSection}})},
                                            {"info", kSection},
                                            {"uuid", "AB000000-0000-0000-0000-000000000000"},
                                            {"lastmodified", 1234},
                                            {"annotations", dictionary({})}});

TEST(VKPlugInForm, HoldsWhatTheRecordHas) {
  auto plugIn = FilledPlugIn::make(kManifest);
  std::optional<DomainError> error;
  EXPECT_EQ(plugIn->exportForm(&error), kMinimalForm);
  EXPECT_EQ(plugIn->exportFormWithoutAnnotations(&error), PlistBuilder(kMinimalForm).remove("annotations").take());
  EXPECT_EQ(plugIn->bundleInfoDictionary(), kManifest);

  plugIn->fillOptional();
  PlistBuilder full(kMinimalForm);
  full.set("systemResident", true).set("annotations", dictionary({{"election", 1}}));
  full.set("entitlements", dictionary({{"e", true}})).set("containingPath", "/A.app");
  full.set("localizedContainingDisplayName", "A").set("localizedDisplayName", "Teilen").set("localizedShortName", "T");
  EXPECT_EQ(plugIn->exportForm(&error), full.take());
  EXPECT_FALSE(error);
}

TEST(VKPlugInForm, IsNotMadeOfAnIncompleteRecord) {
  auto unversioned = FilledPlugIn::make(dictionary({{"ZoExtension", dictionary({})}}));
  std::optional<DomainError> error;
  EXPECT_FALSE(unversioned->exportForm(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, VKErrorInvalidPlugIn);
  EXPECT_EQ(error->description, "missing \"version\" for the plug-in form");
  EXPECT_FALSE(FilledPlugIn::make({})->exportForm(nullptr));
}

TEST(VKPlugInForm, RebuildsTheRecord) {
  auto original = FilledPlugIn::make(kManifest);
  original->fillOptional();
  // As a client gets it: in the message encoding.
  const PlistValue form = decodePlist(encodePlist(original->exportForm(nullptr)).flat());
  auto rebuilt = VKPlugInCore::initWithForm(form);
  ASSERT_NE(rebuilt, nullptr);
  EXPECT_TRUE(rebuilt->isEqual(*original));
  EXPECT_EQ(rebuilt->containingPath(), "/A.app");
  EXPECT_EQ(rebuilt->exportForm(nullptr), form);

  auto minimal = VKPlugInCore::initWithForm(kMinimalForm);
  EXPECT_FALSE(minimal->containingUrl());
  EXPECT_TRUE(minimal->annotations().isDictionary());
  EXPECT_FALSE(minimal->cdhash());
  EXPECT_EQ(minimal->exportForm(nullptr), kMinimalForm);
}

TEST(VKPlugInForm, MissingEntriesHaveDefaults) {
  PlistBuilder bare;
  bare.set("identifier", "p").set("path", "/P").set("info", kSection).set("uuid", "no uuid");
  bare.set("hash", PlistValue::data("h")).set("requirement", "r");
  const PlistValue form = bare.take();
  auto plugIn = VKPlugInCore::initWithForm(form);
  ASSERT_NE(plugIn, nullptr);
  EXPECT_EQ(plugIn->hubProtocolVersion(), 1U);
  EXPECT_EQ(plugIn->lastModified(), 0);
  EXPECT_FALSE(plugIn->onSystemVolume());
  EXPECT_FALSE(plugIn->annotations());
  EXPECT_FALSE(plugIn->plugInDictionary());
  EXPECT_EQ(plugIn->cdhash(), PlistValue::data("h"));
  EXPECT_EQ(plugIn->requirement(), "r");
  EXPECT_FALSE(plugIn->isEqual(*VKPlugInCore::initWithForm(form)));
}

TEST(VKPlugInForm, SetUpFailsWithoutIdentityOrSection) {
  support::CapturedLog log;
  for (const PlistValue& path : {PlistValue(), PlistValue(7), PlistValue("")}) {
    EXPECT_EQ(VKPlugInCore::initWithForm(PlistBuilder(kMinimalForm).set("path", path).take()), nullptr);
  }
  EXPECT_EQ(VKPlugInCore::initWithForm("no form"), nullptr);
  EXPECT_TRUE(log.lines().empty()) << log;
  EXPECT_EQ(VKPlugInCore::initWithForm(PlistBuilder(kMinimalForm).set("bundleInfo", dictionary({})).take()), nullptr);
  EXPECT_EQ(VKPlugInCore::initWithForm(PlistBuilder(kMinimalForm).set("identifier", 7).take()), nullptr);
  EXPECT_EQ(log.lines().size(), 2U) << log;
}

TEST(VKPlugInForm, AnnotationsFollowLaterChanges) {
  auto plugIn = VKPlugInCore::initWithForm(kMinimalForm);
  plugIn->setAnnotationValue("election", 1);
  plugIn->setAnnotationValue("extension", dictionary({}));
  plugIn->setAnnotationValue("election", {});
  EXPECT_EQ(plugIn->annotations(), dictionary({{"extension", dictionary({})}}));
  plugIn->updateFromForm(dictionary({}));
  EXPECT_FALSE(plugIn->annotations());
  plugIn->setAnnotationValue("election", 1);
  EXPECT_FALSE(plugIn->annotations());
  plugIn->updateFromForm(dictionary({{"annotations", dictionary({{"election", 0}})}}));
  EXPECT_EQ(plugIn->annotations(), dictionary({{"election", 0}}));
}

// A reader sees one of the values that were set, never a torn one.
TEST(VKPlugInForm, AnnotationsAreReplacedAtomically) {
  auto plugIn = VKPlugInCore::initWithForm(kMinimalForm);
  const PlistValue one = dictionary({{"election", 1}}), two = dictionary({{"extension", dictionary({{"a", "b"}})}});
  plugIn->setAnnotations(one);
  std::atomic<bool> done = false;
  std::thread writer([&] {
    for (int i = 0; i < 20000; ++i) plugIn->setAnnotations(i % 2 == 0 ? two : one);
    done = true;
  });
  std::size_t torn = 0;
  while (!done) {
    PlistValue seen = plugIn->annotations();
    if (seen != one && seen != two) ++torn;
  }
  writer.join();
  EXPECT_EQ(torn, 0U);
}

}  // namespace
}  // namespace Vornik
