#pragma once

namespace Kestrane {

// libgcrypt must be initialised once before any thread uses it (ids, hashes, keys and MACs all
// come from it). Safe to call from many threads and as often as wanted.
void initialiseGcrypt();

} // namespace Kestrane
