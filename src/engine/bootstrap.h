// The sequence that turns a saved session into a ready tunnel configuration.
#pragma once

// True if C:\ProgramData\TELVOR\wg\telvor.conf has just been written. False if a step failed; the log tells
// which. Sets gAuthRequired, and gLastError to "AUTH_REQUIRED" or "SESSION_EXPIRED" when no token can be had.
// Safe to repeat and to run on several threads at once; takes as long as its HTTP calls and name look-ups
// take.
bool Bootstrap();
