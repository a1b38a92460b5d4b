// What an annotation is stored for: a plug-in, by the key that it shares with all that take its place.
#pragma once

#include <string_view>

namespace vkd {

class Annotated {
 public:
  // Valid as long as the object.
  virtual std::string_view annotationKey() const = 0;

 protected:
  ~Annotated() = default;
};

}  // namespace vkd
