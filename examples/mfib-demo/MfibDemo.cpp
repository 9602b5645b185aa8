// mfib-demo: two applications publish overlapping multicast routes into
// shared-memory MFIB tables; an agent picks the best route per (S, G) and
// checks its answer. The top-level README describes the run.
//
//   mfib-demo run [--keep]        everything, under a private table root
//   mfib-demo publish APP         one publisher (fds 3 and 4, see Demo.h)
//   mfib-demo agent APP...        the agent (fds 3, 4, 5, 6, ...)
#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "Demo.h"
#include "MrouteVersion.h"

namespace {

using namespace MfibDemo;

char const* const kUsage =
    "usage: mfib-demo run [--keep]\n"
    "       mfib-demo publish APP       (reports on fd 3, takes rounds from fd 4)\n"
    "       mfib-demo agent APP...      (APP i: reports on fd 3+2i, rounds to fd 4+2i)\n"
    "APP is pim, static or igmp. run puts the tables under $VORN_ROOT when it is set,\n"
    "else under a private directory in /dev/shm that it removes at the end unless\n"
    "--keep is given; tables it leaves can be read with vornctl --root DIR.\n"
    "       mfib-demo --version\n";

// Long enough for a slow machine, short enough that a stuck run ends.
constexpr unsigned kRunTimeoutSeconds = 60;

volatile sig_atomic_t stopSignal = 0;

void onSignal(int sig) { stopSignal = sig; }

int removeEntry(char const* path, struct stat const*, int, struct FTW*) { return ::remove(path); }

void removeTree(std::string const& dir) { ::nftw(dir.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS); }

// A pipe whose ends sit above the descriptors that children are given, so
// that placing them (dup2 to 3, 4, ...) never overwrites one not yet placed.
bool highPipe(int fds[2]) {
  int raw[2];
  if (::pipe2(raw, O_CLOEXEC) != 0) return false;
  for (int i = 0; i < 2; ++i) {
    fds[i] = ::fcntl(raw[i], F_DUPFD_CLOEXEC, 32);
    ::close(raw[i]);
    if (fds[i] < 0) return false;
  }
  return true;
}

// Starts this program again with `args`, with fds[i] as descriptor 3 + i.
pid_t spawn(std::vector<std::string> const& args, std::vector<int> const& fds) {
  pid_t const parent = ::getpid();
  pid_t const pid = ::fork();
  if (pid != 0) return pid;
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (::getppid() != parent) ::_exit(1);
  for (std::size_t i = 0; i < fds.size(); ++i)
    if (::dup2(fds[i], 3 + static_cast<int>(i)) < 0) ::_exit(127);
  std::vector<char*> argv;
  for (std::string const& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  // The program's own path rather than /proc/self/exe, so the children keep
  // its name (ps, trace files).
  char self[4096];
  ssize_t const n = ::readlink("/proc/self/exe", self, sizeof self - 1);
  if (n > 0) {
    self[n] = '\0';
    ::execv(self, argv.data());
  }
  ::execv("/proc/self/exe", argv.data());
  std::fprintf(stderr, "mfib-demo: exec: %s\n", std::strerror(errno));
  ::_exit(127);
}

// The table root: $VORN_ROOT when set (the caller's: never removed), else a
// private directory removed at the end unless `keep`.
struct TableRoot {
  std::string path;
  bool remove = false;
};

bool makeTableRoot(bool keep, TableRoot& out) {
  char const* env = std::getenv("VORN_ROOT");
  if (env != nullptr && *env != '\0') {
    out.path = env;
    ::setenv(kKeepTablesEnv, "1", 1);
    if (::mkdir(env, 0700) != 0 && errno != EEXIST) {
      std::cerr << "mfib-demo: cannot make the table root " << out.path << ": " << std::strerror(errno) << "\n";
      return false;
    }
    return true;
  }
  char rootTemplate[] = "/dev/shm/mfib-demo.XXXXXX";
  if (::mkdtemp(rootTemplate) == nullptr) {
    std::cerr << "mfib-demo: cannot make a table root under /dev/shm: " << std::strerror(errno) << "\n";
    return false;
  }
  out.path = rootTemplate;
  out.remove = !keep;
  ::setenv("VORN_ROOT", out.path.c_str(), 1);
  if (keep) ::setenv(kKeepTablesEnv, "1", 1);
  return true;
}

int runMain(bool keep) {
  TableRoot tableRoot;
  if (!makeTableRoot(keep, tableRoot)) return 1;
  std::string const& root = tableRoot.path;
  // The processes' ring-buffer traces go with the tables, unless the caller
  // chose where they go.
  ::setenv("BRISKLOG_DIR", root.c_str(), 0);

  struct sigaction sa = {};
  sa.sa_handler = onSignal;  // no SA_RESTART: waitpid returns to look at it
  for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGALRM}) ::sigaction(sig, &sa, nullptr);

  std::cout << "mfib-demo: tables under " << root << std::endl;

  // Per publisher: reports (publisher -> agent) and rounds (agent -> publisher).
  std::vector<int> agentFds, toClose;
  std::map<pid_t, std::string> children;
  bool started = true;
  for (App const& app : apps) {
    int report[2], go[2];
    if (!highPipe(report) || !highPipe(go)) {
      std::cerr << "mfib-demo: pipe: " << std::strerror(errno) << "\n";
      started = false;
      break;
    }
    toClose.insert(toClose.end(), {report[0], report[1], go[0], go[1]});
    pid_t const pid = spawn({"mfib-demo", "publish", app.name}, {report[1], go[0]});
    if (pid < 0) {
      started = false;
      break;
    }
    children[pid] = std::string("publisher ") + app.name;
    agentFds.insert(agentFds.end(), {report[0], go[1]});
  }
  if (started) {
    std::vector<std::string> args = {"mfib-demo", "agent"};
    for (App const& app : apps) args.push_back(app.name);
    pid_t const pid = spawn(args, agentFds);
    if (pid > 0)
      children[pid] = "agent";
    else
      started = false;
  }
  for (int fd : toClose) ::close(fd);

  ::alarm(kRunTimeoutSeconds);
  bool failed = !started;
  bool stopping = false;
  while (!children.empty()) {
    int status = 0;
    pid_t const pid = ::waitpid(-1, &status, 0);
    if (pid < 0) {
      if (errno != EINTR) break;
      if (stopSignal != 0 && !stopping) {
        stopping = failed = true;
        std::cerr << "mfib-demo: " << (stopSignal == SIGALRM ? "timed out" : "interrupted") << "; stopping\n";
        for (auto const& [child, name] : children) ::kill(child, SIGTERM);
      }
      continue;
    }
    auto it = children.find(pid);
    if (it == children.end()) continue;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      failed = true;
      std::cerr << "mfib-demo: " << it->second << " failed ("
                << (WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status))
                                      : "signal " + std::to_string(WTERMSIG(status)))
                << ")\n";
      // Without the agent nobody ends the publishers' rounds.
      if (it->second == "agent")
        for (auto const& [child, name] : children) ::kill(child, SIGTERM);
    }
    children.erase(it);
  }
  ::alarm(0);
  std::cout << "mfib-demo: " << (failed ? "FAILED" : "ok");
  if (tableRoot.remove) {
    removeTree(root);
    std::cout << "; removed " << root << std::endl;
  } else {
    std::cout << "; tables kept under " << root << " (vornctl --root " << root << " list)" << std::endl;
  }
  return failed ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> const args(argv + 1, argv + argc);
  try {
    if (args.size() == 1 && args[0] == "--version") {
      std::cout << "mfib-demo (libmroute) " << MROUTE_VERSION << "\n";
      return 0;
    }
    if (!args.empty() && args[0] == "run" && args.size() <= 2) {
      if (args.size() == 2 && args[1] != "--keep") {
        std::cerr << "mfib-demo run: unknown option " << args[1] << "\n" << kUsage;
        return 2;
      }
      return runMain(args.size() == 2);
    }
    if (args.size() == 2 && args[0] == "publish") {
      App const* app = appNamed(args[1]);
      if (app == nullptr) {
        std::cerr << "mfib-demo publish: unknown application " << args[1] << "\n" << kUsage;
        return 2;
      }
      return publishMain(*app, 3, 4);
    }
    if (args.size() >= 2 && args[0] == "agent") {
      ::signal(SIGPIPE, SIG_IGN);  // a publisher gone is seen on its report pipe
      std::vector<AgentPublisher> publishers;
      for (std::size_t i = 1; i < args.size(); ++i) {
        App const* app = appNamed(args[i]);
        if (app == nullptr) {
          std::cerr << "mfib-demo agent: unknown application " << args[i] << "\n" << kUsage;
          return 2;
        }
        int const base = 3 + 2 * static_cast<int>(i - 1);
        publishers.push_back({app, base, base + 1});
      }
      return agentMain(publishers);
    }
  } catch (std::exception const& e) {
    std::cerr << "mfib-demo " << (args.empty() ? "" : args[0]) << ": " << e.what() << "\n";
    return 1;
  }
  std::cerr << kUsage;
  return 2;
}
