#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogMessage.h"

#include <xercesc/dom/DOMElement.hpp>

#include <string>
#include <vector>

namespace Kestrane {

// Writes and reads LogMessages as the element
//   <logMessage type="T" group="G" timestamp="N">text</logMessage>
// for hosts that pass a job's messages on inside their own XML.
class LogMessageXml {
public:
    LogMessageXml() = delete;

    // One element on one line; group and text escaped.
    static std::string toXml(const LogMessage& message);
    // The elements in order, separated by a single '\n'; empty for no messages.
    static std::string toXml(const std::vector<LogMessage>& messages);
    // The inverse of toXml. A missing, empty or non-numeric timestamp throws
    // boost::bad_lexical_cast.
    static LogMessage create(const xercesc::DOMElement* element);
    // Whether an error message is among them.
    static bool containsErrors(const std::vector<LogMessage>& messages);
    // The present local time as "%d-%m-%Y %H:%M:%S".
    static std::string getCurrentTime();
};

} // namespace Kestrane
