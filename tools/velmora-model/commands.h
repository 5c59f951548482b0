// The commands. Each function adds one to the program, with its options and its help; the command
// that the user chose runs while the program's arguments are parsed, and sets the exit status. A
// model that cannot be loaded and an output that takes no more are exceptions.
#pragma once

namespace CLI {
class App;
}

namespace velmora::tool {

void AddRun(CLI::App* program, int* status);
void AddBench(CLI::App* program, int* status);
void AddCompare(CLI::App* program, int* status);
void AddOutputs(CLI::App* program, int* status);
void AddCheck(CLI::App* program, int* status);

}  // namespace velmora::tool
