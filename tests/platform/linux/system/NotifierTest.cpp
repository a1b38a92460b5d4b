#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

#include "platform/linux/system/LinuxSystemNotifier.h"
#include "tests/Support/ChildProgram.h"

namespace platform {
namespace {

using support::ChildProgram;
using support::eventually;
using support::ScratchRoot;

constexpr const char* kName = "com.example.changed";

class Notifications : public ::testing::Test {
 protected:
  std::size_t sockets() const {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(scratch_.host("/run/notify/" + std::string(kName)))) {
      count += entry.is_socket() ? 1 : 0;
    }
    return count;
  }
  ScratchRoot scratch_;
  LinuxSystemNotifier notifier_{scratch_.root()};
};

TEST_F(Notifications, ReachEverySubscriberOfTheNameAndNobodyElse) {
  notifier_.post(kName);  // nobody is there
  std::atomic<int> first{0}, second{0}, other{0};
  auto one = notifier_.subscribe(kName, [&] { ++first; });
  auto two = notifier_.subscribe(kName, [&] { ++second; });
  auto three = notifier_.subscribe("com.example.other", [&] { ++other; });
  ASSERT_TRUE(one && two && three);
  for (int i = 1; i <= 5; ++i) {
    notifier_.post(kName);
    EXPECT_TRUE(eventually([&] { return first == i && second == i; }));
  }
  one.reset();
  EXPECT_EQ(sockets(), 1U);
  notifier_.post(kName);
  EXPECT_TRUE(eventually([&] { return second == 6; }));
  EXPECT_EQ(first, 5);
  EXPECT_EQ(other, 0);
  for (const char* name : {"", "..", "a/b"}) EXPECT_EQ(notifier_.subscribe(name, [] {}), nullptr) << name;
}

TEST_F(Notifications, MayEndASubscriptionFromItsHandler) {
  std::unique_ptr<SystemNotifier::Subscription> subscription;
  std::atomic<bool> ended{false};
  std::atomic<bool> ready{false};
  subscription = notifier_.subscribe(kName, [&] {
    while (!ready) std::this_thread::yield();
    subscription.reset();
    ended = true;
  });
  ready = true;
  notifier_.post(kName);
  EXPECT_TRUE(eventually([&] { return ended.load(); }));
  EXPECT_TRUE(eventually([&] { return sockets() == 0; }));
}

TEST_F(Notifications, AreNotDelayedByASubscriberThatDoesNotRead) {
  std::atomic<int> heard{0};
  std::atomic<bool> goOn{false};
  auto stuck = notifier_.subscribe(kName, [&] {
    while (!goOn) std::this_thread::yield();
  });
  auto reader = notifier_.subscribe(kName, [&] { ++heard; });
  auto start = std::chrono::steady_clock::now();
  for (int i = 1; i <= 100; ++i) {
    notifier_.post(kName);
    EXPECT_TRUE(eventually([&] { return heard == i; }));
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  goOn = true;
}

TEST_F(Notifications, RemoveTheSocketsOfTheDead) {
  {
    ChildProgram child([&] {
      auto subscription = notifier_.subscribe(kName, [] {});
      scratch_.write("/subscribed", "");
      ::pause();
      return 0;
    });
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(scratch_.host("/subscribed")); }));
  }
  EXPECT_EQ(sockets(), 1U);
  notifier_.post(kName);
  EXPECT_EQ(sockets(), 0U);
}

TEST_F(Notifications, CrossUsersAndTakeNoNoticeOfWhatElseLiesThere) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs two users";
  const std::string folder = "/run/notify/" + std::string(kName);
  // Started while there is one thread only, since it starts one of its own.
  ChildProgram stranger([&] {
    if (::setgid(12345) != 0 || ::setuid(12345) != 0) return 1;
    eventually([&] { return std::filesystem::exists(scratch_.host("/go")); });
    notifier_.post(kName);
    auto own = notifier_.subscribe(kName, [] {});
    // He may have a socket there, and take nobody's away.
    bool removed = ::unlink(scratch_.host(folder + "/file").c_str()) == 0;
    return own != nullptr && !removed ? 0 : 2;
  });
  std::atomic<int> heard{0};
  auto subscription = notifier_.subscribe(kName, [&] { ++heard; });
  scratch_.write(folder + "/file", "");
  scratch_.link("/dev/log", folder + "/link");
  ASSERT_EQ(::mkfifo(scratch_.host(folder + "/fifo").c_str(), 0666), 0);
  scratch_.write("/go", "");
  EXPECT_EQ(stranger.wait(), 0);
  EXPECT_TRUE(eventually([&] { return heard == 1; }));
}

}  // namespace
}  // namespace platform
