#include "Platform/RemoteComputation/Service/RequestHandling/StartQueuedJobRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
} // namespace

StartQueuedJobRequest::StartQueuedJobRequest(const xercesc::DOMElement* element)
    : Request(element), m_jobId(XmlUtils::getElementContent("jobId", element)) {
    if (auto cancel = XmlUtils::getElement("cancelJob", element))
        m_cancelJob = XmlUtils::getContentAsBool(cancel);
    if (auto message = XmlUtils::getElement("errorMessage", element))
        m_errorMessage = XmlUtils::getContent(message);
}

StartQueuedJobRequest::~StartQueuedJobRequest() = default;

bool StartQueuedJobRequest::sendStartQueuedJobRequest(const std::string& host, unsigned int port,
                                                      const std::string& jobId, bool cancelJob,
                                                      const std::string& errorMessage) {
    HostInfo hostInfo;
    hostInfo.setIpOrName(host);
    hostInfo.setRequestServerPort(static_cast<int>(port));
    TcpRequestClient client("QueuedJob", hostInfo);

    // Asking for the status first tells a dead job server from a job that does not end.
    auto status = client.sendGetStatusRequest();
    if (!status || status->getType() == "RequestServerUnreachableReply") {
        KS_ERROR("Can't connect to KS*Job: client returned no reply.");
        return false;
    }

    RequestEncoder encoder("StartQueuedJobRequest");
    encoder.addElement("jobId", jobId, "");
    encoder.addElement("cancelJob", cancelJob, "");
    encoder.addElement("errorMessage", errorMessage, "");
    KS_TRACE("Sending StartQueuedJobRequest to " << host << ":" << port << " for jobId '" << jobId
                                                 << "' (cancel=" << cancelJob << ", errorMessage='"
                                                 << errorMessage << "').");
    try {
        if (cancelJob) {
            // A cancel is answered at once, and nobody needs that answer.
            client.sendRequest(encoder.getEncodedRequest(), nullptr, false, "", nullptr);
        } else {
            // Blocks, with no limit, until the job has ended.
            auto reply = client.handleRequest(encoder, nullptr, "");
            if (!reply) {
                KS_ERROR("Invalid reply received for StartQueuedJobRequest to "
                         << host << ":" << port << " for jobId '" << jobId << "'.");
                return false;
            }
            if (reply->getType() != "AckReply") {
                KS_ERROR("Unexpected reply type received for StartQueuedJobRequest to "
                         << host << ":" << port << " for jobId '" << jobId
                         << "': " << reply->getType());
                return false;
            }
            const std::string replyStatus = reply->getElement("status");
            if (replyStatus != "OK") {
                KS_ERROR("Unexpected reply status received for StartQueuedJobRequest to "
                         << host << ":" << port << " for jobId '" << jobId << "': " << replyStatus);
                return false;
            }
        }
    } catch (...) {
        KS_ERROR("Exception while sending StartQueuedJobRequest to "
                 << host << ":" << port << " for jobId '" << jobId
                 << "'. RequestServer not running?");
        return false;
    }
    KS_INFO("StartQueuedJobRequest sent to " << host << ":" << port << " (jobId=" << jobId << ").");
    return true;
}

} // namespace Kestrane
