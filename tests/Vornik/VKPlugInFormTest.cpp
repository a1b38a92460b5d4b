#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Vornik/VKError.h"
#include "Vornik/VKPlugInCore.h"
#include "platform/values/PlistEncoding.h"
#include "tests/Support/CapturedLog.h"
#include "tests/Support/Values.h"

namespace Vornik {
namespace {

using support::dictionary;

const PlistValue kSection = dictionary({{"ZoExtensionAttributes", dictionary({{"ZoExtensionVersion", "1.2"}})}});
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

TEST(VKPlugInForm, RebuildsTheRecord) {
  PlistBuilder full(kMinimalForm);
  full.set("systemResident", true).set("annotations", dictionary({{"election", 1}}));
  full.set("entitlements", dictionary({{"e", true}})).set("containingPath", "/A.app");
  full.set("localizedContainingDisplayName", "A").set("localizedDisplayName", "Teilen").set("localizedShortName", "T");
  // As a client gets it: in the message encoding.
  const PlistValue form = decodePlist(encodePlist(full.take()).flat());
  auto rebuilt = VKPlugInCore::initWithForm(form), minimal = VKPlugInCore::initWithForm(kMinimalForm);
  ASSERT_TRUE(rebuilt != nullptr && minimal != nullptr);
  EXPECT_TRUE(rebuilt->isEqual(*minimal));
  EXPECT_EQ(rebuilt->localizedContainingName(), "A");
  EXPECT_EQ(rebuilt->exportForm(nullptr), form);
  EXPECT_FALSE(minimal->containingUrl() || minimal->cdhash());
  EXPECT_EQ(minimal->exportForm(nullptr), kMinimalForm);
}

TEST(VKPlugInForm, MissingEntriesHaveDefaultsAndAreNotExported) {
  PlistBuilder bare;
  bare.set("identifier", "p").set("path", "/P").set("info", kSection).set("uuid", "no uuid");
  bare.set("hash", PlistValue::data("h")).set("requirement", "r");
  const PlistValue form = bare.take();
  auto plugIn = VKPlugInCore::initWithForm(form);
  ASSERT_NE(plugIn, nullptr);
  EXPECT_EQ(plugIn->hubProtocolVersion(), 1U);
  EXPECT_EQ(plugIn->lastModified(), 0);
  EXPECT_FALSE(plugIn->onSystemVolume() || plugIn->annotations() || plugIn->plugInDictionary());
  EXPECT_EQ(plugIn->cdhash(), PlistValue::data("h"));
  EXPECT_EQ(plugIn->requirement(), "r");
  EXPECT_FALSE(plugIn->isEqual(*VKPlugInCore::initWithForm(form)));
  std::optional<DomainError> error;
  EXPECT_FALSE(plugIn->exportForm(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, VKErrorInvalidPlugIn);
  EXPECT_EQ(error->description, "missing \"original-identifier\" for the plug-in form");
}

TEST(VKPlugInForm, SetUpFailsWithoutIdentityOrSection) {
  support::CapturedLog log;
  const auto with = [](const char* key, const PlistValue& value) {
    return VKPlugInCore::initWithForm(PlistBuilder(kMinimalForm).set(key, value).take());
  };
  for (const PlistValue& path : {PlistValue(), PlistValue(7), PlistValue("")}) EXPECT_EQ(with("path", path), nullptr);
  EXPECT_EQ(VKPlugInCore::initWithForm("no form"), nullptr);
  EXPECT_TRUE(log.lines().empty()) << log;
  EXPECT_EQ(with("bundleInfo", dictionary({})), nullptr);
  EXPECT_EQ(with("identifier", 7), nullptr);
  EXPECT_EQ(log.lines().size(), 2U) << log;
}

TEST(VKPlugInForm, AnnotationsFollowLaterChanges) {
  auto plugIn = VKPlugInCore::initWithForm(kMinimalForm);
  plugIn->setAnnotationValue("election", 1);
  plugIn->setAnnotationValue("extension", dictionary({}));
  plugIn->setAnnotationValue("election", {});
  EXPECT_EQ(plugIn->annotations(), dictionary({{"extension", dictionary({})}}));
  plugIn->updateFromForm(dictionary({}));
  plugIn->setAnnotationValue("election", 1);
  EXPECT_FALSE(plugIn->annotations());
  plugIn->updateFromForm(dictionary({{"annotations", dictionary({{"election", 0}})}}));
  EXPECT_EQ(plugIn->annotations(), dictionary({{"election", 0}}));
}

// A reader sees one of the values that were set, never a torn one.
TEST(VKPlugInForm, AnnotationsAreReplacedAtomically) {
  auto plugIn = VKPlugInCore::initWithForm(kMinimalForm);
  const PlistValue one = dictionary({{"election", 1}}), two = dictionary({{"extension", dictionary({{"a", 2}})}});
  plugIn->setAnnotations(one);
  std::atomic<bool> done = false;
  std::thread writer([&] {
    for (int i = 0; i < 20000; ++i) plugIn->setAnnotations(i % 2 == 0 ? two : one);
    done = true;
  });
  std::size_t torn = 0;
  while (!done) {
    const PlistValue seen = plugIn->annotations();
    torn += seen != one && seen != two ? 1U : 0U;
  }
  writer.join();
  EXPECT_EQ(torn, 0U);
}

}  // namespace
}  // namespace Vornik
