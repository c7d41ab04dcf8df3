#ifndef VREC_OSADAPT_DUMPDISCOVERY_H
#define VREC_OSADAPT_DUMPDISCOVERY_H

#include <string>
#include <vector>

// Where a crashed module shows itself: the ports of Qualcomm's dump and download modes on
// USB, and the Sahara ports of PCIe modules. Paths under /sys and /dev follow the root set
// with OS_ADAPT_SetSysfsRoot.
struct DumpPortCandidate {
    enum class Kind {
        Dump,      // a port that may speak Sahara in memory-debug mode
        Download,  // emergency download: never answered
        Unbound,   // a dump interface that no driver holds yet: no port until one is bound
    };
    Kind kind = Kind::Dump;
    std::string path;       // the port's device node; empty for Unbound
    std::string product;    // USB product id in lower case ("900e"); empty on PCIe
    std::string interface;  // the USB interface's sysfs name ("1-1:1.0"); empty on PCIe
};

std::vector<DumpPortCandidate> OS_ADAPT_FindDumpPorts();

// Lets the serial driver take a dump interface that no driver holds by writing "05c6 <product>"
// to its new_id file (root only). False with the reason in `error`.
bool OS_ADAPT_BindDumpInterface(const std::string& product, std::string* error);
// The file that binding writes, as the user should be told.
std::string OS_ADAPT_NewIdPath();

namespace dumpdiscovery {
// Vendor and product of a USB modalias ("usb:v05C6p900Ed..."), lower case; false when the
// text is no USB modalias.
bool parseModalias(const std::string& modalias, std::string* vendor, std::string* product);
bool isDumpProduct(const std::string& product);
bool isDownloadProduct(const std::string& product);
}  // namespace dumpdiscovery

#endif
