// A short-lived program that writes a trace, for the retention tests:
//
//   brisklog-helper [--name NAME] exit|hold|kill
//
// Writes one record, prints its trace file's path, then exits normally
// (exit), waits for its standard input to close and exits 3 if its own file
// was removed meanwhile (hold), or dies by SIGKILL (kill).
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "Brisklog/Brisklog.h"

int main(int argc, char** argv) {
  int i = 1;
  if (argc > 2 && std::string(argv[1]) == "--name") {
    prctl(PR_SET_NAME, argv[2]);
    i = 3;
  }
  std::string const mode = i < argc ? argv[i] : "exit";
  BRISKLOG("Helper", "started to %s", mode);
  std::string const path = Brisklog::path();
  std::printf("%s\n", path.c_str());
  std::fflush(stdout);
  if (mode == "kill") raise(SIGKILL);
  if (mode == "hold") {
    char c;
    while (read(0, &c, 1) > 0) {
    }
    BRISKLOG("Helper", "still here");
    if (access(path.c_str(), F_OK) != 0) return 3;
  }
  return 0;
}
