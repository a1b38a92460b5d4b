#include <gtest/gtest.h>

#include <string>

#include "platform/linux/rules/ActivationRules.h"
#include "tests/Support/CapturedLog.h"

namespace platform {
namespace {

// "a.b" conforms to "a".
struct DottedTypes : TypeConformance {
  bool conforms(std::string_view type, std::string_view parent) override {
    return type == parent || (type.starts_with(parent) && type.substr(parent.size()).starts_with('.'));
  }
};

using Attachments = std::vector<std::vector<std::string>>;

PlistValue itemOf(const Attachments& attachments) {
  std::vector<PlistValue> list;
  for (const std::vector<std::string>& types : attachments) {
    list.push_back(
        PlistBuilder()
            .set("registeredTypeIdentifiers", PlistValue::array(std::vector<PlistValue>(types.begin(), types.end())))
            .take());
  }
  return PlistBuilder().set("attachments", PlistValue::array(std::move(list))).set("note", "two words").take();
}

PlistValue items(const std::vector<Attachments>& all) {
  std::vector<PlistValue> list;
  for (const Attachments& attachments : all) list.push_back(itemOf(attachments));
  return PlistBuilder().set("extensionItems", PlistValue::array(std::move(list))).set("count", 2).take();
}

const std::vector<std::string> kJpeg{"public.image.jpeg", "public.data"};
const std::vector<std::string> kUrl{"public.url"};
const std::vector<std::string> kZip{"public.data.zip"};

class ActivationRule : public ::testing::Test {
 protected:
  bool accepts(const PlistValue& rule) { return rules_.evaluate(rule, items_); }
  std::shared_ptr<DottedTypes> types_ = std::make_shared<DottedTypes>();
  LinuxActivationRules rules_{types_};
  PlistValue items_ = items({{kJpeg, kJpeg}, {kUrl}});
};

TEST_F(ActivationRule, Compares) {
  for (const char* holds :
       {"TRUEPREDICATE", "not falsepredicate", "count == 2", "count = 2.0", "count != 3", "count <> '2'", "count >= 2",
        "count => 2", "count < 2.5", "count <= 2", "missing != 'x'", "missing.@count == 0", "count.@count = 1",
        "'b' > 'a' && 'a' < 'b'", "'a.b' UTI-CONFORMS-TO 'a'", "'abc' BEGINSWITH 'ab'", "'abc' endswith 'bc'"}) {
    EXPECT_TRUE(accepts(holds)) << holds;
  }
  for (const char* holds :
       {"'abc' CONTAINS 'b' AND \"it's\" == 'it\\'s'", "extensionItems.note CONTAINS 'two words'",
        "extensionItems.@count == 2 AND extensionItems.attachments.@count == 3",
        "ANY extensionItems.attachments.registeredTypeIdentifiers UTI-CONFORMS-TO 'public.image'",
        "NOT ANY extensionItems.attachments.registeredTypeIdentifiers UTI-CONFORMS-TO 'public.movie'",
        "FALSEPREDICATE AND FALSEPREDICATE OR TRUEPREDICATE",
        "FALSEPREDICATE AND (FALSEPREDICATE OR TRUEPREDICATE) || 1=1", "TRUE == 1 AND FALSE != TRUE",
        "SUBQUERY(extensionItems, $i, $i.attachments.@count == 2).attachments.@count == 2",
        "SUBQUERY(extensionItems, $i, SUBQUERY($i.attachments, $a, ANY $a.registeredTypeIdentifiers UTI-CONFORMS-TO "
        "'public.image').@count == $i.attachments.@count).@count == 1"}) {
    EXPECT_TRUE(accepts(holds)) << holds;
  }
  for (const char* fails :
       {"FALSEPREDICATE", "!TRUEPREDICATE", "count > 2", "count < 'b'", "missing == 'x'", "missing < 3", "'b' <= 'a'",
        "'ab' UTI-CONFORMS-TO 'a'", "extensionItems.attachments.registeredTypeIdentifiers UTI-CONFORMS-TO 'public.url'",
        "1 CONTAINS 1", "TRUEPREDICATE AND FALSEPREDICATE", "NOT (FALSEPREDICATE OR TRUEPREDICATE)"}) {
    EXPECT_FALSE(accepts(fails)) << fails;
  }
  EXPECT_TRUE(accepts(true));
  for (const PlistValue& rule : {PlistValue(), PlistValue(false), PlistValue::data("x"), PlistValue::array({true})}) {
    EXPECT_FALSE(accepts(rule));
  }
}

TEST_F(ActivationRule, NotUnderstoodAcceptsNothingAndIsSaidOnce) {
  std::vector<std::string> rules{"",
                                 "count",
                                 "count ==",
                                 "== 2",
                                 "count == 2 extra",
                                 "(count == 2",
                                 "count == 'open",
                                 "count == $x",
                                 "a..b == 1",
                                 "count.@sum == 1",
                                 "@max == 1",
                                 "NOT NOT",
                                 "-",
                                 "$ == 1",
                                 "count == 2 AND",
                                 "count # 2",
                                 "count ==\xff 2",
                                 "SUBQUERY(extensionItems, $i)"};
  rules.push_back("SUBQUERY(extensionItems, i, TRUEPREDICATE) == 1");
  rules.push_back(std::string(100, '(') + "TRUEPREDICATE" + std::string(100, ')'));
  rules.push_back(std::string(100000, '!') + "TRUEPREDICATE");
  rules.push_back("'" + std::string(100000, 'x') + "' == 1");
  for (const std::string& rule : rules) {
    SCOPED_TRACE(rule.substr(0, 80));
    support::CapturedLog log(LogLevel::Info);
    for (int time = 0; time < (rule.size() < 100 ? 2 : 1); ++time) EXPECT_FALSE(accepts(rule));
    EXPECT_EQ(log.lines().size(), 1U) << log;
    EXPECT_FALSE(accepts("NOT (" + rule + ")"));
  }
}

TEST_F(ActivationRule, ThatTakesTooManyStepsAcceptsNothing) {
  items_ = items({Attachments(300, kJpeg)});
  // Every attachment against every other.
  const char* costly =
      "SUBQUERY(extensionItems.attachments, $a, SUBQUERY(extensionItems.attachments, $b, $a == $b).@count > 0).@count "
      "> 0";
  support::CapturedLog log(LogLevel::Info);
  EXPECT_FALSE(accepts(costly));
  EXPECT_FALSE(accepts(std::string("NOT ") + costly));
  EXPECT_FALSE(accepts(std::string(costly) + " OR TRUEPREDICATE"));
  EXPECT_EQ(log.lines().size(), 3U) << log;
  EXPECT_EQ(log.lines()[0].category, "extension");
  EXPECT_TRUE(accepts("extensionItems.attachments.@count == 300"));
  EXPECT_TRUE(accepts(PlistBuilder().set("ZoExtensionActivationSupportsImageWithMaxCount", 300).take()));
}

TEST_F(ActivationRule, CountsAttachmentsByCategory) {
  auto rule = [](std::initializer_list<std::pair<const char*, PlistValue>> entries) {
    PlistBuilder builder;
    for (const auto& [name, value] : entries) builder.set(std::string("ZoExtensionActivationSupports") + name, value);
    return builder.take();
  };
  EXPECT_TRUE(accepts(rule({{"ImageWithMaxCount", 2}, {"WebURLWithMaxCount", 1}})));
  EXPECT_TRUE(accepts(rule({{"Image", true}, {"WebURL", true}, {"AttachmentsWithMaxCount", 3}})));
  EXPECT_TRUE(accepts(rule({{"FileWithMaxCount", 2}, {"WebURLWithMaxCount", 1}})));  // images are files, too
  EXPECT_FALSE(accepts(rule({{"ImageWithMaxCount", 1}, {"WebURLWithMaxCount", 1}})));
  EXPECT_FALSE(accepts(rule({{"ImageWithMaxCount", 2}})));  // nobody wants the address
  EXPECT_FALSE(accepts(rule({{"Image", true}, {"WebURL", true}, {"AttachmentsWithMaxCount", 2}})));
  EXPECT_FALSE(accepts(rule({{"Image", true}, {"WebURL", true}, {"WebURLWithMinCount", 2}})));
  EXPECT_FALSE(accepts(rule({{"Image", true}, {"WebURL", true}, {"Colour", true}})));
  EXPECT_FALSE(accepts(rule({{"Image", true}, {"WebURL", "yes"}})));
  items_ = items({{kJpeg, kZip}});
  EXPECT_TRUE(accepts(rule({{"ImageWithMaxCount", 1}, {"FileWithMaxCount", 1}})));
  items_ = items({});
  EXPECT_FALSE(accepts(rule({{"Image", true}})));
  EXPECT_FALSE(accepts(PlistBuilder().take()));
}

}  // namespace
}  // namespace platform
