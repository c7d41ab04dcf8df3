#ifndef VREC_SRV_ATMDONIMPL_H
#define VREC_SRV_ATMDONIMPL_H

#include "logInterface.h"

// Capture in which the module logs by itself, ordered over the AT^MDON command family.
class AtMdonImpl : public LogInterface {
public:
    AtMdonImpl();
    ~AtMdonImpl() override;

    bool startLog(const CaptureOptions& options) override;
    bool stopLog() override;
    void setReport(bool enabled, unsigned step) override;
};

#endif
