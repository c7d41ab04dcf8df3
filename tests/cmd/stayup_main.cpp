// vrec as users run it, except that its capture mode needs no module and always starts, so
// a run stays up and can be stopped. The mode prints when it is stopped and destroyed, so
// that a test sees the order of the stop.
#include <memory>

#include "commandLineSrv.h"
#include "console.h"

namespace {

class StayUpMode : public LogInterface {
public:
    ~StayUpMode() override { consolePrint("stayup: destroyed\n"); }

    bool startLog(const CaptureOptions& /*options*/) override { return true; }

    bool stopLog() override {
        consolePrint("stayup: stopLog\n");
        return true;
    }

    void setReport(bool /*enabled*/, unsigned /*step*/) override {}
};

}  // namespace

int main(int argc, char** argv) {
    CommandLineSrv::setImplFactory(
        [](const CaptureOptions&) { return std::make_unique<StayUpMode>(); });
    return vrecMain(argc, argv);
}
