// Immutable bytes with shared ownership, and a slice of them. Manifests, forms and messages are handed around as
// slices.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace platform {

// What PlistValue and Slice keep alive: counts its owners, and is deleted by the last one. Safe from any thread.
class Shared {
 public:
  Shared() = default;
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;

  void retain() const noexcept { owners_.fetch_add(1, std::memory_order_relaxed); }
  void release() const noexcept {
    if (owners_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

 protected:
  virtual ~Shared() = default;

 private:
  mutable std::atomic<std::uint32_t> owners_{1};
};

// A buffer that never changes after it was made.
class SharedBytes final : public Shared {
 public:
  // The caller owns the one reference of the result; SharedSlice::take adopts it.
  static SharedBytes* make(std::string bytes) { return new SharedBytes(std::move(bytes)); }
  std::string_view view() const { return bytes_; }

 private:
  explicit SharedBytes(std::string bytes) : bytes_(std::move(bytes)) {}
  std::string bytes_;
};

// A range of bytes together with what keeps it alive.
class SharedSlice {
 public:
  SharedSlice() = default;
  static SharedSlice take(std::string bytes) {
    SharedSlice slice;
    SharedBytes* owner = SharedBytes::make(std::move(bytes));
    slice.owner_ = owner;
    slice.view_ = owner->view();
    return slice;
  }
  // A part of what `owner` keeps alive; null for bytes with static storage.
  SharedSlice(const Shared* owner, std::string_view view) : owner_(owner), view_(view) {
    if (owner_ != nullptr) owner_->retain();
  }
  SharedSlice(const SharedSlice& other) : SharedSlice(other.owner_, other.view_) {}
  SharedSlice(SharedSlice&& other) noexcept
      : owner_(std::exchange(other.owner_, nullptr)), view_(std::exchange(other.view_, {})) {}
  SharedSlice& operator=(SharedSlice other) noexcept {
    std::swap(owner_, other.owner_);
    std::swap(view_, other.view_);
    return *this;
  }
  ~SharedSlice() {
    if (owner_ != nullptr) owner_->release();
  }

  std::string_view view() const { return view_; }
  std::size_t size() const { return view_.size(); }
  const Shared* owner() const { return owner_; }
  SharedSlice part(std::size_t offset, std::size_t length) const {
    return SharedSlice(owner_, view_.substr(offset, length));
  }

 private:
  const Shared* owner_ = nullptr;
  std::string_view view_;
};

}  // namespace platform
