#pragma once

namespace Kestrane {

// Kinds of href that KSData::setHref knows by number.
enum class HrefProtocol : int { dha = 0, hdfs = 1, file = 2, arch = 3 };

} // namespace Kestrane
