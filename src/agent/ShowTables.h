// The tables of `veld show` and of the demo, drawn from the agent's JSON answers the way a
// switch's show commands print them.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "agent/ControlRequest.h"
#include "platform/Ip6.h"

namespace VeldAgent {

// Columns padded to their widest cell, a rule under the header.
class Table {
public:
   explicit Table(std::vector<std::string> header) { rows_.push_back(std::move(header)); }
   void row(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
   std::string render() const;

private:
   std::vector<std::vector<std::string>> rows_;
};

// The published IPv6 status of an interface as `show interfaces` answers it: its global
// addresses, its link-local ones and those that failed duplicate address detection, each
// list sorted.
nlohmann::json ip6StatusJson(Ip6::IntfStatus const& status);

std::string renderInterfaces(nlohmann::json const& answer);
std::string renderNexthops(nlohmann::json const& answer);
std::string renderVrfs(nlohmann::json const& answer);
std::string renderBacklog(nlohmann::json const& answer);
std::string renderConfig(nlohmann::json const& answer);
std::string renderRoutingAgents(nlohmann::json const& answer);
std::string renderIp6Enable(nlohmann::json const& answer);
std::string renderMulticast(nlohmann::json const& answer);
// The table of an answer to `show`; "" when the answer does not have the expected shape
// (an agent of another version), never an exception.
std::string renderAnswer(ShowWhat what, nlohmann::json const& answer);

}  // namespace VeldAgent
