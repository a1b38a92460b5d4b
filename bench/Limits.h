// What each road is measured against: the least that the machine needs for the same bytes.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace bench {

// A child process that answers each request of `requestSize` bytes with `replySize` bytes, on one socket a client.
class EchoServer {
 public:
  enum class Kind {
    ThreadPerSocket,  // bare ping-pong: a thread blocks on each socket
    EpollInline,      // one thread waits for all sockets and answers what it reads
  };
  EchoServer(Kind kind, std::size_t clients, std::size_t requestSize, std::size_t replySize, int cpu = -1);
  ~EchoServer();
  EchoServer(const EchoServer&) = delete;
  EchoServer& operator=(const EchoServer&) = delete;

  int socket(std::size_t client) const { return sockets_[client]; }
  // One round trip of a client.
  void roundTrip(std::size_t client);

 private:
  std::vector<int> sockets_;
  std::string request_;
  std::size_t replySize_;
  pid_t pid_ = 0;
};

// A tuned in-process table of `count` blobs of `size` bytes, 100 of which are found by a key.
class BlobTable {
 public:
  BlobTable(std::size_t count, std::size_t size);
  ~BlobTable();
  BlobTable(const BlobTable&) = delete;
  BlobTable& operator=(const BlobTable&) = delete;
  // Copies the blobs found; answers their bytes.
  std::size_t findFew();

 private:
  void* database_ = nullptr;
  void* statement_ = nullptr;
  std::string copy_;
};

// Writes ready bytes aside, flushes them, moves them over `path` and flushes the directory.
void replaceFile(const std::string& path, const std::string& bytes);

// Reads whole files and answers their bytes.
std::size_t readFiles(const std::vector<std::string>& paths);

}  // namespace bench
