#include "vkd/server/Transaction.h"

#include <exception>

#include "Vornik/VKError.h"
#include "Vornik/VKErrorTexts.h"
#include "Vornik/VKKeys.h"
#include "Vornik/VKLog.h"
#include "Vornik/VKProtocol.h"
#include "platform/Trace.h"

namespace vkd {
namespace {

constexpr std::string_view kInvalidRequestFormat = "invalid request format";

// The current version and the one before it, which differ in the lowest bit.
bool speaksVersion(std::uint64_t version) { return (version & ~std::uint64_t{1}) == (kVKProtocolVersion & ~1U); }

}  // namespace

const Transaction::Handler Transaction::kHandlers[] = {
    {kVKRequestAdd, &Transaction::addPlugIns},           {kVKRequestRemove, &Transaction::removePlugIns},
    {kVKRequestBulk, &Transaction::bulkPlugIns},         {kVKRequestMatch, &Transaction::matchPlugIns},
    {kVKRequestReady, &Transaction::readyPlugIns},       {kVKRequestAccess, &Transaction::accessPlugIns},
    {kVKRequestAnnotate, &Transaction::annotatePlugIns}, {kVKRequestBulkAnnotate, &Transaction::bulkAnnotatePlugIns},
    {kVKRequestLock, &Transaction::lockDownPlugIns},
};

std::shared_ptr<Transaction> Transaction::initWithRequestForClient(Message request,
                                                                   std::shared_ptr<VKDZypClient> client) {
  return std::shared_ptr<Transaction>(new Transaction(std::move(request), std::move(client)));
}

Transaction::Transaction(Message request, std::shared_ptr<VKDZypClient> client)
    : client_(std::move(client)), request_(std::move(request)), reply_(Message::createReply(request_)) {}

void Transaction::dispatch() {
  try {
    route();
  } catch (const std::exception& error) {
    abandon(error.what());
  } catch (...) {
    abandon("unknown exception");
  }
}

void Transaction::route() {
  const std::string* type = request_.getString(kVKMessageRequest);
  version_ = request_.getUnsigned(kVKMessageVersion);
  if (!speaksVersion(version_)) {
    return failMessage(VKErrorVersion,
                       formatText("unsupported protocol version %d (current %d)", version_, kVKProtocolVersion));
  }
  if (!client_->acceptWork()) return;
  client_->beginRequest();
  VK_LOG(vk_ops(), Debug, "client %d requested %{public}s", client_->pid(),
         type != nullptr ? std::string_view(*type) : std::string_view("(null)"));
  trace::request(client_->pid(), type != nullptr ? type->c_str() : nullptr);
  if (type == nullptr) return failMessage(VKErrorInvalidRequest, "invalid request format (missing type)");
  for (const Handler& handler : kHandlers) {
    if (*type == handler.request) return run(handler);
  }
  failMessage(VKErrorInvalidRequest, "unrecognized request");
}

void Transaction::run(const Handler& handler) {
  (this->*handler.run)();
  if (state_ != State::Open) return;
  VK_LOG(vk_ops(), Fault, "request %{public}@ of client %d ended without a reply", handler.request, client_->pid());
  failMessage(VKErrorInvalidRequest, "request was not answered");
}

// Memory may be what is missing: when not even the short reply can be made, or sending is what failed, the client is
// cut off, so that it does not wait for what will never come.
void Transaction::abandon(const char* reason) {
  try {
    VK_LOG(vk_ops(), Fault, "request of client %d was abandoned: %{public}@", client_->pid(), reason);
    if (state_ == State::Open) {
      reply_ = Message::createReply(request_);
      failMessage(VKErrorInvalidRequest, "request could not be completed");
    }
  } catch (...) {
    // Nothing is left to say it with; below.
  }
  if (state_ == State::Sent) return;
  if (auto peer = connection()) peer->cancel();
}

bool Transaction::marshalPaths(const PathVisit& visit) {
  const Message* paths = zyp_dictionary_get_array(request_, kVKMessagePaths);
  if (paths == nullptr) {
    failMessage(VKErrorInvalidRequest, kInvalidRequestFormat);
    return false;
  }
  for (const Message& element : *paths->as<Message::Array>()) {
    if (!visitPath(element, visit)) return false;
  }
  return true;
}

bool Transaction::visitPath(const Message& element, const PathVisit& visit) {
  const std::string* path = element.as<std::string>();
  if (path == nullptr) {
    failMessage(VKErrorInvalidRequest, kInvalidRequestFormat);
    return false;
  }
  if (!path->starts_with('/')) {
    failMessage(VKErrorPath, formatText("absolute path required: %s", *path));
    return false;
  }
  if (auto canonical = server().services().files->canonicalPath(*path)) return visit(*canonical, true);
  return visit(*path, false);
}

bool Transaction::processPaths(const PathVisit& visit) {
  if (!marshalPaths(visit)) return false;
  done();
  return true;
}

bool Transaction::processUuidList(const PlugInVisit& visit) {
  const Message* uuids = zyp_dictionary_get_array(request_, kVKMessageUUIDs);
  if (uuids == nullptr) {
    failMessage(VKErrorInvalidRequest, "invalid request format (uuid)");
    return false;
  }
  for (const Message& element : *uuids->as<Message::Array>()) {
    if (!visitUuid(element, visit)) return false;
  }
  return true;
}

bool Transaction::visitUuid(const Message& element, const PlugInVisit& visit) {
  const UUID* uuid = element.as<UUID>();
  if (uuid == nullptr) {
    failMessage(VKErrorInvalidRequest, "invalid request (bad uuid array)");
    return false;
  }
  std::shared_ptr<VKDPlugIn> plugIn = server().findPlugIn(*uuid);
  if (plugIn == nullptr) {
    failMessage(VKErrorInvalidRequest, kVKNoSuchPlugIn);
    return false;
  }
  return visit(plugIn);
}

void Transaction::done() {
  if (state_ != State::Open) {
    VK_LOG(vk_ops(), Fault, "second reply to a request of client %d suppressed", client_->pid());
    return;
  }
  state_ = State::Sending;
  if (trace::requestOutputEnabled()) trace::requestOutput(client_->pid(), reply_.description().c_str());
  if (auto peer = connection()) peer->send(reply_);
  state_ = State::Sent;
}

void Transaction::failMessage(std::int64_t code, std::optional<std::string_view> message) {
  reply_.set(kVKMessageErrorCode, static_cast<std::uint64_t>(code));
  if (message) reply_.set(kVKMessageError, *message);
  done();
}

void Transaction::failError(std::int64_t defaultCode, const DomainError& error) {
  if (error.isInDomain(VKErrorDomain)) return failMessage(error.code, error.description);
  failMessage(defaultCode, error.localizedDescription());
}

}  // namespace vkd
