#pragma once

#include <string>

namespace Kestrane {

// The envelope of a reply; the serial orders the packages of one request.
class ReplyPackageEncoder {
public:
    ReplyPackageEncoder(const std::string& reply, int serial);
    std::string getEncodedReplyPackage() const;

private:
    std::string m_reply;
    int m_serial;
};

} // namespace Kestrane
