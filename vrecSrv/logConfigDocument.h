#ifndef VREC_SRV_LOGCONFIGDOCUMENT_H
#define VREC_SRV_LOGCONFIGDOCUMENT_H

#include <string>

// The logging configuration a module gets when the host has no "logconfig.xml": one line of
// XML, a single blank between any two tags, no line end.
const std::string& builtInLogConfig();

#endif
