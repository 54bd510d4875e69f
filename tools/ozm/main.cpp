// ozm: authoring and inspection tool for volumetric clips.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>

#include "tools/ozm/Commands.h"

int main(int argc, char** argv) {
  CLI::App app{"ozm: make, inspect, export and play volumetric video"};
  app.require_subcommand(1);
  std::function<int()> run;
  OzmTool::AddUnitCommands(app, &run);
  OzmTool::AddEncodeCommand(app, &run);
  OzmTool::AddInspectCommand(app, &run);
  OzmTool::AddExportCommand(app, &run);
  OzmTool::AddPlayCommand(app, &run);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int status = app.exit(e);
    // play keeps 1 for frames that did not pair; its command-line errors exit with 2.
    return status != 0 && app.got_subcommand("play") ? 2 : status;
  }
  return run ? run() : 1;
}
