// Indexes never lose a candidate that the rules would keep, and spare a narrow query the others.
#include <gtest/gtest.h>

#include <random>

#include "platform/linux/registry/RegistryIndex.h"
#include "tests/Support/RegistryDevice.h"

namespace {

using namespace platform;
using namespace support;

// Equality as the rules know it: leading zeros of a run of digits do not count.
std::string withoutLeadingZeros(std::string_view text) {
  auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    bool leads = result.empty() || !isDigit(result.back());
    if (text[i] != '0' || !leads || i + 1 == text.size() || !isDigit(text[i + 1])) result += text[i];
  }
  return result;
}

bool matchesValue(const PlistValue& value, const PlistValue& pattern) {
  auto any = [](const PlistValue& list, auto&& test) {
    for (const PlistValue& element : list.elements()) {
      if (test(element)) return true;
    }
    return false;
  };
  if (value.isArray()) return any(value, [&](const PlistValue& element) { return matchesValue(element, pattern); });
  if (pattern.isArray()) return any(pattern, [&](const PlistValue& element) { return matchesValue(value, element); });
  if (!value.isString() || !pattern.isString()) return false;
  std::string_view text = pattern.stringValue();
  return withoutLeadingZeros(value.stringValue()) == withoutLeadingZeros(text.substr(text.starts_with("=") ? 1 : 0));
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
  auto any = [&] {
    const PlistValue values[] = {PlistValue::array({text(), 7, text()}), {}, 1, text(), text(), text()};
    return values[random() % std::size(values)];
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
  constexpr std::size_t kAll = 1000;
  std::vector<std::shared_ptr<RegistryRecord>> records;
  for (std::size_t i = 0; i < kAll; ++i) {
    std::string app = i % 10 == 0 ? "/Applications/A.app" : "";
    records.push_back(record(plugInManifest("id" + std::to_string(i), i < 100 ? "p.1" : "p.2"), app));
  }
  index_->change({}, records);
  auto count = [&](std::string_view key, PlistValue pattern) {
    return index_->candidates(PlistBuilder().set(key, std::move(pattern)).take()).size();
  };
  const std::pair<PlistValue, std::size_t> points[] = {{"p.1", 100},
                                                       {"=p.001", 100},
                                                       {"==p.1", 0},  // equal to =p.1
                                                       {PlistValue::array({}), 0},
                                                       // Of these the index knows nothing.
                                                       {"<>p.1", kAll},
                                                       {"<p.1", kAll},
                                                       {">=p.1", kAll},
                                                       {"?UT-IS:p.1", kAll},
                                                       {true, kAll},
                                                       {7, kAll},
                                                       {PlistValue::array({"p.1", ">p.1"}), kAll}};
  for (const auto& [pattern, found] : points) EXPECT_EQ(count(kKeys[0], pattern), found) << pattern.description();
  EXPECT_EQ(count("ZoExtensionIdentifier", PlistValue::array({"id7", "=id8"})), 2U);
  EXPECT_EQ(count("ZoExtensionContainingApp", "/Applications/A.app"), 100U);
  EXPECT_EQ(count("com.vantrel.uuid", records[5]->uuid().text()), 1U);
  EXPECT_EQ(count("Colour", "red"), kAll);
  PlistValue both = PlistBuilder().set(kKeys[0], "p.1").set(kKeys[1], "id3").take();
  EXPECT_EQ(index_->candidates(both).size(), 1U) << "the smaller index";
  EXPECT_EQ(index_->plugInsOf("/Applications/A.app").size(), 100U);
  index_->change({records.begin(), records.end()}, {});
  EXPECT_TRUE(index_->all().empty());
  EXPECT_EQ(index_->plugIn(records[5]->uuid()), nullptr);
}

}  // namespace
