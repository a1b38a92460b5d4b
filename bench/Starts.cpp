#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <memory>

#include "bench/DaemonProcess.h"
#include "bench/Limits.h"
#include "bench/Roads.h"
#include "bench/SampleRoot.h"
#include "bench/WireClient.h"

namespace bench {

namespace {

// Seconds from the start of the daemon to its reply; the daemon has ended afterwards.
double startTo(const std::string& root, const platform::Message& request) {
  Stopwatch watch;
  DaemonProcess daemon(root);
  WireClient client(root);
  client.call(request);
  return watch.seconds();
}

double emptyProgram() {
  Stopwatch watch;
  pid_t pid = spawn({EMPTY_PROGRAM}, "/");
  ::waitpid(pid, nullptr, 0);
  return watch.seconds();
}

// What is removed now would slow down what is made next: the file system does not hand out again what was just freed.
void forget(const std::string& root, int round) {
  std::filesystem::rename(root + "/var", root + "/forgotten" + std::to_string(round));
}

}  // namespace

void measureStarts(Table& table) {
  std::vector<double> limits;
  std::vector<double> starts;
  {
    SampleRoot root;
    startTo(root.path(), WireClient::request("bulk"));
    for (int round = 0; round < 40; ++round) {
      limits.push_back(emptyProgram());
      starts.push_back(startTo(root.path(), WireClient::request("bulk")));
    }
  }
  table.add({"start to first reply, empty registry", "an empty C program", median(starts), median(limits), 3.0});

  auto measureMatch = [&](std::size_t count, bool known, int rounds, double target) {
    SampleRoot root;
    root.fillTo(count);
    std::vector<double> reads;
    std::vector<double> matches;
    startTo(root.path(), WireClient::request("match"));
    for (int round = 0; round < rounds; ++round) {
      if (!known) forget(root.path(), round);
      reads.push_back(samples(1, [&] { readFiles(root.manifests()); }).front());
      matches.push_back(startTo(root.path(), WireClient::request("match")));
    }
    table.add({"start to full match, " + std::to_string(count) + (known ? " known plug-ins" : " bundles never seen"),
               "reading their manifests from the page cache", median(matches), median(reads), target});
  };
  measureMatch(10'000, true, 5, 4.0);
  measureMatch(1000, false, 10, 6.0);
}

}  // namespace bench
