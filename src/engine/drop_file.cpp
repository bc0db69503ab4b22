#include "engine/drop_file.h"

#include "service/data_files.h"
#include "service/platform.h"
#include "service/wide_text.h"

bool WriteDropFile(const std::wstring& path, const std::wstring& text) {
  return WriteNewFile(path, Utf16LittleEndian(text), platform::kFileShareRead, true) == WriteResult::kWritten;
}
