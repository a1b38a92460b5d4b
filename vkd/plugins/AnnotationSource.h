// Where matching reads a plug-in's user annotation. VKDatabase is it in the daemon.
#pragma once

#include "platform/values/PlistValue.h"

namespace vkd {

class VKDPlugIn;

class AnnotationSource {
 public:
  virtual ~AnnotationSource() = default;
  // A dictionary or nothing. From any thread or queue but the registry's own.
  virtual platform::PlistValue annotationForPlugIn(const VKDPlugIn& plugIn) = 0;
};

}  // namespace vkd
