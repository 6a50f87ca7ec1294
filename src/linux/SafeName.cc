#include "linux/SafeName.h"

#include <cerrno>
#include <cstdio>
#include <string>

#include "konet/NamespaceName.h"
#include "mox/Trace.h"

namespace Konet {
namespace {

bool isSpaceOrControl(char c) {
   auto u = static_cast<unsigned char>(c);
   return u <= 0x20 || u == 0x7f;
}

char const* pathComponentProblem(std::string_view name, size_t maxLength) {
   if (name.empty()) return "empty";
   if (name.size() > maxLength) return "too long";
   if (name == "." || name == "..") return "a directory reference";
   for (char c : name) {
      if (c == '/') return "contains '/'";
      if (c == '\0') return "contains NUL";
      if (isSpaceOrControl(c)) return "contains whitespace or a control character";
   }
   return nullptr;
}

int refuse(char const* what, std::string_view name, char const* problem) {
   Mox::logMessage(Mox::LogSeverity::error, "KONET_UNSAFE_NAME",
                   std::string("Refusing ") + what + " \"" + escapedName(name) + "\": " + problem);
   return EINVAL;
}

}  // namespace

std::string escapedName(std::string_view name) {
   std::string out;
   for (char c : name) {
      auto u = static_cast<unsigned char>(c);
      if (u < 0x20 || u >= 0x7f || c == '"' || c == '\\') {
         char buf[8];
         std::snprintf(buf, sizeof buf, "\\x%02x", u);
         out += buf;
      } else {
         out += c;
      }
   }
   return out;
}

char const* deviceNameProblem(std::string_view name) {
   if (auto* p = pathComponentProblem(name, kMaxDeviceNameLength)) return p;
   if (name.find(':') != std::string_view::npos) return "contains ':'";
   return nullptr;
}

char const* namespaceNameProblem(std::string_view name) {
   if (name == DEFAULT_NS) return "the default namespace has no name file";
   return pathComponentProblem(name, NamespaceName::maxLength);
}

char const* settingNameProblem(std::string_view name) { return pathComponentProblem(name, 64); }

int checkDeviceName(std::string_view name) {
   auto* p = deviceNameProblem(name);
   return p ? refuse("device name", name, p) : 0;
}

int checkNamespaceName(std::string_view name) {
   auto* p = namespaceNameProblem(name);
   return p ? refuse("namespace name", name, p) : 0;
}

int checkSettingName(std::string_view name) {
   auto* p = settingNameProblem(name);
   return p ? refuse("setting name", name, p) : 0;
}

}  // namespace Konet
