// The address family of a generic address or prefix.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string_view>

namespace Konet {

enum class AddressFamily : uint8_t { unknown = 0, ipv4 = 1, ipv6 = 2 };

// "unknown", "ipv4", "ipv6".
std::string_view toString(AddressFamily af);
std::optional<AddressFamily> parseAddressFamily(std::string_view text);
std::ostream& operator<<(std::ostream& os, AddressFamily af);

}  // namespace Konet
