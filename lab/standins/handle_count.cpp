// Counts the handles that programs of one name hold, as the system's own table has them.
//
//   handle_count NAME     for each line of standard input prints the number; 0 if no program of that name
//   runs
#include <windows.h>
// Behind windows.h, which they need.
#include <tlhelp32.h>
#include <winternl.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <set>
#include <string>
#include <vector>

namespace {

constexpr auto kSystemHandleInformation = static_cast<SYSTEM_INFORMATION_CLASS>(16);
constexpr NTSTATUS kInfoLengthMismatch = static_cast<NTSTATUS>(0xC0000004);
constexpr size_t kFirstCapacity = 65536;  // bytes

// The system's answer: a header with the number of entries, and they behind it.
struct HandleEntry {
  ULONG owner;
  UCHAR type;
  UCHAR flags;
  USHORT value;
  void* object;
  ACCESS_MASK access;
};

struct HandleTable {
  ULONG count;
  HandleEntry first;
};

std::set<DWORD> ProcessesNamed(const wchar_t* name) {
  std::set<DWORD> found;
  const HANDLE all = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  PROCESSENTRY32W process = {};
  process.dwSize = sizeof(process);
  for (BOOL more = Process32FirstW(all, &process); more; more = Process32NextW(all, &process)) {
    if (_wcsicmp(process.szExeFile, name) == 0) found.insert(process.th32ProcessID);
  }
  CloseHandle(all);
  return found;
}

// Empty if the system gives none.
std::vector<HandleEntry> EveryHandle() {
  std::vector<char> bytes(kFirstCapacity);
  NTSTATUS status = kInfoLengthMismatch;
  while (status == kInfoLengthMismatch) {
    bytes.resize(bytes.size() * 2);
    status = NtQuerySystemInformation(kSystemHandleInformation, bytes.data(),
                                      static_cast<ULONG>(bytes.size()), nullptr);
  }
  if (status != 0) return {};
  const auto* const table = reinterpret_cast<const HandleTable*>(bytes.data());
  return {&table->first, &table->first + table->count};
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  const wchar_t* const name = count > 1 ? arguments[1] : L"";
  for (std::string line; std::getline(std::cin, line);) {
    const std::set<DWORD> owners = ProcessesNamed(name);
    const std::vector<HandleEntry> handles = EveryHandle();
    const auto held = std::count_if(handles.begin(), handles.end(),
                                    [&](const HandleEntry& entry) { return owners.contains(entry.owner); });
    std::printf("%lld\n", static_cast<long long>(held));
    std::fflush(stdout);
  }
  return 0;
}
