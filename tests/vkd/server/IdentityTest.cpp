// Who is not, or no longer, the process that connected has no right, whichever request asks and whichever step of
// finding out fails; and whatever it was granted before counts no more.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <fstream>

#include "platform/linux/identity/LinuxCodeSigning.h"
#include "platform/linux/messages/PeerIdentity.h"
#include "tests/Support/ChildProgram.h"
#include "tests/Support/FakeDaemon.h"

namespace vkd::testing {
namespace {

constexpr const char* kHost = "/Applications/Host.app/run";
constexpr const char* kEntitlements = "/Applications/Host.app/run.entitlements";
constexpr const char* kOther = "/Applications/Other.app/run";
constexpr const char* kSpecial = "special";
constexpr std::uint64_t kEverything = 0x200;

struct Peer : FakePeer {
  explicit Peer(std::shared_ptr<AuditToken> it) : FakePeer(it->pid()), token(std::move(it)) {}
  std::shared_ptr<AuditToken> token;
  std::shared_ptr<AuditToken> peerAuditToken() const override { return token; }
};

// An entitled host that runs, and a daemon that looks at it as the real one does.
struct Scene {
  CapturedLog log;
  ScratchRoot scratch;
  const std::string host = installProgram(scratch, kHost, "/bin/sh");
  const std::string other = installProgram(scratch, kOther);
  const std::string pipe = scratch.host("/go");
  std::string entitlements = entitle(kEntitlements);
  std::vector<std::string> command{host, "-c", "read word <" + pipe + "; exec " + other + " 100"};
  std::optional<ChildProgram> process, again;
  std::shared_ptr<PeerIdentity> peer;
  rlimit descriptors{};
  FakeDaemon daemon{[this](Services& all) { all.codeSigning = std::make_shared<LinuxCodeSigning>(scratch.root()); }};
  std::shared_ptr<FakeRecord> open = daemon.install("open"), guarded = daemon.install("guarded");

  Scene() {
    entitle(std::string(kOther) + ".entitlements");
    EXPECT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    process.emplace(command);
    peer = PeerIdentity::ofProcess(process->pid());
    guarded->changeSection(kVKExtensionHostEntitlement, kSpecial);
    ::getrlimit(RLIMIT_NOFILE, &descriptors);
  }
  ~Scene() { ::setrlimit(RLIMIT_NOFILE, &descriptors); }

  std::string entitle(const std::string& path) {
    return scratch.write(path, plist("<dict><key>" + std::string(kVKEntitlementManager) + "</key><true/><key>" +
                                     kSpecial + "</key><true/></dict>"));
  }
  FakeClient connect() { return daemon.connect(std::make_shared<Peer>(peer)); }
  std::string matched(FakeClient& client) const {
    std::string names;
    const Message reply = client.ask("match");
    const PlistValue forms = reply.get("matches")->toPlist();
    for (const PlistValue& form : forms.elements()) names.append(form["identifier"].stringValue()) += ' ';
    return names;
  }
  // What the client may do of all that wants an entitlement.
  std::string rights(FakeClient& client) const {
    std::string text;
    const auto note = [&](const char* what, const Message& reply) {
      const std::uint64_t code = reply.getUnsigned("errorcode");
      EXPECT_TRUE(code == 0 || code == 11) << reply.description();
      if (code == 0) text += what;
    };
    note("remove ", client.ask("remove", {{"paths", listOf({"/a"})}}));
    note("discover ", client.ask("match", {{"flags", kEverything}}));
    note("ready ", client.ask("ready", {{"uuids", uuids({"guarded"})}}));
    if (matched(client).find("guarded") != std::string::npos) text += "match ";
    EXPECT_NE(matched(client).find("open"), std::string::npos) << "what anybody may see";
    return text;
  }

  // --- What may happen to it -----------------------------------------------------------------------------------------

  void end() { process->stop(); }
  void executeSomethingElse() {
    std::ofstream(pipe) << "go\n";
    const std::string link = "/proc/" + std::to_string(process->pid()) + "/exe";
    EXPECT_TRUE(eventually([&] { return std::filesystem::equivalent(link, other); }));
  }
  // The same program runs under its process id. Not every machine lets somebody choose an id: nobody runs there then.
  void endAndLetItsIdBeUsedAgain() {
    pid_t id = process->pid();
    process->stop();
    clone_args arguments{};
    arguments.exit_signal = SIGCHLD;
    arguments.set_tid = reinterpret_cast<std::uintptr_t>(&id);
    arguments.set_tid_size = 1;
    const long child = ::syscall(SYS_clone3, &arguments, sizeof arguments);
    if (child == 0) {
      ::execl(host.c_str(), host.c_str(), "-c", command[2].c_str(), nullptr);
      ::_exit(127);
    }
    if (child < 0) return;
    EXPECT_EQ(child, id);
    EXPECT_TRUE(eventually([&] { return PeerIdentity::ofProcess(id)->executablePath() == host; }));
    again.emplace(static_cast<pid_t>(child));
  }
  void useUpDescriptors() {
    rlimit none = descriptors;
    none.rlim_cur = 0;
    ::setrlimit(RLIMIT_NOFILE, &none);
  }
  // Nothing is left of a file that is replaced by no bytes.
  void replace(const std::string& path, const std::string& bytes = "") const {
    std::filesystem::remove(path);
    if (!bytes.empty()) std::ofstream(path) << bytes;
  }
  void moveAndLink(const std::string& from, const std::string& to) const {
    std::filesystem::rename(scratch.host(from), scratch.host(to));
    scratch.link(to, from);
  }
};

TEST(Identity, IsNobodysWheneverAnythingIsWrong) {
  using Happening = std::function<void(Scene&)>;
  // What counts whenever it happens.
  const std::pair<const char*, Happening> always[] = {
      {"ended", [](Scene& s) { s.end(); }},
      {"its id is used again", [](Scene& s) { s.endAndLetItsIdBeUsedAgain(); }},
      {"executes another entitled program", [](Scene& s) { s.executeSomethingElse(); }},
      {"somebody else wrote to its socket", [](Scene& s) { s.peer->markForeign(); }},
  };
  // Files are read once: these only before the first question.
  const std::pair<const char*, Happening> before[] = {
      {"another file has its executable's name", [](Scene& s) { s.replace(s.host), installProgram(s.scratch, kHost); }},
      {"its executable is gone", [](Scene& s) { s.replace(s.host); }},
      {"its folder is another's", [](Scene& s) { s.moveAndLink("/Applications/Host.app", "/Applications/Old.app"); }},
      {"no descriptor is free", [](Scene& s) { s.useUpDescriptors(); }},
      {"no entitlement file", [](Scene& s) { s.replace(s.entitlements); }},
      {"others may write it", [](Scene& s) { ::chmod(s.entitlements.c_str(), 0646); }},
      {"it is a link", [](Scene& s) { s.moveAndLink(kEntitlements, std::string(kEntitlements) + ".real"); }},
      {"it is no property list", [](Scene& s) { s.replace(s.entitlements, "garbage"); }},
      {"it is no dictionary", [](Scene& s) { s.replace(s.entitlements, plist("<true/>")); }},
      {"it is a FIFO", [](Scene& s) { s.replace(s.entitlements), ::mkfifo(s.entitlements.c_str(), 0600); }},
  };
  const auto expectNobody = [](const char* what, const Happening& happen, bool asked) {
    SCOPED_TRACE(std::string(what) + (asked ? ", after it was asked once" : ""));
    Scene scene;
    FakeClient client = scene.connect();
    if (asked) {
      EXPECT_EQ(scene.rights(client), "remove discover ready match ");
    }
    const std::size_t enabled = scene.daemon.device.serviceManager->added.size();
    happen(scene);
    EXPECT_EQ(scene.rights(client), "");
    EXPECT_EQ(scene.daemon.device.serviceManager->added.size(), enabled);
  };
  for (const auto& [what, happen] : always) {
    for (bool asked : {false, true}) expectNobody(what, happen, asked);
  }
  for (const auto& [what, happen] : before) expectNobody(what, happen, false);
}

// What nothing is known of from the start.
TEST(Identity, IsNobodysWhenItNeverWasKnown) {
  Scene scene;
  const pid_t pid = scene.process->pid();
  FakeClient foreign = scene.daemon.connect(std::make_shared<FakePeer>(pid));
  EXPECT_EQ(scene.rights(foreign), "") << "a token that is none of this machine";
  scene.end();
  scene.peer = PeerIdentity::ofProcess(pid);
  FakeClient late = scene.connect();
  EXPECT_EQ(scene.rights(late), "");
  EXPECT_EQ(late.object()->path(), "");
}

}  // namespace
}  // namespace vkd::testing
