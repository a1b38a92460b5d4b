// What the registry's store gives back after it was closed, cut off, damaged or in the way.
#include <gtest/gtest.h>
#include <sys/file.h>

#include <random>

#include "platform/linux/registry/RegistryStore.h"
#include "tests/Support/CapturedLog.h"
#include "tests/Support/ScratchRoot.h"

namespace {

using namespace platform;
using namespace support;
using Content = std::map<std::string, std::string>;

class RegistryStoreTest : public testing::Test {
 protected:
  // A store and what counts in it at present.
  struct Kept {
    explicit Kept(const ScratchRoot& device)
        : store(device.root(), [this](const RegistryStore::Visitor& visit) {
            for (const auto& [key, payload] : content) visit(key, SharedSlice::take(payload));
          }) {
      for (const RegistryStore::Entry& entry : store.load()) {
        EXPECT_TRUE(content.emplace(entry.key.view(), entry.payload.view()).second) << "twice";
      }
    }
    void put(const std::string& key, const std::string& payload) {
      content[key] = payload;
      store.put(key, SharedSlice::take(payload));
    }
    void remove(const std::string& key) {
      if (content.erase(key) != 0) store.remove(key);
    }
    Content content;
    RegistryStore store;
  };
  Content reload() { return Kept(device_).content; }
  void write(const Content& content) {
    Kept kept(device_);
    for (const auto& [key, payload] : content) kept.put(key, payload);
    EXPECT_TRUE(kept.store.append() && kept.store.sync());
  }
  std::vector<std::string> filesKeptAside() {
    std::vector<std::string> names;
    for (const auto& item : std::filesystem::directory_iterator(device_.host("/var/db/catalon"))) {
      if (item.path().filename() != "records") names.push_back(item.path().filename());
    }
    return names;
  }

  ScratchRoot device_;
  const std::string file_ = "/var/db/catalon/records";
  CapturedLog log_{LogLevel::Error};
};

TEST_F(RegistryStoreTest, GivesBackWhatWasPutAndNotRemoved) {
  EXPECT_TRUE(reload().empty());
  EXPECT_FALSE(std::filesystem::exists(device_.host("/var/db"))) << "nothing to keep";
  std::mt19937 random(7);
  Content expected;
  for (int round = 0; round < 30; ++round) {
    Kept kept(device_);
    EXPECT_EQ(kept.content, expected);
    for (int i = 0; i < 60; ++i) {
      std::string key = "p/" + std::to_string(random() % 100);
      if (random() % 3 == 0) {
        kept.remove(key);
      } else {
        // Now and then larger than what is read at once.
        kept.put(key, std::string(1 + random() % (random() % 20 == 0 ? 600'000 : 3'000), static_cast<char>(random())));
      }
      if (random() % 8 == 0) {
        EXPECT_TRUE(kept.store.append());
      }
    }
    EXPECT_TRUE(kept.store.append() && kept.store.sync());
    expected = kept.content;
  }
  std::uintmax_t live = 0;
  for (const auto& [key, payload] : expected) live += key.size() + payload.size() + 16;
  EXPECT_LT(std::filesystem::file_size(device_.host(file_)), 4 * live + (1 << 20)) << "rewritten now and then";
  EXPECT_EQ(std::filesystem::status(device_.host(file_)).permissions(), std::filesystem::perms(0600));
  EXPECT_TRUE(filesKeptAside().empty());
}

TEST_F(RegistryStoreTest, WhatFollowsACutIsNotWrittenBehindIt) {
  write({{"p/a", "a"}});
  write({{"p/b", "b"}});
  std::string whole = device_.read(file_);
  device_.write(file_, whole.substr(0, whole.size() - 1));
  write({{"p/c", "c"}});
  EXPECT_EQ(reload(), (Content{{"p/a", "a"}, {"p/c", "c"}}));
  EXPECT_TRUE(filesKeptAside().empty());
  EXPECT_TRUE(log_.lines().empty()) << log_;
}

TEST_F(RegistryStoreTest, DamageIsKeptAsideAndWhatLiesBeforeItCounts) {
  Content content;
  for (char c = 'a'; c < 'k'; ++c) content[std::string("p/") + c] = std::string(200, c);
  write(content);
  const std::string whole = device_.read(file_);
  std::size_t survivors = 0;
  for (std::size_t at = 0; at + 1 < whole.size(); at += 13) {
    std::string damaged = whole;
    damaged[at] = static_cast<char>(damaged[at] ^ 0x40);
    device_.write(file_, damaged);
    Content left;
    {
      Kept kept(device_);
      left = kept.content;
      EXPECT_TRUE(kept.store.append());
    }
    EXPECT_EQ(reload(), left) << "written anew at once";
    for (const auto& [key, payload] : left) EXPECT_EQ(content[key], payload);
    EXPECT_LT(left.size(), content.size()) << at;
    survivors += left.size();
    std::vector<std::string> aside = filesKeptAside();
    ASSERT_EQ(aside.size(), 1U) << at;
    EXPECT_TRUE(aside[0].starts_with("records.unreadable-"));
    EXPECT_EQ(device_.read("/var/db/catalon/" + aside[0]), damaged);
    std::filesystem::remove(device_.host("/var/db/catalon/" + aside[0]));
  }
  EXPECT_GT(survivors, content.size());
  EXPECT_FALSE(log_.lines().empty());
}

TEST_F(RegistryStoreTest, WhatIsNoFileIsKeptAsideAndALinkIsNotFollowed) {
  device_.write("/elsewhere", "canary");
  device_.link("/elsewhere", file_);
  write({{"p/a", "a"}});
  EXPECT_EQ(device_.read("/elsewhere"), "canary");
  EXPECT_EQ(filesKeptAside().size(), 1U);
  std::filesystem::remove(device_.host(file_));
  ASSERT_EQ(::mkfifo(device_.host(file_).c_str(), 0600), 0);
  write({{"p/a", "a"}});
  EXPECT_EQ(reload(), (Content{{"p/a", "a"}}));
}

TEST_F(RegistryStoreTest, OnlyOneWritesAtATime) {
  write({{"p/a", "a"}});
  Kept first(device_);
  Kept second(device_);
  EXPECT_EQ(second.content, (Content{{"p/a", "a"}}));
  second.put("p/b", "b");
  EXPECT_TRUE(second.store.append());
  EXPECT_EQ(log_.lines().size(), 1U);
  EXPECT_EQ(device_.read(file_).find("p/b"), std::string::npos);
}

}  // namespace
