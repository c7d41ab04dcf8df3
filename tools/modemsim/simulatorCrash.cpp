// The module's crash: dump mode over Sahara, then the reboot.
#include "simulator.h"

namespace vtools {

void Simulator::crashFault(const Fault& fault) {
    event("fault not served yet: " + fault.given);
}

}  // namespace vtools
