// The simulated file system: Windows paths without regard to case, both separators, doubled separators
// folded, sharing rules, torn writes. Also the environment, the data protection and the rights of files.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sim {

// At boot these folders exist: C:\, C:\ProgramData, C:\VPN\stage, C:\Program Files\TELVOR\data,
// C:\Program Files\WireGuard, C:\windows (the working directory), and the files wireguard.exe and wg.exe.
// The environment has ProgramData=C:\ProgramData. The executable is C:\Program Files\TELVOR\telvor.exe.
void MakeFolder(const std::wstring& path);                         // with its parents
void PutFile(const std::wstring& path, const std::string& bytes);  // with its parents
std::optional<std::string> FileBytes(const std::wstring& path);
bool FileExists(const std::wstring& path);
bool FolderExists(const std::wstring& path);
void RemoveFile(const std::wstring& path);
void RemoveFolder(const std::wstring& path);  // with all in it
std::vector<std::wstring> AllFiles();         // full paths, sorted
// The file is held open by somebody who shares nothing; every open fails with 32 until released.
void HoldFile(const std::wstring& path);
void ReleaseFile(const std::wstring& path);
// The next process end tears writes of files that are open for writing and were not flushed: only this many
// bytes of each unflushed write stay.
void TearWritesAt(size_t bytes);

// The text that FormatMessageW gives for a code; none: it knows no message for it. A dozen codes have their
// texts from the start.
void SetSystemMessage(uint32_t code, const std::optional<std::wstring>& message);
void SetEnvironment(const std::wstring& name, const std::optional<std::wstring>& value);
void SetExecutablePath(const std::wstring& path);
void SetComputerName(const std::wstring& name);  // default DESKTOP-AB12

// The log as the service wrote it: the bytes of C:\ProgramData\sorvanik-vpn\vpnservice.log, and its lines
// without time stamp and CR LF (lines are cut at line feeds; a line that has no time stamp is given whole).
std::string LogBytes();
std::vector<std::string> LogLines();
bool LogHas(const std::string& line);      // some line equals it
size_t LogCount(const std::string& part);  // lines that contain it
void ClearLog();

// Data protection: a sealed blob opens only on the machine that sealed it.
std::string Seal(const std::string& plain, const std::wstring& description = L"");  // as this machine
std::string SealElsewhere(const std::string& plain);                                // as another machine
std::optional<std::string> Unseal(const std::string& blob);
std::optional<std::wstring> SealDescription(const std::string& blob);
// From now on CryptBinaryToStringA answers blanks instead of digits: a broken provider.
void GiveBlankBase64();

// Rights: the grants that were set, in order.
struct Grant {
  std::wstring path;
  uint32_t permissions, mode, inheritance, trusteeForm, trusteeType;
  std::wstring trustee;
};
const std::vector<Grant>& Grants();

}  // namespace sim
