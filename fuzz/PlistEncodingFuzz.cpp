// Any bytes as an encoded property list: what is read encodes to the same bytes, also after it was rebuilt as a tree,
// and every lookup finds what the walk found. Checking the bytes takes no memory, and time only by their number.
#include <cstdint>
#include <cstdlib>

#include "fuzz/Steps.h"
#include "platform/values/PlistEncoding.h"

using namespace platform;
using namespace platform::testing;

namespace {

constexpr Steps kAByte{0, 100};

PlistValue rebuilt(const PlistValue& value) {
  if (value.isDictionary()) {
    PlistBuilder builder;
    for (auto [key, element] : value.entries()) {
      if (!(value[key].kind() == element.kind())) std::abort();
      builder.set(key, rebuilt(element));
    }
    return builder.take();
  }
  if (!value.isArray()) return value;
  std::vector<PlistValue> elements;
  for (const PlistValue& element : value.elements()) elements.push_back(rebuilt(element));
  return PlistValue::array(std::move(elements));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // A dictionary is searched from its start, so looking up each key of a wide one is quadratic: short inputs suffice.
  if (size > 4096) return 0;
  SharedSlice bytes = SharedSlice::take(std::string(reinterpret_cast<const char*>(data), size));
  DomainError error;
  PlistValue value = withinSteps(size, kAByte, [&] { return decodePlist(bytes, &error); });
  if (!value) {
    if (error.code < 0 || static_cast<std::size_t>(error.code) > size) std::abort();
    return 0;
  }
  if (value.encodedSize() != size || encodePlist(value).flat().view() != bytes.view()) std::abort();
  if (encodePlist(rebuilt(value)).flat().view() != bytes.view()) std::abort();
  return 0;
}
