#ifndef VREC_SRV_DIAGIMPL_H
#define VREC_SRV_DIAGIMPL_H

#include "logInterface.h"

// Real-time capture through the Diag port, for Qualcomm and IMC modules.
class DiagImpl : public LogInterface {
public:
    DiagImpl();
    ~DiagImpl() override;

    bool startLog(const CaptureOptions& options) override;
    bool stopLog() override;
    void setReport(bool enabled, unsigned step) override;
};

#endif
