#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "client/propctl/Session.h"

namespace propctl {

/// Whether a serial number is a pattern of the shell's kind ("*", "?", "[…]").
bool isSerialPattern(const std::string& serial);

/// The serial numbers that `wanted` stand for, each once, sorted: patterns for all `known` ones that match.
/// Throws `Failure` for a pattern that none matches.
std::vector<std::string> selectSerials(const std::vector<std::string>& wanted,
                                       const std::map<std::string, bool>& known);

/// Runs a command on many devices at once, at most `jobs` of them, each over a connection of its own. What it
/// says comes when it is done, device by device, behind the serial number; then a summary. Returns the worst
/// status.
ExitStatus runOnDevices(const std::vector<std::string>& wanted, const propclient::Options& options,
                        unsigned jobs, Output& output, const std::function<ExitStatus(Session&)>& command);

}  // namespace propctl
