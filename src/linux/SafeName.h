// Checks of names that come from outside (configuration, other agents) before they become
// part of a path or a kernel request. A device name goes into /proc/sys/net/.../<dev>/ and
// into IFLA_IFNAME; a namespace name goes into /run/netns/<name>. Neither may climb out of
// its directory or name something the kernel would refuse.
#pragma once

#include <string>
#include <string_view>

namespace Konet {

// The kernel's own limit for device names: IFNAMSIZ - 1 bytes.
inline constexpr size_t kMaxDeviceNameLength = 15;

// Why `name` is not a usable device name, or nullptr when it is. A device name is 1..15
// bytes, not "." or "..", without '/', ':', NUL or whitespace (the kernel's rules).
char const* deviceNameProblem(std::string_view name);
// Why `name` is not a usable named-namespace name, or nullptr when it is: 1..150 bytes,
// not "." or "..", without '/', NUL, whitespace or control characters. The default
// namespace names ("" and "default") are not names of files and fail here.
char const* namespaceNameProblem(std::string_view name);
// Why `name` is not a usable file name inside a /proc/sys/net directory ("forwarding").
char const* settingNameProblem(std::string_view name);

// 0, or EINVAL after logging the refused name and the reason.
int checkDeviceName(std::string_view name);
int checkNamespaceName(std::string_view name);
int checkSettingName(std::string_view name);

// `name` with bytes outside printable ASCII written as \xNN, for log lines.
std::string escapedName(std::string_view name);

}  // namespace Konet
