#include "ShowClient.h"

#include <iostream>

#include "Agent.h"
#include "Kiv/RequestServer.h"
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
  Kiv::RequestReply const reply = Kiv::requestAsk(path, "show socket", showRequestLine(req), "the agent");
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
      // A refused filter is a usage error, as when this side refuses it.
      return reply.text.rfind("filter: ", 0) == 0 ? 2 : 1;
    case Kiv::RequestReply::failed:
      break;
  }
  std::cerr << "mroute-agent: " << reply.text << "\n";
  return 1;
}

}  // namespace MrouteAgent
