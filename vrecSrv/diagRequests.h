#ifndef VREC_SRV_DIAGREQUESTS_H
#define VREC_SRV_DIAGREQUESTS_H

#include <string>
#include <vector>

// The Qualcomm DIAG requests that start and stop a module's log stream, built from a short
// description of their construction. The program sends the framed form, which the build
// generates once from these (see qualcommTables.h).
namespace diagreq {

// The 528 start requests in send order, unframed.
std::vector<std::string> qualcommStartRequests();
// The 3 stop requests in send order, unframed.
std::vector<std::string> qualcommStopRequests();

// A request as it goes on the wire: the request and its frame check sequence (low byte
// first), escaped, then the closing flag 0x7E. There is no opening flag.
std::string frame(const std::string& request);

}  // namespace diagreq

#endif
