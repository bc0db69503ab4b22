// telvorctl.exe: drives the TELVOR service from a terminal or a script.
#include "telvorctl/command_line.h"
#include "telvorctl/startup.h"

int wmain(int count, wchar_t** arguments) {
  return telvorctl::RunCommandLine(telvorctl::platform::StartUp(count, arguments));
}
