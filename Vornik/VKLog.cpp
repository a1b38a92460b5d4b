#include "Vornik/VKLog.h"

namespace Vornik {

namespace {

constexpr std::string_view kSubsystem = "com.vantrel.Vornik";

const Logger& makeCategory(const char* name) {
  // Never destroyed: threads may log until the process is gone.
  if (const Logger* logger = makeLogger(kSubsystem, name).release()) return *logger;
  VK_LOG(defaultLog(), Error, "unable to create jotter for category %s", name);
  return defaultLog();
}

}  // namespace

const Logger& vk_ops() {
  static const Logger& logger = makeCategory("ops");
  return logger;
}

const Logger& vk_traffic() {
  static const Logger& logger = makeCategory("traffic");
  return logger;
}

const Logger& vk_extension() {
  static const Logger& logger = makeCategory("extension");
  return logger;
}

const Logger& vk_al() {
  static const Logger& logger = makeCategory("al");
  return logger;
}

}  // namespace Vornik
