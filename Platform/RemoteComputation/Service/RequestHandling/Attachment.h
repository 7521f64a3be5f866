#pragma once

#include <memory>
#include <string>
#include <vector>

namespace Kestrane {

// Bulk data that travels beside a message, named by the id of its data element.
class Attachment {
public:
    virtual ~Attachment() = default;
    Attachment(const Attachment&) = default;
    Attachment& operator=(const Attachment&) = default;

    const std::string& getId() const { return m_id; }

    // Lists the attachments of a message text, in document order. The text is parsed as the
    // content of a request (isRequest) or reply document and must validate. Every dha link in
    // it is first turned into an hdfs link (level 3, array freed) and the text rewritten to
    // hold that link, so that the data can travel as bytes. File links become FileAttachments
    // (and set hasFiles), hdfs and arch links Hdfs- and ArchAttachments. Only the blocks made here
    // from dha links are owned (freed with their attachment); a link's block stays its maker's.
    // A file link to a missing file throws KsExceptionNested from the source
    // "Attachment"; parse failures throw as the parser does.
    static std::shared_ptr<std::vector<std::shared_ptr<Attachment>>>
    createAttachments(std::string& text, bool& hasFiles, bool isRequest);

protected:
    explicit Attachment(const std::string& id) : m_id(id) {}

private:
    std::string m_id;
};

} // namespace Kestrane
