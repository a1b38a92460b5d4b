// Prints identifier and version of each plug-in that serves an extension point:
//
//   discover com.vantrel.share-services
#include <future>
#include <iostream>

#include "Vornik/VKDaemonClient.h"
#include "Vornik/VKKeys.h"
#include "Vornik/VKPlugInCore.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "Usage: discover extension-point\n";
    return 2;
  }
  auto client = Vornik::VKDaemonClient::initWithServiceName();
  auto rules = platform::PlistBuilder().set(Vornik::kVKExtensionPointIdentifier, argv[1]).take();
  std::promise<platform::Message> answer;
  client->matchPlugInsFlagsReply(rules, 0, [&](const platform::Message& reply) { answer.set_value(reply); });

  platform::Message reply = answer.get_future().get();
  if (auto error = client->errorInReply(reply)) {
    std::cerr << "discover: " << error->localizedDescription() << '\n';
    return 1;
  }
  for (const auto& form : client->plugInsInReply(reply).elements()) {
    if (auto plugIn = Vornik::VKPlugInCore::initWithForm(form)) {
      std::cout << plugIn->identifier() << ' ' << plugIn->version().value_or("") << '\n';
    }
  }
}
