#include "atMdonImpl.h"

#include "diagLog.h"

AtMdonImpl::AtMdonImpl() { DIAG_TRACE(); }

AtMdonImpl::~AtMdonImpl() { DIAG_TRACE(); }

bool AtMdonImpl::startLog(const CaptureOptions& /*options*/) {
    DIAG_TRACE();
    // Module-side logging is not part of this build yet: report a failed start so that
    // the run ends in order.
    DIAG_LOG(LOG_ERRO, "module logging control is not available in this build.");
    return false;
}

bool AtMdonImpl::stopLog() {
    DIAG_TRACE();
    return true;
}

void AtMdonImpl::setReport(bool /*enabled*/, unsigned /*step*/) {}
