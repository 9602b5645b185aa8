#include "ShowClient.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <iostream>

#include "Agent.h"
#include "Kiv/ServerSocket.h"
#include "Show.h"

namespace MrouteAgent {

int showMain(std::string const& name, bool interfaces, bool json, std::vector<std::string> const& filterWords) {
  // Checked here first, for a message before any connection; the agent
  // checks the request again.
  ShowRequest req{interfaces, json, {}};
  if (std::string const why = showFilterParse(filterWords, interfaces, req.filter); !why.empty()) {
    std::cerr << "mroute-agent: " << why << "\nTry 'mroute-agent --help'.\n";
    return 2;
  }
  std::string path;
  try {
    path = showSocketPath(name);
  } catch (std::exception const& e) {
    std::cerr << "mroute-agent: " << e.what() << "\n";
    return 1;
  }
  Kiv::FileDesc conn;
  try {
    conn = Kiv::connectTrusted(path, "show socket");
  } catch (Kiv::ErrnoException const& e) {
    std::cerr << "mroute-agent: no agent '" << name << "' answers at " << path << ": " << std::strerror(e.error())
              << "\n";
    return 1;
  } catch (std::exception const& e) {
    std::cerr << "mroute-agent: " << e.what() << "\n";
    return 1;
  }
  int const fd = conn.release();
  std::string const request = showRequestLine(req) + "\n";
  if (::write(fd, request.data(), request.size()) != ssize_t(request.size())) {
    std::cerr << "mroute-agent: cannot ask the agent: " << std::strerror(errno) << "\n";
    ::close(fd);
    return 1;
  }
  int const rc = showAnswer(fd, std::cout, std::cerr);
  ::close(fd);
  std::cout.flush();
  return rc;
}

}  // namespace MrouteAgent
