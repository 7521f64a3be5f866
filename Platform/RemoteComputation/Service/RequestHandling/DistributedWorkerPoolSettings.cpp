#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerPoolSettings.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <boost/lexical_cast.hpp>

#include <cstdint>
#include <limits>
#include <typeinfo>

namespace Kestrane {

namespace {

// The schema's unsignedInt: surrounding blanks and one sign allowed. lexical_cast to an
// unsigned type would take "-1" and wrap it around; a count or a port is never negative.
unsigned int toUnsigned(const std::string& text) {
    const char* blanks = " \t\r\n";
    size_t first = text.find_first_not_of(blanks);
    std::string number = first == std::string::npos
                             ? ""
                             : text.substr(first, text.find_last_not_of(blanks) - first + 1);
    auto value = boost::lexical_cast<int64_t>(number);
    if (value < 0 || value > std::numeric_limits<unsigned int>::max())
        throw boost::bad_lexical_cast(typeid(std::string), typeid(unsigned int));
    return static_cast<unsigned int>(value);
}

} // namespace

DistributedWorkerPoolSettings::DistributedWorkerPoolSettings(const std::string& jobSchedulerScript)
    : m_jobSchedulerScript(jobSchedulerScript) {}

DistributedWorkerPoolSettings::DistributedWorkerPoolSettings(xercesc::DOMElement* element) {
    m_maxParallelTasks = toUnsigned(XmlUtils::getElementContent("maxParallelTasks", element));
    if (xercesc::DOMElement* script = XmlUtils::getElement("jobSchedulerScript", element)) {
        m_jobSchedulerScript = XmlUtils::fromXml(XmlUtils::getContent(script));
        return;
    }
    for (xercesc::DOMElement* host : XmlUtils::getElements("workerHost", element)) {
        std::string name = XmlUtils::fromXml(XmlUtils::getElementContent("hostNameOrIp", host));
        if (name.empty())
            KS_THROW("A workerHost of the distributed worker pool settings has no hostNameOrIp",
                     "RequestHandling", __PRETTY_FUNCTION__);
        addWorkerHost(name, toUnsigned(XmlUtils::getElementContent("remoteServicePort", host)),
                      toUnsigned(XmlUtils::getElementContent("maxWorkersOnHost", host)));
    }
}

void DistributedWorkerPoolSettings::addWorkerHost(const std::string& hostNameOrIp,
                                                  unsigned int remoteServicePort,
                                                  unsigned int maxWorkersOnHost) {
    m_workerHosts[hostNameOrIp] = WorkerHost{hostNameOrIp, remoteServicePort, maxWorkersOnHost};
}

std::string DistributedWorkerPoolSettings::toXmlString(const std::string& indent,
                                                       const std::string& indentStep) const {
    const std::string inner = indent + indentStep;
    const std::string innermost = inner + indentStep;
    std::string xml = indent + "<distributedWorkerPoolSettings>\n";
    xml +=
        inner + "<maxParallelTasks>" + std::to_string(m_maxParallelTasks) + "</maxParallelTasks>\n";
    if (useJobScheduler()) {
        xml += inner + "<jobSchedulerScript>" + XmlUtils::toXml(m_jobSchedulerScript) +
               "</jobSchedulerScript>\n";
    } else {
        for (const auto& [name, host] : m_workerHosts) {
            xml += inner + "<workerHost>\n";
            xml += innermost + "<hostNameOrIp>" + XmlUtils::toXml(name) + "</hostNameOrIp>\n";
            xml += innermost + "<remoteServicePort>" + std::to_string(host.remoteServicePort) +
                   "</remoteServicePort>\n";
            xml += innermost + "<maxWorkersOnHost>" + std::to_string(host.maxWorkersOnHost) +
                   "</maxWorkersOnHost>\n";
            xml += inner + "</workerHost>\n";
        }
    }
    xml += indent + "</distributedWorkerPoolSettings>\n";
    return xml;
}

} // namespace Kestrane
