// What a polite client feels of others that misbehave: its slowest requests beside a crowd, and alone.
#include <sys/resource.h>
#include <unistd.h>

#include <functional>
#include <memory>

#include "bench/DaemonProcess.h"
#include "bench/Roads.h"
#include "bench/SampleRoot.h"
#include "bench/WireClient.h"

namespace bench {

namespace {

constexpr int kRounds = 5;
constexpr std::size_t kCalls = 2000;
constexpr std::size_t kCrowd = 512;
constexpr double kSlowest = 0.99;
// More than a socket holds: the last of them wait until the first were read.
constexpr int kUnreadRequests = 4000;
// Microseconds after which the daemon has done what a crowd leaves it to do: answer what it takes of those who do not
// read, and clear away after those who are gone.
constexpr useconds_t kSettled = 500'000;
constexpr double kTarget = 2.0;
// The polite client and the daemon have a core each, so that rounds differ by what is beside them alone.
constexpr int kPoliteCpu = 0;
constexpr int kDaemonCpu = 1;

using Clients = std::vector<std::unique_ptr<WireClient>>;

// Clients of a process of its own; all are gone with it.
class Crowd {
 public:
  // `form` gathers the crowd; `trouble`, if any, is what it does from then on, again and again.
  Crowd(const std::function<void(Clients&)>& form, const std::function<void()>& trouble) {
    int formed[2];
    if (::pipe(formed) != 0) std::exit(1);
    pid_ = ::fork();
    if (pid_ == 0) {
      pinSelf(-1);
      Clients clients;
      form(clients);
      if (::write(formed[1], "", 1) != 1) ::_exit(1);
      while (trouble) trouble();
      ::pause();
    }
    ::close(formed[1]);
    char done;
    if (::read(formed[0], &done, 1) != 1) std::exit(1);
    ::close(formed[0]);
  }
  ~Crowd() {
    stop(pid_);
    ::usleep(kSettled);
  }
  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;

 private:
  pid_t pid_;
};

// The crowd needs a descriptor each, and the daemon two.
void allowDescriptors() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

void measureCrowds(Table& table) {
  allowDescriptors();
  SampleRoot root;
  const std::string frame = WireClient::frame(WireClient::request("bulk"));
  DaemonProcess daemon(root.path(), kDaemonCpu);
  pinSelf(kPoliteCpu);
  WireClient polite(root.path());
  std::vector<char> reply;
  const auto slowest = [&] {
    return percentile(samples(kCalls,
                              [&] {
                                polite.send(frame);
                                polite.receiveInto(reply);
                              }),
                      kSlowest);
  };
  const auto join = [&](Clients& clients) {
    clients.push_back(std::make_unique<WireClient>(root.path()));
    return clients.back().get();
  };
  struct Kind {
    const char* name;
    std::function<void(Clients&)> form;
    std::function<void()> trouble;
  };
  const Kind kinds[] = {
      {"512 clients that do not read",
       [&](Clients& clients) {
         while (clients.size() < kCrowd) join(clients)->flood(frame, kUnreadRequests);
         ::usleep(kSettled);
       },
       nullptr},
      {"512 halves of a frame",
       [&](Clients& clients) {
         while (clients.size() < kCrowd) join(clients)->send(frame.substr(0, frame.size() / 2));
       },
       nullptr},
      {"one that sends and never reads", [](Clients&) {},
       [&, flooder = std::make_shared<Clients>()] {
         if (flooder->empty()) join(*flooder);
         flooder->back()->send(frame);
       }},
      {"a storm of connections", [](Clients&) {},
       [&] {
         WireClient passing(root.path());
         passing.send(frame);
       }},
  };
  for (const Kind& kind : kinds) {
    std::vector<double> alone;
    std::vector<double> beside;
    for (int round = 0; round < kRounds; ++round) {
      alone.push_back(slowest());
      Crowd crowd(kind.form, kind.trouble);
      beside.push_back(slowest());
    }
    table.add({std::string("99th percentile beside ") + kind.name, "alone", median(beside), median(alone), kTarget});
  }
  pinSelf(-1);
}

}  // namespace bench
