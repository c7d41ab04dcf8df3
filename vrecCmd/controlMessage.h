#ifndef VREC_CMD_CONTROLMESSAGE_H
#define VREC_CMD_CONTROLMESSAGE_H

#include <cstddef>

// Whether a datagram on the control port asks for the stop: it holds "stop" anywhere. The
// bytes need no terminator, for a datagram that fills the buffer has none.
bool isStopMessage(const char* data, size_t length);

#endif
