#pragma once

namespace Veld {
// The library's version, "major.minor.patch".
char const* libraryVersion();
}  // namespace Veld
