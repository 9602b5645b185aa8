#include "ShowClient.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <iostream>

#include "Agent.h"
#include "Show.h"

namespace MrouteAgent {

int showMain(std::string const& name, bool json) {
  std::string path;
  try {
    path = showSocketPath(name);
  } catch (std::exception const& e) {
    std::cerr << "mroute-agent: " << e.what() << "\n";
    return 1;
  }
  sockaddr_un addr{};
  if (path.size() >= sizeof addr.sun_path) {
    std::cerr << "mroute-agent: socket path too long: " << path << "\n";
    return 1;
  }
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    std::cerr << "mroute-agent: no agent '" << name << "' answers at " << path << ": " << std::strerror(errno) << "\n";
    if (fd >= 0) ::close(fd);
    return 1;
  }
  std::string const request = json ? "show json\n" : "show text\n";
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
