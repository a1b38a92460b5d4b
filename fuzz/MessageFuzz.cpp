// Any bytes as a wire message: what is read is written again to the same bytes, converts both ways, and describes
// itself; reading takes no more steps than the bytes allow.
#include <cstdint>
#include <cstdlib>

#include "fuzz/Steps.h"
#include "platform/values/Message.h"

using namespace platform;
using namespace platform::testing;

namespace {

constexpr Steps kAByte{256, 1000};

}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  SharedSlice bytes = SharedSlice::take(std::string(reinterpret_cast<const char*>(data), size));
  DomainError error;
  Message message = withinSteps(size, kAByte, [&] { return decodeMessage(bytes, &error); });
  if (!message) {
    if (error.code < 0 || static_cast<std::size_t>(error.code) > size) std::abort();
    return 0;
  }
  if (encodeMessage(message).flat().view() != bytes.view()) std::abort();
  message.description();
  PlistValue plist = message.toPlist();
  if (!plist) return 0;
  // Compared as bytes: a NaN is not equal to itself.
  PlistValue back = Message::fromPlist(plist).toPlist();
  if (encodePlist(back).flat().view() != encodePlist(plist).flat().view()) std::abort();
  return 0;
}
