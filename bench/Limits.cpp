#include "bench/Limits.h"

#include <fcntl.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <thread>

#include "bench/DaemonProcess.h"
#include "bench/WireClient.h"

namespace bench {

namespace {

// In the page cache during the measurement, wherever it lies.
constexpr const char* kBlobFile = "vkd-bench-blobs.sqlite";

// Reads exactly `size` bytes; false at the end of the stream.
bool readRequest(int fd, std::string& buffer) {
  return ::recv(fd, buffer.data(), buffer.size(), MSG_WAITALL) == static_cast<ssize_t>(buffer.size());
}

void serveBlocking(int fd, std::size_t requestSize, const std::string& reply) {
  std::string request(requestSize, '\0');
  while (readRequest(fd, request)) writeAll(fd, reply.data(), reply.size());
}

void serveEpoll(const std::vector<int>& sockets, std::size_t requestSize, const std::string& reply) {
  int epoll = ::epoll_create1(0);
  for (int fd : sockets) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
  }
  std::string request(requestSize, '\0');
  epoll_event events[64];
  for (;;) {
    int ready = ::epoll_wait(epoll, events, 64, -1);
    for (int i = 0; i < ready; ++i) {
      if (!readRequest(events[i].data.fd, request)) ::_exit(0);
      writeAll(events[i].data.fd, reply.data(), reply.size());
    }
  }
}

}  // namespace

EchoServer::EchoServer(Kind kind, std::size_t clients, std::size_t requestSize, std::size_t replySize, int cpu)
    : request_(requestSize, 'q'), replySize_(replySize) {
  std::vector<int> theirs;
  for (std::size_t i = 0; i < clients; ++i) {
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) std::abort();
    sockets_.push_back(pair[0]);
    theirs.push_back(pair[1]);
  }
  pid_ = ::fork();
  if (pid_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (int fd : sockets_) ::close(fd);
    if (cpu >= 0) pinSelf(cpu);
    std::string reply(replySize, 'r');
    if (kind == Kind::EpollInline) serveEpoll(theirs, requestSize, reply);
    std::vector<std::thread> threads;
    threads.reserve(theirs.size());
    for (int fd : theirs) threads.emplace_back([&, fd] { serveBlocking(fd, requestSize, reply); });
    for (std::thread& thread : threads) thread.join();
    ::_exit(0);
  }
  for (int fd : theirs) ::close(fd);
}

EchoServer::~EchoServer() {
  for (int fd : sockets_) ::close(fd);
  stop(pid_);
}

void EchoServer::roundTrip(std::size_t client) {
  thread_local std::string reply;
  reply.resize(replySize_);
  writeAll(sockets_[client], request_.data(), request_.size());
  readAll(sockets_[client], reply.data(), reply.size());
}

BlobTable::BlobTable(std::size_t count, std::size_t size) {
  sqlite3* database = nullptr;
  std::remove(kBlobFile);
  sqlite3_open(kBlobFile, &database);
  sqlite3_exec(database,
               "pragma journal_mode=off; pragma synchronous=off; pragma cache_size=-200000; pragma mmap_size=268435456;"
               "create table plugin(id integer primary key, point text, form blob); begin",
               nullptr, nullptr, nullptr);
  sqlite3_stmt* insert = nullptr;
  sqlite3_prepare_v2(database, "insert into plugin(point, form) values(?, ?)", -1, &insert, nullptr);
  std::string blob(size, 'f');
  for (std::size_t i = 0; i < count; ++i) {
    sqlite3_bind_text(insert, 1, i % (count / 100) == 0 ? "few" : "many", -1, SQLITE_STATIC);
    sqlite3_bind_blob(insert, 2, blob.data(), static_cast<int>(blob.size()), SQLITE_STATIC);
    sqlite3_step(insert);
    sqlite3_reset(insert);
  }
  sqlite3_finalize(insert);
  sqlite3_exec(database, "commit; create index by_point on plugin(point)", nullptr, nullptr, nullptr);
  sqlite3_stmt* select = nullptr;
  sqlite3_prepare_v2(database, "select form from plugin where point = ?", -1, &select, nullptr);
  sqlite3_bind_text(select, 1, "few", -1, SQLITE_STATIC);
  database_ = database;
  statement_ = select;
}

BlobTable::~BlobTable() {
  sqlite3_finalize(static_cast<sqlite3_stmt*>(statement_));
  sqlite3_close(static_cast<sqlite3*>(database_));
  std::remove(kBlobFile);
}

std::size_t BlobTable::findFew() {
  auto* select = static_cast<sqlite3_stmt*>(statement_);
  copy_.clear();
  while (sqlite3_step(select) == SQLITE_ROW) {
    copy_.append(static_cast<const char*>(sqlite3_column_blob(select, 0)),
                 static_cast<std::size_t>(sqlite3_column_bytes(select, 0)));
  }
  sqlite3_reset(select);
  return copy_.size();
}

void replaceFile(const std::string& path, const std::string& bytes) {
  std::string aside = path + ".new";
  int fd = ::open(aside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0 || ::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) std::abort();
  ::fsync(fd);
  ::close(fd);
  if (std::rename(aside.c_str(), path.c_str()) != 0) std::abort();
  int directory = ::open(path.substr(0, path.rfind('/')).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ::fsync(directory);
  ::close(directory);
}

std::size_t readFiles(const std::vector<std::string>& paths) {
  static char buffer[1 << 16];
  std::size_t total = 0;
  for (const std::string& path : paths) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    for (ssize_t size; (size = ::read(fd, buffer, sizeof buffer)) > 0;) total += static_cast<std::size_t>(size);
    ::close(fd);
  }
  return total;
}

}  // namespace bench
