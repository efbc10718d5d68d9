#pragma once

#include <cstdint>

// The library's own result codes; 0 is success.
namespace tovra::err {

inline constexpr std::int32_t Ok = 0;
inline constexpr std::int32_t CannotCreateReader = -5001;
inline constexpr std::int32_t InvalidReaderHandle = -5002;
inline constexpr std::int32_t ConnectionParameter = -5003;
inline constexpr std::int32_t ConnectFailed = -5004;
inline constexpr std::int32_t DetectionParameter = -5005;
inline constexpr std::int32_t DetectionFailed = -5006;
inline constexpr std::int32_t DisconnectFailed = -5007;
inline constexpr std::int32_t ListenerRunning = -5008;
inline constexpr std::int32_t ListenerParameter = -5009;
inline constexpr std::int32_t NullPointer = -5010;
inline constexpr std::int32_t Terminated = -5011;
inline constexpr std::int32_t DisconnectedByPeer = -5012;
inline constexpr std::int32_t ReceiveTimeout = -5015;
// A received frame failed the length or CRC check; reserved, so it prints "---".
inline constexpr std::int32_t InvalidFrame = -5016;
inline constexpr std::int32_t PayloadTooLarge = -5017;
inline constexpr std::int32_t NotConnected = -5018;
inline constexpr std::int32_t InvalidPluginType = -5020;
inline constexpr std::int32_t CannotLoadPlugin = -5021;
inline constexpr std::int32_t PluginVersionMismatch = -5022;
inline constexpr std::int32_t NotImplemented = -5024;
inline constexpr std::int32_t InvalidListenerType = -5030;
inline constexpr std::int32_t AlreadyStarted = -5032;
inline constexpr std::int32_t NotStarted = -5033;
// Accepted while the reader module terminates; has no text of its own.
inline constexpr std::int32_t AcceptWhileTerminating = -5040;

// What a plugin's receive returns while no whole frame has arrived; never an error.
inline constexpr std::int32_t ReceivePending = INT32_MIN;

} // namespace tovra::err
