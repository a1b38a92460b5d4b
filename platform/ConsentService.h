// The privacy-consent service Zelv: what the user granted to an application.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ServiceBundle.h"

namespace platform {

inline constexpr std::string_view kZelvServiceKeyboardNetwork = "ZelvServiceKeyboardNetwork";

class ConsentService {
 public:
  struct Record {
    std::optional<bool> granted;
    std::string service;
  };
  virtual ~ConsentService() = default;
  // Nothing when the service cannot answer.
  virtual std::optional<std::vector<Record>> informationForBundle(const CoreBundle& bundle) = 0;
};

}  // namespace platform
