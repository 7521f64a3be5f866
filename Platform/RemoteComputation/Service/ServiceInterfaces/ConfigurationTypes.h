#pragma once

namespace Kestrane {

// Who gets to see a configuration value in a settings dialog.
enum class GuiVisibility : int {
    Hidden = 0,  // internal bookkeeping, never shown
    Visible = 1, // shown to every user
    Expert = 2   // shown only in the expert view
};

// Where a configuration item may be stored. The numbers are stable: they are what callers pass.
enum class Persistence : int {
    User = 0,     // kept in the user's configuration file
    System = 1,   // read from the system-wide configuration only; a user file never holds it
    Transient = 2 // lives in memory only
};

// The programs an item applies to, as a bit mask.
enum class ProductType : unsigned int {
    None = 0,
    DesktopApplication = 1,
    ComputeServer = 2,
    DistributedWorker = 4,
    StarterService = 8,
    JobSchedulerClient = 16,
    CommandLineTool = 32,
    All = 63
};

inline constexpr ProductType operator|(ProductType a, ProductType b) {
    return static_cast<ProductType>(static_cast<unsigned int>(a) | static_cast<unsigned int>(b));
}

inline constexpr ProductType operator&(ProductType a, ProductType b) {
    return static_cast<ProductType>(static_cast<unsigned int>(a) & static_cast<unsigned int>(b));
}

// Whether every program of `wanted` is in `mask`.
inline constexpr bool includesProducts(ProductType mask, ProductType wanted) {
    return (mask & wanted) == wanted;
}

} // namespace Kestrane
