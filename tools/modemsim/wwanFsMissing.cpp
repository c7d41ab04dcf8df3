// WwanFs where the simulator was built without libfuse3: --wwan says so and stops.
#include "wwanFs.h"

namespace vtools {

struct WwanFs::State {};

WwanFs::WwanFs() = default;
WwanFs::~WwanFs() = default;

void WwanFs::setSysfsRoot(const std::string&) {}

void WwanFs::setNote(std::function<void(const std::string&)>) {}

bool WwanFs::mount(const std::string&, std::string* error) {
    *error = "--wwan needs FUSE: this vrec-modemsim was built without libfuse3";
    return false;
}

int WwanFs::attach(Kind, std::string*, std::string* error) {
    *error = "no FUSE";
    return -1;
}

void WwanFs::lose(Kind) {}

}  // namespace vtools
