// ozm: authoring and inspection tool for volumetric clips.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>

#include "tools/ozm/Commands.h"

int main(int argc, char** argv) {
  CLI::App app{"ozm: make, inspect and export volumetric video"};
  app.require_subcommand(1);
  std::function<int()> run;
  OzmTool::AddUnitCommands(app, &run);
  OzmTool::AddEncodeCommand(app, &run);
  OzmTool::AddInspectCommand(app, &run);
  OzmTool::AddExportCommand(app, &run);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }
  return run ? run() : 1;
}
