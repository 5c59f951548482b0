// The commands. Each function adds one to the program, with its options and its help. The command
// that the user chose runs while the arguments are parsed, and sets the exit status. It throws
// ModelError, and std::system_error if standard output fails.
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
