#ifndef VREC_SRV_LOGINTERFACE_H
#define VREC_SRV_LOGINTERFACE_H

#include "captureOptions.h"

// The seam between the command line and a capture mode.
class LogInterface {
public:
    virtual ~LogInterface() {}
    // True when the asked action has been launched.
    virtual bool startLog(const CaptureOptions& options) = 0;
    // True when the stop succeeded.
    virtual bool stopLog() = 0;
    // Switches the periodic report of the captured size and sets its step in bytes.
    virtual void setReport(bool enabled, unsigned step) = 0;
};

#endif
