// Completing a record from the SDK of its extension point.

#include <unordered_set>
#include <utility>
#include <vector>

#include "Vornik/VKKeys.h"
#include "Vornik/VKLog.h"
#include "Vornik/VKPlugInCore.h"

namespace Vornik {

namespace {

// The elements of a list, each value once.
class Union {
 public:
  void add(const PlistValue& list) {
    if (list.isString()) return addElement(list);
    for (const PlistValue& element : list.elements()) addElement(element);
  }
  PlistValue take() { return PlistValue::array(std::move(elements_)); }

 private:
  void addElement(const PlistValue& element) {
    if (element.isString()) {
      if (!texts_.emplace(element.stringValue()).second) return;
    } else {
      for (const PlistValue& other : elements_) {
        if (other == element) return;
      }
    }
    elements_.push_back(element);
  }

  std::vector<PlistValue> elements_;
  std::unordered_set<std::string> texts_;
};

}  // namespace

void VKPlugInCore::resolveSDK(ExtensionSdkRegistry& sdks) {
  PlistValue manifest = bundleInfoDictionary();
  if (!manifest) {
    VK_LOG(vk_ops(), Fault, "cannot resolve SDK without materialized Info.plist");
    return;
  }
  if (PlistValue name = sdkSpec()) {
    if (!name.isString()) {
      VK_LOG(vk_ops(), Error, "invalid SDK key:%{public}@", name);
      return;
    }
    if (PlistValue sdk = readSDKDictionary(sdks, name.stringValue())) {
      setDictionaries(mergeDictionaryInto(sdk, manifest));
    }
  }
  canonicalize();
}

PlistValue VKPlugInCore::readSDKDictionary(ExtensionSdkRegistry& sdks, std::string_view name) {
  Message sdk = sdks.sdk(name);
  if (!sdk) {
    VK_LOG(vk_ops(), Default, "plug-in sdk \"%{public}@\" not registered", name);
    return {};
  }
  return sdk.toPlist();
}

PlistValue VKPlugInCore::mergeDictionaryInto(const PlistValue& sdk, const PlistValue& plugIn) const {
  PlistBuilder merged(plugIn);
  for (const auto& [key, value] : sdk.entries()) {
    PlistValue own = plugIn[key];
    if (!own || sdkOverridesKey(key)) {
      merged.set(key, value);
    } else if (key == kVKShared) {
      merged.set(key, mergeSharedResourcesInto(value, own));
    } else if (value.isDictionary() && own.isDictionary()) {
      merged.set(key, mergeDictionaryInto(value, own));
    }
  }
  return merged.take();
}

bool VKPlugInCore::sdkOverridesKey(std::string_view key) const { return key == kVKCleanTimeout; }

PlistValue VKPlugInCore::mergeSharedResourcesInto(const PlistValue& sdk, const PlistValue& plugIn) {
  Union resources;
  resources.add(plugIn);
  resources.add(sdk);
  return resources.take();
}

}  // namespace Vornik
