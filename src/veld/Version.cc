#include "veld/Version.h"

namespace Veld {
char const* libraryVersion() { return VELD_VERSION; }
}  // namespace Veld
