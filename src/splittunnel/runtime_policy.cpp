#include "splittunnel/runtime_policy.h"

#include <algorithm>
#include <string_view>

#include "service/data_files.h"
#include "service/scope_guard.h"
#include "service/wide_text.h"
#include "splittunnel/platform.h"
#include "splittunnel/text_sorter.h"

namespace {

constexpr uint32_t kModulePathCapacity = 260;
constexpr std::wstring_view kDomainsHeading = L"[domains]";
constexpr std::wstring_view kIpsHeading = L"[ips]";
constexpr size_t kUsualLine = 12;  // code units of a short address, its end included
constexpr uint32_t kShareAll = platform::kFileShareRead | platform::kFileShareWrite;

// False if the file cannot be opened or not read to its end; an empty file is a success.
bool ReadSealedPolicy(std::string& blob) {
  const platform::Handle file =
      platform::CreateFileW(kRuntimePolicyFile, platform::kGenericRead, kShareAll, platform::kOpenExisting,
                            platform::kFileAttributeNormal);
  if (file == platform::InvalidHandle()) return false;
  const ScopeGuard closeFile([file] { platform::CloseHandle(file); });
  int64_t size = 0;
  if (!platform::GetFileSizeEx(file, size) || size > UINT32_MAX) return false;
  blob.resize(static_cast<size_t>(size));
  if (blob.empty()) return true;
  uint32_t read = 0;
  return platform::ReadFile(file, blob.data(), static_cast<uint32_t>(size), read) && read == blob.size();
}

bool LoadSealedText(std::wstring& text) {
  std::string blob;
  if (!ReadSealedPolicy(blob)) return false;
  std::string plain;
  // Wanted: an empty file is an empty policy, and the seed is not looked at.
  if (!blob.empty() && !platform::CryptUnprotectData(blob, 0, plain)) return false;
  text = FromUtf16LittleEndian(plain);
  return true;
}

// Empty if the path of the executable is not known.
std::wstring SeedPath() {
  wchar_t module[kModulePathCapacity];
  const uint32_t length = platform::GetModuleFileNameW(module, kModulePathCapacity);
  if (length == 0 || length >= kModulePathCapacity) return {};
  const std::wstring_view path(module, length);
  const size_t separator = path.find_last_of(L"\\/");
  if (separator == std::wstring_view::npos) return {};
  return std::wstring(path.substr(0, separator)) + L"\\data\\runtime.seed";
}

bool LoadSeedText(std::wstring& text) {
  const std::wstring path = SeedPath();
  return !path.empty() && ReadTextFileTrimmed(path, text);
}

void SealPolicyText(const std::wstring& text) {
  std::string blob;
  if (!platform::CryptProtectData(Utf16LittleEndian(text), L"TELVOR runtime",
                                  platform::kCryptProtectLocalMachine, blob)) {
    return;
  }
  EnsureDirectory(kDataRoot);
  WriteNewFile(kRuntimePolicyFile, blob, kShareAll, false);
}

// In a line, which holds no line feed.
bool IsBlank(wchar_t unit) {
  return unit == L' ' || unit == L'\t' || unit == L'\r';
}

std::wstring_view TrimLine(std::wstring_view line) {
  while (!line.empty() && IsBlank(line.front())) line.remove_prefix(1);
  while (!line.empty() && IsBlank(line.back())) line.remove_suffix(1);
  return line;
}

}  // namespace

bool LoadRuntimePolicy(RuntimePolicy& policy, std::wstring& source) {
  policy = {};
  source = L"empty";
  std::wstring text;
  if (LoadSealedText(text)) {
    policy = ParseRuntimePolicyText(text);
    source = L"encrypted";
  } else if (LoadSeedText(text)) {
    policy = ParseRuntimePolicyText(text);
    SealPolicyText(text);
    source = L"seed";
  }
  return true;
}

RuntimePolicy ParseRuntimePolicyText(const std::wstring& text) {
  TextSorter domains(kNameAlphabet);
  TextSorter ips(kAddressAlphabet);
  TextSorter* section = nullptr;
  std::wstring_view rest = text;
  while (!rest.empty()) {
    const size_t end = std::min(rest.find(L'\n'), rest.size());
    const std::wstring_view line = TrimLine(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (line.empty() || line.front() == L'#') continue;
    if (EqualsIgnoringCase(line, kDomainsHeading)) {
      section = &domains;
      section->Expect(rest.size() / kUsualLine);
    } else if (EqualsIgnoringCase(line, kIpsHeading)) {
      section = &ips;
      section->Expect(rest.size() / kUsualLine);
    } else if (section != nullptr) {
      // Wanted: any other bracketed text is an entry like all others.
      section->Add(line);
    }
  }
  return {domains.Take(), ips.Take()};
}
