// vkd: reads the command line, builds the services of this machine, and hands them to the one server.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "Vornik/VKLog.h"
#include "Vornik/VKProtocol.h"
#include "platform/Process.h"
#include "platform/Services.h"
#include "vkd/server/CommandLine.h"
#include "vkd/server/VKDServer.h"

namespace {

using namespace vkd;

// Who looks into the executable of a running daemon learns its version.
[[gnu::used]] constexpr auto versionMark = [] {
  constexpr std::string_view version = VORNIK_VERSION;
  std::array<char, kVKVersionMark.size() + version.size() + 1> text{};
  std::ranges::copy(version, std::ranges::copy(kVKVersionMark, text.begin()).out);
  return text;
}();

std::shared_ptr<VKDServer> makeServer(const CommandLine& options) {
  platform::Services services = platform::machineServices();
  std::string reason;
  services.registry = platform::openRegistry(services, &reason);
  if (services.registry == nullptr) {
    VK_LOG(vk_ops(), Error, "cannot open the application registry: %{public}@", reason);
    return nullptr;
  }
  auto server = VKDServer::initForServiceDatabase(services, options.service.value_or(std::string(kVKServiceName)),
                                                  options.database);
  if (server == nullptr) return nullptr;
  server->setVerbose(options.verbose);
  server->setCacheLimit(options.cacheLimit);
  return server;
}

int serve(const CommandLine& options) {
  std::shared_ptr<VKDServer> server = makeServer(options);
  if (server != nullptr && server->run()) return EXIT_SUCCESS;
  VK_LOG(vk_ops(), Error, "unable to construct server");
  return EXIT_FAILURE;
}

}  // namespace

int main(int count, char** words) {
  platform::keepFreedMemory();
  VK_LOG(vk_ops(), Info, "vkd is launching");
  std::string diagnostic;
  auto options = CommandLine::parse(std::span<const char* const>(words, count).subspan(count > 0 ? 1 : 0), &diagnostic);
  if (!options) {
    diagnostic += kUsage;
    std::fputs(diagnostic.c_str(), stderr);
    return kUsageStatus;
  }
  try {
    return serve(*options);
  } catch (const std::exception& failure) {
    VK_LOG(vk_ops(), Fault, "%{public}@", std::string_view(failure.what()));
    return EXIT_FAILURE;
  }
}
