#pragma once

#include <xercesc/dom/DOMDocument.hpp>

#include <map>
#include <memory>
#include <string>

namespace Kestrane {

class Attachment;

// Binds the attachments that arrived beside a package to the data elements inside it: each
// element's href is rewritten to the local copy, and the claimed entries leave the map.
class AttachmentBinder {
public:
    static void bind(xercesc::DOMDocument* document,
                     std::map<std::string, std::shared_ptr<Attachment>>& attachments);
};

} // namespace Kestrane
