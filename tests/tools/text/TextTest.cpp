#include <gtest/gtest.h>

#include "tools/text/Text.h"

namespace vkctl {
namespace {

TEST(TextTest, EscapesWhatATerminalOrAReaderCouldObey) {
  EXPECT_EQ(escaped("Größe 名 ok"), "Größe 名 ok");
  EXPECT_EQ(escaped("a\x1b[31m\n\tb\x7f"), "a\\x1b[31m\\n\\tb\\x7f");
  EXPECT_EQ(escaped("\xc2\x9b\xe2\x80\xae\xe2\x81\xa6"), "\\x9b\\u202e\\u2066");
  // No UTF-8: a lone lead, an overlong form, a surrogate, a cut character.
  EXPECT_EQ(escaped("\xff|\xc0\xaf|\xed\xa0\x80|\xe5\x90"), "\\xff|\\xc0\\xaf|\\xed\\xa0\\x80|\\xe5\\x90");
}

TEST(TextTest, ProposesOnlyWhatIsNear) {
  const std::vector<std::string> verbs{"match", "show", "status", "watch", "annotate", "bulk-annotate"};
  EXPECT_EQ(nearest("mtach", verbs), "match");
  EXPECT_EQ(nearest("stat", verbs), "status");
  EXPECT_EQ(nearest("anotate", verbs), "annotate");
  EXPECT_EQ(nearest("install", verbs), "");
  EXPECT_EQ(nearest("x", verbs), "");
}

TEST(TextTest, ColumnsAlignByCharacters) {
  Table table({"NAME", "VERSION"});
  table.add({"Größe", "1"});
  table.add({"a", "2\n"});
  EXPECT_EQ(table.text(false, false), "Größe  1\na      2\\n\n");
  EXPECT_EQ(table.text(true, true), "\x1b[1mNAME   VERSION\x1b[0m\nGröße  1\na      2\\n\n");
}

}  // namespace
}  // namespace vkctl
