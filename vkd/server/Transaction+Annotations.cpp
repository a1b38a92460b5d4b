// "annotate" and "bulk-annotate": the user's settings of plug-ins are changed, and the system is told.
#include "Vornik/VKError.h"
#include "Vornik/VKErrorTexts.h"
#include "Vornik/VKKeys.h"
#include "Vornik/VKLog.h"
#include "vkd/server/Transaction.h"

namespace vkd {

// A dictionary, or nothing when the request has failed for want of one.
PlistValue Transaction::requestedAnnotations() {
  if (const Message* annotations = zyp_dictionary_get_dictionary(request_, kVKMessageAnnotations)) {
    return annotations->toPlist();
  }
  failMessage(VKErrorInvalidRequest, "invalid request format (bad annotations dictionary)");
  return PlistValue();
}

// Everything is validated before the first plug-in is touched.
void Transaction::annotatePlugIns() {
  PlistValue annotations = requestedAnnotations();
  if (!annotations) return;
  PlistValue election = annotations[kVKAnnotationElection];
  PlistValue extension = annotations[kVKAnnotationExtension];
  if (election && !election.isNumber()) {
    return failMessage(VKErrorInvalidRequest, "invalid request format (annotation election)");
  }
  if (extension && !extension.isDictionary()) {
    return failMessage(VKErrorInvalidRequest, "invalid request format (annotation extension)");
  }
  PlistValue change = PlistBuilder().set(kVKAnnotationElection, election).set(kVKAnnotationExtension, extension).take();
  if (change.empty()) return done();
  bool complete = processUuidList([&](const std::shared_ptr<VKDPlugIn>& plugIn) {
    VK_LOG(vk_ops(), Debug, "client %d plug-in %@(%{public}@) annotation change: %@", client_->pid(),
           plugIn->identifier(), plugIn->uuid(), change);
    if (election) {
      VK_LOG(vk_ops(), Info, "client %d plug-in %@(%{public}@) election := %@", client_->pid(), plugIn->identifier(),
             plugIn->uuid(), election);
    }
    server().setAnnotationForPlugIn(change, *plugIn);
    return true;
  });
  if (!complete) return;
  server().notifyAnnotationChange();
  done();
}

void Transaction::bulkAnnotatePlugIns() {
  PlistValue annotations = requestedAnnotations();
  if (!annotations) return;
  VK_LOG(vk_ops(), Debug, "bulk change requested for %u plug-ins", annotations.size());
  for (auto [uuid, extension] : annotations.entries()) {
    if (!bulkAnnotate(uuid, extension)) return;
  }
  server().notifyAnnotationChange();
  done();
}

bool Transaction::bulkAnnotate(std::string_view uuidText, const PlistValue& extension) {
  if (!extension.isDictionary()) {
    failMessage(VKErrorInvalidValue, "annotations values must be dictionaries");
    return false;
  }
  std::optional<UUID> uuid = UUID::parse(uuidText);
  if (!uuid) {
    failMessage(VKErrorInvalidValue, "invalid plug-in UUID value");
    return false;
  }
  std::shared_ptr<VKDPlugIn> plugIn = server().findPlugIn(*uuid);
  if (plugIn == nullptr) {
    failMessage(VKErrorRegistry, kVKNoPlugInWithUUID);
    return false;
  }
  VK_LOG(vk_ops(), Debug, "client %d bulk plug-in %@(%{public}@) annotation change: %@", client_->pid(),
         plugIn->identifier(), *uuid, extension);
  server().setAnnotationForPlugIn(PlistBuilder().set(kVKAnnotationExtension, extension).take(), *plugIn);
  return true;
}

}  // namespace vkd
