// The road of a large array between processes, without the sockets: the sender turns the dha
// link of a reply into a memory file (createAttachments, level 3) and the receiver turns it back
// into an array (hdfsToDha). Against the same data-file calls without any filter, and against a
// plain memcpy of the array, all in MB/s of array data.
#include "Platform/RemoteComputation/Service/RequestHandling/Attachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HdfsAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkDataEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTranscoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkUtils.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractRequestSchema.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HierarchicalDataFile.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Kestrane;

namespace {

constexpr std::size_t c_count = 10000000;
constexpr std::size_t c_bytes = c_count * sizeof(double);

class BenchReplySchema : public AbstractRequestSchema {
public:
    BenchReplySchema() {
        m_schemaText = "  <!-- AttachmentBenchSchema -->\n"
                       "  <xs:complexType name=\"AttachmentBenchReply\">\n"
                       "    <xs:complexContent>\n"
                       "      <xs:extension base=\"ksrq:Reply\">\n"
                       "        <xs:sequence>\n"
                       "          <xs:element name=\"data\" type=\"ksrq:KSData\" "
                       "maxOccurs=\"unbounded\"/>\n"
                       "        </xs:sequence>\n"
                       "      </xs:extension>\n"
                       "    </xs:complexContent>\n"
                       "  </xs:complexType>\n";
    }
};

// Varied values, like measured ones rather than a regular pattern.
const std::vector<double>& source() {
    static const std::vector<double> values = [] {
        std::vector<double> v(c_count);
        for (std::size_t i = 0; i < c_count; ++i)
            v[i] = 0.001 * static_cast<double>(i) + 1.0 / static_cast<double>(i + 3);
        return v;
    }();
    return values;
}

double* freshArray() {
    auto* array = static_cast<double*>(std::malloc(c_bytes));
    std::memcpy(array, source().data(), c_bytes);
    return array;
}

std::string attribute(const std::string& text, const std::string& key) {
    std::string marker = " " + key + "=\"";
    std::size_t at = text.find(marker) + marker.size();
    return text.substr(at, text.find('"', at) - at);
}

void BM_AttachmentRoadLevel3(benchmark::State& state) {
    Logging::setLevel(LogLevel::Warn);
    RequestXmlHelper::getInstance()->addSchema(BenchReplySchema());
    for (auto _ : state) {
        state.PauseTiming();
        double* array = freshArray();
        state.ResumeTiming();

        // Sender: the reply text with its dha link, made portable.
        std::string text =
            "<reply xsi:type=\"AttachmentBenchReply\">\n" +
            *XLinkDataEncoder::encode<double>("values", "8-byte double", array, c_count, false,
                                              XLinkProtocol::dha, nullptr, false) +
            "\n</reply>\n";
        bool hasFiles = false;
        auto attachments = Attachment::createAttachments(text, hasFiles, false); // frees array
        if (attachments->size() != 1)
            throw std::runtime_error("no attachment");

        // Receiver: the link as it arrives, back to an array.
        std::size_t at = text.find("<data ");
        std::string element = text.substr(at, text.find('>', at) - at + 1);
        if (!XLinkTranscoder::hdfsToDha(element, true)) // frees the block
            throw std::runtime_error("hdfsToDha failed");
        void* back = XLinkUtils::getAddressFromString(attribute(element, "href"));
        benchmark::DoNotOptimize(back);

        state.PauseTiming();
        if (!back || std::memcmp(back, source().data(), c_bytes) != 0)
            throw std::runtime_error("data differs");
        std::free(back);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(c_bytes));
}

// The data-file calls of the same road at the level in the argument, without XML or links.
void BM_DataFileCalls(benchmark::State& state) {
    const int level = static_cast<int>(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        double* array = freshArray();
        std::string id = UniqueID::generateId();
        state.ResumeTiming();

        int handle = KSHLcreateMemoryFile(c_bytes);
        KSHLcreateDoubleDataset(handle, "root", id.c_str(), level, c_count, array);
        std::free(array);
        uint64_t size = 0;
        const unsigned char* image = nullptr;
        KSHLgetMemoryFile(handle, size, image);
        auto* block = static_cast<unsigned char*>(std::malloc(size));
        std::memcpy(block, image, size);
        KSHLcloseFile(handle);

        int opened = 0;
        uint64_t count = 0;
        KSHLopenMemoryFile(block, opened);
        KSHLgetSizeOfDataset(opened, "root", id.c_str(), count);
        auto* back = static_cast<double*>(std::malloc(count * sizeof(double)));
        KSHLreadDoubleDataset(opened, "root", id.c_str(), back);
        KSHLcloseFile(opened);
        std::free(block);
        benchmark::DoNotOptimize(back);

        state.PauseTiming();
        if (count != c_count || std::memcmp(back, source().data(), c_bytes) != 0)
            throw std::runtime_error("data differs");
        std::free(back);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(c_bytes));
}

void BM_Memcpy(benchmark::State& state) {
    std::vector<double> target(c_count);
    for (auto _ : state) {
        std::memcpy(target.data(), source().data(), c_bytes);
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(c_bytes));
}

} // namespace

BENCHMARK(BM_AttachmentRoadLevel3)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
// Level 0: no filter, the reference of the road. Level 6: shuffle + deflate, what a compressing
// level would cost on that road.
BENCHMARK(BM_DataFileCalls)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_DataFileCalls)->Arg(6)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
BENCHMARK(BM_Memcpy)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);

BENCHMARK_MAIN();
