// The simulated filtering engine: objects that outlive the handle that made them, transactions, enumeration.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "firewall/platform.h"

namespace sim {

struct EngineFilter {
  platform::FwpmFilter filter;     // as given to FwpmFilterAdd0; the conditions' blob pointers are null
  std::vector<std::string> blobs;  // one per condition, the bytes of its blob
  uint64_t filterId = 0;
  bool named = true;  // false: the name pointer is null
  bool hasProviderKey = true;
};
// What is in force (committed), in the order of the adds.
const std::vector<EngineFilter>& FiltersInForce();
std::vector<std::wstring> FilterNames();  // display names of the above
bool ProviderInForce(const platform::Guid& key);
bool SubLayerInForce(const platform::Guid& key);
std::vector<platform::FwpmProvider> ProvidersInForce();
std::vector<platform::FwpmSubLayer> SubLayersInForce();
std::vector<platform::FwpmSession> SessionsOpened();  // every FwpmEngineOpen0 of the run
// Objects of others, put there without a call. Returns the filter's id. A zero filterKey stays zero.
uint64_t PutFilter(const EngineFilter& filter);
void PutProvider(const platform::FwpmProvider& provider);
void PutSubLayer(const platform::FwpmSubLayer& subLayer);
void PutCallout(const platform::Guid& key, const platform::Guid* provider);
size_t CalloutCount();
// The path's app id as the engine gives it; files are looked up in the simulated file system.
std::string AppIdFor(const std::wstring& path);
// FwpmGetAppIdFromFileName0 answers 0 and no blob from now on.
void GiveNoAppId(bool yes);
size_t TransactionsCommitted();
size_t TransactionsAborted();

}  // namespace sim
