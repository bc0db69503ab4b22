// The control plane of the scripted day: fixed answers, and every exchange written down.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/docs/scripted_day.h"

// Becomes the endpoint of the simulated machine and writes into `exchanges`, which must outlive the machine.
void UseScriptedControlPlane(std::vector<HttpExchange>& exchanges);

// The next request whose "VERB path" begins so is answered like this instead.
void AnswerOnce(const std::string& request, uint32_t status, const std::string& body);

// A profile that also tells where its server, srv-a, stands.
extern const char kProfileWithPlace[];
