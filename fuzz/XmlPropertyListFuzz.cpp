// Any bytes as an XML property list: what is read can be written, and reads back the same; neither takes more steps
// than the bytes allow.
#include <cstdint>
#include <cstdlib>

#include "fuzz/Steps.h"
#include "platform/plists/PropertyList.h"
#include "platform/values/PlistEncoding.h"

using namespace platform;
using namespace platform::testing;

namespace {

constexpr Steps kAByteRead{256, 1000};
constexpr Steps kAByteWritten{512, 1000};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  DomainError error;
  const PlistValue value = withinSteps(size, kAByteRead, [&] { return parsePropertyList(bytes, &error); });
  if (!value) {
    if (error.code < 0 || static_cast<std::size_t>(error.code) > size || !error.description) std::abort();
    return 0;
  }
  const std::string xml =
      withinSteps(value.encodedSize(), kAByteWritten, [&] { return serializePropertyListXML(value); });
  // Compared as bytes: property-list equality does not tell kinds of numbers apart.
  if (encodePlist(parsePropertyList(xml)).flat().view() != encodePlist(value).flat().view()) std::abort();
  return 0;
}
