// Any bytes as JSON of a message and of a property list: what is read prints as JSON that reads and prints the same.
#include <cstdint>
#include <cstdlib>

#include "tools/text/JsonMessage.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string error;
  if (const auto message = vkctl::messageFromJson(text, &error)) {
    const std::string json = vkctl::jsonFromMessage(*message);
    const auto again = vkctl::messageFromJson(json);
    if (!again || !(*again == *message) || vkctl::jsonFromMessage(*again) != json) std::abort();
  } else if (error.empty()) {
    std::abort();
  }
  if (const auto value = vkctl::plistFromJson(text)) {
    const std::string json = vkctl::jsonFromPlist(value);
    if (json.find('\n') != std::string::npos || vkctl::jsonFromPlist(vkctl::plistFromJson(json)) != json) std::abort();
  }
  return 0;
}
