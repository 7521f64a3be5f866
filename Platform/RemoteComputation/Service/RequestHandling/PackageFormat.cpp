#include "Platform/RemoteComputation/Service/RequestHandling/PackageFormat.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"

#include <boost/date_time/posix_time/posix_time.hpp>

namespace Kestrane {

const std::string PackageFormat::c_version = "5.0.0";

std::string PackageFormat::timestamp() {
    return boost::posix_time::to_iso_extended_string(
        boost::posix_time::microsec_clock::universal_time());
}

std::string PackageFormat::opening(const std::string& root) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<" + root + " " +
           RequestXmlHelper::getNamespaceDeclarations() + "\n";
}

} // namespace Kestrane
