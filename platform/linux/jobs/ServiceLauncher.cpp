#include "platform/ServiceLauncher.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "platform/ChildProcess.h"
#include "platform/linux/jobs/ExternalServices.h"
#include "platform/linux/jobs/RunningInstances.h"

namespace platform {
namespace {

// The status of a child that never executed its program; nobody sees it.
constexpr int kNeverExecuted = 126;
// How often the record may be renewed while a launch is under way before that gives up.
constexpr int kMaxAttempts = 4;

std::vector<std::string> environmentWith(const PlistValue& variables) {
  std::map<std::string, std::string, std::less<>> entries;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    std::string_view text = *entry;
    std::size_t equals = text.find('=');
    if (equals != std::string_view::npos) entries.emplace(text.substr(0, equals), text.substr(equals + 1));
  }
  for (auto [name, value] : variables.entries()) {
    // What would not be one variable in an environment is none.
    bool fits = !name.empty() && name.find_first_of(std::string_view("=\0", 2)) == std::string_view::npos &&
                value.isString() && value.stringValue().find('\0') == std::string_view::npos;
    if (fits) entries.insert_or_assign(std::string(name), std::string(value.stringValue()));
  }
  std::vector<std::string> result;
  result.reserve(entries.size());
  for (const auto& [name, value] : entries) result.push_back(std::string(name).append("=").append(value));
  return result;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  result.reserve(texts.size() + 1);
  for (std::string& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

// A child that waits before its first step until it is told to go on.
class HeldChild {
 public:
  // False and errno.
  bool start(const std::string& path, std::vector<std::string> arguments, std::vector<std::string> environment) {
    // All that the child needs is made before: between fork and exec it may do next to nothing.
    std::vector<char*> argv = pointers(arguments);
    std::vector<char*> envp = pointers(environment);
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return false;
    parentEnd_ = UniqueFd(ends[0]);
    UniqueFd childEnd(ends[1]);
    pid_ = ::fork();
    if (pid_ == 0) {
      parentEnd_.reset();
      runChild(childEnd.get(), path.c_str(), argv.data(), envp.data());
    }
    return pid_ > 0;
  }
  pid_t pid() const { return pid_; }

  // Lets it execute the program; 0, or the error number of that.
  int release() {
    constexpr char kGo = 1;
    if (::send(parentEnd_.get(), &kGo, sizeof kGo, MSG_NOSIGNAL) != sizeof kGo) return errno;
    int error = 0;
    ssize_t length = 0;
    do {
      length = ::recv(parentEnd_.get(), &error, sizeof error, MSG_WAITALL);
    } while (length < 0 && errno == EINTR);
    return length == sizeof error ? error : 0;  // the end of the stream: it was closed by the exec
  }

  // For one that was not released, or could not execute the program.
  void giveUp() {
    parentEnd_.reset();
    while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }

 private:
  [[noreturn]] static void runChild(int end, const char* path, char* const* argv, char* const* envp) {
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    char go = 0;
    if (::read(end, &go, 1) == 1) {
      ::execve(path, argv, envp);
      int error = errno;
      [[maybe_unused]] ssize_t written = ::send(end, &error, sizeof error, MSG_NOSIGNAL);
    }
    ::_exit(kNeverExecuted);
  }

  pid_t pid_ = -1;
  UniqueFd parentEnd_;
};

// The record of an instance while it lives.
class InstanceRecord {
 public:
  InstanceRecord(const RunningInstances& instances, RunningInstance instance)
      : instances_(instances), instance_(std::move(instance)) {}
  ~InstanceRecord() { instances_.forget(instance_.process); }
  InstanceRecord(const InstanceRecord&) = delete;
  InstanceRecord& operator=(const InstanceRecord&) = delete;
  int make() const { return instances_.record(instance_); }

 private:
  const RunningInstances& instances_;
  const RunningInstance instance_;
};

class Launch {
 public:
  Launch(std::shared_ptr<const DeviceRoot> root, const std::vector<std::string>& arguments)
      : root_(std::move(root)), services_(root_), instances_(root_), arguments_(arguments) {}

  LaunchResult run(std::string_view executablePath) {
    std::optional<std::string> executable = root_->canonicalPath(executablePath);
    if (!executable) return {errno};
    std::optional<ProcessName> host = ProcessName::of(::getpid());
    for (int i = 0; host && i < kMaxAttempts; ++i) {
      std::optional<ExternalService> service = services_.find(*host, *executable);
      if (!service) break;
      if (std::optional<LaunchResult> result = start(*service)) return *result;
    }
    return {ENOENT};
  }

 private:
  // Nothing when the service was forgotten or renewed meanwhile.
  std::optional<LaunchResult> start(const ExternalService& service) {
    PlistValue description = service.overlay["ZYPService"];
    std::vector<std::string> argv{root_->hostPath() + service.executable};
    argv.insert(argv.end(), arguments_.begin(), arguments_.end());
    HeldChild child;
    if (!child.start(argv[0], argv, environmentWith(description["EnvironmentVariables"]))) return LaunchResult{errno};
    ProcessName process = ProcessName::of(child.pid()).value_or(ProcessName{child.pid()});
    InstanceRecord record(instances_, {process, service.bundleIdentifier, service.bundleVersion, service.executable,
                                       std::string(description["_SandboxProfile"].stringValue()), service.recorded});
    int error = record.make();
    // A removal forgets the service first and ends the instances then: an instance that was recorded while the service
    // was still there is seen by it.
    bool current = error == 0 && isCurrent(service);
    if (current) error = child.release();
    if (current && error == 0) return LaunchResult{0, waitForChild(child.pid())};
    child.giveUp();
    if (error == 0) return std::nullopt;
    return LaunchResult{error};
  }

  bool isCurrent(const ExternalService& service) const {
    std::optional<ExternalService> now = services_.find(service.host, service.executable);
    return now && now->recorded == service.recorded;
  }

  const std::shared_ptr<const DeviceRoot> root_;
  const ExternalServices services_;
  const RunningInstances instances_;
  const std::vector<std::string>& arguments_;
};

}  // namespace

LaunchResult launchExternalService(std::string_view executablePath, const std::vector<std::string>& arguments) {
  return Launch(std::make_shared<const DeviceRoot>(DeviceRoot::fromEnvironment()), arguments).run(executablePath);
}

}  // namespace platform
