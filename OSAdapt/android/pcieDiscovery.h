#ifndef VREC_OSADAPT_PCIEDISCOVERY_H
#define VREC_OSADAPT_PCIEDISCOVERY_H

#include <string>

#include "portDiscovery.h"

// Ports of modules on PCIe, which show no USB interfaces: the character devices of the
// Linux WWAN subsystem (/sys/class/wwan/<port>/type, node /dev/<port>) and those of the
// vendors' MHI drivers (/dev/mhi_DIAG, /dev/mhi_DUN). None of them is a terminal.
namespace discovery {

// Adds to the first device of `info` a Diag port if it has none of type Diag, and a PCUI
// port if it has none of type PCUI: the WWAN port of type QCDM and the first of type AT in
// name order, else /dev/mhi_DIAG and /dev/mhi_DUN where they exist. Each find is logged.
void AppendPciePorts(DevicePortInfo* info);

// Whether `name` is the node of a PCIe port (/dev/wwan..., /dev/mhi_...): such a port may
// come back under another name after a reset of the module.
bool IsPcieNodeName(const std::string& name);

// How the port of `name` is attached, for the user: "PCIe, WWAN", "PCIe, MHI" or "USB".
const char* PortAttachment(const std::string& name);

}  // namespace discovery

#endif
