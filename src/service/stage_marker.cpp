#include "service/stage_marker.h"

#include "service/data_files.h"
#include "service/platform.h"
#include "service/wide_text.h"

namespace {

constexpr wchar_t kMarkerFolder[] = L"C:\\VPN\\stage\\";
constexpr size_t kPathBuffer = 260;  // wide characters, the terminator included

}  // namespace

void WriteStageMarker(const std::wstring& name, const std::wstring& text) {
  const std::wstring path = kMarkerFolder + name;
  if (path.size() >= kPathBuffer) return;
  WriteNewFile(path, Utf16LittleEndian(text), platform::kFileShareRead, false);
}
