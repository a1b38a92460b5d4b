// How the process's heap deals with memory that was freed.
#pragma once

namespace platform {

// For a program that lives long and builds the same large things again and again: freed memory stays with the process,
// up to a bound, instead of going back to the system and coming again page by page. Once, in main, before other
// threads.
void keepFreedMemory();

}  // namespace platform
