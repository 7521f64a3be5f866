#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogMessage.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Signals.h"

#include <xercesc/dom/DOMElement.hpp>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace Kestrane {

class RequestPackage;
class RemoteJobStatusInterface;

// Base of every decoded request. Concrete classes read their own fields from the element in
// their constructors, so that no request keeps the DOM.
class Request {
public:
    using LogSignal = Signals::Signal<void(const LogMessage&)>;
    using AbortSignal = Signals::Signal<void()>;
    using DestroyedSignal = Signals::Signal<void(const std::string&)>;

    explicit Request(const xercesc::DOMElement* element);
    // Raises the destroyed signal with the id, then disconnects the destroyed and abort slots.
    virtual ~Request();
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    // Hash of the source text, or of client description and type.
    virtual std::string getFingerprint(bool forceDescription);

    const std::string& getId() const { return m_id; }
    const std::string& getType() const { return m_type; }
    const std::string& getSourceString() const { return m_sourceString; }
    void setSourceString(const std::string& source) { m_sourceString = source; }
    const std::string& getClientDescription() const { return m_clientDescription; }
    void setClientDescription(const std::string& description) { m_clientDescription = description; }
    RequestPackage* getRequestPackage() const { return m_requestPackage; }
    void setRequestPackage(RequestPackage* package) { m_requestPackage = package; }
    std::shared_ptr<RemoteJobStatusInterface> getJobStatus() const { return m_jobStatus; }
    void setJobStatus(std::shared_ptr<RemoteJobStatusInterface> jobStatus) {
        m_jobStatus = std::move(jobStatus);
    }

    // Sets the flag that handlers poll, and raises the abort signal. Callable from any thread.
    void abort();
    bool isAborted() const { return m_aborted.load(); }
    // Raises the log signal in the caller's thread.
    void sendLogMessage(const LogMessage& message);

    void addTmpPath(const FileName& path) { m_tmpPaths.push_back(path); }
    const std::vector<FileName>& getTmpPaths() const { return m_tmpPaths; }

    LogSignal& getLogSignal() { return m_logSignal; }
    AbortSignal& getAbortSignal() { return m_abortSignal; }
    DestroyedSignal& getDestroyedSignal() { return m_destroyedSignal; }

protected:
    Request();

    LogSignal m_logSignal;
    AbortSignal m_abortSignal;
    DestroyedSignal m_destroyedSignal;
    std::string m_id;
    std::string m_clientDescription = "UNKNOWN";
    std::string m_type;
    std::string m_sourceString;
    RequestPackage* m_requestPackage = nullptr;
    std::shared_ptr<RemoteJobStatusInterface> m_jobStatus;
    std::atomic<bool> m_aborted{false};
    std::vector<FileName> m_tmpPaths;
};

} // namespace Kestrane
