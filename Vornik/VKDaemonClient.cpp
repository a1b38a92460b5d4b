#include "Vornik/VKDaemonClient.h"

#include <utility>

#include "Vornik/VKError.h"
#include "Vornik/VKKeys.h"
#include "Vornik/VKLog.h"

namespace Vornik {

namespace {

std::string eventText(const Message& event) {
  const auto* error = event.as<Message::ErrorEvent>();
  return error != nullptr ? error->text : event.description();
}

template <class Element>
Message arrayOf(std::span<const Element> elements) {
  Message::Array array;
  array.reserve(elements.size());
  for (const Element& element : elements) array.emplace_back(element);
  return Message(std::move(array));
}

}  // namespace

std::shared_ptr<VKDaemonClient> VKDaemonClient::initWithServiceName(const Services& services,
                                                                    std::string_view serviceName) {
  auto replyQueue = services.queues->serial("vkd_client", WorkQueue::Order::Outer);
  auto vkd = services.messages->connect(serviceName.empty() ? kVKServiceName : serviceName, replyQueue);
  auto block = std::make_shared<ReplyBlock>();
  vkd->setEventHandler([block](const Message& event) {
    VK_LOG(vk_ops(), Error, "Communications error: %{public}@", eventText(event));
    if (*block) (*block)(event);
  });
  std::shared_ptr<VKDaemonClient> client(
      new VKDaemonClient(services.messages, vkd, std::move(replyQueue), std::move(block)));
  vkd->resume();
  return client;
}

// --- Requests -------------------------------------------------------------------------------------------------------

void VKDaemonClient::addPlugInsReply(std::span<const std::string> paths, ReplyBlock reply) {
  sendReply(requestPaths(kVKRequestAdd, paths), std::move(reply));
}

void VKDaemonClient::removePlugInsReply(std::span<const std::string> paths, ReplyBlock reply) {
  sendReply(requestPaths(kVKRequestRemove, paths), std::move(reply));
}

void VKDaemonClient::bulkPluginsReply(std::uint64_t flags, ReplyBlock reply) {
  Message message = request(kVKRequestBulk);
  message.set(kVKMessageFlags, flags);
  sendReply(message, std::move(reply));
}

void VKDaemonClient::readyPlugInsFlagsReply(std::span<const UUID> uuids, std::uint64_t flags, ReplyBlock reply) {
  Message message = request(kVKRequestReady);
  message.set(kVKMessageFlags, flags);
  setUuids(message, uuids);
  sendReply(message, std::move(reply));
}

void VKDaemonClient::accessPlugInsFlagsReply(std::span<const UUID> uuids, std::uint64_t flags, ReplyBlock reply) {
  Message message = request(kVKRequestAccess);
  message.set(kVKMessageFlags, flags);
  setUuids(message, uuids);
  sendReply(message, std::move(reply));
}

void VKDaemonClient::matchPlugInsFlagsReply(const PlistValue& rules, std::uint64_t flags, ReplyBlock reply) {
  Message message = request(kVKRequestMatch);
  message.set(kVKMessageRules, Message::fromPlist(rules));
  message.set(kVKMessageFlags, flags);
  sendReply(message, std::move(reply));
}

void VKDaemonClient::setPluginAnnotationsAnnotationsReply(std::span<const UUID> uuids, const PlistValue& annotations,
                                                          ReplyBlock reply) {
  Message message = request(kVKRequestAnnotate);
  setUuids(message, uuids);
  message.set(kVKMessageAnnotations, Message::fromPlist(annotations));
  sendReply(message, std::move(reply));
}

void VKDaemonClient::bulkSetPluginAnnotationsReply(const PlistValue& annotations, ReplyBlock reply) {
  Message message = request(kVKRequestBulkAnnotate);
  message.set(kVKMessageAnnotations, Message::fromPlist(annotations));
  sendReply(message, std::move(reply));
}

void VKDaemonClient::holdPluginsFlagsReply(std::span<const std::string> paths, std::uint64_t flags, ReplyBlock reply) {
  Message message = requestPaths(kVKRequestLock, paths);
  message.set(kVKMessageFlags, flags);
  sendReply(message, std::move(reply));
}

void VKDaemonClient::releaseHoldReply(const UUID& token, ReplyBlock reply) {
  Message message = request(kVKRequestLock);
  setUuids(message, std::span(&token, 1));
  sendReply(message, std::move(reply));
}

void VKDaemonClient::setEventBlock(ReplyBlock event) {
  replyQueue_->sync([&] { *event_ = std::move(event); });
}

// --- Messages -------------------------------------------------------------------------------------------------------

Message VKDaemonClient::request(std::string_view type) const {
  Message message = Message::dictionary();
  message.set(kVKMessageRequest, type);
  message.set(kVKMessageVersion, static_cast<std::uint64_t>(protocolVersion()));
  return message;
}

Message VKDaemonClient::requestPaths(std::string_view type, std::span<const std::string> paths) const {
  Message message = request(type);
  message.set(kVKMessagePaths, arrayOf(paths));
  return message;
}

void VKDaemonClient::setUuids(Message& request, std::span<const UUID> uuids) {
  request.set(kVKMessageUUIDs, arrayOf(uuids));
}

void VKDaemonClient::sendReply(const Message& request, ReplyBlock reply) {
  VK_LOG(vk_traffic(), Debug, "request: %@", request);
  vkd_->sendWithReply(request, replyQueue_, [block = std::move(reply)](const Message& message) {
    VK_LOG(vk_traffic(), Debug, "reply: %@", message);
    if (block) block(message);
  });
}

std::optional<DomainError> VKDaemonClient::errorInReply(const Message& reply) {
  if (reply.isError()) return vk_error(VKErrorInvalidRequest, eventText(reply));
  std::uint64_t code = reply.getUnsigned(kVKMessageErrorCode);
  const std::string* message = reply.getString(kVKMessageError);
  if (code == 0) {
    if (message == nullptr) return std::nullopt;
    throw VKInternalInconsistency(formatText("vkd reported error without a code: %s", *message));
  }
  return vk_error(static_cast<std::int64_t>(code),
                  message != nullptr ? *message : "unknown error returned by Vornik subsystem");
}

PlistValue VKDaemonClient::plugInsInReply(const Message& reply) const {
  const Message* matches = reply.get(kVKMessageMatches);
  return matches != nullptr ? convertFromZYP(*matches) : PlistValue();
}

// --- Property lists in messages -------------------------------------------------------------------------------------

Message VKDaemonClient::convertToZYPVersion(const PlistValue& value, std::uint64_t version) {
  return version == kVKProtocolVersion && value ? Message(encodePlist(value)) : Message();
}

PlistValue VKDaemonClient::convertFromZYP(const Message& value) const {
  bool spoken = static_cast<std::uint64_t>(protocolVersion()) == kVKProtocolVersion;
  return spoken && value.kind() == Message::Kind::Plist ? value.toPlist() : PlistValue();
}

}  // namespace Vornik
