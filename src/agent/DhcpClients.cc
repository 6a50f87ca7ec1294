#include "agent/DhcpClients.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <vector>

#include "linux/NetNs.h"
#include "mox/Trace.h"

namespace VeldAgent {

namespace {
Mox::TraceHandle th("VeldAgentDhcp");

constexpr double kFirstBackoff = 0.5;
constexpr double kMaxBackoff = 30.0;
constexpr double kDeviceWait = 1.0;  // a device not in its namespace yet is looked for again

constexpr char kHook[] =
    "#!/bin/sh\n"
    "# veld's DHCP client hook: hands each event to the agent and configures nothing.\n"
    "printf '%s %s %s %s\\n' \"$1\" \"${ip:-}\" \"${mask:-$subnet}\" \"${lease:-}\" \\\n"
    "   >> \"$VELD_DHCP_EVENTS\"\n";

int64_t now() { return static_cast<int64_t>(::time(nullptr)); }

// A file name for an interface: '~' and '/' escaped as in a JSON pointer.
std::string escaped(std::string const& name) {
   std::string out;
   for (char ch : name) {
      if (ch == '~') {
         out += "~0";
      } else if (ch == '/') {
         out += "~1";
      } else {
         out += ch;
      }
   }
   return out;
}

// "24" or "255.255.255.0".
std::optional<uint8_t> prefixLength(std::string const& mask) {
   if (mask.empty()) return std::nullopt;
   if (mask.find('.') == std::string::npos) {
      char* end = nullptr;
      long n = std::strtol(mask.c_str(), &end, 10);
      if (*end || n < 0 || n > 32) return std::nullopt;
      return static_cast<uint8_t>(n);
   }
   auto a = Konet::IpAddr::parse(mask);
   if (!a) return std::nullopt;
   uint32_t v = a->value();
   uint8_t len = 0;
   while (len < 32 && (v & (0x80000000u >> len)))
      ++len;
   return len;
}
}  // namespace

struct DhcpClients::Client {
   Konet::IntfId intf;
   std::string device;
   Konet::NamespaceName ns;
   Mox::Ptr<Dhclient::IntfStatus> status;
   pid_t pid = 0;
   Konet::Fd pidfd;
   bool boundSinceStart = false;
   off_t eventsRead = 0;
   double backoff = kFirstBackoff;
   int64_t expiry = 0;  // of the lease in use, seconds since the epoch
   Mox::Ptr<DeferredWork> restart;
   Mox::Ptr<DeferredWork> expire;
};

DhcpClients::DhcpClients(EventLoop& loop, Entities& entities, KernelMirrors& mirrors,
                         VrfNamespaces& vrfs, std::string runDir)
    : loop_(loop), e_(entities), mirrors_(mirrors), vrfs_(vrfs), runDir_(std::move(runDir)) {}

// The agent stops: the clients go without releasing, the leases stay recorded.
DhcpClients::~DhcpClients() {
   for (auto& [intf, c] : clients_)
      stopProcess(*c, SIGKILL);
   if (inotify_) loop_.remove(inotify_.get());
}

int DhcpClients::start() {
   MOX_TRACE_FN0(th);
   ::mkdir(runDir_.c_str(), 0755);
   if (::mkdir(dir().c_str(), 0700) != 0 && errno != EEXIST) {
      Mox::logFailure("VELD-DHCP", "cannot make " + dir(), errno);
      return errno;
   }
   std::string hook = dir() + "/hook";
   {
      std::ofstream out(hook, std::ios::trunc);
      out << kHook;
      if (!out.flush()) {
         Mox::logFailure("VELD-DHCP", "cannot write " + hook, errno);
         return EIO;
      }
   }
   ::chmod(hook.c_str(), 0700);
   inotify_.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
   if (!inotify_ || ::inotify_add_watch(inotify_.get(), dir().c_str(), IN_MODIFY) < 0) {
      Mox::logFailure("VELD-DHCP", "cannot watch " + dir(), errno);
      return errno;
   }
   return loop_.add(inotify_.get(), EPOLLIN, [this](uint32_t) { handleEvents(); });
}

std::string DhcpClients::fileOf(Konet::IntfId const& intf, char const* suffix) const {
   return dir() + "/" + escaped(intf.name()) + suffix;
}

void DhcpClients::stopUnwanted(Configuration const& config) {
   MOX_TRACE_FN0(th);
   for (auto it = clients_.begin(); it != clients_.end();) {
      Konet::IntfId const intf = (it++)->first;  // a copy: clientDel erases the entry
      auto found = config.interfaces.find(intf);
      if (found == config.interfaces.end()) {
         clientDel(intf, false);  // the interface is gone: nothing to release on
      } else if (!found->second.ipv4.dhcp || !found->second.routed) {
         clientDel(intf, true);
      }
   }
}

void DhcpClients::sync(Configuration const& config) {
   stopUnwanted(config);
   for (auto const& [intf, s] : config.interfaces) {
      if (s.ipv4.dhcp && s.routed) clientIs(intf, s);
   }
}

void DhcpClients::clientIs(Konet::IntfId const& intf, InterfaceSettings const& s) {
   auto ns = vrfs_.ns(s.vrf);
   auto found = clients_.find(intf);
   if (found != clients_.end()) {
      if (found->second->device == s.device && found->second->ns == ns) return;
      clientDel(intf, false);  // moved: the client starts again where the device is
   }
   MOX_TRACE(th, 5, "DHCP client for " << intf << " on " << s.device << " in " << ns);
   auto c = std::make_unique<Client>();
   c->intf = intf;
   c->device = s.device;
   c->ns = ns;
   Client* raw = c.get();
   c->restart = Mox::make<DeferredWork>(e_.scheduler, "DhcpClientStart-" + intf.name(),
                                        [this, raw] { spawn(*raw); });
   c->expire = Mox::make<DeferredWork>(e_.scheduler, "DhcpLeaseExpiry-" + intf.name(),
                                       [this, raw] { leaseDel(*raw, "expired"); });
   c->status = e_.dhclientStatus->intfStatusIs(intf);
   c->status->pendingIs(true);
   // A lease recorded before a restart is used until it expires or the server says no.
   std::ifstream in(fileOf(intf, ".lease"));
   std::string addrText;
   int64_t expiry = 0;
   if (in >> addrText >> expiry) {
      auto addr = Konet::IpAddrWithMask::parse(addrText);
      if (addr && expiry > now()) leaseIs(*c, *addr, expiry);
   }
   clients_.emplace(intf, std::move(c));
   raw->restart->scheduleTaskDelay(0);
}

void DhcpClients::clientDel(Konet::IntfId const& intf, bool release) {
   auto found = clients_.find(intf);
   if (found == clients_.end()) return;
   MOX_TRACE(th, 5, "DHCP client for " << intf << " stops" << (release ? ", releasing" : ""));
   auto c = std::move(found->second);
   clients_.erase(found);
   c->restart->cancelTaskDelay();
   c->expire->cancelTaskDelay();
   stopProcess(*c, release ? SIGTERM : SIGKILL);
   if (release) ::unlink(fileOf(intf, ".lease").c_str());
   e_.dhclientStatus->intfStatusDel(intf);
}

// Waits for the process: after SIGKILL at once, after SIGTERM as long as the client takes to
// release its lease (one packet).
void DhcpClients::stopProcess(Client& c, int signal) {
   if (!c.pid) return;
   if (c.pidfd) loop_.remove(c.pidfd.get());
   ::kill(c.pid, signal);
   ::waitpid(c.pid, nullptr, 0);
   c.pid = 0;
   c.pidfd.reset();
}

void DhcpClients::spawn(Client& c) {
   MOX_TRACE_FN(th, c.intf);
   if (c.pid) return;
   auto* mirror = mirrors_.mirror(c.ns);
   auto dev = mirror ? mirror->status()->interfaceByName(c.device) : KernelNetInfo::Interface();
   if (dev == KernelNetInfo::Interface() || !(dev.flags & KernelNetInfo::kIffUp)) {
      MOX_TRACE(th, 7, c.device << " is not up in " << c.ns << " yet");
      c.restart->scheduleTaskDelay(kDeviceWait);
      return;
   }
   std::string events = fileOf(c.intf, ".events");
   std::string log = fileOf(c.intf, ".log");
   std::string hook = dir() + "/hook";
   Konet::Fd(::open(events.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
   c.eventsRead = 0;
   c.boundSinceStart = false;
   std::vector<std::string> args = {"udhcpc", "-f", "-R", "-i", c.device, "-s", hook,
                                    "-t",     "3",  "-T", "1",  "-A",     "1"};
   auto requested = c.status->addrWithMask();
   if (!c.status->pending() && requested.len()) {
      args.push_back("-r");
      args.push_back(requested.addr().toString());
   }
   std::vector<char*> argv;
   for (auto& a : args)
      argv.push_back(a.data());
   argv.push_back(nullptr);
   std::string eventsEnv = "VELD_DHCP_EVENTS=" + events;
   Konet::NamespaceName const ns = c.ns;

   pid_t pid = ::fork();
   if (pid < 0) {
      Mox::logFailure("VELD-DHCP", "cannot start the DHCP client of " + c.intf.name(), errno);
      c.restart->scheduleTaskDelay(c.backoff);
      return;
   }
   if (pid == 0) {
      sigset_t none;
      sigemptyset(&none);
      ::sigprocmask(SIG_SETMASK, &none, nullptr);
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      bool const own = ns == Konet::NamespaceName::defaultNamespace();
      if (!own && Konet::setnsByName(ns) != 0) ::_exit(126);
      int in = ::open("/dev/null", O_RDONLY);
      int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      ::dup2(in, 0);
      ::dup2(out, 1);
      ::dup2(out, 2);
      ::syscall(SYS_close_range, 3, ~0u, 0);
      ::putenv(eventsEnv.data());
      ::execvp("udhcpc", argv.data());
      ::_exit(127);
   }
   c.pid = pid;
   c.pidfd.reset(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
   auto intf = c.intf;
   loop_.add(c.pidfd.get(), EPOLLIN, [this, intf](uint32_t) { handleExit(intf); });
   MOX_TRACE(th, 5, "DHCP client of " << c.intf << " runs as " << pid);
}

// A client ended on its own: the lease stays as it is until it expires, and the client
// starts again after its back-off.
void DhcpClients::handleExit(Konet::IntfId const& intf) {
   auto found = clients_.find(intf);
   if (found == clients_.end()) return;
   Client& c = *found->second;
   readEvents(c);
   int wstatus = 0;
   loop_.remove(c.pidfd.get());
   ::waitpid(c.pid, &wstatus, 0);
   c.pid = 0;
   c.pidfd.reset();
   std::string how = WIFSIGNALED(wstatus) ? "killed by signal " + std::to_string(WTERMSIG(wstatus))
                                          : "exited with " + std::to_string(WEXITSTATUS(wstatus));
   std::ostringstream delay;
   delay << c.backoff;
   Mox::logMessage(Mox::LogSeverity::warning, "VELD-DHCP",
                   "DHCP client of " + intf.name() + " " + how + "; starting it again in " +
                       delay.str() + " s");
   c.restart->scheduleTaskDelay(c.backoff);
   c.backoff = std::min(c.backoff * 2, kMaxBackoff);
}

void DhcpClients::handleEvents() {
   alignas(inotify_event) char buf[4096];
   ssize_t n;
   while ((n = ::read(inotify_.get(), buf, sizeof buf)) > 0) {
   }
   for (auto& [intf, c] : clients_)
      readEvents(*c);
}

void DhcpClients::readEvents(Client& c) {
   Konet::Fd fd(::open(fileOf(c.intf, ".events").c_str(), O_RDONLY | O_CLOEXEC));
   if (!fd) return;
   struct stat st;
   if (::fstat(fd.get(), &st) != 0 || st.st_size <= c.eventsRead) return;
   std::string text(static_cast<size_t>(st.st_size - c.eventsRead), '\0');
   ssize_t got = ::pread(fd.get(), text.data(), text.size(), c.eventsRead);
   if (got <= 0) return;
   text.resize(static_cast<size_t>(got));
   size_t start = 0;
   for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1) {
      handleEvent(c, text.substr(start, nl - start));
   }
   c.eventsRead += static_cast<off_t>(start);
}

void DhcpClients::handleEvent(Client& c, std::string const& line) {
   MOX_TRACE_FN(th, c.intf << " " << line);
   std::istringstream in(line);
   std::string event, ip, mask, lease;
   in >> event >> ip >> mask >> lease;
   if (event == "bound" || event == "renew") {
      auto a = Konet::IpAddr::parse(ip);
      auto len = prefixLength(mask);
      char* end = nullptr;
      long long seconds = std::strtoll(lease.c_str(), &end, 10);
      if (!a || !len || lease.empty() || *end || seconds <= 0) {
         Mox::logMessage(
             Mox::LogSeverity::warning, "VELD-DHCP",
             "DHCP client of " + c.intf.name() + " reported an unusable lease: " + line);
         return;
      }
      c.boundSinceStart = true;
      c.backoff = kFirstBackoff;
      leaseIs(c, Konet::IpAddrWithMask(*a, *len), now() + seconds);
      return;
   }
   if (event == "nak") return leaseDel(c, "refused by the server");
   if (event == "deconfig" || event == "leasefail") {
      // A client asking for the recorded lease again keeps it meanwhile.
      if (!c.boundSinceStart && !c.status->pending() && c.expiry > now()) return;
      leaseDel(c, event == "deconfig" ? "given up" : "not obtained");
   }
}

void DhcpClients::leaseIs(Client& c, Konet::IpAddrWithMask addr, int64_t expiry) {
   bool const changed = c.status->pending() || c.status->addrWithMask() != addr;
   c.expiry = expiry;
   c.status->addrWithMaskIs(addr);
   c.status->leaseExpiryIs(expiry);
   c.status->pendingIs(false);
   c.expire->scheduleTaskDelay(static_cast<double>(std::max<int64_t>(expiry - now(), 0)));
   std::string path = fileOf(c.intf, ".lease");
   {
      std::ofstream out(path + ".new", std::ios::trunc);
      out << addr.toString() << " " << expiry << "\n";
   }
   std::rename((path + ".new").c_str(), path.c_str());
   if (changed) {
      Mox::logMessage(Mox::LogSeverity::notice, "VELD-DHCP",
                      c.intf.name() + " leased " + addr.toString());
   }
}

void DhcpClients::leaseDel(Client& c, char const* why) {
   if (!c.status->pending()) {
      Mox::logMessage(Mox::LogSeverity::notice, "VELD-DHCP",
                      c.intf.name() + " lost its lease of " + c.status->addrWithMask().toString() +
                          " (" + why + ")");
   }
   c.expiry = 0;
   c.expire->cancelTaskDelay();
   c.status->pendingIs(true);
   c.status->addrWithMaskIs(Konet::IpAddrWithMask());
   c.status->leaseExpiryIs(0);
   ::unlink(fileOf(c.intf, ".lease").c_str());
}

nlohmann::json DhcpClients::show(Konet::IntfId const& intf) const {
   auto found = clients_.find(intf);
   if (found == clients_.end()) return nullptr;
   auto const& c = *found->second;
   nlohmann::json j;
   j["pending"] = c.status->pending();
   j["pid"] = c.pid;
   if (!c.status->pending()) {
      j["address"] = c.status->addrWithMask().toString();
      j["leaseSecondsLeft"] = std::max<int64_t>(c.expiry - now(), 0);
   }
   return j;
}

pid_t DhcpClients::pid(Konet::IntfId const& intf) const {
   auto found = clients_.find(intf);
   return found == clients_.end() ? 0 : found->second->pid;
}

}  // namespace VeldAgent
