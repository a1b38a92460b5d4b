// Static trace probes of provider `vkd`. Each is a single no-op while nobody traces; a probe whose argument must be
// built has an enabled() test.
#pragma once

#include <cstdint>

namespace platform::trace {

void clientNew(int pid);
void clientDone(int pid);
void request(int pid, const char* type);  // type may be null
bool requestInputEnabled();
void requestInput(int pid, const char* description);
bool requestOutputEnabled();
void requestOutput(int pid, const char* description);
void pluginAdd(const char* path);
void pluginRemove(const char* path, bool resolved);
bool pluginReadyEnabled();
void pluginReady(const char* uuid);
void discoverRaw(unsigned count);
bool dbLoadEnabled();
void dbLoad(const char* domain, std::uint64_t code);

}  // namespace platform::trace
