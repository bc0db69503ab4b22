// Permits for the control plane's host, whose addresses may have changed since the last time.
#pragma once

#include "firewall/platform.h"

// The log texts in which the two operations that pin differ. Each goes before a value; null: no line.
struct PinTexts {
  const wchar_t* base;
  const wchar_t* parseFailed;
  const wchar_t* host;
  const wchar_t* added;
  const wchar_t* failed;
  const wchar_t* summary;
};

// Looks the host of the default base URL up and permits each of its addresses, inside the caller's
// transaction. Its failures are logged and change nothing else.
void PinControlPlane(platform::Handle engine, const PinTexts& texts);
