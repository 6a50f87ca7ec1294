#include "mox/Trace.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

namespace Mox {
namespace {

struct Registry {
   std::vector<TraceHandle*> handles;
   std::map<std::string, int, std::less<>> levels;  // facility -> level set by the host
   int allLevel = -1;                               // level set with "*"
};

Registry& registry() {
   static Registry r;
   return r;
}

int configuredLevel(std::string_view facility) {
   auto& r = registry();
   auto it = r.levels.find(facility);
   return it != r.levels.end() ? it->second : r.allLevel;
}

class StderrSink : public TraceSink {
public:
   void write(TraceRecord const& r) override {
      std::fprintf(stderr, "%s/%d %s:%d %s %s\n", r.facility, r.level, r.file, r.line, r.function,
                   r.text.c_str());
   }
};

StderrSink stderrSink;
TraceSink* currentSink = &stderrSink;

char const* baseName(char const* path) {
   char const* slash = std::strrchr(path, '/');
   return slash ? slash + 1 : path;
}

double steadySeconds() {
   using namespace std::chrono;
   return duration<double>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

TraceHandle::TraceHandle(char const* facility) : facility_(facility) {
   registry().handles.push_back(this);
   level_ = configuredLevel(facility_);
   recompute();
}

TraceHandle::~TraceHandle() {
   auto& hs = registry().handles;
   hs.erase(std::remove(hs.begin(), hs.end(), this), hs.end());
}

void TraceHandle::levelIs(int level) {
   level_ = level;
   recompute();
}

void TraceHandle::recompute() {
   threshold_ = std::max(level_, Ringlog::isOpen() ? Ringlog::level() : -1);
}

void traceLevelIs(std::string_view facility, int level) {
   auto& r = registry();
   if (facility == "*") {
      r.allLevel = level;
      r.levels.clear();
      for (auto* h : r.handles)
         h->levelIs(level);
      return;
   }
   r.levels[std::string(facility)] = level;
   for (auto* h : r.handles) {
      if (facility == h->facility()) h->levelIs(level);
   }
}

bool traceLevelsFromString(std::string_view levels) {
   std::vector<std::pair<std::string, int>> parsed;
   while (!levels.empty()) {
      auto comma = levels.find(',');
      auto item = levels.substr(0, comma);
      levels = comma == std::string_view::npos ? std::string_view{} : levels.substr(comma + 1);
      auto slash = item.find('/');
      if (slash == std::string_view::npos || slash == 0 || slash + 1 == item.size()) return false;
      int level = 0;
      for (char c : item.substr(slash + 1)) {
         if (c < '0' || c > '9' || level > 100) return false;
         level = level * 10 + (c - '0');
      }
      parsed.emplace_back(std::string(item.substr(0, slash)), level);
   }
   for (auto& [facility, level] : parsed)
      traceLevelIs(facility, level);
   return true;
}

TraceSink* traceSinkIs(TraceSink* sink) {
   TraceSink* previous = currentSink == &stderrSink ? nullptr : currentSink;
   currentSink = sink ? sink : &stderrSink;
   return previous;
}

std::vector<std::string> traceFacilities() {
   std::vector<std::string> out;
   for (auto* h : registry().handles)
      out.emplace_back(h->facility());
   std::sort(out.begin(), out.end());
   out.erase(std::unique(out.begin(), out.end()), out.end());
   return out;
}

namespace {
// What a trace is being built in, kept for reuse by this thread, one per nesting level (a
// trace made while another's arguments are evaluated): building a stream for every trace
// costs more than formatting the trace.
struct TraceScratch {
   TraceOut out;
   std::string text;    // of a trace that the sink writes
   std::string record;  // the pieces of one that only the ring buffer keeps
};
// A thread's scratches by nesting level. Plain data, initialised without code and in the
// thread's static block: each access is a load, with no call to find or set it up. Nesting
// deeper than this (never seen) shares the last level.
constexpr size_t kTraceNesting = 16;
struct TraceStack {
   TraceScratch* level[kTraceNesting];
   size_t depth;
};
thread_local TraceStack traceStack __attribute__((tls_model("initial-exec"))) = {};

// Every thread's scratches, made once and kept as long as the program.
TraceScratch* newTraceScratch() {
   static std::mutex mutex;
   static std::vector<std::unique_ptr<TraceScratch>> all;
   std::lock_guard lock(mutex);
   return all.emplace_back(std::make_unique<TraceScratch>()).get();
}
}  // namespace

void TraceOut::start(std::string* text, std::string* record) {
   buf_.text = text;
   buf_.record = record;
   clear();
   flags(std::ios_base::dec | std::ios_base::skipws);
   precision(6);
   width(0);
   fill(' ');
}

std::streamsize TraceOut::Buf::xsputn(char const* s, std::streamsize n) {
   auto size = static_cast<size_t>(n);
   if (record) {
      Ringlog::putText(*record, std::string_view(s, size));
   } else if (text) {
      text->append(s, size);
   }
   return n;
}

TraceOut::Buf::int_type TraceOut::Buf::overflow(int_type c) {
   if (c == traits_type::eof()) return traits_type::not_eof(c);
   char ch = traits_type::to_char_type(c);
   xsputn(&ch, 1);
   return c;
}

TraceOut& TraceOut::operator<<(std::ios_base& (*manip)(std::ios_base&)) {
   static_cast<std::ostream&>(*this) << manip;  // for what goes through the stream itself
   if (buf_.record) Ringlog::putPiece(*buf_.record, Ringlog::Piece::iosManip, &manip, sizeof manip);
   return *this;
}

TraceOut& TraceOut::operator<<(std::ostream& (*manip)(std::ostream&)) {
   if (buf_.record) {
      Ringlog::putPiece(*buf_.record, Ringlog::Piece::streamManip, &manip, sizeof manip);
   } else {
      static_cast<std::ostream&>(*this) << manip;
   }
   return *this;
}

TraceOut& TraceOut::operator<<(void const* p) {
   static_cast<std::ostream&>(*this) << p;
   return *this;
}

TraceHelper::TraceHelper(TraceHandle const& handle, int level, char const* file, int line,
                         char const* function, Ringlog::MsgDesc* desc)
    : handle_(handle), level_(level), file_(file), line_(line), function_(function), desc_(desc) {
   auto& stack = traceStack;
   auto*& slot = stack.level[std::min(stack.depth++, kTraceNesting - 1)];
   if (!slot) slot = newTraceScratch();
   auto& scratch = *slot;
   out_ = &scratch.out;
   if (handle_.traceEnabled(level_)) {
      text_ = &scratch.text;
      text_->clear();
   } else {
      // Only the ring buffer keeps this one: its arguments wait for a dump as they are.
      record_ = &scratch.record;
      record_->clear();
   }
   out_->start(text_, record_);
}

TraceHelper::~TraceHelper() {
   --traceStack.depth;
   bool ring = Ringlog::isOpen() && level_ <= Ringlog::level() && desc_;
   if (record_) {
      if (!ring) return;
      // The message takes its slot now, so that the ring holds traces in the order they
      // end; the slot's buffer keeps its size from earlier messages: nothing is allocated.
      auto& slot = Ringlog::defaultBuf()->startMsg(*desc_);
      Ringlog::putPiece(slot, Ringlog::Piece::field, nullptr, 0);
      Ringlog::putPiece(slot, Ringlog::Piece::staticText, &function_, sizeof function_);
      Ringlog::putPiece(slot, Ringlog::Piece::field, nullptr, 0);
      slot.append(*record_);
      Ringlog::defaultBuf()->endMsg();
      return;
   }
   currentSink->write(
       TraceRecord{handle_.facility(), level_, baseName(file_), line_, function_, *text_});
   if (ring) {
      auto* buf = Ringlog::defaultBuf();
      auto& record = buf->startMsg(*desc_);
      Ringlog::putPiece(record, Ringlog::Piece::field, nullptr, 0);
      Ringlog::putPiece(record, Ringlog::Piece::staticText, &function_, sizeof function_);
      buf->put(*text_);
      buf->endMsg();
   }
}

namespace {
LogSink currentLogSink;
}

LogSink logSinkIs(LogSink sink) {
   auto previous = std::move(currentLogSink);
   currentLogSink = std::move(sink);
   return previous;
}

void logFailure(char const* id, std::string const& what, int err, LogSeverity severity) {
   logMessage(severity, id, what + ": " + std::strerror(err));
}

void logMessage(LogSeverity severity, char const* id, std::string const& text) {
   static char const* const names[] = {"ERROR", "WARNING", "NOTICE", "INFO"};
   if (currentLogSink) {
      currentLogSink(LogRecord{severity, id, text});
      return;
   }
   std::fprintf(stderr, "%%%s-%s: %s\n", id, names[static_cast<int>(severity)], text.c_str());
}

LogHandle::LogHandle(char const* id, LogSeverity severity, double minIntervalSeconds)
    : id_(id), severity_(severity), minInterval_(minIntervalSeconds) {}

bool LogHandle::okToLog() const {
   return minInterval_ <= 0.0 || steadySeconds() - lastLogged_ >= minInterval_;
}

void LogHandle::log(std::string const& text) const {
   if (!okToLog()) return;
   lastLogged_ = steadySeconds();
   logMessage(severity_, id_, text);
}

}  // namespace Mox

namespace Ringlog {
namespace {

std::vector<MsgDesc const*>& descriptors() {
   static std::vector<MsgDesc const*> d;
   return d;
}

RingBuf* defaultRing = nullptr;
int ringLevel = Mox::kTraceFunctionLevel;

void recomputeHandles() {
   for (auto* h : Mox::registry().handles)
      h->recompute();
}

}  // namespace

MsgDesc::MsgDesc(char const* file, int line, char const* format)
    : file_(Mox::baseName(file)), line_(line), format_(format) {
   id_ = static_cast<uint32_t>(descriptors().size());
   descriptors().push_back(this);
}

namespace {

uint64_t steadyNanoseconds() {
   using namespace std::chrono;
   return static_cast<uint64_t>(
       duration_cast<nanoseconds>(steady_clock::now().time_since_epoch()).count());
}

// The time-stamp counter is read in a few nanoseconds, the steady clock in tens: it is
// used where the kernel trusts it as its own clock source (constant rate, synchronised).
bool kernelKeepsTimeByTsc() {
#if defined(__x86_64__)
   std::ifstream in("/sys/devices/system/clocksource/clocksource0/current_clocksource");
   std::string source;
   return in >> source && source == "tsc";
#else
   return false;
#endif
}

}  // namespace

RingBuf::Clock::Clock() : tsc(kernelKeepsTimeByTsc()) {
   seconds0 = Mox::steadySeconds();
   ticks0 = ticks();
}

uint64_t RingBuf::Clock::ticks() const {
#if defined(__x86_64__)
   if (tsc) return __rdtsc();
#endif
   return steadyNanoseconds();
}

double RingBuf::Clock::secondsPerTick() const {
   if (!tsc) return 1e-9;
   double ticksSince = static_cast<double>(ticks() - ticks0);
   return ticksSince > 0 ? (Mox::steadySeconds() - seconds0) / ticksSince : 0.0;
}

RingBuf::RingBuf(size_t capacity) : ring_(std::max<size_t>(capacity, 1)) {}

std::string& RingBuf::startMsg(MsgDesc const& desc) {
   Msg& m = ring_[next_];
   m.desc = &desc;
   m.ticks = clock_.ticks();
   m.args.clear();  // keeps its capacity: a full ring allocates nothing more
   if (++next_ == ring_.size()) next_ = 0;
   count_ = std::min(count_ + 1, ring_.size());
   open_ = &m;
   return m.args;
}

void RingBuf::put(std::string_view arg) {
   if (!open_) return;
   putPiece(open_->args, Piece::field, nullptr, 0);
   putText(open_->args, arg);
}

void RingBuf::put(int64_t arg) {
   if (!open_) return;
   putPiece(open_->args, Piece::field, nullptr, 0);
   ValuePrinter print = &printValue<int64_t>;
   putPiece(open_->args, Piece::value, &print, sizeof print);
   open_->args += static_cast<char>(sizeof arg);
   open_->args.append(reinterpret_cast<char const*>(&arg), sizeof arg);
}

void RingBuf::endMsg() { open_ = nullptr; }

namespace {

// Prints a message's pieces as formatting them at once would have: one stream for the
// message, with the format a trace starts with.
void printPieces(std::string const& pieces, std::string& out) {
   std::ostringstream os;
   os.precision(6);
   bool first = true;
   char const* p = pieces.data();
   char const* end = p + pieces.size();
   auto take = [&](void* to, size_t size) {
      std::memcpy(to, p, size);
      p += size;
   };
   while (p < end) {
      auto tag = static_cast<Piece>(*p++);
      switch (tag) {
         case Piece::field:
            if (!first) os << " | ";
            first = false;
            break;
         case Piece::text: {
            uint32_t size;
            take(&size, sizeof size);
            os.write(p, size);
            p += size;
            break;
         }
         case Piece::staticText: {
            char const* text;
            take(&text, sizeof text);
            os << text;
            break;
         }
         case Piece::value: {
            ValuePrinter print;
            take(&print, sizeof print);
            auto size = static_cast<uint8_t>(*p++);
            print(os, p);
            p += size;
            break;
         }
         case Piece::iosManip: {
            std::ios_base& (*manip)(std::ios_base&);
            take(&manip, sizeof manip);
            os << manip;
            break;
         }
         case Piece::streamManip: {
            std::ostream& (*manip)(std::ostream&);
            take(&manip, sizeof manip);
            os << manip;
            break;
         }
      }
   }
   out += os.view();
}

}  // namespace

std::string RingBuf::dump() const {
   std::string out;
   double const perTick = clock_.secondsPerTick();
   size_t first = (next_ + ring_.size() - count_) % ring_.size();
   for (size_t i = 0; i < count_; ++i) {
      Msg const& m = ring_[(first + i) % ring_.size()];
      char head[64];
      std::snprintf(
          head, sizeof head, "%.6f ",
          clock_.seconds0 +
              static_cast<double>(static_cast<int64_t>(m.ticks - clock_.ticks0)) * perTick);
      out += head;
      out += m.desc->file();
      out += ':';
      out += std::to_string(m.desc->line());
      out += ' ';
      out += m.desc->format();
      out += " | ";
      printPieces(m.args, out);
      out += '\n';
   }
   return out;
}

void RingBuf::clear() {
   next_ = 0;
   count_ = 0;
   open_ = nullptr;
}

void open(size_t capacity) {
   if (defaultRing) return;
   defaultRing = new RingBuf(capacity);
   recomputeHandles();
}

void close() {
   delete defaultRing;
   defaultRing = nullptr;
   recomputeHandles();
}

bool isOpen() { return defaultRing != nullptr; }

RingBuf* defaultBuf() { return defaultRing; }

void levelIs(int level) {
   ringLevel = level;
   recomputeHandles();
}

int level() { return ringLevel; }

BlockTimerMsg::BlockTimerMsg(MsgDesc const& desc, std::string_view label)
    : desc_(desc), label_(label), start_(Mox::steadySeconds()) {}

BlockTimerMsg::~BlockTimerMsg() {
   if (!defaultRing) return;
   defaultRing->startMsg(desc_);
   defaultRing->put(label_ + " took " +
                    std::to_string(static_cast<int64_t>((Mox::steadySeconds() - start_) * 1e6)) +
                    " us");
   defaultRing->endMsg();
}

}  // namespace Ringlog
