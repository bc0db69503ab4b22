// The fixed paths of the system: its own state, and the programs that it drives. None of them can be
// configured.
#pragma once

inline constexpr wchar_t kDataRoot[] = L"C:\\ProgramData\\TELVOR";
inline constexpr wchar_t kAuthDirectory[] = L"C:\\ProgramData\\TELVOR\\auth";
inline constexpr wchar_t kTunnelDirectory[] = L"C:\\ProgramData\\TELVOR\\wg";
inline constexpr wchar_t kTunnelConfigFile[] = L"C:\\ProgramData\\TELVOR\\wg\\telvor.conf";
inline constexpr wchar_t kSessionFile[] = L"C:\\ProgramData\\TELVOR\\auth\\session.dat";
inline constexpr wchar_t kLegacyTokenFile[] = L"C:\\ProgramData\\TELVOR\\auth\\token.txt";
inline constexpr wchar_t kDeviceIdFile[] = L"C:\\ProgramData\\TELVOR\\auth\\device_id.txt";
inline constexpr wchar_t kPrivateKeyFile[] = L"C:\\ProgramData\\TELVOR\\auth\\wg_client_privatekey.txt";
inline constexpr wchar_t kPublicKeyFile[] = L"C:\\ProgramData\\TELVOR\\auth\\wg_client_publickey.txt";
inline constexpr wchar_t kRuntimePolicyFile[] = L"C:\\ProgramData\\TELVOR\\runtime.dat";

inline constexpr wchar_t kWireGuardProgram[] = L"C:\\Program Files\\WireGuard\\wireguard.exe";
inline constexpr wchar_t kWgProgram[] = L"C:\\Program Files\\WireGuard\\wg.exe";
