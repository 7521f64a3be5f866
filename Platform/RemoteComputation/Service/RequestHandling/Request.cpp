#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
}

Request::Request() = default;

Request::Request(const xercesc::DOMElement* element)
    : m_id(XmlUtils::getAttribute("id", element)),
      m_type(XmlUtils::getAttribute("xsi:type", element)) {}

Request::~Request() {
    m_destroyedSignal(m_id);
    m_destroyedSignal.disconnectAllSlots();
    m_abortSignal.disconnectAllSlots();
}

std::string Request::getFingerprint(bool forceDescription) {
    if (forceDescription || m_sourceString.empty())
        return TigerHash::tHash(m_clientDescription + m_type);
    return TigerHash::tHash(m_sourceString);
}

void Request::abort() {
    KS_INFO("Aborting " << m_type << " " << m_id << "...");
    m_aborted = true;
    m_abortSignal();
}

void Request::sendLogMessage(const LogMessage& message) {
    m_logSignal(message);
}

} // namespace Kestrane
