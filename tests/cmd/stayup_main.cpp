// vrec as users run it, except that its capture mode needs no module and always starts, so
// a run stays up and can be stopped. The mode prints what it was given and when it is
// stopped and destroyed, so that a test sees the record and the order of the stop.
#include <memory>

#include "commandLineSrv.h"
#include "console.h"

namespace {

class StayUpMode : public LogInterface {
public:
    ~StayUpMode() override { consolePrint("stayup: destroyed\n"); }

    bool startLog(const CaptureOptions& o) override {
        consolePrint(
            "stayup: startLog mode=%d state=%d location=%d saveMode=%d cycle=%d total=%d "
            "report=%u overwrite=%d file=%s unit=%s\n",
            o.mode, o.state, o.saveLocation, o.saveMode, o.cycleSize, o.totalSize, o.reportStep,
            o.overwrite ? 1 : 0, o.fileName.c_str(), o.subUnit.c_str());
        return true;
    }

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
