#include "ShowClient.h"

#include <iostream>

#include "Agent.h"
#include "Kiv/RequestServer.h"

namespace MrouteAgent {

int showMain(std::string const& name, bool json) {
  std::string path;
  try {
    path = showSocketPath(name);
  } catch (std::exception const& e) {
    std::cerr << "mroute-agent: " << e.what() << "\n";
    return 1;
  }
  Kiv::RequestReply const reply = Kiv::requestAsk(path, "show socket", json ? "show json" : "show text", "the agent");
  switch (reply.status) {
    case Kiv::RequestReply::ok:
      std::cout << reply.text;
      std::cout.flush();
      return 0;
    case Kiv::RequestReply::absent:
      std::cerr << "mroute-agent: no agent '" << name << "' answers at " << path << ": " << reply.text << "\n";
      return 1;
    case Kiv::RequestReply::refused:
      std::cerr << "mroute-agent: the agent answered: " << reply.text << "\n";
      return 1;
    case Kiv::RequestReply::failed:
      break;
  }
  std::cerr << "mroute-agent: " << reply.text << "\n";
  return 1;
}

}  // namespace MrouteAgent
