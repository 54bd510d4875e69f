// Subcommands of the ozm tool. Each registers itself on the parser and sets *run to its action,
// which returns the exit code.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>

namespace OzmTool {

void AddUnitCommands(CLI::App& app, std::function<int()>* run);
void AddEncodeCommand(CLI::App& app, std::function<int()>* run);
void AddInspectCommand(CLI::App& app, std::function<int()>* run);
void AddExportCommand(CLI::App& app, std::function<int()>* run);
void AddPlayCommand(CLI::App& app, std::function<int()>* run);

}  // namespace OzmTool
