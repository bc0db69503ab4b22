#include "engine/operations.h"

namespace {

// Whatever is asked, the answer is false or nothing.
template <class Result, class... Arguments>
Result AnswerNothing(Arguments...) {
  return Result();
}

}  // namespace

WorkerOperations EmptyWorkerOperations() {
  return {
      .LoadRuntimePolicy = &AnswerNothing,
      .ResolveDomainIPv4 = &AnswerNothing,
      .Bootstrap = &AnswerNothing,
      .ApplyBypassRoutes = &AnswerNothing,
      .RemoveBypassRoutes = &AnswerNothing,
      .EnforceSingleTunnel = &AnswerNothing,
      .TunnelServiceExists = &AnswerNothing,
      .RunProcessCapture = &AnswerNothing,
      .RestartTunnelService = &AnswerNothing,
      .IsTunnelServiceRunning = &AnswerNothing,
      .WgHandshakeSeen = &AnswerNothing,
      .GetAdapterIfIndexByName = &AnswerNothing,
      .ParseHttpsBaseUrl = &AnswerNothing,
      .ResolveHostIpV4 = &AnswerNothing,
      .EnableFailClosedBaseline = &AnswerNothing,
      .UpdateSplitTunnelBypassAllowlistV4 = &AnswerNothing,
      .RefreshSplitTunnelRoutes = &AnswerNothing,
      .StopTunnelService = &AnswerNothing,
      .UninstallTunnelService = &AnswerNothing,
      .RollbackToOpen = &AnswerNothing,
      .WgGetRxTxBytes = &AnswerNothing,
      .StopOwnService = &AnswerNothing,
      .defaultCpBaseUrl = L"",
  };
}

WorkerOperations gWorkerOperations = EmptyWorkerOperations();
