// Any bytes as the objects of a binary property list: what is read and can be written as XML reads back the same, and
// reading takes no more steps than the bytes allow, however the objects share each other.
#include <cstdint>
#include <cstdlib>

#include "fuzz/Steps.h"
#include "platform/plists/PropertyList.h"
#include "platform/values/PlistEncoding.h"

using namespace platform;
using namespace platform::testing;

namespace {

constexpr Steps kAByte{96, 1000};

}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The header is given, so that no time is lost on guessing it.
  const std::string bytes = "bplist00" + std::string(reinterpret_cast<const char*>(data), size);
  DomainError error;
  const PlistValue value = withinSteps(bytes.size(), kAByte, [&] { return parsePropertyList(bytes, &error); });
  if (!value) {
    if (error.code < 0 || static_cast<std::size_t>(error.code) > bytes.size() || !error.description) std::abort();
    return 0;
  }
  // Objects that share each other grow when they are written out; what is small enough to be quick suffices.
  if (value.encodedSize() > std::size_t{1} << 18) return 0;
  const std::string xml = serializePropertyListXML(value, &error);
  if (xml.empty()) return error.description->starts_with("XML cannot carry the text") ? 0 : (std::abort(), 0);
  if (encodePlist(parsePropertyList(xml)).flat().view() != encodePlist(value).flat().view()) std::abort();
  return 0;
}
