#include "diagImpl.h"

#include "diagLog.h"

DiagImpl::DiagImpl() { DIAG_TRACE(); }

DiagImpl::~DiagImpl() { DIAG_TRACE(); }

bool DiagImpl::startLog(const CaptureOptions& /*options*/) {
    DIAG_TRACE();
    // The Diag capture machinery is not part of this build yet: report a failed start so
    // that the run ends in order.
    DIAG_LOG(LOG_ERRO, "diag capture is not available in this build.");
    return false;
}

bool DiagImpl::stopLog() {
    DIAG_TRACE();
    return true;
}

void DiagImpl::setReport(bool /*enabled*/, unsigned /*step*/) {}
