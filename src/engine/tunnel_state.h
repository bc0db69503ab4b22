// What the process knows about the tunnel: process-wide variables that the worker, the pipe's threads and the
// service control handler share. Intent travels by them, not by messages: who changes it writes
// gTunnelDesired, then raises gTunnelEpoch, then sets gTunnelStatus, in this order.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "service/platform.h"

inline constexpr wchar_t kTunnelName[] = L"telvor";

// Values of gTunnelDesired.
inline constexpr int32_t kDesiredDisconnected = 0;
inline constexpr int32_t kDesiredConnected = 1;

// Values of gTunnelStatus.
inline constexpr int32_t kStatusDisconnected = 0;
inline constexpr int32_t kStatusConnecting = 1;
inline constexpr int32_t kStatusConnected = 2;
inline constexpr int32_t kStatusError = 3;

extern std::atomic<int32_t> gTunnelDesired;  // the user's intent
extern std::atomic<int32_t> gTunnelStatus;   // what is shown to the user
extern std::atomic<uint64_t> gTunnelEpoch;   // counts changes of intent
extern std::atomic<bool> gTunnelUp;          // written only; nothing reads it
extern std::atomic<bool> gAuthRequired;      // written only; nothing reads it

extern platform::Mutex gLastErrorMutex;
extern std::wstring gLastError;  // guarded by gLastErrorMutex

extern platform::Mutex gBypassMutex;
extern std::vector<std::wstring> gBypassIpsEffective;  // guarded by gBypassMutex
// Guarded by gBypassMutex, but the route refresh and the worker's route steps write it without the lock.
extern std::vector<std::wstring> gBypassIpsApplied;

// One server of the catalogue. Texts are UTF-8, as the control plane sent them.
struct ServerRecord {
  std::string id;
  std::string name;
  std::string country;
  std::string city;
  double latitude = 0.0;   // degrees
  double longitude = 0.0;  // degrees
  std::string public_egress_ip;
  bool online = false;
  std::string last_seen_at;
};

extern platform::Mutex gUiLock;  // guards the four below
extern std::vector<ServerRecord> gUiServers;
extern std::string gSelectedServerId;
extern ServerRecord gSelectedServer;
extern bool gSelectedServerValid;

extern platform::Mutex gSessionMutex;
extern std::wstring gCachedAccessToken;  // guarded by gSessionMutex

// The worker's own, process-wide so that they survive a restart of the worker.
extern bool gBypassRoutesInstalled;
extern uint64_t gLastRefreshTick;  // GetTickCount64; 0 makes the next connected tick refresh at once
extern int32_t gRefreshIteration;
extern std::wstring gCpIpV4;            // dotted quad
extern std::wstring gDefaultGatewayV4;  // dotted quad; empty: not known
extern uint32_t gDefaultIfIndex;        // 0: not known

// The service host's own; gStopEvent is waited on by all.
extern std::atomic<platform::Handle> gStopEvent;  // null: does not exist yet, or is closed already
extern platform::Handle gServiceStatusHandle;
extern platform::ServiceStatus gServiceStatus;
extern uint32_t gServiceCheckPoint;  // the next dwCheckPoint
extern platform::Handle gWorkerThread;
extern platform::Handle gIpcThread;

// The fixed writes of every change of intent to Disconnected: desired 0, epoch + 1, status 0, gTunnelUp
// false.
void WriteDisconnectIntent();

// Sets gLastError under its lock.
void SetLastErrorText(const std::wstring& text);
