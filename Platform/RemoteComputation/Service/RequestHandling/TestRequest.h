#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/KSData.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

#include <memory>
#include <string>

namespace Kestrane {

// The probe request: a command word with an optional argument, file and data element.
class TestRequest : public Request {
public:
    explicit TestRequest(const xercesc::DOMElement* element);
    ~TestRequest() override;

    const std::string& getCommand() const { return m_command; }
    // Empty when the element is absent.
    const std::string& getData() const { return m_data; }
    // The path of the first file element; empty when there is none.
    const FileName& getFile() const { return m_file; }
    // The first attachment element; null when there is none.
    const std::shared_ptr<KSData>& getAttachment() const { return m_attachment; }

private:
    std::string m_command;
    std::string m_data;
    FileName m_file;
    std::shared_ptr<KSData> m_attachment;
};

} // namespace Kestrane
