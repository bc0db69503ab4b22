// What a portable test needs of the machine it runs on. The same test sources run over the simulated machine
// (platform_fixture_sim.cpp) and, cross-compiled, on the real platform layer (platform_fixture_windows.cpp);
// where the two worlds could differ, a test here holds them together.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

// A machine with Winsock started, an empty folder of the test's own, and ProgramData set to that folder.
class PlatformTest : public testing::Test {
 protected:
  PlatformTest();
  ~PlatformTest() override;

  // Without a separator at its end.
  const std::wstring& Folder() const { return folder_; }
  std::wstring File(const std::wstring& name) const { return folder_ + L"\\" + name; }

 private:
  struct World;
  std::unique_ptr<World> world_;
  std::wstring folder_;
};

// ---- Files and environment, beside the product's own ways to them ----
void PutFile(const std::wstring& path, const std::string& bytes);
std::optional<std::string> FileBytes(const std::wstring& path);
void SetEnvironment(const std::wstring& name, const std::optional<std::wstring>& value);

// ---- The resolver ----
// Known to the resolver with 10.0.0.9, 10.0.0.10 and 9.255.0.1. "localhost" is 127.0.0.1; other names are
// unknown.
inline constexpr wchar_t kHostOfThree[] = L"many.telvor.test";

// ---- Programs ----
// A program that does what EchoArguments tell it; its folder has a blank in its name.
std::wstring EchoProgram();

// ---- Clients of the pipe ----
class PipeConnection {
 public:
  // Tries for so long while there is no free instance.
  explicit PipeConnection(uint32_t milliseconds = 5000);
  ~PipeConnection();
  bool Connected() const;
  uint32_t Error() const;  // why not: 2 no pipe, 231 all instances busy
  void Write(const std::string& bytes);
  std::string ReadToEnd();  // up to the server's end of the connection
  void Close();

 private:
  struct State;
  std::unique_ptr<State> state_;
};
