#include "platform/Trace.h"

// A probe is one no-op in the code, and a note that tells a tracer where it stands, where its arguments are then, and
// where the counter is that a tracer raises while it listens. Layout of a note (section .note.stapsdt, type 3):
//
//   u32 name length | u32 content length | u32 3 | "stapsdt\0"
//   u64 address of the no-op | u64 base | u64 address of the counter
//   "vkd\0" | probe name "\0" | arguments "\0" ("-4@%edi 8@%rsi": size, negative when signed, and operand)
//
// The base is the link-time address of a section of one byte: with it tracers find how far prelinking moved the rest.
#define VK_PROBE_NOTE(counter, name, arguments)                           \
  "990: nop\n"                                                            \
  ".pushsection .note.stapsdt,\"\",\"note\"\n"                            \
  ".balign 4\n"                                                           \
  ".4byte 992f-991f, 994f-993f, 3\n"                                      \
  "991: .asciz \"stapsdt\"\n"                                             \
  "992: .balign 4\n"                                                      \
  "993: .8byte 990b\n"                                                    \
  ".8byte _.stapsdt.base\n"                                               \
  ".8byte " counter                                                       \
  "\n"                                                                    \
  ".asciz \"vkd\"\n"                                                      \
  ".asciz \"" name                                                        \
  "\"\n"                                                                  \
  ".asciz \"" arguments                                                   \
  "\"\n"                                                                  \
  "994: .balign 4\n"                                                      \
  ".popsection\n"                                                         \
  ".ifndef _.stapsdt.base\n"                                              \
  ".pushsection .stapsdt.base,\"aG\",\"progbits\",.stapsdt.base,comdat\n" \
  ".weak _.stapsdt.base\n"                                                \
  ".hidden _.stapsdt.base\n"                                              \
  "_.stapsdt.base: .space 1\n"                                            \
  ".size _.stapsdt.base, 1\n"                                             \
  ".popsection\n"                                                         \
  ".endif\n"

// The counters keep their plain names, which the notes refer to, and stay although no code refers to most of them.
#define VK_PROBE_COUNTER [[gnu::section(".probes"), gnu::used, gnu::visibility("hidden")]] volatile unsigned short

extern "C" {
VK_PROBE_COUNTER vkd_client_new_semaphore = 0;
VK_PROBE_COUNTER vkd_client_done_semaphore = 0;
VK_PROBE_COUNTER vkd_request_semaphore = 0;
VK_PROBE_COUNTER vkd_request_input_semaphore = 0;
VK_PROBE_COUNTER vkd_request_output_semaphore = 0;
VK_PROBE_COUNTER vkd_plugin_add_semaphore = 0;
VK_PROBE_COUNTER vkd_plugin_remove_semaphore = 0;
VK_PROBE_COUNTER vkd_plugin_ready_semaphore = 0;
VK_PROBE_COUNTER vkd_discover_raw_semaphore = 0;
VK_PROBE_COUNTER vkd_db_load_semaphore = 0;
}

namespace platform::trace {

void clientNew(int pid) {
  __asm__ volatile(VK_PROBE_NOTE("vkd_client_new_semaphore", "client-new", "-4@%[pid]")::[pid] "nor"(pid));
}

void clientDone(int pid) {
  __asm__ volatile(VK_PROBE_NOTE("vkd_client_done_semaphore", "client-done", "-4@%[pid]")::[pid] "nor"(pid));
}

void request(int pid, const char* type) {
  __asm__ volatile(
      VK_PROBE_NOTE("vkd_request_semaphore", "request", "-4@%[pid] 8@%[type]")::[pid] "nor"(pid), [type] "nor"(type));
}

bool requestInputEnabled() { return vkd_request_input_semaphore != 0; }

void requestInput(int pid, const char* description) {
  __asm__ volatile(
      VK_PROBE_NOTE("vkd_request_input_semaphore", "request-input", "-4@%[pid] 8@%[text]")::[pid] "nor"(pid),
      [text] "nor"(description));
}

bool requestOutputEnabled() { return vkd_request_output_semaphore != 0; }

void requestOutput(int pid, const char* description) {
  __asm__ volatile(
      VK_PROBE_NOTE("vkd_request_output_semaphore", "request-output", "-4@%[pid] 8@%[text]")::[pid] "nor"(pid),
      [text] "nor"(description));
}

void pluginAdd(const char* path) {
  __asm__ volatile(VK_PROBE_NOTE("vkd_plugin_add_semaphore", "plugin-add", "8@%[path]")::[path] "nor"(path));
}

void pluginRemove(const char* path, bool resolved) {
  __asm__ volatile(
      VK_PROBE_NOTE("vkd_plugin_remove_semaphore", "plugin-remove", "8@%[path] 1@%[resolved]")::[path] "nor"(path),
      [resolved] "nor"(resolved));
}

bool pluginReadyEnabled() { return vkd_plugin_ready_semaphore != 0; }

void pluginReady(const char* uuid) {
  __asm__ volatile(VK_PROBE_NOTE("vkd_plugin_ready_semaphore", "plugin-ready", "8@%[uuid]")::[uuid] "nor"(uuid));
}

void discoverRaw(unsigned count) {
  __asm__ volatile(VK_PROBE_NOTE("vkd_discover_raw_semaphore", "discover-raw", "4@%[count]")::[count] "nor"(count));
}

bool dbLoadEnabled() { return vkd_db_load_semaphore != 0; }

void dbLoad(const char* domain, std::uint64_t code) {
  __asm__ volatile(
      VK_PROBE_NOTE("vkd_db_load_semaphore", "db-load", "8@%[domain] 8@%[code]")::[domain] "nor"(domain), [code] "nor"(
                                                                                                              code));
}

}  // namespace platform::trace
