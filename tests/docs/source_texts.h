// The texts that stand in the sources of the service.
#pragma once

#include <set>
#include <string>
#include <vector>

// All string literals of src/, with their escapes undone and neighbours joined.
const std::set<std::string>& SourceLiterals();

// Those with which a call of LogLine or WfpLogLine begins.
const std::vector<std::string>& LoggedLiterals();

// Whether the sources can say a text that a page quotes: what stands between its "<...>" is one literal or
// several in a row, of which a "<...>" may cut the first and the last.
bool StandsInSources(const std::string& quoted);
