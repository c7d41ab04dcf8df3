#ifndef VREC_SRV_DIAGCOMMANDS_H
#define VREC_SRV_DIAGCOMMANDS_H

#include <cstdint>

// The DIAG command codes that choose what a Qualcomm module logs: the built-in table and the
// selections of log codes, message levels and events are made of them.
namespace diagcmd {

constexpr uint8_t kEventReport = 0x60;   // u8 1 on, 0 off
constexpr uint8_t kLogConfig = 0x73;     // 3 pad bytes, u32 operation, its fields
constexpr uint8_t kExtMsgConfig = 0x7D;  // u8 operation, its fields

// Operations of kLogConfig.
constexpr uint32_t kLogDisableAll = 0;
constexpr uint32_t kLogRetrieveRanges = 1;
constexpr uint32_t kLogSetMask = 3;
// Operation of kExtMsgConfig that sets one level for all subsystems.
constexpr uint8_t kMsgSetAll = 5;

}  // namespace diagcmd

#endif
