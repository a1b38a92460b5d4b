// Included by every header of the library, before those of the platform layer: what all of them are written in.
#pragma once

#if __cplusplus < 202002L
#error "Vornik needs C++20 or later: compile with -std=c++20"
#endif
