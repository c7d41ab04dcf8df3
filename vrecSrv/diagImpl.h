#ifndef VREC_SRV_DIAGIMPL_H
#define VREC_SRV_DIAGIMPL_H

#include <mutex>

#include "logInterface.h"

// Real-time capture through the Diag port, for Qualcomm and IMC modules. A stop may come
// from another thread while the start runs: it waits for the reader to be set up, and the
// start commands then end at the next frame.
class DiagImpl : public LogInterface {
public:
    DiagImpl();
    ~DiagImpl() override;

    bool startLog(const CaptureOptions& options) override;
    bool stopLog() override;
    void setReport(bool enabled, unsigned step) override;

private:
    std::mutex setupLock;  // over the reader's set-up, which a stop must not overtake
    bool stopped = false;
};

#endif
