#ifndef VREC_SRV_CAPTUREOPTIONS_H
#define VREC_SRV_CAPTUREOPTIONS_H

#include <cstdint>
#include <string>

#include "maskRequests.h"

enum CaptureMode { CAPTURE_QUALCOMM = 0, CAPTURE_MDON = 1, CAPTURE_IMC = 2 };

// Where a module saves what it logs itself (`saveLocation`).
enum SaveLocation { SAVE_FLASH = 0, SAVE_SD = 1, SAVE_HOST = 2 };

// The step of size reports that `reportStep` 1 stands for.
constexpr uint32_t kDefaultReportStep = 1024000;

// The options of one run, written by the command line before the capture starts and
// read-only afterwards.
struct CaptureOptions {
    int32_t mode = CAPTURE_QUALCOMM;
    // The action asked for: 0 stop all, 1 log on the module, 2 dump on the module,
    // 3 real-time log, 4 real-time log and dump, 5 export log, 6 export dump, 7 both.
    int32_t state = 3;
    int32_t saveLocation = SAVE_HOST;
    int32_t saveMode = 0;
    std::string fileName = "real_log.bin";
    std::string subUnit = "0";
    int32_t cycleSize = 0;  // MB of one saving cycle; 0 means not set
    int32_t totalSize = 0;  // MB of all saving; 0 means not set
    uint32_t reportStep = 1;
    bool overwrite = true;
    // What a Qualcomm module is to log, when the user chose it (long options).
    masks::Selection selection;
};

// The step in bytes that a `reportStep` value means: 1 is the standard step.
uint32_t reportStepBytes(uint32_t reportStep);

#endif
