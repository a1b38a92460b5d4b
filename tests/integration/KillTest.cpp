// kill -9 at any instant, under a stream of annotations: what was acknowledged is there after the restart, and the file
// can be read at every moment.
//
// VKD_KILL_ROUNDS is how often, VKD_KILL_SEED repeats a run.
#include <array>
#include <random>
#include <thread>

#include "tests/Support/Setting.h"
#include "tests/Support/WireClient.h"
#include "tests/integration/Device.h"

namespace integration {
namespace {

constexpr std::uint64_t kDefaultRounds = 15;
constexpr std::size_t kPlugIns = 6;
constexpr std::size_t kWriters = 2;
constexpr std::int64_t kLongestLife = 60'000;  // microseconds under load
constexpr std::size_t kLongestNote = 20'000;   // so that a save takes more than one write

std::string identifierOf(std::size_t index) { return "com.example.p" + std::to_string(index); }

// What is known of one plug-in: the election that was acknowledged, and the one that was sent and not answered, if any.
struct Known {
  std::int64_t acknowledged = 0, sent = 0;
  UUID uuid;
};

class KillTest : public Device {
 protected:
  static constexpr std::string_view kFile = "/var/db/Vornik-Annotations";

  KillTest() {
    addApplication(kPhotos);
    for (std::size_t i = 0; i < kPlugIns; ++i) {
      addPlugIn("/Applications/Photos.app/PlugIns/P" + std::to_string(i) + ".appex", manifest(identifierOf(i)));
    }
  }
  void startAgain() {
    program_ = start({VKD_PROGRAM}, {{"VANTREL_LOG", "error"}});
    ASSERT_TRUE(eventually([&] { return program_->hasEnded() || WireClient(root_).connected(); }));
    ASSERT_FALSE(program_->hasEnded()) << program_->err();
  }
  // What the daemon tells agrees with the oracle, which from now on knows for certain.
  void compare() {
    WireClient client(root_);
    auto reply = client.call(WireClient::request("match"));
    ASSERT_TRUE(reply && reply->get("matches") != nullptr);
    std::size_t seen = 0;
    for (const PlistValue& form : reply->get("matches")->toPlist().elements()) {
      for (std::size_t i = 0; i < kPlugIns; ++i) {
        if (form["identifier"].stringValue() != identifierOf(i)) continue;
        ++seen;
        known_[i].uuid = UUID::parse(form["uuid"].stringValue()).value();
        settle(i, form["annotations"]);
      }
    }
    EXPECT_EQ(seen, kPlugIns);
  }
  void settle(std::size_t index, const PlistValue& annotations) {
    Known& known = known_[index];
    std::int64_t told = annotations["election"] ? annotations["election"].intValue() : 0;
    EXPECT_TRUE(told == known.acknowledged || told == known.sent)
        << identifierOf(index) << ": " << told << ", acknowledged " << known.acknowledged << ", sent " << known.sent;
    // One annotation is all there or not at all.
    if (told != 0) {
      EXPECT_EQ(annotations["extension"]["of"].intValue(), told) << identifierOf(index);
    }
    known.acknowledged = known.sent = told;
  }
  // One connection, and plug-ins that no other writer touches.
  void annotateUntilKilled(std::size_t writer, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    WireClient client(root_);
    for (;;) {
      Known& known = known_[writer + kWriters * (random() % (kPlugIns / kWriters))];
      known.sent = static_cast<std::int64_t>(random() >> 2) + 1;
      const Message extension =
          support::messageOf({{"of", known.sent}, {"note", std::string(random() % kLongestNote, 'n')}});
      const Message annotations = support::messageOf({{"election", known.sent}, {"extension", extension}});
      const Message uuids = support::listOf({known.uuid});
      auto reply = client.call(WireClient::request("annotate", {{"uuids", uuids}, {"annotations", annotations}}));
      if (!reply) return;
      ASSERT_EQ(reply->get("errorcode"), nullptr) << reply->description();
      known.acknowledged = known.sent;
      ++acknowledgements_;
    }
  }
  void checkFile() {
    if (!fs::exists(host(kFile))) return;
    PlistValue file = parsePropertyList(contentOf(host(kFile)));
    ASSERT_TRUE(file.isDictionary()) << "not readable after the kill";
    // Beside it at most what the interrupted save left; nothing was put away as unreadable.
    std::size_t beside = 0;
    for (const auto& entry : fs::directory_iterator(host("/var/db"))) {
      beside += entry.path().filename().string().find("Vornik-Annotations") != std::string::npos ? 1 : 0;
    }
    EXPECT_LE(beside, 2U);
  }

  std::unique_ptr<Program> program_;
  std::array<Known, kPlugIns> known_;
  std::atomic<std::uint64_t> acknowledgements_{0};
};

TEST_F(KillTest, NothingAcknowledgedIsLost) {
  const std::uint64_t rounds = support::setting("VKD_KILL_ROUNDS", kDefaultRounds);
  const std::uint64_t seed = support::setting("VKD_KILL_SEED", std::random_device()());
  SCOPED_TRACE("VKD_KILL_SEED=" + std::to_string(seed));
  std::printf("VKD_KILL_SEED=%llu\n", static_cast<unsigned long long>(seed));
  std::mt19937_64 random(seed);
  for (std::uint64_t round = 0; round < rounds && !HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    startAgain();
    compare();
    std::vector<std::thread> writers;
    for (std::size_t i = 0; i < kWriters; ++i) {
      writers.emplace_back([this, i, start = random()] { annotateUntilKilled(i, start); });
    }
    std::this_thread::sleep_for(std::chrono::microseconds(random() % kLongestLife));
    program_->signal(SIGKILL);
    for (std::thread& writer : writers) writer.join();
    EXPECT_EQ(program_->finish().status, 128 + SIGKILL) << program_->err();
    EXPECT_EQ(program_->err(), "");
    checkFile();
  }
  startAgain();
  compare();
  std::printf("%llu acknowledged in %llu rounds\n", static_cast<unsigned long long>(acknowledgements_.load()),
              static_cast<unsigned long long>(rounds));
  EXPECT_GE(acknowledgements_.load(), rounds / 4);
}

}  // namespace
}  // namespace integration
