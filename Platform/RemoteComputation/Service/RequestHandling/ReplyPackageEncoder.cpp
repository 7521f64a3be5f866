#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackageEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/PackageFormat.h"

namespace Kestrane {

ReplyPackageEncoder::ReplyPackageEncoder(const std::string& reply, int serial)
    : m_reply(reply), m_serial(serial) {}

std::string ReplyPackageEncoder::getEncodedReplyPackage() const {
    return PackageFormat::opening("KS_ReplyPackage") + " version=\"" + PackageFormat::c_version +
           "\"\n serial=\"" + std::to_string(m_serial) + "\"\n timestamp=\"" +
           PackageFormat::timestamp() + "\"\n origin=\"OrvelConnector@127.0.0.1\">\n" + m_reply +
           "</KS_ReplyPackage>\n";
}

} // namespace Kestrane
