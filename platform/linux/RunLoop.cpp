#include "platform/RunLoop.h"

#include <unistd.h>

namespace platform {

void runMainLoop() {
  for (;;) ::pause();
}

}  // namespace platform
