#include "service/wiring.h"

#include "controlplane/base_url.h"
#include "engine/bootstrap.h"
#include "engine/operations.h"
#include "firewall/baseline.h"
#include "firewall/bypass_allowlist.h"
#include "ipc/account_methods.h"
#include "ipc/intent_methods.h"
#include "ipc/methods.h"
#include "ipc/subscription_methods.h"
#include "ipc/views.h"
#include "service/lifecycle.h"
#include "splittunnel/bypass_refresh.h"
#include "splittunnel/routes.h"
#include "splittunnel/runtime_policy.h"
#include "wireguard/process_runner.h"
#include "wireguard/tunnel_service.h"
#include "wireguard/wg_probe.h"

namespace {

// What the worker drives.
constexpr WorkerOperations kOperations{
    .LoadRuntimePolicy = &LoadRuntimePolicy,
    .ResolveDomainIPv4 = &ResolveDomainIPv4,
    .Bootstrap = &Bootstrap,
    .ApplyBypassRoutes = &ApplyBypassRoutes,
    .RemoveBypassRoutes = &RemoveBypassRoutes,
    .EnforceSingleTunnel = &EnforceSingleTunnel,
    .TunnelServiceExists = &TunnelServiceExists,
    .RunProcessCapture = &RunProcessCapture,
    .RestartTunnelService = &RestartTunnelService,
    .IsTunnelServiceRunning = &IsTunnelServiceRunning,
    .WgHandshakeSeen = &WgHandshakeSeen,
    .GetAdapterIfIndexByName = &GetAdapterIfIndexByName,
    .ParseHttpsBaseUrl = &ParseHttpsBaseUrl,
    .ResolveHostIpV4 = &ResolveHostIpV4,
    .EnableFailClosedBaseline = &EnableFailClosedBaseline,
    .UpdateSplitTunnelBypassAllowlistV4 = &UpdateSplitTunnelBypassAllowlistV4,
    .RefreshSplitTunnelRoutes = &RefreshSplitTunnelRoutes,
    .StopTunnelService = &StopTunnelService,
    .UninstallTunnelService = &UninstallTunnelService,
    .RollbackToOpen = &RollbackToOpen,
    .WgGetRxTxBytes = &WgGetRxTxBytes,
    .StopOwnService = &StopOwnService,
    .defaultCpBaseUrl = kDefaultCpBaseUrl,
};

// What the pipe's clients may call. A method that is not here answers as an unknown one.
constexpr PipeMethod kMethods[] = {
    {"GetState", &GetStateMethod},
    {"GetRecentLogs", &GetRecentLogsMethod},
    {"Connect", &ConnectMethod},
    {"Disconnect", &DisconnectMethod},
    {"StopService", &StopServiceMethod},
    {"POST /ui/login", &LoginMethod},
    {"GET /ui/is-registered", &IsRegisteredMethod},
    {"POST /ui/register", &RegisterMethod},
    {"POST /ui/password-reset/start", &PasswordResetStartMethod},
    {"POST /ui/password-reset/confirm", &PasswordResetConfirmMethod},
    {"GET /ui/entitlement", &EntitlementMethod},
    {"GET /ui/quota", &QuotaMethod},
    {"POST /ui/billing/checkout", &BillingCheckoutMethod},
    {"GET /ui/account-page-url", &AccountPageUrlMethod},
    {"POST /ui/logout", &LogoutMethod},
    {"GET /ui/status", &GetStatusMethod},
    {"GET /ui/logs", &GetLogsMethod},
    {"GET /ui/locations", &GetLocationsMethod},
    {"POST /ui/select-location", &SelectLocationMethod},
};

}  // namespace

void WireSubsystems() {
  gWorkerOperations = kOperations;
  for (const PipeMethod& method : kMethods) PlugPipeMethod(method.name, method.body);
}
