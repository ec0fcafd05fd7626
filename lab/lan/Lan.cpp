#include "Lan.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

namespace {

// Starts argv (no shell) with standard input from /dev/null and standard output
// and error written to the given files (one file may take both), or inherited
// when empty. The child leads a process group of its own, so signals meant for
// the test's group do not reach it. Returns -1 when it cannot be started.
pid_t startProcess(const std::vector<std::string>& argv, const std::string& outPath,
                   const std::string& errPath) {
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const int mode = O_WRONLY | O_CREAT | O_TRUNC;
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
  if (!outPath.empty()) posix_spawn_file_actions_addopen(&files, 1, outPath.c_str(), mode, 0644);
  if (!errPath.empty() && errPath == outPath)
    posix_spawn_file_actions_adddup2(&files, 1, 2);
  else if (!errPath.empty())
    posix_spawn_file_actions_addopen(&files, 2, errPath.c_str(), mode, 0644);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attr, 0);
  pid_t pid = -1;
  if (posix_spawnp(&pid, args[0], &files, &attr, args.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&files);
  posix_spawnattr_destroy(&attr);
  return pid;
}

int decodeStatus(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

int waitFor(pid_t pid, std::chrono::milliseconds timeout) {
  auto end = std::chrono::steady_clock::now() + timeout;
  int status = 0;
  if (pid <= 0) return -1;
  while (true) {
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) return decodeStatus(status);
    if (r < 0) return -1;
    if (std::chrono::steady_clock::now() >= end) return -2;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

int shell(const std::vector<std::string>& argv) {
  return waitFor(startProcess(argv, "", ""), std::chrono::minutes(5));
}

/// The standard output of argv, without its last newline; `path` holds it meanwhile.
std::string output(const std::vector<std::string>& argv, const std::string& path) {
  waitFor(startProcess(argv, path, ""), std::chrono::minutes(1));
  std::string text = Lan::readText(path);
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

}  // namespace

bool Lan::haveRoot() { return geteuid() == 0; }

std::string Lan::readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

bool Lan::waitForText(const std::string& path, const std::string& text,
                      std::chrono::milliseconds timeout) {
  auto end = std::chrono::steady_clock::now() + timeout;
  while (readText(path).find(text) == std::string::npos) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

std::string Lan::script(const std::string& name) {
  return std::string(VARNOCK_LAN_DIR) + "/" + name;
}

Lan::Lan(std::vector<int> deviceHosts, int finderHost, std::string net) : net_(std::move(net)) {
  static std::atomic<int> counter{0};
  name_ = "vk" + std::to_string(getpid() % 100000) + "x" + std::to_string(counter++);
  char dir[] = "/tmp/varnock-lan.XXXXXX";
  if (mkdtemp(dir)) scratch_ = dir;
  if (!haveRoot()) return;
  std::vector<std::string> argv{script("lan/lan.sh"),      "up", name_, "--net", net_, "--finder",
                                std::to_string(finderHost)};
  for (int h : deviceHosts) argv.push_back(std::to_string(h));
  ok_ = shell(argv) == 0;
}

Lan::~Lan() {
  if (homeNetns_ >= 0) {
    setns(homeNetns_, CLONE_NEWNET);
    close(homeNetns_);
  }
  for (pid_t pid : children_) stop(pid, std::chrono::milliseconds(2000));
  if (haveRoot()) shell({script("lan/lan.sh"), "down", name_});
  if (!scratch_.empty()) shell({"rm", "-rf", scratch_});
}

std::string Lan::ip(int host) const {
  auto dot = net_.rfind('.');
  return net_.substr(0, dot + 1) + std::to_string(std::stoi(net_.substr(dot + 1)) + host / 256) +
         "." + std::to_string(host % 256);
}

std::string Lan::ns(const std::string& node) const {
  static std::atomic<int> counter{0};
  return output({script("lan/lan.sh"), "ns", name_, node},
                scratch_ + "/ns" + std::to_string(counter++) + ".out");
}

std::vector<std::string> Lan::inNode(const std::string& node,
                                     const std::vector<std::string>& argv) const {
  std::vector<std::string> full{script("lan/lan.sh"), "exec", name_, node, "--"};
  full.insert(full.end(), argv.begin(), argv.end());
  return full;
}

pid_t Lan::spawn(const std::string& node, const std::vector<std::string>& argv,
                 const std::string& logPath) {
  pid_t pid = startProcess(inNode(node, argv), logPath, logPath);
  if (pid > 0) children_.push_back(pid);
  return pid;
}

int Lan::stop(pid_t pid, std::chrono::milliseconds grace, std::chrono::milliseconds first) {
  int status = waitFor(pid, first);
  if (status == -2) {
    kill(pid, SIGTERM);
    status = waitFor(pid, grace);
    if (status == -2) {
      kill(pid, SIGKILL);
      status = waitFor(pid, std::chrono::seconds(5));
    }
  }
  return status;
}

Lan::Result Lan::run(const std::string& node, const std::vector<std::string>& argv,
                     std::chrono::milliseconds timeout) {
  static std::atomic<int> counter{0};
  int n = counter++;
  std::string out = scratch_ + "/run" + std::to_string(n) + ".out";
  std::string err = scratch_ + "/run" + std::to_string(n) + ".err";
  Result r;
  pid_t pid = startProcess(inNode(node, argv), out, err);
  r.status = waitFor(pid, timeout);
  if (r.status == -2) {
    kill(pid, SIGKILL);
    waitFor(pid, std::chrono::seconds(5));
    r.status = -1;
  }
  r.out = Lan::readText(out);
  r.err = Lan::readText(err);
  return r;
}

bool Lan::enter(const std::string& node) {
  if (!ok_) return false;
  if (homeNetns_ < 0) homeNetns_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  int fd = open(("/run/netns/" + ns(node)).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool entered = setns(fd, CLONE_NEWNET) == 0;
  close(fd);
  return entered;
}

bool Lan::waitForPort(const std::string& node, const std::string& proto, int port,
                      std::chrono::milliseconds timeout) {
  auto seconds = std::chrono::ceil<std::chrono::seconds>(timeout).count();
  return shell({"env", "VARNOCK_WAIT=" + std::to_string(seconds), script("lan/lib.sh"), "wait_port",
                name_, node, proto, std::to_string(port)}) == 0;
}

pid_t Lan::startCapture(const std::string& node, const std::string& file) {
  const std::string log = file + ".log";
  pid_t pid = spawn(node, {"tcpdump", "-i", "eth0", "-U", "-n", "-w", file}, log);
  return pid > 0 && waitForText(log, "listening on") ? pid : -1;
}

pid_t Lan::startMdnsResponder(const std::string& node, const std::string& hostName) {
  std::string log = scratch_ + "/avahi-" + hostName + ".log";
  std::vector<std::string> argv{script("hosts/mdns-responder.sh"), name_, node, hostName};
  pid_t pid = startProcess(argv, log, log);
  if (pid <= 0) return pid;
  children_.push_back(pid);
  return waitForText(log, "ready\n") ? pid : -1;
}
