// What a client can read back of the pipe that the server made.
#include <windows.h>

#include "ipc/pipe_server.h"
#include "ipc/platform.h"
#include "platform/platform_fixture.h"

TEST_F(PlatformTest, ThePipeHasItsInstancesBuffersAndMode) {
  void* descriptor = nullptr;
  ASSERT_TRUE(platform::ConvertStringSecurityDescriptorToSecurityDescriptorW(
      kPipeSecurity, platform::kSddlRevision1, descriptor));
  const platform::NamedPipeParameters parameters{
      platform::kPipeAccessDuplex, 0, 16, 65536, 4096, 0, descriptor};
  platform::Handle server = platform::CreateNamedPipeW(kPipeName, parameters);
  ASSERT_NE(server, platform::InvalidHandle());
  HANDLE client = CreateFileW(kPipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(client, INVALID_HANDLE_VALUE);
  EXPECT_FALSE(platform::ConnectNamedPipe(server));
  EXPECT_EQ(platform::GetLastError(), platform::kErrorPipeConnected);

  DWORD flags = 0;
  DWORD outSize = 0;
  DWORD inSize = 0;
  DWORD instances = 0;
  EXPECT_TRUE(GetNamedPipeInfo(server, &flags, &outSize, &inSize, &instances));
  EXPECT_EQ(flags & PIPE_TYPE_MESSAGE, 0u);
  EXPECT_EQ(outSize, 65536u);
  EXPECT_EQ(inSize, 4096u);
  EXPECT_EQ(instances, 16u);

  DWORD handleFlags = 0;
  EXPECT_TRUE(GetHandleInformation(server, &handleFlags));
  EXPECT_EQ(handleFlags & HANDLE_FLAG_INHERIT, 0u);

  EXPECT_TRUE(platform::DisconnectNamedPipe(server));
  EXPECT_TRUE(platform::CloseHandle(server));
  CloseHandle(client);
  LocalFree(descriptor);
}
