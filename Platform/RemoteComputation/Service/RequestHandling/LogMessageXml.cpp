#include "Platform/RemoteComputation/Service/RequestHandling/LogMessageXml.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/TimeStamp.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <boost/lexical_cast.hpp>

#include <algorithm>
#include <cstdint>
#include <ctime>

namespace Kestrane {

std::string LogMessageXml::toXml(const LogMessage& message) {
    // The type strings are plain words of the logging library and need no escaping.
    return "<logMessage type=\"" + LogMessage::typeToString(message.type()) + "\" group=\"" +
           XmlUtils::toXml(message.getGroup()) + "\" timestamp=\"" +
           std::to_string(message.timeStamp()) + "\">" + XmlUtils::toXml(message.text()) +
           "</logMessage>";
}

std::string LogMessageXml::toXml(const std::vector<LogMessage>& messages) {
    std::string text;
    for (size_t i = 0; i < messages.size(); ++i) {
        if (i > 0)
            text += '\n';
        text += toXml(messages[i]);
    }
    return text;
}

LogMessage LogMessageXml::create(const xercesc::DOMElement* element) {
    LogMessage message;
    message.setType(LogMessage::stringToType(XmlUtils::getAttribute("type", element)));
    message.setGroup(XmlUtils::fromXml(XmlUtils::getAttribute("group", element)));
    message.setTimeStamp(
        boost::lexical_cast<int64_t>(XmlUtils::getAttribute("timestamp", element)));
    message.setText(XmlUtils::fromXml(XmlUtils::getContent(element)));
    return message;
}

bool LogMessageXml::containsErrors(const std::vector<LogMessage>& messages) {
    return std::any_of(messages.begin(), messages.end(), [](const LogMessage& message) {
        return message.type() == LogMessage::Error;
    });
}

std::string LogMessageXml::getCurrentTime() {
    const std::tm local = TimeUtilities::localtimeSecure(static_cast<int64_t>(std::time(nullptr)));
    char buffer[64];
    const size_t length = std::strftime(buffer, sizeof(buffer), "%d-%m-%Y %H:%M:%S", &local);
    return std::string(buffer, length);
}

} // namespace Kestrane
