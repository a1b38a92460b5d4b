#include "platform/linux/messages/MessageBudget.h"

#include <sys/resource.h>

#include <algorithm>
#include <utility>

namespace platform {
namespace {

// Raises the limit of open descriptors as far as connections can use it and the system allows.
std::size_t availableDescriptors() {
  constexpr rlim_t kWanted = kDescriptorsPerConnection * kMaxConnections + kDescriptorsKeptFree;
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return kDescriptorsKeptFree;
  if (limit.rlim_cur < kWanted) {
    rlimit raised{std::min(kWanted, limit.rlim_max), limit.rlim_max};
    if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) limit = raised;
  }
  return std::min(limit.rlim_cur, kWanted);
}

std::size_t connectionsFor(std::size_t descriptors) {
  std::size_t usable = descriptors > kDescriptorsKeptFree ? descriptors - kDescriptorsKeptFree : 0;
  return std::max<std::size_t>(usable / kDescriptorsPerConnection, 2);
}

}  // namespace

MessageBudget::MessageBudget() : maxConnections_(connectionsFor(availableDescriptors())) {}

std::unique_ptr<MessageBudget::Ticket> MessageBudget::admit(uid_t user, const char** refusal) {
  std::lock_guard lock(mutex_);
  if (connections_ >= maxConnections_) {
    *refusal = "too many connections";
    return nullptr;
  }
  Account& account = accounts_[user];
  if (account.connections >= std::max<std::size_t>(maxConnections_ / 2, 1)) {
    *refusal = "too many connections of this user";
    return nullptr;
  }
  ++connections_;
  ++account.connections;
  return std::make_unique<Ticket>(shared_from_this(), user, &account);
}

void MessageBudget::leave(uid_t user) {
  std::lock_guard lock(mutex_);
  --connections_;
  auto at = accounts_.find(user);
  if (--at->second.connections == 0) accounts_.erase(at);
}

std::size_t MessageBudget::connections() const {
  std::lock_guard lock(mutex_);
  return connections_;
}

MessageBudget::Ticket::Ticket(std::shared_ptr<MessageBudget> budget, uid_t user, Account* account)
    : budget_(std::move(budget)), user_(user), account_(account) {}

MessageBudget::Ticket::~Ticket() {
  release(keptBytes_);
  budget_->leave(user_);
}

bool MessageBudget::Ticket::keep(std::uint64_t bytes) {
  bool fits = account_->keptBytes.fetch_add(bytes) + bytes <= kMaxKeptBytesPerUser;
  fits = budget_->keptBytes_.fetch_add(bytes) + bytes <= kMaxKeptBytes && fits;
  keptBytes_ += bytes;
  if (!fits) release(bytes);
  return fits;
}

void MessageBudget::Ticket::release(std::uint64_t bytes) {
  account_->keptBytes.fetch_sub(bytes);
  budget_->keptBytes_.fetch_sub(bytes);
  keptBytes_ -= bytes;
}

}  // namespace platform
