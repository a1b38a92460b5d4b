// The log categories of subsystem "com.vantrel.Vornik". Each is made once, on first use; one that cannot be made is the
// platform's default log. From any thread.
#pragma once

#include "Vornik/VKStandard.h"
#include "platform/Log.h"

namespace Vornik {

using namespace platform;

const Logger& vk_ops();        // "ops": everything not listed below
const Logger& vk_traffic();    // "traffic": requests and replies of the client library
const Logger& vk_extension();  // "extension": matching rules and activation rules
const Logger& vk_al();         // "al": application-registry queries, raw service descriptions

}  // namespace Vornik
