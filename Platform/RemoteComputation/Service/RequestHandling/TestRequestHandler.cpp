#include "Platform/RemoteComputation/Service/RequestHandling/TestRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/KSData.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/StartQueuedJobRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TestRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkDataEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTranscoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTypeNames.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogMessage.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Thread.h"

#include <boost/lexical_cast.hpp>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
const char* c_function = "Kestrane::TestRequestHandler::handle";
const char* c_logGroup = "TestRequestHandler";

void sendProgress(Request* request, const std::string& text) {
    request->sendLogMessage(LogMessage(text, LogMessage::Info, c_logGroup));
}

// Returns the reply's data text.
std::string waitWithProgress(Request* request, const std::string& data) {
    int32_t milliseconds = 0;
    std::istringstream(data) >> milliseconds;
    sendProgress(request, "starting...");
    for (int32_t t = 0; t < milliseconds; t += 100) {
        KS_DEBUG("TestRequestHandler: WAIT_PROGRESS " << t << " ms");
        Thread::sleep(100);
        sendProgress(request, "waiting...");
        if (request->isAborted())
            return "ABORTED";
    }
    KS_DEBUG("TestRequestHandler: WAIT done");
    sendProgress(request, "done.");
    return "OK";
}

std::string putFile(const FileName& file, const std::string& data) {
    KS_DEBUG("TestRequestHandler: PUT_FILE '" << file.toString() << "', expected size: " << data
                                              << " bytes");
    const auto expectedSize = boost::lexical_cast<uint64_t>(data);
    if (!FileUtilities::exists(file)) {
        KS_WARN("File doesn't exist: " << file.toString());
        return "ERROR: file not found";
    }
    const uint64_t size = FileUtilities::getFileSize(file);
    if (size != expectedSize) {
        KS_WARN("File has wrong size: " << size);
        return "ERROR: wrong file size";
    }
    TestRequestHandler::s_testFile = file;
    KS_DEBUG("TestRequestHandler: PUT_FILE done");
    return "OK";
}

void getFile(ReplyEncoder& reply) {
    const FileName& file = TestRequestHandler::s_testFile;
    KS_DEBUG("TestRequestHandler: GET_FILE '" << file.toString() << "'");
    if (file.empty() || !FileUtilities::exists(file)) {
        KS_WARN("File doesn't exist: " << file.toString());
        reply.addElement("data", "ERROR: file not found");
        return;
    }
    KS_DEBUG("TestRequestHandler: GET_FILE done");
    reply.addElement("data", "OK, " + std::to_string(FileUtilities::getFileSize(file)));
    reply.addFilePath("file", file, false);
}

void putData(ReplyEncoder& reply, const std::shared_ptr<KSData>& attachment) {
    if (!attachment) {
        const std::string message = "ERROR: no attachment received";
        KS_ERROR(message);
        reply.addElement("data", message);
        return;
    }
    KS_TRACE("PUT_DATA href=" << attachment->getHref());
    bool converted = false;
    if (attachment->getHref().rfind("hdfs://", 0) == 0) {
        std::string id = attachment->getId();
        std::string dataPtrType = attachment->getDataPtrType();
        std::string dataType = attachment->getDataType();
        uint64_t dataSize = attachment->getDataSize();
        std::string href = attachment->getHref();
        if (XLinkTranscoder::hdfsToDha(id, dataPtrType, dataType, dataSize, href, false)) {
            attachment->setDataPtrType(dataPtrType);
            attachment->setDataType(dataType);
            attachment->setDataSize(dataSize);
            attachment->setHref(href);
            converted = true;
            KS_TRACE("converted hdfs to dha href=" << href);
        } else {
            const std::string message =
                "ERROR: Transcoding failure for: \n" + attachment->getXLinkNodeString();
            KS_ERROR(message);
            reply.addElement("data", message);
            return;
        }
    }
    auto values = static_cast<double*>(attachment->getDhaPointer());
    if (!values) {
        const std::string message = "ERROR: NULL-prt received for dha prt to use out of: \n" +
                                    attachment->getXLinkNodeString();
        KS_ERROR(message);
        reply.addElement("data", message);
        return;
    }
    double sum = 0;
    for (uint64_t i = 0; i < attachment->getDataSize(); ++i)
        sum += values[i];
    // The array that the conversion made is ours; the memory file stays with its maker.
    if (converted)
        std::free(values);
    KS_DEBUG("DataSize = " << attachment->getDataSize() << ", sum = " << sum);
    reply.addElement("data", sum);
}

void getData(ReplyEncoder& reply, const std::string& data) {
    const auto count = boost::lexical_cast<uint64_t>(data);
    KS_TRACE("Generating data. Size = " << count);
    // Freed by whoever turns the link into an attachment when the reply leaves the process.
    auto values = static_cast<double*>(std::malloc(count * sizeof(double)));
    for (uint64_t i = 0; i < count; ++i)
        values[i] = static_cast<double>(i + 1) * 0.1;
    auto text =
        XLinkDataEncoder::encode<double>("attachment", XLinkTypeNames::dataTypeOf<double>(), values,
                                         count, true, XLinkProtocol::dha, nullptr, false);
    KS_TRACE("attachment = " << *text);
    reply.addText(*text);
}

std::string queuedNop(const std::string& jobId) {
    KS_DEBUG("TestRequestHandler: QUEUED_NOP jobId= " << jobId);
    if (StartQueuedJobRequestHandler::waitForStartJobRequest(jobId, 60)) {
        KS_DEBUG("TestRequestHandler: QUEUED_NOP done");
        StartQueuedJobRequestHandler::jobEnded(jobId);
        return "OK";
    }
    KS_WARN("TestRequestHandler: QUEUED_NOP no start request received!");
    return "NOK";
}

} // namespace

FileName TestRequestHandler::s_testFile;

TestRequestHandler::TestRequestHandler() : AbstractRequestHandler("TestRequestHandler") {}

TestRequestHandler::~TestRequestHandler() = default;

std::shared_ptr<Request> TestRequestHandler::decodeRequest(XmlRequest& request) const {
    if (request.getType() != "TestRequest")
        return nullptr;
    auto decoded = std::make_shared<TestRequest>(request.getRootElement());
    decoded->setSourceString(request.getSourceString());
    return decoded;
}

bool TestRequestHandler::canHandle(Request* request) {
    return dynamic_cast<TestRequest*>(request) != nullptr;
}

std::shared_ptr<std::string> TestRequestHandler::handle(Request* request) {
    if (auto test = dynamic_cast<TestRequest*>(request))
        return handleTestRequest(request, test->getCommand(), test->getData(), test->getFile(),
                                 test->getAttachment());
    const std::string type = request ? request->getType() : std::string("NULL");
    KS_ERROR("Unsuported request '" << type << "'.");
    throw KsExceptionNested("Unsuported request", "Requesthandling", c_function, __FILE__,
                            __LINE__);
}

std::shared_ptr<std::string>
TestRequestHandler::handleTestRequest(Request* request, const std::string& command,
                                      const std::string& data, const FileName& file,
                                      const std::shared_ptr<KSData>& attachment) {
    ReplyEncoder reply("TestReply", *request);
    if (command == "NOP") {
        KS_DEBUG("TestRequestHandler: NOP");
        reply.addElement("data", "OK");
    } else if (command == "WAIT") {
        const auto milliseconds = boost::lexical_cast<unsigned int>(data);
        KS_DEBUG("TestRequestHandler: WAIT " << milliseconds << " ms");
        Thread::sleep(milliseconds);
        KS_DEBUG("TestRequestHandler: WAIT done");
        reply.addElement("data", "OK");
    } else if (command == "WAIT_PROGRESS") {
        reply.addElement("data", waitWithProgress(request, data));
    } else if (command == "PUT_FILE") {
        reply.addElement("data", putFile(file, data));
    } else if (command == "GET_FILE") {
        getFile(reply);
    } else if (command == "PUT_DATA") {
        putData(reply, attachment);
    } else if (command == "GET_DATA") {
        getData(reply, data);
    } else if (command == "QUEUED_NOP") {
        reply.addElement("data", queuedNop(data));
    } else if (command == "CRASH") {
        KS_INFO("TestRequestHandler: CRASH!");
        // Ends like a crash: no static destructors, which would run on this thread while the
        // server's other threads still use those objects. Only what was logged is kept.
        Logging::flush();
        std::fflush(nullptr);
        std::_Exit(99);
    } else {
        reply.addElement("data", "UNKNOWN_COMMAND");
    }
    KS_INFO("Handled TestRequest (" << command << ") from client "
                                    << request->getClientDescription() << ".");
    return std::make_shared<std::string>(reply.getEncodedReply("  ", "   "));
}

} // namespace Kestrane
