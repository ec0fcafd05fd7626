#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

/// A simulated LAN (see lan.sh): created by the constructor and removed, with
/// every process started in it, by the destructor. Needs root.
class Lan {
 public:
  struct Result {
    int status = -1;  ///< exit status, or 128 + signal, or -1 when it was killed on timeout
    std::string out;
    std::string err;
  };

  /// Device hosts by host number; the finder is `finderHost`. Host H is
  /// A.B.(C + H / 256).(H % 256) of `net` A.B.C, on the smallest subnet from
  /// /24 to /20 that holds every host (see lan.sh).
  explicit Lan(std::vector<int> deviceHosts, int finderHost = 1, std::string net = "10.0.0");
  ~Lan();
  Lan(const Lan&) = delete;
  Lan& operator=(const Lan&) = delete;

  static bool haveRoot();
  static std::string readText(const std::string& path);
  /// Polls the file until it holds `text`.
  static bool waitForText(const std::string& path, const std::string& text,
                          std::chrono::milliseconds timeout = std::chrono::milliseconds(10000));
  /// Path of a file in the source tree's lab folder.
  static std::string script(const std::string& name);

  bool ok() const { return ok_; }
  /// The LAN's name for lan.sh and guide.sh.
  const std::string& name() const { return name_; }
  /// A path in the LAN's scratch folder, removed at teardown.
  std::string scratchFile(const std::string& name) const { return scratch_ + "/" + name; }
  std::string ip(int host) const;
  /// Namespace name of "finder", "br" or "dHOST".
  std::string ns(const std::string& node) const;
  static std::string device(int host) { return "d" + std::to_string(host); }

  /// Starts argv in the node's namespace in the background; its standard output
  /// and error go to `logPath` when given. Killed (by PID) at teardown.
  pid_t spawn(const std::string& node, const std::vector<std::string>& argv,
              const std::string& logPath = "");
  /// Waits up to `first` for its end, then sends SIGTERM and waits up to `grace`, then SIGKILL;
  /// returns the exit status.
  int stop(pid_t pid, std::chrono::milliseconds grace = std::chrono::milliseconds(3000),
           std::chrono::milliseconds first = std::chrono::milliseconds(0));
  /// Runs argv in the node's namespace to its end (killed after `timeout`).
  Result run(const std::string& node, const std::vector<std::string>& argv,
             std::chrono::milliseconds timeout = std::chrono::milliseconds(60000));
  /// Moves the calling thread (and threads it starts later) into the node's
  /// network namespace; the destructor moves it back.
  bool enter(const std::string& node = "finder");
  /// Waits until a TCP or UDP port is bound in the node (`proto` "tcp" or "udp").
  bool waitForPort(const std::string& node, const std::string& proto, int port,
                   std::chrono::milliseconds timeout = std::chrono::milliseconds(10000));
  /// Starts tcpdump on the node's eth0, writing every packet to `file` at once; waits until it
  /// listens. Stop it with `stop`.
  pid_t startCapture(const std::string& node, const std::string& file);
  /// Starts an avahi-daemon in the node that announces an "_http._tcp" service
  /// on port 80 under `hostName`; waits until it runs.
  pid_t startMdnsResponder(const std::string& node, const std::string& hostName);

 private:
  /// argv run inside the node's network namespace.
  std::vector<std::string> inNode(const std::string& node,
                                  const std::vector<std::string>& argv) const;

  std::string name_;
  std::string net_;
  bool ok_ = false;
  int homeNetns_ = -1;
  std::vector<pid_t> children_;
  std::string scratch_;
};
