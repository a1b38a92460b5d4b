// The one hook of all fakes.
#pragma once

#include <functional>
#include <memory>
#include <string_view>
#include <utility>

namespace vkd::testing {

// What happens whenever a service is asked, between its looking and its answer: nothing, unless a test lets it stall or
// fail, or lets somebody else go first. Null for a fake on its own.
using Hook = std::function<void(std::string_view service)>;

struct Asked {
  std::shared_ptr<const Hook> hook;
  std::string_view service;

  void operator()() const {
    if (hook != nullptr && *hook) (*hook)(service);
  }
  template <class Answer>
  Answer then(Answer answer) const {
    (*this)();
    return answer;
  }
};

}  // namespace vkd::testing
