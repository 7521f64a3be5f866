#include "StatusText.h"

#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/GenericJobId.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"

#include <cstdio>
#include <ctime>

namespace Kestrane {

namespace {
std::string field(const std::string& label, const std::string& value) {
    std::string line = "  " + label;
    line.resize(20, ' ');
    return line + ": " + value;
}

int64_t number(const std::string& text, bool& ok) {
    try {
        size_t used = 0;
        long long value = std::stoll(text, &used);
        ok = used == text.size();
        return value;
    } catch (const std::exception&) {
        ok = false;
        return 0;
    }
}
} // namespace

std::string StatusText::describeHost(const HostInfo& host) {
    std::string text;
    auto add = [&text](const std::string& part) { text += (text.empty() ? "" : ", ") + part; };
    if (!host.getName().empty())
        add(host.getName());
    if (!host.getIp().empty())
        add("address " + host.getIp());
    if (host.hasRequestServerPort())
        add("request server port " + std::to_string(host.getRequestServerPort()));
    if (host.hasPublisherPort())
        add("publisher port " + std::to_string(host.getPublisherPort()));
    return text.empty() ? "-" : text;
}

std::string StatusText::bytes(int64_t count) {
    if (count < 0)
        return "unknown";
    static const char* const units[] = {"B", "KB", "MB", "GB", "TB"};
    double value = static_cast<double>(count);
    int unit = 0;
    while (value >= 1024.0 && unit < 4) {
        value /= 1024.0;
        ++unit;
    }
    char text[64];
    if (unit == 0)
        std::snprintf(text, sizeof(text), "%lld B", static_cast<long long>(count));
    else
        std::snprintf(text, sizeof(text), "%.1f %s", value, units[unit]);
    return text;
}

std::string StatusText::localTime(int64_t secondsSinceEpoch) {
    std::time_t seconds = static_cast<std::time_t>(secondsSinceEpoch);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[64];
    std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

std::vector<std::string> StatusText::describe(const Reply& reply) {
    std::vector<std::string> lines;
    lines.push_back(field("status", reply.getElement("status")));
    lines.push_back(field("version", reply.getElement("version")));
    std::string executable = reply.getElement("executableName");
    lines.push_back(field("executable", executable.empty() ? "-" : executable));

    std::string job = "none";
    GenericJobId jobId(reply.getDomElement("jobId"));
    if (jobId.isValid())
        job = jobId.getName().empty() ? jobId.getUid()
                                      : jobId.getUid() + " (" + jobId.getName() + ")";
    lines.push_back(field("job id", job));

    bool ok = false;
    std::string tmpText = reply.getElement("availableTmpStorage");
    int64_t tmp = number(tmpText, ok);
    lines.push_back(field("free tmp space", !ok       ? tmpText
                                            : tmp < 0 ? "unknown"
                                                      : bytes(tmp) + " (" + tmpText + " bytes)"));
    lines.push_back(
        field("request host", describeHost(HostInfo(reply.getDomElement("requestHost")))));
    lines.push_back(field("reply host", describeHost(HostInfo(reply.getDomElement("replyHost")))));
    std::string stampText = reply.getElement("timeStamp");
    int64_t stamp = number(stampText, ok);
    lines.push_back(
        field("time stamp", ok ? localTime(stamp) + " (" + stampText + ")" : stampText));
    return lines;
}

} // namespace Kestrane
