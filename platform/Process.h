// What a daemon asks for its own process.
#pragma once

namespace platform {

// For a program that lives long and builds the same large things again and again: freed memory stays with the process,
// up to a bound, instead of going back to the system and coming again page by page. Once, in main, before other
// threads.
void keepFreedMemory();

// Where the main thread stays while the queues do the work: waits until the process is ended. Main thread only.
void runMainLoop();

}  // namespace platform
