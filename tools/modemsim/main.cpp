// vrec-modemsim: a USB cellular module on pseudo-terminals.

#include <cstdio>
#include <string>

#include "simOptions.h"
#include "simulator.h"
#include "sysfsTree.h"

int main(int argc, char** argv) {
    vtools::SimOptions options;
    const int parsed = vtools::parseSimOptions(argc, argv, &options);
    if (parsed != 0) {
        return parsed == 1 ? 0 : 2;
    }
    std::string error;
    if (options.diagLink.empty() && options.pcuiLink.empty() && options.sharedLink.empty()) {
        // Only the tree was asked for.
        if (!vtools::writeSysfsTree(options.sysfsRoot, options.sysfs, &error)) {
            fprintf(stderr, "vrec-modemsim: %s\n", error.c_str());
            return 1;
        }
        return 0;
    }
    vtools::Simulator simulator(options);
    if (!simulator.start(&error)) {
        fprintf(stderr, "vrec-modemsim: %s\n", error.c_str());
        return 1;
    }
    return simulator.run();
}
