#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "client/propclient/Devices.h"
#include "client/propctl/Session.h"

namespace propctl {

/// Whether an argument of --device may stand for more than one device.
bool areSerials(const std::string& argument);

/// The serial numbers and patterns in "A,B,…"; "@FILE" stands for those in a file, one on each line, where
/// empty lines and lines that begin with "#" are skipped. Throws `Failure`.
std::vector<std::string> readSerials(const std::string& argument);

/// The serial numbers that `wanted` stand for, each once, sorted: patterns of the shell's kind ("*", "?",
/// "[…]") for all `known` ones that match.
/// Throws `Failure` for a pattern that none matches.
std::vector<std::string> selectSerials(const std::vector<std::string>& wanted,
                                       const std::map<std::string, propclient::Presence>& known);

/// Prints the devices that the central broker knows and that `wanted` stands for, all where it is empty, each
/// with whether it is connected and whether its daemon is there.
ExitStatus listDevices(const std::string& wanted, const propclient::Options& options, Output& output);

/// Runs a command on many devices at once, at most `jobs` of them, each over a connection of its own. What it
/// says comes when it is done, device by device, behind the serial number; then a summary. Returns the worst
/// status.
ExitStatus runOnDevices(const std::vector<std::string>& wanted, const propclient::Options& options,
                        unsigned jobs, Output& output, const std::function<ExitStatus(Session&)>& command);

}  // namespace propctl
