#include "diagImpl.h"

#include "diagLog.h"
#include "diagService.h"
#include "portMgnt.h"

DiagImpl::DiagImpl() {
    DIAG_TRACE();
}

DiagImpl::~DiagImpl() {
    DIAG_TRACE();
}

bool DiagImpl::startLog(const CaptureOptions& options) {
    DIAG_TRACE();
    DiagService* diag = DiagService::getInstance();
    {
        std::lock_guard<std::mutex> lock(setupLock);
        if (stopped) {
            return true;  // stopped before it began: the module is left alone
        }
        // A command file that cannot be used ends the start before the port is read.
        if (!DiagService::checkCommandFiles()) {
            return false;
        }
        diag->setChipType(options.mode == CAPTURE_IMC ? CHIP_IMC : CHIP_QUALCOMM);
        diag->setTotalSize(static_cast<uint32_t>(options.totalSize));
        diag->setCycleSize(static_cast<uint32_t>(options.cycleSize));
        setReport(options.reportStep != 0, options.reportStep);
        diag->setOverwrite(options.overwrite);
        diag->setSelection(options.selection);
        // The reader runs before the first command leaves, so the module's answers are logged.
        if (!PortMgnt::getInstance()->startReadDiag()) {
            return false;
        }
    }
    diag->sendStartCmds();
    return true;
}

bool DiagImpl::stopLog() {
    DIAG_TRACE();
    {
        std::lock_guard<std::mutex> lock(setupLock);
        stopped = true;
    }
    // Stop commands go out while the reader still runs, so their answers land in the log.
    DiagService::getInstance()->sendStopCmds();
    return PortMgnt::getInstance()->stopReadDiag();
}

void DiagImpl::setReport(bool enabled, unsigned step) {
    DiagService::getInstance()->setReport(enabled, step);
}
