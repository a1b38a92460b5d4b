// Indexes never lose a candidate that the rules would keep, and spare a narrow query the others.
#include <gtest/gtest.h>

#include <random>

#include "platform/linux/RegistryIndex.h"
#include "tests/Support/RegistryDevice.h"

namespace {

using namespace platform;
using namespace support;

// Equality as the rules know it, worked out digit run by digit run.
std::string withoutLeadingZeros(const std::string& text) {
  std::string result;
  for (std::size_t i = 0; i < text.size();) {
    std::size_t end = i;
    while (end < text.size() && text[end] >= '0' && text[end] <= '9') ++end;
    if (end == i) {
      result += text[i++];
      continue;
    }
    std::string run = text.substr(i, end - i);
    run.erase(0, std::min(run.find_first_not_of('0'), run.size() - 1));
    result += run;
    i = end;
  }
  return result;
}

bool matchesPattern(std::string_view value, const PlistValue& pattern) {
  if (!pattern.isString()) return false;
  std::string text(pattern.stringValue());
  if (text.starts_with("=")) text.erase(0, 1);
  return withoutLeadingZeros(std::string(value)) == withoutLeadingZeros(text);
}

bool matchesValue(const PlistValue& value, const PlistValue& pattern) {
  if (value.isArray()) {
    for (const PlistValue& element : value.elements()) {
      if (matchesValue(element, pattern)) return true;
    }
    return false;
  }
  if (!value.isString()) return false;
  if (!pattern.isArray()) return matchesPattern(value.stringValue(), pattern);
  for (const PlistValue& element : pattern.elements()) {
    if (matchesPattern(value.stringValue(), element)) return true;
  }
  return false;
}

class RegistryIndexTest : public testing::Test {
 protected:
  std::shared_ptr<RegistryRecord> record(const PlistValue& manifest, const std::string& app = "") {
    RegistryEntry entry = RegistryEntry::registration(manifest, {}, {}, false, app);
    std::shared_ptr<RegistryApp> application;
    if (!app.empty()) application = std::make_shared<RegistryApp>(context_, index_, app);
    return std::make_shared<RegistryRecord>(context_, application, "/p" + std::to_string(++made_), entry);
  }
  PlistValue value(const RegistryRecord& record, std::string_view key) {
    if (key == "com.vantrel.uuid") return record.uuid().text();
    if (key == "ZoExtensionIdentifier" && !record.plugInIdentifier().empty()) return record.plugInIdentifier();
    if (key == "ZoExtensionContainingApp") {
      return record.containingBundle() ? PlistValue(record.containingBundle()->bundleURL().path) : PlistValue();
    }
    PlistValue attribute = record.objectForKey(key, RegistryPlugInRecord::Scope::Attributes);
    return attribute ? attribute : record.objectForKey(key, RegistryPlugInRecord::Scope::Manifest);
  }

  ScratchRoot device_;
  std::shared_ptr<RegistryContext> context_ = std::make_shared<RegistryContext>(device_.root(), RegistryLanguages(""));
  std::shared_ptr<RegistryIndex> index_ = std::make_shared<RegistryIndex>();
  int made_ = 0;
};

constexpr std::string_view kKeys[] = {"ZoExtensionPointIdentifier", "ZoExtensionIdentifier", "com.vantrel.uuid",
                                      "ZoExtensionContainingApp"};

TEST_F(RegistryIndexTest, KeepsWhateverTheRulesWouldKeep) {
  std::mt19937 random(20261122);
  auto text = [&] {
    static const char* parts[] = {"0", "00", "1", "01", "10", "a", "A", ".", "=", ""};
    std::string result;
    for (unsigned i = 0, count = random() % 4; i < count; ++i) result += parts[random() % 10];
    return result;
  };
  auto any = [&]() -> PlistValue {
    switch (random() % 6) {
      case 0:
        return PlistValue::array({text(), 7, text()});
      case 1:
        return {};
      case 2:
        return 1;
      default:
        return text();
    }
  };
  std::vector<std::shared_ptr<RegistryRecord>> records;
  for (int i = 0; i < 300; ++i) {
    PlistBuilder section;
    section.set("ZoExtensionIdentifier", any()).set("ZoExtensionPointIdentifier", any());
    if (random() % 2 == 0) section.set("ZoExtensionAttributes", PlistBuilder().set("x", any()).take());
    PlistValue manifest = PlistBuilder()
                              .set("ZoExtension", section.take())
                              .set("ZoExtensionPointIdentifier", any())
                              .set("ZoExtensionIdentifier", any())
                              .take();
    records.push_back(record(manifest, random() % 2 == 0 ? "/Applications/" + text() + ".app" : ""));
  }
  index_->change({}, records);
  for (int round = 0; round < 40; ++round) {
    // Some come and go meanwhile.
    std::shared_ptr<RegistryRecord>& changed = records[random() % records.size()];
    index_->change({changed}, {});
    if (random() % 2 == 0) changed = record(plugInManifest(text(), text()));
    index_->change({}, {changed});
    for (int i = 0; i < 50; ++i) {
      std::string_view key = kKeys[random() % 4];
      auto pattern = [&]() -> PlistValue {
        if (key == "com.vantrel.uuid") return records[random() % records.size()]->uuid().text();
        std::string operand = key == "ZoExtensionContainingApp" ? "/Applications/" + text() + ".app" : text();
        // Without an operator only what does not look like one.
        return random() % 2 == 0 || operand.starts_with("=") ? "=" + operand : operand;
      };
      PlistValue query = random() % 2 == 0 ? pattern() : PlistValue::array({pattern(), 3, pattern()});
      RegistryPlugInRecords candidates = index_->candidates(PlistBuilder().set(key, query).take());
      std::set<const RegistryPlugInRecord*> found;
      for (const auto& candidate : candidates) found.insert(candidate.get());
      EXPECT_EQ(found.size(), candidates.size()) << "twice";
      for (const auto& each : records) {
        bool kept = matchesValue(value(*each, key), query);
        EXPECT_TRUE(!kept || found.contains(each.get())) << key << " " << query.description();
      }
    }
  }
}

TEST_F(RegistryIndexTest, NarrowQueriesAnswerOnlyWhatTheyFind) {
  std::vector<std::shared_ptr<RegistryRecord>> records;
  for (int i = 0; i < 1000; ++i) {
    std::string app = i % 10 == 0 ? "/Applications/A.app" : "";
    records.push_back(record(plugInManifest("id" + std::to_string(i), i < 100 ? "p.1" : "p.2"), app));
  }
  index_->change({}, records);
  auto count = [&](std::string_view key, PlistValue pattern) {
    return index_->candidates(PlistBuilder().set(key, std::move(pattern)).take()).size();
  };
  EXPECT_EQ(count("ZoExtensionPointIdentifier", "p.1"), 100U);
  EXPECT_EQ(count("ZoExtensionPointIdentifier", "=p.001"), 100U);
  EXPECT_EQ(count("ZoExtensionIdentifier", PlistValue::array({"id7", "=id8"})), 2U);
  EXPECT_EQ(count("ZoExtensionContainingApp", "/Applications/A.app"), 100U);
  EXPECT_EQ(count("com.vantrel.uuid", records[5]->uuid().text()), 1U);
  EXPECT_EQ(count("ZoExtensionPointIdentifier", PlistValue::array({})), 0U);
  PlistValue both = PlistBuilder().set(kKeys[0], "p.1").set(kKeys[1], "id3").take();
  EXPECT_EQ(index_->candidates(both).size(), 1U) << "the smaller index";
  for (PlistValue open : {PlistValue("<>p.1"), PlistValue("<p.1"), PlistValue(">=p.1"), PlistValue("<=p.1"),
                          PlistValue("?UT-IS:p.1"), PlistValue(true), PlistValue(false), PlistValue(7),
                          PlistValue::array({"p.1", ">p.1"}), PlistValue::array({"p.1", "?UT-IS:p"})}) {
    EXPECT_EQ(count("ZoExtensionPointIdentifier", open), 1000U) << open.description();
  }
  EXPECT_EQ(count("Colour", "red"), 1000U);
  EXPECT_EQ(count("ZoExtensionPointIdentifier", "==p.1"), 0U) << "equal to =p.1";

  EXPECT_EQ(index_->plugIn(records[5]->uuid()), records[5]);
  EXPECT_EQ(index_->plugInsOf("/Applications/A.app").size(), 100U);
  index_->change({records.begin(), records.end()}, {});
  EXPECT_TRUE(index_->all().empty());
  EXPECT_EQ(index_->plugIn(records[5]->uuid()), nullptr);
  EXPECT_EQ(count("ZoExtensionPointIdentifier", "p.1"), 0U);
}

}  // namespace
