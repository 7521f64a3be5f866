// Encoding and decoding a request package with 20 elements: packages per second.
#include "Platform/RemoteComputation/Service/RequestHandling/AbstractRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackageEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractRequestSchema.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <benchmark/benchmark.h>

using namespace Kestrane;

namespace {

class BenchSchema : public AbstractRequestSchema {
public:
    BenchSchema() {
        m_schemaText = "<!-- BenchSchema -->\n"
                       "<xs:complexType name=\"BenchRequest\">\n"
                       " <xs:complexContent><xs:extension base=\"ksrq:Request\">\n"
                       "  <xs:sequence><xs:element name=\"value\" type=\"xs:string\" "
                       "maxOccurs=\"unbounded\"/></xs:sequence>\n"
                       " </xs:extension></xs:complexContent>\n"
                       "</xs:complexType>\n";
    }
};

class BenchRequest : public Request {
public:
    explicit BenchRequest(const xercesc::DOMElement* element) : Request(element) {
        for (auto value : XmlUtils::getElements("value", element))
            values.push_back(XmlUtils::getContent(value));
    }
    std::vector<std::string> values;
};

class BenchHandler : public AbstractRequestHandler {
public:
    BenchHandler() : AbstractRequestHandler("BenchHandler") {}
    std::shared_ptr<Request> decodeRequest(XmlRequest& request) const override {
        return std::make_shared<BenchRequest>(request.getRootElement());
    }
    bool canHandle(Request*) override { return true; }
    std::shared_ptr<std::string> handle(Request*) override { return nullptr; }
};

void BM_RequestPackageEncodeDecode20Elements(benchmark::State& state) {
    Logging::setLevel(LogLevel::Warn);
    RequestXmlHelper::getInstance()->addSchema(BenchSchema());
    BenchHandler handler;
    RequestEncoder encoder("BenchRequest");
    for (int i = 0; i < 20; ++i)
        encoder.addElement("value", "element number " + std::to_string(i) + " & more", "   ");
    std::string request = encoder.getEncodedRequest();
    for (auto _ : state) {
        RequestPackageEncoder package(request, "bench-client", "");
        package.setReplyExpected(false);
        auto decoded = RequestPackage::decode(package.getEncodedRequestPackage(), handler, nullptr,
                                              "127.0.0.1", "127.0.0.1");
        benchmark::DoNotOptimize(decoded);
    }
    state.SetItemsProcessed(state.iterations());
}

} // namespace

BENCHMARK(BM_RequestPackageEncodeDecode20Elements)->UseRealTime();

BENCHMARK_MAIN();
