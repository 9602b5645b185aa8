// Shell commands for tests that set up namespaces, links and routes with
// the system's own tools (ip, sysctl) and read what those tools print.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

namespace TestShell {

// Runs cmd with its output discarded; true when it exits 0.
inline bool run(std::string const& cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0; }

// Runs cmd and returns what it writes to standard output.
inline std::string shell(std::string const& cmd) {
  std::string out;
  if (FILE* f = ::popen(cmd.c_str(), "r")) {
    char buf[4096];
    for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) out.append(buf, n);
    ::pclose(f);
  }
  return out;
}

}  // namespace TestShell
