#include "mox/Tessera.h"

#include <time.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>

namespace Tessera {
namespace Util {
namespace {
std::string& dir() {
   static std::string d = "/var/tmp/tessera-corruption";
   return d;
}
}  // namespace

void corruptionDirIs(std::string d) { dir() = std::move(d); }
std::string const& corruptionDir() { return dir(); }

std::string writeCorruptionFile(std::string const& table, std::string const& message) {
   std::error_code ec;
   std::filesystem::create_directories(dir(), ec);
   std::string safe;
   for (char c : table)
      safe += (c == '/' || c == '\0') ? '_' : c;
   std::string path = dir() + "/" + safe + ".corruption";
   std::ofstream out(path, std::ios::trunc);
   if (!out) return "";
   timespec ts;
   clock_gettime(CLOCK_REALTIME, &ts);
   out << "table: " << table << "\ntime: " << ts.tv_sec << "\nmessage: " << message << "\n";
   return out ? path : "";
}
}  // namespace Util

void TesseraBase::corruptionDetected(std::string const& message) const {
   Util::writeCorruptionFile(name_, message);
   throw Cinder::CorruptionDetectedException(message);
}

}  // namespace Tessera

namespace MoxTessera {

bool Mount::doMount(std::string const& path) {
   path_ = path;
   entity_ = mgr_->entity(path);
   return mounted();
}

void Mount::doUnmount() {
   entity_ = nullptr;
   path_.clear();
}

}  // namespace MoxTessera
