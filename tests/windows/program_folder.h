// Where the test program lies, and beside it the programs that it starts.
#pragma once

#include <filesystem>

std::filesystem::path ProgramFolder();
