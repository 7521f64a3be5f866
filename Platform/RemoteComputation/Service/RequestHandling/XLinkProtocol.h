#pragma once

namespace Kestrane {

// Where the data of a link lies, as its href tells.
enum class XLinkProtocol : int {
    dha = 0,   // dha://#ADDRESS: a typed array in this process
    hdfs = 1,  // hdfs://#ADDRESS: a memory block holding a hierarchical data file
    file = 2,  // file:///PATH
    plain = 3, // the href as it stands
    arch = 4   // arch://#ADDRESS: an archiver's byte buffer
};

} // namespace Kestrane
