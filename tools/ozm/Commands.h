// Subcommands of the ozm tool. Each registers itself on the parser and returns the exit code.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>

namespace OzmTool {

// Registers the "unit" subcommands; *run is set to the action of the chosen one.
void AddUnitCommands(CLI::App& app, std::function<int()>* run);

}  // namespace OzmTool
