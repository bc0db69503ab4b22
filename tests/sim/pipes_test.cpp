#include "sim/pipes.h"

#include "sim_fixture.h"

namespace {

using platform::Handle;

constexpr wchar_t kName[] = L"\\\\.\\pipe\\telvor";

Handle CreateInstance(uint32_t outBuffer = 65536) {
  return platform::CreateNamedPipeW(kName,
                                    {platform::kPipeAccessDuplex, 0, 16, outBuffer, 65536, 0, nullptr});
}

std::string ReadSome(Handle pipe) {
  char buffer[512];
  uint32_t read = 0;
  if (!platform::ReadFile(pipe, buffer, sizeof buffer, read)) {
    return "failed " + std::to_string(platform::GetLastError());
  }
  return {buffer, read};
}

bool Write(Handle pipe, const std::string& bytes) {
  uint32_t written = 0;
  return platform::WriteFile(pipe, bytes.data(), static_cast<uint32_t>(bytes.size()), written);
}

TEST(NamedPipe, CarriesOneExchange) {
  sim::Machine machine;
  sim::StartThread("server", [] {
    const Handle pipe = CreateInstance();
    EXPECT_TRUE(platform::ConnectNamedPipe(pipe));
    EXPECT_EQ(ReadSome(pipe), "question\n");
    EXPECT_TRUE(Write(pipe, "answer\n"));
    EXPECT_TRUE(platform::FlushFileBuffers(pipe));
    EXPECT_TRUE(platform::DisconnectNamedPipe(pipe));
    platform::CloseHandle(pipe);
  });
  EXPECT_EQ(sim::Ask("question"), "answer\n");
  sim::Run(10);
  EXPECT_EQ(sim::PipeInstances(), 0u);
}

TEST(NamedPipe, AClientThatComesFirstIsToldBy535) {
  sim::Machine machine;
  const Handle pipe = CreateInstance();
  sim::PipeClient client(0);
  EXPECT_TRUE(client.Connected());
  EXPECT_FALSE(platform::ConnectNamedPipe(pipe));
  EXPECT_EQ(platform::GetLastError(), platform::kErrorPipeConnected);
  platform::CloseHandle(pipe);
}

TEST(NamedPipe, TheSeventeenthInstanceIsRefused) {
  sim::Machine machine;
  std::vector<Handle> instances(16);
  for (Handle& instance : instances) instance = CreateInstance();
  EXPECT_EQ(CreateInstance(), platform::InvalidHandle());
  EXPECT_EQ(platform::GetLastError(), 231u);
  platform::CloseHandle(instances.back());
  instances.back() = CreateInstance();
  EXPECT_NE(instances.back(), platform::InvalidHandle());
  for (const Handle instance : instances) platform::CloseHandle(instance);
}

TEST(NamedPipe, AnInstanceClosedUnderItsClientCountsUntilTheClientGoes) {
  sim::Machine machine;
  const Handle pipe = CreateInstance();
  sim::PipeClient client(0);
  platform::CloseHandle(pipe);
  EXPECT_EQ(sim::PipeInstances(), 1u);
  client.Close();
  EXPECT_EQ(sim::PipeInstances(), 0u);
}

TEST(NamedPipe, AClientWaitsForAnInstanceAndThenGivesUp) {
  sim::Machine machine;
  EXPECT_EQ(sim::PipeClient(1000).Error(), 2u);
  EXPECT_EQ(sim::Now(), 1'001'000u);
  const Handle pipe = CreateInstance();
  sim::PipeClient first(0);
  EXPECT_EQ(sim::PipeClient(1000).Error(), 231u);
  platform::CloseHandle(pipe);
}

TEST(NamedPipe, AWriterWaitsWhileTheBufferIsFull) {
  sim::Machine machine;
  const Handle pipe = CreateInstance(1000);
  sim::PipeClient client(0);
  bool written = false;
  sim::StartThread("writer", [&] { written = Write(pipe, std::string(5000, 'x')); });
  sim::Run(10'000);
  EXPECT_FALSE(written);
  EXPECT_EQ(client.ReadToEnd(100), std::nullopt);
  sim::Run(10);
  EXPECT_TRUE(written);
  platform::DisconnectNamedPipe(pipe);
  EXPECT_EQ(client.ReadToEnd(), std::string(5000, 'x'));
  platform::CloseHandle(pipe);
}

TEST(NamedPipe, AClientGivesUpWritingToAServerThatDoesNotRead) {
  sim::Machine machine;
  const Handle pipe = CreateInstance(1000);
  sim::PipeClient client(0);
  const uint64_t begin = sim::Now();
  client.Write(std::string(1'000'000, 'x'), 3000);
  EXPECT_EQ(sim::Now() - begin, 3000u);
  EXPECT_EQ(ReadSome(pipe).front(), 'x');
  platform::CloseHandle(pipe);
}

TEST(NamedPipe, FlushWaitsForTheReaderAndDisconnectThrowsTheRestAway) {
  sim::Machine machine;
  const Handle pipe = CreateInstance();
  sim::PipeClient client(0);
  Write(pipe, "unread");
  bool flushed = false;
  sim::StartThread("flusher", [&] {
    platform::FlushFileBuffers(pipe);
    flushed = true;
  });
  sim::Run(10'000);
  EXPECT_FALSE(flushed);
  platform::DisconnectNamedPipe(pipe);
  EXPECT_EQ(client.ReadToEnd(), "");
  sim::Run(10);
  EXPECT_TRUE(flushed);
  EXPECT_EQ(ReadSome(pipe), "failed 233");
  platform::CloseHandle(pipe);
}

TEST(NamedPipe, WhatAClientWroteBeforeItClosedIsStillRead) {
  sim::Machine machine;
  const Handle pipe = CreateInstance();
  {
    sim::PipeClient client(0);
    client.Write("last words");
  }
  EXPECT_FALSE(platform::ConnectNamedPipe(pipe));
  EXPECT_EQ(platform::GetLastError(), 232u);
  EXPECT_EQ(ReadSome(pipe), "last words");
  EXPECT_EQ(ReadSome(pipe), "failed 109");
  EXPECT_FALSE(Write(pipe, "too late"));
  EXPECT_EQ(platform::GetLastError(), 232u);
  platform::CloseHandle(pipe);
}

TEST(NamedPipe, TheEndOfTheProcessBreaksThePipe) {
  sim::Machine machine;
  sim::StartThread("server", [] {
    const Handle pipe = CreateInstance();
    platform::ConnectNamedPipe(pipe);
    platform::Sleep(platform::kInfinite);
  });
  sim::PipeClient client;
  EXPECT_TRUE(client.Connected());
  sim::KillProcess();
  EXPECT_FALSE(client.Connected());
  EXPECT_EQ(client.ReadToEnd(), "");
}

TEST(NamedPipe, ParametersAndDescriptorCanBeLookedAt) {
  sim::Machine machine;
  EXPECT_EQ(sim::LastPipeParameters(), nullptr);
  void* descriptor = nullptr;
  EXPECT_TRUE(platform::ConvertStringSecurityDescriptorToSecurityDescriptorW(
      L"D:(A;;GA;;;SY)", platform::kSddlRevision1, descriptor));
  const Handle pipe = platform::CreateNamedPipeW(kName, {3, 0, 16, 1, 2, 0, descriptor});
  ASSERT_NE(sim::LastPipeParameters(), nullptr);
  EXPECT_EQ(sim::LastPipeParameters()->inBufferSize, 2u);
  EXPECT_EQ(sim::LastSecurityDescriptorText(), L"D:(A;;GA;;;SY)");
  platform::CloseHandle(pipe);
}

}  // namespace
