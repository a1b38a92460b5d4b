// Any bytes as an XML property list: what is read can be written, and reads back the same.
#include <cstdint>
#include <cstdlib>

#include "platform/PlistEncoding.h"
#include "platform/PropertyList.h"

using namespace platform;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  DomainError error;
  const PlistValue value = parsePropertyList(bytes, &error);
  if (!value) {
    if (error.code < 0 || static_cast<std::size_t>(error.code) > size || !error.description) std::abort();
    return 0;
  }
  const std::string xml = serializePropertyListXML(value);
  // Compared as bytes: property-list equality does not tell kinds of numbers apart.
  if (encodePlist(parsePropertyList(xml)).flat().view() != encodePlist(value).flat().view()) std::abort();
  return 0;
}
