// The whole life of the daemon again and again, each time with another file or socket operation failing: it answers,
// cuts off one client, or says at its start why it stops.
#include <algorithm>

#include "tests/Support/Setting.h"
#include "tests/Support/WireClient.h"
#include "tests/integration/Device.h"

using namespace integration;

namespace {

class EveryFailure : public Device {
 protected:
  static constexpr std::string_view kPlugIn = "/Applications/Photos.app/PlugIns/Share.appex";
  static constexpr std::string_view kOther = "/Applications/Photos.app/PlugIns/Other.appex";

  EveryFailure() { addApplication(kPhotos); }

  void prepare() {
    for (const char* folder : {"/run", "/var"}) fs::remove_all(host(folder));
    addPlugIn(kPlugIn, manifest("com.example.share"));
    addPlugIn(kOther, manifest("com.example.other"));
  }

  // Whether an operation with this number was reached.
  bool runWith(int number, int error) {
    SCOPED_TRACE("operation " + std::to_string(number) + ", error " + std::to_string(error));
    prepare();
    fs::path mark = scratch_ / "mark";
    fs::remove(mark);
    program_ = start({VKD_PROGRAM}, {{"LD_PRELOAD", FAIL_NTH_LIBRARY},
                                     {"FAILNTH_N", std::to_string(number)},
                                     {"FAILNTH_ERRNO", std::to_string(error)},
                                     {"FAILNTH_MARK", mark},
                                     {"ASAN_OPTIONS", "verify_asan_link_order=0"},
                                     {"VANTREL_LOG", "info"}});
    if (started()) live();
    std::string failed = contentOf(mark);
    SCOPED_TRACE("failing: " + failed + "\n" + program_->err());
    check();
    return !failed.empty();
  }

  bool started() {
    return eventually([&] { return program_->hasEnded() || WireClient(root_).connected(); }) && !program_->hasEnded();
  }

  // One request, again on a new connection when this one was cut; nothing when that was cut, too.
  std::optional<Message> ask(const Message& request) {
    for (int attempt = 0; attempt < 2; ++attempt) {
      if (client_ == nullptr || !client_->connected()) client_ = std::make_unique<WireClient>(root_);
      if (!client_->connected()) continue;
      auto reply = client_->call(request);
      EXPECT_FALSE(client_->timedOut()) << "no reply to " << request.description();
      if (reply) return reply;
      client_.reset();
    }
    return std::nullopt;
  }
  static bool succeeded(const std::optional<Message>& reply) { return reply && reply->get("errorcode") == nullptr; }

  void live() {
    election_.reset();
    ask(WireClient::request("bulk"));
    auto found = ask(WireClient::request("match"));
    uuids_ = Message::array();
    if (succeeded(found)) {
      for (const PlistValue& form : found->get("matches")->toPlist().elements()) {
        uuids_.append(UUID::parse(form["uuid"].stringValue()).value());
        identifier_ = form["identifier"].stringValue();
      }
    }
    const Message other = support::listOf({kOther});
    for (std::int64_t election : {5, 6}) annotate(election);
    auto held = ask(WireClient::request("lock", {{"flags", std::uint64_t{2}}, {"paths", other}}));
    for (const char* type : {"ready", "access"}) ask(WireClient::request(type, {{"uuids", uuids_}}));
    if (succeeded(held)) ask(WireClient::request("lock", {{"uuids", support::listOf({*held->get("uuids")})}}));
    EXPECT_FALSE(succeeded(ask(WireClient::request("remove", {{"paths", other}})))) << "nobody is entitled to remove";
    EXPECT_FALSE(succeeded(ask(WireClient::request("match", {{"flags", std::uint64_t{0x200}}})))) << "nor to see all";
    annotate(7);
    fs::remove_all(host(kOther));
  }
  void annotate(std::int64_t election) {
    if (uuids_.as<Message::Array>()->empty()) return;
    const Message change = support::messageOf({{"election", election}});
    if (succeeded(ask(WireClient::request("annotate", {{"uuids", uuids_}, {"annotations", change}})))) {
      election_ = election;
    }
  }

  void check() {
    client_.reset();
    bool answers = succeeded(ask(WireClient::request("bulk")));
    // Its socket may be there a moment before a start fails.
    if (!answers && eventually([&] { return program_->hasEnded(); })) {
      EXPECT_EQ(program_->finish().status, 1) << "it stops only at its start, and says so";
      const auto says = [&](const char* text) { return program_->err().find(text) != std::string::npos; };
      EXPECT_TRUE(says("unable to construct server") || says("unable to locate user container") ||
                  says("unable to create plugin annotations directory"));
      return;
    }
    EXPECT_TRUE(answers) << "whatever failed, failed once";
    program_->signal(SIGKILL);
    program_->finish();
    bool toldOfSaving = program_->err().find("unable to save annotations") != std::string::npos;
    if (!election_ || toldOfSaving) return;
    PlistValue stored = parsePropertyList(contentOf(host("/var/db/Vornik-Annotations")))["data"];
    EXPECT_EQ(stored[identifier_]["election"].intValue(), *election_) << "acknowledged, so it is there";
  }

  std::unique_ptr<Program> program_;
  std::unique_ptr<WireClient> client_;
  Message uuids_;  // of what was discovered, and the last one's identifier
  std::string identifier_;
  std::optional<std::int64_t> election_;
};

}  // namespace

// FAILNTH_STRIDE=1 tries every operation with every error; by default a sample of them, to keep the net tight.
TEST_F(EveryFailure, IsSurvivedOrToldAtTheStart) {
  const int stride = std::max(1, static_cast<int>(support::setting("FAILNTH_STRIDE", 29)));
  for (int error : {EIO, EMFILE, ENOSPC, EINTR, EAGAIN}) {
    int number = 1 + error % stride;
    int reached = 0;
    while (runWith(number, error)) {
      number += stride;
      ++reached;
      ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(reached, 3) << "the daemon does more than that in its life";
  }
}
