// vkctl: the command-line client of vkd.

#include <cstdlib>

#include "platform/Interrupts.h"
#include "platform/Log.h"
#include "tools/verbs/AllVerbs.h"

int main(int argc, char** argv) {
  platform::endQuietlyOnInterrupt();
  // What the client library logs of a broken connection, vkctl tells in its own words.
  if (std::getenv("VANTREL_LOG") == nullptr) {
    platform::setLogSink([](const platform::LogLine&) {}, platform::LogLevel::Fault);
  }
  CLI::App app("", "vkctl");
  vkctl::Verbs verbs(app);
  for (auto add : {vkctl::addMatch, vkctl::addShow, vkctl::addStatus, vkctl::addDiagnose, vkctl::addReady,
                   vkctl::addLaunch, vkctl::addAccess, vkctl::addElect, vkctl::addAnnotate, vkctl::addBulkAnnotate,
                   vkctl::addAddRemove, vkctl::addHold, vkctl::addRelease, vkctl::addWatch, vkctl::addSend}) {
    add(verbs);
  }
  return verbs.run({argv + 1, argv + argc});
}
