// Where the main thread of a daemon stays while its queues do the work.
#pragma once

namespace platform {

// Waits until the process is ended. Main thread only.
void runMainLoop();

}  // namespace platform
